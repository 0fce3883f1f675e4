"""One table of all figures, and what was to be reached."""
import json
import statistics

SYNCS = ("fsync", "fdatasync", "sync", "syncfs", "sync_file_range", "msync")
COLUMNS = ("", "wall ms", "x", "cpu ms", "x", "peak KB", "units/s", "calls/unit", "syncs/unit", "sink cpu ms")


def median(runs, key):
    return statistics.median(r[key] for r in runs)


def rows(result):
    """A row of texts for each subject."""
    workload, runs, calls = result
    for subject in workload.subjects:
        mine = runs[subject.name]
        base = runs.get(subject.against)
        wall, cpu = median(mine, "wall"), median(mine, "cpu")
        counted = calls.get(subject.name)
        mark = " (incomplete)" if any("incomplete" in r for r in mine) else ""
        yield (subject.name + mark, f"{wall * 1e3:.1f}",
               f"{wall / median(base, 'wall'):.2f}" if base else "",
               f"{cpu * 1e3:.1f}", f"{cpu / median(base, 'cpu'):.2f}" if base else "",
               f"{max(r['rss'] for r in mine)}", f"{workload.units / wall:.0f}",
               f"{sum(counted.values()) / workload.units:.1f}" if counted else "",
               f"{sum(counted.get(s, 0) for s in SYNCS) / workload.units:.2f}" if counted else "",
               f"{statistics.median(r['sink']['cpu'] for r in mine) * 1e3:.1f}")


def table(results):
    lines = []
    for result in results:
        lines.append((f"**{result[0].key}: {result[0].title}**",) + ("",) * (len(COLUMNS) - 1))
        lines.extend(rows(result))
    widths = [max(len(line[i]) for line in [COLUMNS, *lines]) for i in range(len(COLUMNS))]

    def text(line):
        cells = [line[0].ljust(widths[0])] + [c.rjust(w) for c, w in zip(line[1:], widths[1:])]
        return "| " + " | ".join(cells) + " |"
    rule = "|" + "|".join("-" * (w + 1) + (":" if i else "-") for i, w in enumerate(widths)) + "|"
    return "\n".join([text(COLUMNS), rule, *map(text, lines)])


def targets(results):
    """(what, figure, limit, reached) for everything that the run can tell."""
    of = {w.key: (w, runs) for w, runs, _ in results}

    def value(key, name, what):
        return median(of[key][1][name], what)

    def has(key, *names):
        return key in of and all(of[key][1].get(n) for n in names)

    def ratio(key, what, limit, name="retryer", against="floor"):
        if has(key, name, against):
            figure = value(key, name, what) / value(key, against, what)
            yield f"{key} {what}: {name} to {against}", f"{figure:.2f}", f"<= {limit}", figure <= limit

    def ahead(key, name, factor, what, others):
        for other in others:
            if has(key, name, other):
                figure = value(key, other, what) / value(key, name, what)
                yield f"{key} {what}: {other} to {name}", f"{figure:.1f}", f"> {factor}", figure > factor

    many = ("postfix", "dma", "opensmtpd")  # these open many connections at once
    single = ("sendmail", "nullmailer", "msmtp", "postfix, one at a time", "opensmtpd, one at a time",
              "opensmtpd, one long session")
    everyone = ("exim", *single, *many)
    yield from ratio("W1", "wall", 1.3)
    yield from ratio("W1", "cpu", 2.0)
    yield from ahead("W1", "retryer", 3, "wall", ["exim"])
    yield from ahead("W1", "retryer", 1, "wall", single)
    for walkers in (2, 4):
        for what in ("wall", "cpu"):
            yield from ahead("W1", f"retryer, {walkers} walkers", 1, what, many)
    for key in ("W2a", "W2b"):
        yield from ratio(key, "wall", 1.43)
        yield from ahead(key, "retryer", 1, "wall", everyone)
    for key, limit in (("W3a", 1.3), ("W3b", 1.3), ("W4a", 1.5), ("W4b", 1.5), ("W5a", 2.0), ("W5b", 2.0)):
        yield from ratio(key, "wall", limit)
    yield from ahead("W5a", "retryer", 1, "wall", everyone)
    for key in ("W4a", "W4b"):
        if key in of:
            counts = of[key][1]["retryer"][0]["sink"]
            yield (f"{key} questions a domain (MX + address)", f"{counts['mx'] / 100:.2f} + {counts['address'] / 100:.2f}",
                   "1 + 1", counts["mx"] <= 100 and counts["address"] <= 100)
    if "W6" in of:
        extra = (value("W6", "retryer", "wall") - value("W6", "floor", "wall")) * 1e3
        yield "W6 ms over an empty program", f"{extra:.2f}", "<= 3", extra <= 3
    if "W7" in of:
        base = value("W7", "retryer, living half", "wall") + value("W7", "floor", "wall")
        figure = value("W7", "retryer", "wall") / base
        attempts = max(r["refused_connections"] for r in of["W7"][1]["retryer"])
        yield "W7 wall: to the living half + synced rewrites", f"{figure:.2f}", "<= 1.2", figure <= 1.2
        yield "W7 attempts to connect to the dead host", str(attempts), "1", attempts == 1
    if "W8" in of:
        figure = value("W8", "retryer, 1 walkers", "wall") / value("W8", "retryer, 32 walkers", "wall")
        yield "W8 throughput of 32 walkers to one", f"{figure:.1f}", ">= 25", figure >= 25
    yield from ratio("W9", "wall", 1.5)
    flat = [k for k in of if k[:2] not in ("W3", "W4") and has(k, "retryer")]
    for key in flat:
        peak = max(r["rss"] for r in of[key][1]["retryer"])
        yield f"{key} peak KB", str(peak), "< 10240", peak < 10240
    for small, large in (("W3a", "W3b"), ("W4a", "W4b"), ("W5a", "W5b")):
        if small in of and large in of:
            for what in ("wall", "cpu"):
                figure = value(large, "retryer", what) / value(small, "retryer", what)
                yield f"{large} to {small}, {what}", f"{figure:.1f}", "<= 12", figure <= 12
            if small != "W5a":
                more = of[large][0].units - of[small][0].units
                figure = (value(large, "retryer", "rss") - value(small, "retryer", "rss")) * 1024 / more
                yield f"{large} bytes a recipient over {small}", f"{figure:.0f}", "<= 200", figure <= 200


def show(results, options):
    print(table(results))
    print()
    for what, figure, limit, reached in targets(results):
        print(f"{'reached' if reached else 'MISSED ':8} {what}: {figure} ({limit})")
    if options.json:
        raw = {w.key: {"title": w.title, "runs": runs, "calls": calls} for w, runs, calls in results}
        options.json.write_text(json.dumps(raw, indent=1))
