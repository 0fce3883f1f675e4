"""The workloads and the order in which they are run."""
import contextlib
import dataclasses
import json
import os
import re
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path
from typing import Callable

from . import peers, space, spool

DEFERRED = "/var/spool/deferred/"
MEGABYTE = 1000 * 1000
SLOW_ROUNDS = 3     # of what takes many seconds a run
RULES = f"""w1,w1e,w1t,w4,w4e,w4t,w7,w9: deferred-directory {DEFERRED}
w1e,w1t,w4e,w4t: smtp-extensions yes
w1t,w4t: smtp-tls may
w5a: deferred-directory /var/spool/w5a/
w5b: deferred-directory /var/spool/w5b/
w6: deferred-directory /var/spool/w6/
w5a,w5b,w12: smtp-min-deferral 300000
w12: deferred-directory /var/spool/fresh/w12/
w12: directory /var/spool/fresh/w12-outgoing/
w7: domain-relay dead.bench.test {space.DEAD}
w1,w1e,w1t,w7,w9,w12: domain-relay * {space.SERVER}
"""


@dataclasses.dataclass
class Subject:
    """One thing that does a workload's work."""
    name: str
    argv: list
    seed: Callable = lambda: None
    copies: int = 1
    peer: object = None     # a peer runs itself
    against: str = ""       # the subject whose figures are this one's 1.0
    units: int = 0          # where its share is not the workload's
    rounds: int = 1000      # at most
    until: bool = False     # measured until the work is done, and ended then


@dataclasses.dataclass
class Workload:
    key: str
    title: str
    units: int              # what the counts are divided by
    subjects: list
    messages: int = 0       # that the sink must have taken afterwards; -1 for one a unit
    delay_us: int = 0
    repeat: int = 1         # runs in each round; their least counts
    rounds: int = 0         # of those who measure no peer; 0 for what is asked for
    counted: str = "messages"   # what of the sink's counts tells that the work is done
    tls: bool = False       # the servers offer STARTTLS
    memory: bool = False    # measure what all processes take, in a run of its own
    left_out: dict = dataclasses.field(default_factory=dict)    # subjects that failed, and how

    def units_of(self, subject):
        return subject.units or self.units

    def expected(self, subject):
        if "rewrite" in subject.argv[0]:
            return 0
        return self.units_of(subject) if self.messages < 0 else self.messages


class Maker:
    """Makes the workloads for one run of the benchmark."""

    def __init__(self, options):
        self.options = options
        self.n = self.scaled(1000)
        self.small = spool.text(4096)

    def scaled(self, count):
        return max(2, int(count * self.options.scale) // 2 * 2)

    def all(self):
        """What takes longest and shows most comes first, should time become short."""
        for part in (self.messages, self.distant, self.sick_day, self.secured, self.idle, self.recipients, self.troubled,
                     self.large, self.million):
            yield from part()

    def floor(self, name, *args):
        return [str(self.options.build / f"bench/floors/floor_{name}"), *map(str, args)]

    def walker(self, service):
        return [str(self.options.retryer), "-as", service]

    def retryer(self, service, body, lists, name="retryer", copies=1, against="floor", units=0):
        return Subject(name, self.walker(service), seeder(body, lists), copies, None, against, units)

    def pair(self, service, body, lists, relay=space.SERVER, rounds=1000):
        pair = [Subject("floor", self.floor("send", DEFERRED, relay), seeder(spool.wire(body), lists)),
                self.retryer(service, body, lists)]
        for subject in pair:
            subject.rounds = rounds
        return pair

    def ceiling(self, messages, at_once, size):
        return Subject("sink ceiling", self.floor("ceiling", space.SERVER, messages, at_once, size))

    def of_peers(self, count, body):
        return [Subject(p.name, p.argv, lambda p=p: p.seed(count, body), 1, p, "floor",
                        rounds=p.rounds if count > 1 else SLOW_ROUNDS) for p in peers.chosen(self.options)]

    def messages(self):
        n, small, lists = self.n, self.small, people(self.n)
        yield Workload("W1", f"{n} due messages of 4 KB, one server", n,
                       [self.ceiling(n, 16, 4096), *self.pair("w1", small, lists),
                        self.retryer("w1", small, lists, "retryer, 2 walkers", 2),
                        self.retryer("w1", small, lists, "retryer, 4 walkers", 4),
                        *self.of_peers(n, small)], n)

    def large(self):
        size = int(100 * MEGABYTE * self.options.scale)
        for key, what, make in (("W2a", "ordinary lines", spool.text),
                                ("W2b", "lines of 60 bytes that begin with a dot", spool.dotted)):
            body = make(size if wanted(self.options, key) else 4096)
            yield Workload(key, f"one message of {size // MEGABYTE} MB, {what}", 1,
                           [self.ceiling(1, 1, size), *self.pair("w1", body, people(1)),
                            *self.of_peers(1, body)], 1, rounds=25)  # a run is 50 ms, and scatters

    def recipients(self):
        for key, count in (("W3a", 1000), ("W3b", 10000), ("W3c", 100000)):
            count = max(2, int(count * self.options.scale))
            yield Workload(key, f"one message, {count} recipients, one server", count,
                           self.pair("w1", self.small, [sum(people(count), [])]), 1)
        for key, count, domains in (("W4a", 1000, 100), ("W4b", 10000, 100), ("W4c", 100000, space.HOSTS)):
            count = max(domains, int(count * self.options.scale))
            lists = [[f"r{i}@d{i % domains}.bench.test" for i in range(count)]]
            yield Workload(key, f"one message, {count} recipients, {domains} domains", count,
                           self.pair("w4", self.small, lists, "-", SLOW_ROUNDS if domains > 100 else 1000), domains)

    def idle(self):
        for key, count in (("W5a", 10000), ("W5b", 100000)):
            count = self.scaled(count)
            where = f"/var/spool/{key.lower()}/"
            if wanted(self.options, key):
                spool.seed(where, self.small, people(count))
            scan = self.floor("scan", where)
            subjects = [Subject("floor", scan, lambda scan=scan: space.run(*scan)),  # from memory, both
                        Subject("retryer", self.walker(key.lower()), lambda scan=scan: space.run(*scan),
                                against="floor")]
            if key == "W5a":
                subjects += self.idle_peers(self.n)
            yield Workload(key, f"{count} messages, none due", count, subjects)
        os.makedirs("/var/spool/w6", exist_ok=True)
        yield Workload("W6", "an empty spool", 1,
                       [Subject("floor", self.floor("empty")),
                        Subject("retryer", self.walker("w6"), against="floor")], repeat=20)

    def million(self):
        """From memory, with nothing of the spool in memory, and with some that are due."""
        count, few, where = self.scaled(1000000), self.scaled(1000), "/var/spool/fresh/w12/"
        if not (self.options.million or "W12" in self.options.only.upper()):
            return
        disc = space.FreshDisc(self.options.work, "/var/spool/fresh", 2 * count)
        for directory in (where, "/var/spool/fresh/w12-outgoing"):
            os.mkdir(directory)
            os.chmod(directory, 0o2770)
        spool.fill(where, spool.text(200), people(count))
        disc.forget()
        scan, retryq = self.floor("scan", where), str(self.options.retryer.parent.parent / "retryq/retryq")

        def subjects(ready, rounds):
            yield Subject("floor", scan, ready, rounds=rounds)
            yield Subject("retryer", self.walker("w12"), ready, against="floor", rounds=rounds)
            for word in ("list", "summary", "check"):   # which may find something to say about this host
                yield Subject(f"retryq {word}", ["/bin/sh", "-c", f"{retryq} -as w12 {word} >/dev/null || :"], ready, rounds=rounds)

        def add_due():
            spool.fill(where, spool.text(200), people(few, "due"), 4 * 86400, "due")
        title = f"{count} small messages"
        yield Workload("W12a", f"{title}, none due", count, list(subjects(lambda: space.run(*scan), SLOW_ROUNDS)))
        run = Subject("retryq run", [retryq, "--as", "w12", "run"], add_due, rounds=SLOW_ROUNDS)
        yield Workload("W12b", f"{title}, and {few} that are due", few, [run], few)
        yield Workload("W12c", f"{title}, none due, cold", count, list(subjects(disc.forget, 1)))

    def idle_peers(self, count):
        return [Subject(p.name, p.idle_argv, lambda p=p: p.seed_idle(count, self.small), 1, p, "floor",
                        count, SLOW_ROUNDS) for p in peers.chosen(self.options) if p.idle_argv]

    def troubled(self):
        n, small = self.n, self.small
        alive = people(n)
        half_dead = [[f"r{i}@{'dead' if i % 2 else 'd0'}.bench.test"] for i in range(n)]
        yield Workload("W7", f"{n} due messages, half of them for a dead host", n, [
            Subject("floor", self.floor("rewrite", DEFERRED, n // 2), seeder(small, alive), units=n // 2),
            self.retryer("w7", small, alive[:n // 2], "retryer, living half", 1, "", n // 2),
            self.retryer("w7", small, half_dead, against="")], n // 2, repeat=2)  # syncs scatter
        yield Workload("W8", "due messages, each reply after 20 ms", n, list(self.slow_servers()), -1, 20000)
        yield Workload("W9", f"{n} due messages, all refused for good", n,
                       self.pair("w9", small, people(n, "bad")), n)

    def run(self, service, recipients, name="retryq run", rounds=1000):
        retryq = self.options.retryer.parent.parent / "retryq/retryq"
        return Subject(name, [str(retryq), "--as", service, "run"], seeder(self.small, [[r] for r in recipients]),
                       units=len(recipients), rounds=rounds)

    def distant(self):
        """Many servers that take their time, everybody with the defaults. Who serves them one after the
        other gets fewer messages."""
        n = self.scaled(2000)
        some = [f"r{i}@d{i % 20}.bench.test" for i in range(n)]
        for key, delay in (("W10a", 5), ("W10b", 25), ("W10c", 100)):
            subjects = [self.run("w4", some)]
            if key == "W10b":
                subjects.append(self.retryer("w4", self.small, [[r] for r in some], "retryer, 32 walkers", 32, ""))
                subjects[-1].rounds = 1
            for peer in peers.chosen(self.options):
                if peer.name in ("postfix", "dma", "opensmtpd", "exim", "sendmail"):
                    count = self.scaled(100 if delay < 100 else 30) if peer.name in ("exim", "sendmail") else n
                    subjects.append(self.domains_peer(peer, some[:count]))
                    subjects[-1].rounds = 2 if key == "W10b" else 1
            yield Workload(key, f"{n} due messages, 20 servers, each reply after {delay} ms", n, subjects, -1,
                           delay * 1000, memory=key == "W10b")

    def domains_peer(self, peer, recipients):
        peer = peer.towards_domains(recipients)
        return Subject(peer.name, peer.argv, lambda: peer.seed(len(recipients), self.small), 1, peer,
                       units=len(recipients), rounds=peer.rounds)

    def sick_day(self):
        """200 domains, of which some have trouble; the time is that until all mail for the others is
        delivered."""
        each = max(1, self.scaled(4000) // 200)
        kinds = ["dead"] * 20 + ["late"] * 10 + ["cut"] * 10 + ["mute"] * 4
        domains = [f"{kind}{i}" for i, kind in enumerate(kinds) if kind == "dead"]
        domains += [f"{kind}{kinds[:i].count(kind)}" for i, kind in enumerate(kinds) if kind != "dead"]
        domains += [f"d{i}" for i in range(200 - len(domains))]
        mails = [f"r{i}@{domain}.bench.test" for i in range(each) for domain in domains]
        well = [mail for mail in mails if "@d" in mail and "@dead" not in mail]
        subjects = [self.run("w4", mails), self.run("w4", well, "retryq run, healthy mail alone")]
        subjects += [self.domains_peer(p, mails) for p in peers.chosen(self.options) if p.name == "postfix"]
        for subject in subjects:
            subject.units, subject.until = len(well), True
            subject.rounds = 1 if subject.peer else subject.rounds
        yield Workload("W11", f"{len(mails)} due messages, 200 domains, 44 of them sick", len(well), subjects, len(well),
                       25000, counted="healthy")

    def secured(self):
        """Servers that offer TLS, and who takes it; beside that, who asks with EHLO and who with HELO."""
        n, near, far = self.n, people(self.n), [f"r{i}@d{i % 20}.bench.test" for i in range(self.scaled(2000))]
        ways = (("HELO", ""), ("EHLO", "e"), ("TLS", "t"))
        postfixes = [p for p in peers.chosen(self.options) if p.name.startswith("postfix")]
        yield Workload("W1t", f"{n} due messages of 4 KB, one server, with TLS", n,
                       [self.retryer("w1" + service, self.small, near, f"retryer, {word}", against="") for word, service in ways]
                       + [Subject(p.name, p.argv, lambda p=p: p.with_tls().seed(n, self.small), 1, p, rounds=p.rounds)
                          for p in postfixes], n, tls=True)
        yield Workload("W10t", f"{len(far)} due messages, 20 servers with TLS, each reply after 25 ms", len(far),
                       [self.run("w4" + service, far, f"retryq run, {word}") for word, service in ways]
                       + [self.domains_peer(p.with_tls(), far) for p in postfixes if p.name == "postfix"],
                       -1, 25000, memory=True, tls=True)

    def slow_servers(self):
        """As many messages for each number of walkers as take some seconds."""
        for walkers, count in ((1, 50), (2, 100), (8, 400), (32, 1600)):
            count = self.scaled(count)
            yield Subject(f"retryer, walkers: {walkers}, messages: {count}", self.walker("w1"),
                          seeder(self.small, people(count)), walkers, units=count, rounds=SLOW_ROUNDS)


def people(count, prefix="r"):
    """As many lists of one recipient."""
    return [[f"{prefix}{i}@d0.bench.test"] for i in range(count)]


def seeder(body, lists):
    return lambda: spool.seed(DEFERRED, body, lists)


def wanted(options, key):
    chosen = [c for c in options.only.upper().split(",") if c]
    return not chosen or any(re.match(re.escape(c) + r"(?!\d)", key.upper()) for c in chosen)


class TooLong(RuntimeError):
    """A peer is not waited for any longer."""


@contextlib.contextmanager
def within(seconds, text):
    def over(*_):
        raise TooLong(text.format(seconds))
    before = signal.signal(signal.SIGALRM, over)
    signal.alarm(seconds)
    try:
        yield
    finally:
        signal.alarm(0)
        signal.signal(signal.SIGALRM, before)


def run_once(options, subject, workload, sink):
    """Seeds, runs, and checks that the work was done; the figures of the run."""
    with within(3 * options.cap if subject.peer else 3600, "its queue was not filled after {} s"):
        options.disc.prepare(subject.seed)
    with within(options.cap if subject.peer else 3600, "> {} s"):
        return run_seeded(options, subject, workload, sink)


def run_seeded(options, subject, workload, sink):
    sink.reset(workload.delay_us, workload.tls)
    refused, begun = space.connections("AttemptFails"), space.connections("ActiveOpens")
    if subject.peer and subject.peer.daemon:
        figures = subject.peer.run(sink, workload.expected(subject), workload.counted)
    elif subject.until:
        figures = run_until(subject, workload, sink)
    else:
        command = [str(options.build / "bench/floors/bench_measure"), str(subject.copies), *subject.argv]
        enter = peers.Peer.account.enter if subject.peer or workload.memory else None
        before = peers.Peer.account.seconds()
        done = subprocess.run(command, check=True, stdout=subprocess.PIPE, preexec_fn=enter)
        figures = json.loads(done.stdout)
        if subject.peer:  # what it started and did not wait for counts as well
            figures["cpu"] = peers.Peer.account.seconds() - before
    counts = sink.reset()
    figures["sink"] = counts
    figures["refused_connections"] = space.connections("AttemptFails") - refused
    figures["in_vain"] = space.connections("ActiveOpens") - begun - counts["connections"]
    if counts[workload.counted] != workload.expected(subject) or figures["status"] != 0:
        raise RuntimeError(f"status {figures['status']}, {counts['messages']} messages of "
                           f"{workload.expected(subject)}")
    return figures


def run_until(subject, workload, sink):
    """Until the sink has what counts; the program is asked to end then, and told to."""
    account = peers.Peer.account
    before, begin = account.seconds(), time.monotonic()
    process = subprocess.Popen(subject.argv, preexec_fn=account.enter, stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL)
    while sink.peek()[workload.counted] < workload.expected(subject) and process.poll() is None:
        time.sleep(0.002)
    wall = time.monotonic() - begin
    for _ in range(2):
        process.terminate()
        time.sleep(0.2)
    process.wait()
    cpu = account.seconds() - before
    account.clear()
    return {"wall": wall, "cpu": cpu, "rss": 0, "status": 0}


def memory_of(options, subject, workload, sink):
    """The most that all its processes took together, in KB, looked at twenty times a second."""
    account, sizes, over = peers.Peer.account, [0], threading.Event()

    def look():
        while not over.wait(0.05):
            sizes.append(account.memory())
    watcher = threading.Thread(target=look)
    watcher.start()
    try:
        run_once(options, subject, workload, sink)
    except (OSError, RuntimeError, subprocess.SubprocessError):
        sink.ended()
        account.clear()
    finally:
        over.set()
        watcher.join()
    return max(sizes)


def count_calls(options, subject, workload, sink):
    """System calls by name, from a run under strace; nothing when that takes too long."""
    options.disc.prepare(subject.seed)
    sink.reset(workload.delay_us, workload.tls)
    output = Path("/run/bench-strace")
    try:
        subprocess.run(["strace", "-f", "-c", "-o", str(output), *subject.argv], check=False, timeout=120,
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                       preexec_fn=peers.Peer.account.enter)
    except subprocess.TimeoutExpired:
        return {}
    calls = {}
    for line in output.read_text().splitlines():
        found = re.match(r"\s*[\d.]+\s+[\d.]+\s+\d+\s+(\d+)\s+(?:\d+\s+)?(\w+)$", line)
        if found and found[2] != "total":
            calls[found[2]] = int(found[1])
    return calls


def measure_all(options, sink):
    rules = Path("/run/config/usr/local/etc/rulbex-table")
    rules.parent.mkdir(parents=True, exist_ok=True)
    rules.write_text(RULES)
    os.environ["TAVORIX"] = "/run/config"
    for workload in Maker(options).all():
        if wanted(options, workload.key):
            yield measure(options, workload, sink)


def attempt(options, subject, workload, sink):
    """One round's figures; None when the subject fails, and it is not tried again then."""
    if subject.name in workload.left_out:
        return None
    begin = time.monotonic()
    try:
        tries = [run_once(options, subject, workload, sink) for _ in range(workload.repeat)]
    except (OSError, RuntimeError, subprocess.SubprocessError) as error:
        text = str(error) + sink.ended()
        print(f"  {subject.name}: {text}", file=sys.stderr, flush=True)
        workload.left_out[subject.name] = text
        peers.Peer.account.clear()
        return None
    print(f"  {subject.name}: {time.monotonic() - begin:.1f} s", file=sys.stderr, flush=True)
    return min(tries, key=lambda figures: figures["wall"])


def may_be_traced(subject, workload):
    if subject.peer:    # the large message takes some of them a call a line
        return not subject.peer.daemon and workload.key == "W1"
    waits = workload.delay_us or workload.units > 10000     # minutes under strace, and nothing new
    return subject.copies == 1 and not waits and subject.name != "sink ceiling"


def measure(options, workload, sink):
    print(f"{workload.key}: {workload.title}", file=sys.stderr, flush=True)
    runs = {s.name: [] for s in workload.subjects}
    for turn in range(workload.rounds if workload.rounds and options.rounds > 1 else options.rounds):
        if turn > 0 and time.monotonic() > options.begin + 60 * options.minutes:
            break
        at = turn % len(workload.subjects)  # every round begins with another subject
        for subject in workload.subjects[at:] + workload.subjects[:at]:
            if turn < subject.rounds and (figures := attempt(options, subject, workload, sink)):
                runs[subject.name].append(figures)
    workload.subjects = [s for s in workload.subjects if s.name not in workload.left_out]
    calls = {}
    for subject in workload.subjects if workload.memory else ():
        runs[subject.name][0]["pss"] = memory_of(options, subject, workload, sink)
    for subject in workload.subjects:
        if may_be_traced(subject, workload) and not options.no_strace:
            calls[subject.name] = count_calls(options, subject, workload, sink)
            peers.Peer.account.clear()
    return workload, runs, calls
