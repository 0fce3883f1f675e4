"""The figures as one table, and beside what was to be reached."""
import json
import re
import statistics

SYNCS = ("fsync", "fdatasync", "sync", "syncfs", "sync_file_range", "msync")
COLUMNS = ("", "wall ms", "x", "cpu ms", "x", "peak KB", "units/s", "calls/unit", "syncs/unit", "sink cpu ms",
           "at once", "at one", "PSS KB", "runs")
SINGLE = ("sendmail", "nullmailer", "msmtp", "postfix, one at a time", "opensmtpd, one at a time",
          "opensmtpd, one long session")
MANY = ("postfix", "dma", "opensmtpd")      # these open many connections at once
EVERYONE = ("exim", *SINGLE, *MANY)


def median(runs, key):
    return statistics.median(r[key] for r in runs)


def rows(result):
    """A row of texts for each subject; the ratios are of what a unit costs."""
    workload, runs, calls = result
    units = {s.name: workload.units_of(s) for s in workload.subjects}
    for subject in workload.subjects:
        mine, count = runs[subject.name], units[subject.name]
        base = runs.get(subject.against)
        counted = calls.get(subject.name)

        def ratio(key):
            return f"{median(mine, key) / count / (median(base, key) / units[subject.against]):.2f}" if base else ""
        yield (subject.name, f"{median(mine, 'wall') * 1e3:.1f}", ratio("wall"),
               f"{median(mine, 'cpu') * 1e3:.1f}", ratio("cpu"),
               f"{max(r['rss'] for r in mine)}", f"{count / median(mine, 'wall'):.0f}",
               f"{sum(counted.values()) / count:.1f}" if counted else "",
               f"{sum(counted.get(s, 0) for s in SYNCS) / count:.2f}" if counted else "",
               f"{statistics.median(r['sink']['cpu'] for r in mine) * 1e3:.1f}",
               str(max(r["sink"]["at_once"] for r in mine)), str(max(r["sink"]["at_server"] for r in mine)),
               str(mine[0].get("pss", "")), str(len(mine)))
    for name, reason in workload.left_out.items():
        yield (f"{name}: left out, {reason}",) + ("",) * (len(COLUMNS) - 1)


def table(head, lines, first_right):
    """Text of columns as wide as they must be; those from `first_right` on are flush right."""
    widths = [max(len(line[i]) for line in [head, *lines]) for i in range(len(head))]

    def text(line):
        cells = [c.rjust(w) if i >= first_right else c.ljust(w) for i, (c, w) in enumerate(zip(line, widths))]
        return "| " + " | ".join(cells) + " |"
    rule = "|" + "|".join("-" * (w + 1) + (":" if i >= first_right else "-") for i, w in enumerate(widths)) + "|"
    return "\n".join([text(head), rule, *map(text, lines)])


def figures_table(results):
    lines = []
    for result in results:
        lines.append((f"**{result[0].key}: {result[0].title}**",) + ("",) * (len(COLUMNS) - 1))
        lines.extend(rows(result))
    return table(COLUMNS, lines, 1)


class Targets:
    """What was to be reached, as far as the run can tell: (target, figure, reached)."""

    def __init__(self, results):
        self.of = {w.key: (w, runs) for w, runs, _ in results}
        self.lines = []
        for part in (self.one_server, self.large, self.many_recipients, self.idle, self.troubled,
                     self.distant, self.sick_day, self.secured, self.memory):
            part()

    def add(self, what, figure, limit, digits=2):
        """`limit` is "<= 1.3" or the like."""
        sign, bound = limit.split()
        good = {"<=": figure <= float(bound), ">=": figure >= float(bound), ">": figure > float(bound),
                "<": figure < float(bound)}[sign]
        self.lines.append((what, f"{figure:.{digits}f}", limit, "reached" if good else "**missed**"))

    def has(self, key, *names):
        """Measured, and not left out after a failure."""
        return key in self.of and all(self.of[key][1].get(n) and any(s.name == n for s in self.of[key][0].subjects)
                                      for n in names)

    def per_unit(self, key, name, what):
        workload, runs = self.of[key]
        return median(runs[name], what) / workload.units_of(next(s for s in workload.subjects if s.name == name))

    def quotient(self, text, above, below, what, limit, digits=2):
        """Of two subjects, each (workload, name); silent when one was not measured."""
        if self.has(*above) and self.has(*below):
            self.add(text, self.per_unit(*above, what) / self.per_unit(*below, what), limit, digits)

    def ahead(self, key, name, factor, what, others):
        """Of others: how many times as much they cost."""
        words = {"wall": "throughput to that of", "cpu": "processor time a unit, less than that of"}[what]
        for other in others:
            self.quotient(f"{key} {name}: {words} {other}, times", (key, other), (key, name), what, f"> {factor}")

    def one_server(self):
        self.quotient("W1 wall time to the floor's", ("W1", "retryer"), ("W1", "floor"), "wall", "<= 1.3")
        self.quotient("W1 processor time to the floor's", ("W1", "retryer"), ("W1", "floor"), "cpu", "<= 2")
        self.ahead("W1", "retryer", 3, "wall", ["exim"])
        self.ahead("W1", "retryer", 1, "wall", SINGLE)
        for walkers in (2, 4):
            for what in ("wall", "cpu"):
                self.ahead("W1", f"retryer, {walkers} walkers", 1, what, MANY)

    def large(self):
        for key in ("W2a", "W2b"):
            self.quotient(f"{key} throughput to the floor's", (key, "floor"), (key, "retryer"), "wall", ">= 0.7")
            self.ahead(key, "retryer", 1, "wall", EVERYONE)

    def many_recipients(self):
        for key, limit in (("W3a", 1.3), ("W3b", 1.3), ("W4a", 1.5), ("W4b", 1.5)):
            self.quotient(f"{key} wall time to the floor's", (key, "retryer"), (key, "floor"), "wall", f"<= {limit}")
        for key in ("W4a", "W4b"):
            if self.has(key, "retryer"):
                counts = self.of[key][1]["retryer"][0]["sink"]
                for kind, word in (("mx", "MX"), ("address", "address")):
                    self.add(f"{key} {word} questions a domain", counts[kind] / 100, "<= 1")
        for small, large in (("W3a", "W3b"), ("W4a", "W4b")):
            self.growth(small, large)
            if self.has(small, "retryer") and self.has(large, "retryer"):
                (few, first), (many, second) = self.of[small], self.of[large]
                more = median(second["retryer"], "rss") - median(first["retryer"], "rss")
                self.add(f"{large} memory a recipient, bytes over {small}",
                         more * 1024 / (many.units - few.units), "<= 200", 0)

    def growth(self, small, large):
        if self.has(small, "retryer") and self.has(large, "retryer"):
            for what, word in (("wall", "wall time"), ("cpu", "processor time")):
                figure = median(self.of[large][1]["retryer"], what) / median(self.of[small][1]["retryer"], what)
                self.add(f"{large} {word} to that of {small}, ten times the size", figure, "<= 12", 1)

    def idle(self):
        for key in ("W5a", "W5b"):
            self.quotient(f"{key} wall time to the floor's", (key, "retryer"), (key, "floor"), "wall", "<= 2")
        self.ahead("W5a", "retryer", 1, "wall", EVERYONE)
        self.growth("W5a", "W5b")
        self.quotient("W12a wall time a message to that of W5a", ("W12a", "retryer"), ("W5a", "retryer"), "wall", "<= 1.2")
        if self.has("W6", "retryer", "floor"):
            more = self.per_unit("W6", "retryer", "wall") - self.per_unit("W6", "floor", "wall")
            self.add("W6 ms over an empty program", more * 1e3, "<= 3")

    def troubled(self):
        if self.has("W7", "retryer", "retryer, living half", "floor"):
            runs = self.of["W7"][1]
            base = median(runs["retryer, living half"], "wall") + median(runs["floor"], "wall")
            self.add("W7 wall time to that of the living half and the synced rewrites",
                     median(runs["retryer"], "wall") / base, "<= 1.2")
            self.add("W7 attempts to connect to the dead host",
                     max(r["refused_connections"] for r in runs["retryer"]), "<= 1", 0)
        if "W8" in self.of:
            one, *_, most = [s.name for s in self.of["W8"][0].subjects]
            self.quotient("W8 throughput of 32 walkers to that of one", ("W8", one), ("W8", most), "wall", ">= 25", 1)
        self.quotient("W9 wall time to the floor's", ("W9", "retryer"), ("W9", "floor"), "wall", "<= 1.5")

    def distant(self):
        for key in ("W10a", "W10b", "W10c"):
            if not self.has(key, "retryq run"):
                continue
            mine, run = self.of[key][1], self.of[key][1]["retryq run"]
            self.add(f"{key} connections to one server, at most", max(r["sink"]["at_server"] for r in run), "<= 20", 0)
            for other in ("postfix", "opensmtpd", "exim", "sendmail"):  # dma opens as many as there are messages
                self.quotient(f"{key} wall time to that of {other}", (key, "retryq run"), (key, other), "wall", "<= 1.1")
            for other in MANY:
                self.quotient(f"{key} processor time to that of {other}", (key, "retryq run"), (key, other), "cpu", "< 1")
            if self.has(key, "postfix") and mine["postfix"][0].get("pss"):
                self.add(f"{key} memory of all processes to postfix's", run[0]["pss"] / mine["postfix"][0]["pss"], "<= 0.25")

    def secured(self):
        one = "postfix, one at a time"
        self.quotient(f"W1t wall time to that of {one}", ("W1t", "retryer, TLS"), ("W1t", one), "wall", "<= 1.1")
        self.quotient("W10t wall time to that of postfix", ("W10t", "retryq run, TLS"), ("W10t", "postfix"), "wall", "<= 1.1")
        self.quotient("W10t processor time to that of postfix", ("W10t", "retryq run, TLS"), ("W10t", "postfix"), "cpu", "< 1")

    def sick_day(self):
        self.quotient("W11 wall time to that of the healthy mail alone", ("W11", "retryq run"),
                      ("W11", "retryq run, healthy mail alone"), "wall", "<= 1.2")
        self.quotient("W11 wall time to that of postfix", ("W11", "retryq run"), ("W11", "postfix"), "wall", "<= 1.1")
        if self.has("W11", "retryq run"):
            self.add("W11 connections to 20 dead servers that were begun",
                     max(r["in_vain"] for r in self.of["W11"][1]["retryq run"]), "<= 20", 0)

    def memory(self):
        peaks = [r["rss"] for key, (_, runs) in self.of.items() if key[:2] not in ("W3", "W4") and key != "W1t"
                 for name, mine in runs.items() if name.startswith("retryer") for r in mine]
        if peaks:
            self.add("peak memory, KB, the most of all but W3, W4 and W1t", max(peaks), "< 10240", 0)
            self.add("the same, most to least", max(peaks) / min(peaks), "<= 1.25")


def write_markdown(path, tables):
    """Into the marked place of a page that has one, else the whole file."""
    page = path.read_text() if path.exists() else ""
    before, begin, rest = page.partition("<!-- figures -->\n")
    _, end, after = rest.partition("<!-- end of figures -->\n")
    path.write_text(f"{before}{begin}\n{tables}\n\n{end}{after}" if end else tables + "\n")


def by_number(result):
    """W2 before W10, and W10b before W10t."""
    number, letter = re.match(r"W(\d+)(.*)", result[0].key).groups()
    return int(number), letter


def show(results, options, note):
    results = sorted(results, key=by_number)
    if options.json:  # first: what was measured is not to be had again
        raw = {w.key: {"title": w.title, "runs": runs, "calls": calls} for w, runs, calls in results}
        options.json.write_text(json.dumps(raw, indent=1))
    tables = "\n\n".join((note, figures_table(results), table(("target", "figure", "limit", ""), Targets(results).lines, 1)))
    print(tables)
    if options.markdown:
        write_markdown(options.markdown, tables)
