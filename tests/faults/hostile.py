"""Plays the tables of hostile servers, DNS answers and spool files: one message a case, all cases of a
table in one spool, worked off by several walkers at once. The tables' languages are explained in their
heads."""
import collections
import functools
import json
import os
import random
import re
import socket
import struct
import threading
import time

import servers
import world
from scene import Server, told_about
from servers import CLOSE, RST, SILENT, A, MX
from tables import outcome, reason, route_agrees, table

BACK = "127.0.0.9"  # where return mail goes
WALKERS = 12
LIMIT = 12  # seconds that a conversation may last
OUTCOME = re.compile(r"\d+ (delivered|deferred|returned|dropped) msg=(\S+) .*?to=(\S+) .*?code=(-?\d+)")


def unescape(text):
    return text.encode("latin-1").decode("unicode_escape").encode("latin-1")


class Play:
    """One spool with a message a case; run() returns what became of each recipient, by leaf."""

    dispatched = False  # by retryq run, with as many workers, and not by walkers

    def __init__(self, scratch, *lines):
        self.world = world.World(scratch)
        limits = {f"smtp_{name}_timeout": 2 for name in ("connect", "mail", "rcpt", "data", "send", "final")}
        self.world.table(f"domain-relay *.from.test {BACK}", *lines, **limits)
        self.returns, self.faults, self.log = Server(BACK), collections.defaultdict(list), []

    def foretell(self):
        """Keeps what retryq check says will become of each message."""
        told = self.world.run("--json", "check", binary=world.RETRYQ).out.splitlines()
        self.fates = {found["message"]: found["fate"] for found in map(json.loads, told) if "fate" in found}

    def run(self, meanwhile=None, walkers=WALKERS, limit=60):
        if self.dispatched:
            limit *= 4  # half of its workers wait for servers that it does not know yet
            running = [self.world.start("run", "--workers", str(walkers), binary=world.RETRYQ)]
        else:
            running = [self.world.start() for _ in range(walkers)]
        if meanwhile:
            meanwhile()
        runs = [self.world.finish(walker, limit) for walker in running]
        self.log = [line.text for run in runs for line in run.log]
        if any(run.status != 0 for run in runs):
            self.faults[""].append(f"walkers ended with {[run.status for run in runs]} {[run.out for run in runs if run.out]}")
        self.faults[""] += [f"not printable: {line!r}" for line in self.log if not (line.isascii() and line.isprintable())]
        self.returns.settle()
        self.faults[""] += ["a return mail names nobody" for mail in self.returns.mails if not told_about(mail.data)]
        self.told = collections.defaultdict(list)
        for rcpt, why in (entry for mail in self.returns.mails for entry in told_about(mail.data)):
            self.told[rcpt].append(why)
        self.ended, self.lines = collections.defaultdict(dict), collections.Counter()
        for word, leaf, rcpt, code in (match.groups() for line in self.log if (match := OUTCOME.match(line))):
            self.lines[leaf] += 1
            if rcpt in self.ended[leaf]:
                self.faults[leaf].append(f"two outcomes for {rcpt}")
            self.ended[leaf][rcpt] = "kept" if word == "deferred" else word, int(code)

    def check(self, leaf, expected):
        """expected: {recipient: (word, code or None)}. The log, the spool and the return mails must
        agree on it."""
        kept = {}
        if os.path.exists(self.world.spool_dir + leaf + ".rmd"):
            kept = dict(self.world.rmd(leaf).recipients)
        for rcpt, (word, code) in expected.items():
            said = self.ended[leaf].get(rcpt)
            if said is None or said[0] != word or code not in (None, said[1]):
                self.faults[leaf].append(f"{rcpt}: {said} instead of {(word, code)}")
            elif kept.get(rcpt) != (said[1] if word == "kept" else None):
                self.faults[leaf].append(f"{rcpt}: the spool has {kept}")
            elif self.told[rcpt] != [reason(said[1])] * (word == "returned"):
                self.faults[leaf].append(f"{rcpt}: told {self.told[rcpt]} in return mails")
        return self.faults.pop(leaf, [])


def by_run(make_cases):
    """The same cases, worked off by retryq run."""
    def make(*args):
        Play.dispatched = True
        return make_cases(*args)
    return make


def cases(play, names, check):
    """One case a row, and one for the walkers themselves."""
    for leaf, name in names.items():
        yield name, functools.partial(check, leaf)
    yield "the walkers", lambda: play.faults.get("", [])


# --- servers --------------------------------------------------------------------------------------
def steps(text):
    """One piece of an action."""
    word, _, rest = text.partition(" ")
    first, _, more = rest.partition(" ")
    known = {
        "close": lambda: (CLOSE,),
        "reset": lambda: (RST,),
        "silent": lambda: (SILENT,),
        "none": lambda: (b"",),
        "wait": lambda: (float(rest),),
        "raw": lambda: (unescape(rest),),
        "oob": lambda: (("oob", rest.encode()),),
        "endless": lambda: (("endless", unescape(rest) * 5000),),
        "times": lambda: (unescape(more),) * int(first),
        "drip": lambda: servers.drip(unescape(more), float(first)),
        "every": lambda: (float(first), unescape(more.partition(" ")[2])) * int(more.partition(" ")[0]),
    }
    return known.get(word, lambda: (text,))()


def script_of(text):
    """"rcpt: 250 ok + wait 1; rcpt/two: 550 no" as a script for SmtpServer."""
    script = {}
    for part in filter(None, (part.strip() for part in text.split(";"))):
        stage, _, action = part.partition(":")
        done = tuple(one for piece in action.split(" + ") for one in steps(piece.strip()))
        stage, _, argument = stage.partition("/")
        if stage == "rcpt":
            script.setdefault("rcpt", {})[argument and f"<{argument}@"] = done
        else:
            script[stage] = done
    return script


def outcomes(text):
    """"kept 450; two returned 550" as {"u": ("kept", 450), "two": ("returned", 550)}."""
    first, _, second = text.partition("; two ")
    return {"u": outcome(first), **({"two": outcome(second)} if second else {})}


def smtp_cases(scratch, chosen, _):
    rows = {f"c{n}": row for n, row in enumerate(table("faults/data/smtp.txt")) if row[3:] != ["slow"] or chosen(n)}
    play = Play(scratch, *(f"domain-relay *.{leaf}.test {address(leaf)}" for leaf in rows))
    there, expected = {}, {}
    for leaf, (_, script, ends, *more) in rows.items():
        ends = next((how[6:] for how in more if Server.offer and how.startswith("ahead ")), ends)
        there[leaf] = Server(address(leaf), script_of(script))
        expected[leaf] = {f"<{who}@{leaf}.test>": end for who, end in outcomes(ends).items()}
        text = b"Subject: x\n\n" + (b"line\n" * 800000 if "body:" in script else b".dot\nline\n")
        play.world.queue(leaf, list(expected[leaf])[::-1], text)
    play.run(limit=250)

    def check(leaf):
        there[leaf].settle()
        faults = play.check(leaf, expected[leaf])
        body = world.wire(b"Subject: x\n\n.dot\nline\n")
        wrong = [mail.data for mail in there[leaf].mails if mail.recipients and mail.data != body and len(mail.data) < 10000]
        longest = max(session.seconds for session in there[leaf].sessions)
        faults += [f"lasted {longest} seconds"] * (longest > LIMIT and "slow" not in rows[leaf])
        faults += [f"not its server: {line}" for line in play.log
                   if f" msg={leaf} " in line and f" relay={address(leaf)} " not in line + " " and "left-out=" not in line]
        return faults + [f"another body arrived: {data!r}" for data in wrong]
    return cases(play, {leaf: row[0] for leaf, row in rows.items()}, check)


def address(leaf):
    n = int(leaf[1:])
    return f"127.1.{n >> 8}.{n & 255 or 254}"


# --- DNS ------------------------------------------------------------------------------------------
HOSTS = {"good": "127.2.0.1", "two": "127.2.0.2", "dead": "127.2.0.66", "dead2": "127.2.0.67", "local": "127.0.0.1"}
QUESTION_END = 12 + len(servers.question(bytes(12) + servers.name("d00.test") + bytes(4)))


def name_of(text):
    return unescape(text[1:]) if text[0] == "=" else servers.name("" if text == "." else text + ".test")


RECORDS = {
    "mx": lambda preference, exchanger: (MX, struct.pack(">H", int(preference)) + name_of(exchanger)),
    "a": lambda address: (A, socket.inet_aton(address)),
    "cname": lambda name: (5, name_of(name)),
    "type": lambda number, length: (int(number), bytes(int(length))),
}


def element(text, owner):
    """One record of an answer, or bytes in place of one."""
    options = dict(re.findall(r" (\w+)=(\S+)", text))
    kind, *words = re.sub(r" \w+=\S+", "", text).split()
    if kind == "raw":
        return unescape(words[0])
    owner = name_of(options.pop("owner")) if "owner" in options else servers.name(owner)
    return servers.record(owner, *RECORDS[kind](*words), **{key: int(number) for key, number in options.items()})


def answer_of(text, owner):
    """An answer as a function of the query: "mx 10 good; count 9; cut 40"."""
    parts = [part.strip() for part in text.split(";") if part.strip()]
    records = [element(part, owner) for part in parts if part.split()[0] in (*RECORDS, "raw")]
    said = dict(part.partition(" ")[::2] for part in parts)

    def answer(query):
        if "silent" in said:
            return None
        data = servers.reply(query, *records, rcode=int(said.get("rcode", 0)), flags=int(said.get("flags", "8180"), 16),
                             count=int(said["count"]) if "count" in said else None)
        if "question" in said:
            data = data[:12] + name_of(said["question"]) + data[QUESTION_END - 4:]
        if "id" in said:
            data = bytes([data[0] ^ 255]) + data[1:]
        data = query if "echo" in said else query[:2] + unescape(said["reply"]) if "reply" in said else data
        return data[:int(said.get("cut", 65535))] + bytes(int(said.get("pad", 0)))
    return answer


OVER_TCP = {"silent": (SILENT,), "reset": (RST,), "drip": (b"\x02", 1.0) * 30}


class Zone(dict):
    """Answers for all cases at once, and for the hosts that they name."""

    def __init__(self, rows):
        super().__init__({(f"{host}.test", A): [servers.a(f"{host}.test", ip)] for host, ip in HOSTS.items()})
        for leaf, (_, text, *_) in rows.items():
            for part in ["own a " + HOSTS["two"], *text.split("//")]:
                word, _, rest = part.strip().partition(" ")
                kind, owner = {"host": A, "own": A, "tcp": "tcp", "htcp": "tcp"}.get(word, MX), leaf + ".test"
                if word in ("host", "htcp"):
                    host, _, rest = rest.partition(" ")
                    owner = host + ".test"
                self[owner, kind] = answer_of(part if kind == MX else rest, owner)
                if kind == "tcp":
                    self[owner, kind] = OVER_TCP.get(rest.strip(), self[owner, kind])

    def get(self, asked, otherwise):
        return super().get((asked[0].lower(), asked[1]), otherwise)

    def over_tcp(self, query):
        answer = super().get((servers.asked(query)[0], "tcp"), ())
        if callable(answer):
            data = answer(query)
            answer = (struct.pack(">H", len(data)) + data,)
        return answer


def dns_cases(scratch, *_):
    rows = {f"d{n:02}": row for n, row in enumerate(table("faults/data/dns.txt"))}
    play, zone = Play(scratch), Zone(rows)
    servers.DnsServer(zone, tcp=zone.over_tcp)
    there = {name: Server(HOSTS[name]) for name in ("good", "two")}
    for leaf in rows:
        play.world.queue(leaf, f"<u@{leaf}.test>")
    play.run()
    told = dict(zip(rows, routes(play.world, [f"u@{leaf}.test" for leaf in rows])))

    def check(leaf):
        _, _, ends, *reached = rows[leaf]
        rcpt = f"<u@{leaf}.test>"
        faults = play.check(leaf, {rcpt: outcome(ends)})
        got = [name for name, server in there.items() for mail in server.mails if rcpt in mail.recipients]
        if not route_agrees(json.loads(told[leaf]), outcome(ends), [HOSTS[name] for name in reached], [HOSTS[name] for name in there]):
            faults.append(f"retryq tells {told[leaf]}")
        return faults + [f"reached {got} instead of {reached}"] * (got != reached)
    return cases(play, {leaf: row[0] for leaf, row in rows.items()}, check)


def routes(spool, rcpts, at_once=16):
    """What retryq tells of the way to each."""
    for at in range(0, len(rcpts), at_once):
        running = [spool.start("--json", "route", rcpt, binary=world.RETRYQ) for rcpt in rcpts[at:at + at_once]]
        yield from [spool.finish(one).out for one in running]


# --- spool files ----------------------------------------------------------------------------------
TEXT = b"Subject: x\n\nhello\n"


def put(path, how, data):
    """Makes, or changes, the file as a step of spool.txt says."""
    word, _, rest = how.partition(" ")
    if word in ("none", "fifo", "dir", "link"):
        if os.path.lexists(path):
            os.unlink(path)
        if word != "none":
            {"fifo": os.mkfifo, "dir": os.mkdir, "link": lambda name: os.symlink(rest, name)}[word](path)
        return None
    changed = edit(word, rest, data)
    with open(path, "wb") as file:
        file.write(changed)
    return changed


def edit(word, rest, data):
    first, _, more = rest.partition(" ")
    return {
        "raw": lambda: unescape(rest),
        "append": lambda: data + unescape(rest),
        "repeat": lambda: data + b"".join(unescape(more).replace(b"{n}", b"%d" % n) for n in range(int(first))),
        "noise": lambda: data + random.Random(7).randbytes(int(first)),
        "cut": lambda: data[:int(first)],
        "lines": lambda: b"".join(data.splitlines(True)[:int(first)]),
        "flip": lambda: data[:int(first)] + bytes([data[int(first)] ^ int(more)]) + data[int(first) + 1:],
        "sub": lambda: data.replace(*(unescape(part.strip()) for part in rest.split("=>"))),
    }[word]()


class SpoolCase:
    def __init__(self, leaf, name, steps, ends):
        self.leaf, self.name, self.ends = leaf, name, outcome(ends)
        self.steps = [step.strip().replace("{me}", leaf).replace("{now}", world.stamp(time.time())) for step in steps.split(";") if step.strip()]
        self.late = [step[6:] for step in self.steps if step.startswith("later ")]
        self.rcpt = f"<ok@{leaf}.{'later' if self.late else 'test'}.test>"

    def queue(self, play):
        self.play, self.path, self.text = play, play.world.spool_dir + self.leaf, TEXT
        play.world.queue(self.leaf, self.rcpt, TEXT)
        self.apply(step for step in self.steps if not step.startswith("later "))
        self.before = self.files()

    def apply(self, steps):
        for step in steps:
            which, _, how = step.partition(" ")
            path = self.path + (".rmd" if which == "list" else "")
            data = None if os.path.islink(path) or not os.path.isfile(path) else open(path, "rb").read()
            changed = put(path, how, data)
            if which == "text" and changed is not None:
                self.text = changed

    def files(self):
        return {name: open(self.path + name, "rb").read() if os.path.isfile(self.path + name) else "there"
                for name in ("", ".rmd", ".rmd~") if os.path.lexists(self.path + name)}

    def kept_word(self, ends, now, given_up):
        """Whether what retryq check said of the message before the run is what the run did with it."""
        fate = self.play.fates.get(self.leaf)
        return {None: not given_up, "": not given_up, "untouched": now == self.before and not ends,
                "removed": not now and not ends, "returned": {word for word, _ in ends.values()} == {"returned"}}[fate]

    def check(self, accepted):
        word, code = self.ends
        ends, now = self.play.ended[self.leaf], self.files()
        listed = max(0, self.before.get(".rmd", b"").count(b"\n") - 4) if isinstance(self.before.get(".rmd"), bytes) else 1
        given_up = any("action=delete" in line and f" msg={self.leaf} " in line for line in self.play.log)
        said = f"{ends}, {sorted(now)}, given up: {given_up}"
        if word == "untouched":
            good = now == self.before and not ends and not given_up
        elif word == "deleted":
            good = not now and given_up and not ends
        elif word == "gone":
            good = not now and not given_up and not ends
        elif word == "sane":
            served = given_up or self.play.lines[self.leaf] >= listed
            good = now == self.before or (served and (not now or ".rmd" in now))
        else:
            good = bool(now) == (word == "kept") and len(ends) == listed and all(
                end == (word, end[1] if code is None else code) for end in ends.values())
            if word == "delivered":
                bodies = {mail.data for mail in accepted if any(f"@{self.leaf}." in rcpt for rcpt in mail.recipients)}
                good = good and (bodies == {world.wire(self.text)} or self.late)
        faults = [] if good else [f"{said} instead of {self.ends}"]
        if not self.late and not self.kept_word(ends, now, given_up):
            faults.append(f"{said}: retryq check foretold {self.play.fates.get(self.leaf, 'the usual')!r}")
        return faults


def spool_rows(chosen):
    """The table's cases, "*" counted out."""
    length = len(world.Rmd(time.time(), time.time(), 1, "<sender@from.test>", [("<ok@s000.test.test>", -1)]).text())
    for name, steps, ends in table("faults/data/spool.txt"):
        for n in filter(chosen, range(length)) if "*" in steps else [0]:
            yield f"{name} {n}" if "*" in steps else name, steps.replace("*", str(n)), ends


def spool_cases(scratch, chosen, _):
    found = [SpoolCase(f"s{n:03}", *row) for n, row in enumerate(spool_rows(chosen))]
    if Play.dispatched:  # which does not hold all of them at once
        found = [case for case in found if not case.late]
    late = [case for case in found if case.late]
    lines = "domain-relay *.later.test 127.3.0.2", "domain-relay * 127.3.0.1"
    Server("127.3.0.2", {"banner": (1.0, "220 ready"), "rcpt": {"busy": "450 busy"}})
    server, plays = Server("127.3.0.1", {"rcpt": {"busy": "450 busy", "bad": "550 no"}}), []
    for some, walkers in ((late, len(late)), ([case for case in found if not case.late], WALKERS)):
        if not some:
            continue
        plays.append(Play(scratch, *lines))
        for case in some:
            case.queue(plays[-1])
        plays[-1].foretell()
        plays[-1].run(lambda some=some: [time.sleep(0.5)] + [case.apply(case.late) for case in some], walkers)
        plays[-1].returns.stop()
    for case in found:
        yield case.name, lambda case=case: case.check(server.mails)
    yield "the walkers", lambda: [fault for play in plays for fault in play.faults.get("", [])]
