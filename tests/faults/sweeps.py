"""The kill, error and power-cut sweeps."""
import functools
import itertools
import re

import world
from scene import RECIPIENTS, STRAYS, Ledger, Scene, sender_of
from tables import table


RUN = ("run", "--workers", "1"), {"binary": world.RETRYQ}  # each in place of a walker


def numbered(trace):
    """Each call of a trace as (name, how manyth of that name in its process, its line), once for all
    processes."""
    counts, calls = {}, {}
    for line in trace.splitlines():
        if match := re.match(r"(\d+ +)?(\w+)\(", line):
            process, name = match.groups()
            counts[process, name] = counts.get((process, name), 0) + 1
            calls.setdefault((name, counts[process, name]), line)
    return [(*call, line) for call, line in calls.items()]


def undisturbed(scratch, args=(), how={}):
    """One run without a fault: its calls and where everybody ends."""
    scene = Scene(scratch).fill()
    run = scene.run(*args, strace=[], **how)
    return numbered(run.trace), Ledger(scene), scene.log


def inject(name, number, what):
    """Options for strace: that call meets `what`, and with a "+" behind it every later one too."""
    return ["-e", f"trace={name}", "-e", f"inject={name}:{what.rstrip('+')}:when={number}{'+' * what.endswith('+')}"]


def kill_cases(scratch):
    calls, ledger, _ = undisturbed(scratch)
    yield "no kill", lambda: ledger.check_accounted().check_copies(()).faults
    for name, number, _ in calls:
        yield f"{name} {number}", functools.partial(killed, scratch, name, number)


def killed(scratch, name, number):
    scene = Scene(scratch).fill()
    scene.run(strace=inject(name, number, "signal=KILL"))
    twice = scene.in_flight()
    faults = Ledger(scene).check_accounted().faults + scene.run_again()
    return faults + Ledger(scene).check_accounted().check_copies(twice).check_finished().faults


FILES = ("openat", "open", "write", "pwrite64", "fsync", "rename", "unlink", "ftruncate", "fchmod", "fchown", "flock", "access")


def run_kill_cases(scratch):
    """Whichever process of the run comes to the call is killed: the dispatcher, or each worker in turn."""
    for name, number, _ in undisturbed(scratch, *RUN)[0]:
        yield f"{name} {number}", functools.partial(killed_in_run, scratch, name, number)


def killed_in_run(scratch, name, number):
    scene = Scene(scratch).fill()
    args, how = RUN
    run = scene.run(*args, strace=inject(name, number, "signal=KILL"), **how)
    killed = run.trace.count("+++ killed by SIGKILL +++")
    faults = Ledger(scene).check_accounted().faults + scene.run_again()
    ledger = Ledger(scene).check_accounted().check_copies(RECIPIENTS).check_finished()
    twice = {RECIPIENTS[rcpt] for counter in (ledger.copies, ledger.told) for rcpt, count in counter.items() if count > 1}
    return faults + ledger.faults + [f"second copies of {sorted(twice)}, {killed} killed"] * (len(twice) > killed)


# What an operator does to a message by hand: the command, and who is left in the queue afterwards.
HANDS = {"hold": (["hold"], "all"), "release": (["release"], "all"), "retry": (["retry"], "all"),
         "remove": (["remove"], ""), "remove held": (["remove"], ""), "remove one": (["remove", "--recipient", "busy@mixed.a.test"], "others"),
         "return": (["return"], ""), "deliver one": (["deliver", "--recipient", "busy@mixed.a.test"], "all"),
         "deliver another": (["deliver", "--recipient", "ok@mixed.a.test"], "served")}


def by_hand(scratch, what, strace=()):
    """The scene, the run, and what is left of the names in the list."""
    scene = Scene(scratch, ["mixed"]).fill()
    if what in ("release", "remove held"):
        scene.run("hold", "-y", "mixed", binary=world.RETRYQ)
    sure = [] if "deliver" in what else ["-y"]
    return scene, scene.run(*HANDS[what][0], *sure, "mixed", strace=strace, binary=world.RETRYQ)


def hand_cases(scratch):
    for what in HANDS:
        for name, number, line in numbered(by_hand(scratch, what)[1].trace):
            if name in FILES + ("sendto", "connect"):
                yield f"{what}: {name} {number}", functools.partial(killed_by_hand, scratch, what, name, number)


def killed_by_hand(scratch, what, name, number):
    """The message is as before or as it should be; nothing of it needs a hand but a release."""
    scene, _ = by_hand(scratch, what, inject(name, number, "signal=KILL"))
    on_hold = [leaf for leaf in scene.world.spool() if ".hold-" in leaf]
    faults = [f"{on_hold} beside a list"] * (bool(on_hold) and "mixed.rmd" in scene.world.spool())
    if what == "remove held" and "mixed.rmd" in scene.world.spool():
        faults.append("let out")
    if on_hold:
        scene.run("release", "-y", "mixed", binary=world.RETRYQ)
    ledger = Ledger(scene)
    whole = {rcpt for rcpt, leaf in RECIPIENTS.items() if leaf == "mixed"}
    served = {"<ok@mixed.a.test>"} if what == "deliver another" else set()
    left = {"all": [whole], "": [whole, set()], "others": [whole, whole - {"<busy@mixed.a.test>"}],
            "served": [whole, whole - served]}[HANDS[what][1]]
    if ledger.kept not in left or (what == "return" and not ledger.kept and set(ledger.told) != whole):
        faults.append(f"left: {sorted(ledger.kept)}, told: {sorted(ledger.told)}")
    faults += scene.run_again()
    late = Ledger(scene).check_copies(whole if what == "return" else served)
    gone = whole - set(late.copies) - set(late.told) - late.kept
    return faults + ledger.faults + late.faults + [f"{gone} lost"] * bool(gone and what[:6] != "remove")


def run_error_cases(scratch):
    return error_cases(scratch, *RUN)


def error_cases(scratch, *args_and_how):
    calls, ledger, log = undisturbed(scratch, *args_and_how)
    rows = [(names.split(), what, codes.split()) for names, what, codes in table("faults/data/errors.txt")]
    usual = ledger.places()
    start = next(at for at, (name, _, _) in enumerate(calls) if name == "flock")
    for at, (name, number, line) in enumerate(calls):
        row = next((row for row in rows if name in row[0] and re.search(row[1], line)), None)
        for code in row[2] if row else ():
            file = name in FILES
            play = functools.partial(failing, scratch, inject(name, number, code if "=" in code else f"error={code}"), at < start, file, usual, log,
                                     *args_and_how)
            yield f"{name} {number} {code}   [{line.strip()}]", play


def failing(scratch, fault, early, file, usual, usual_log, args=(), how={}):
    scene = Scene(scratch).fill()
    before = scene.world.spool()
    run = scene.run(*args, strace=fault, **how)
    ledger = Ledger(scene).check_accounted()
    faults = ledger.faults
    stopped = bool(run.lines(" run-stopped ")) if fault[-1].endswith("+") else 0  # a short shortage is waited out
    untold = bool(args) and fault[1] == "trace=write" and run.status == 1  # retryq's own words met the fault
    if run.status != stopped and not untold and not (early and not scene.mails() and scene.world.spool() == before):
        faults.append(f"the run ended with {run.status}: {run.out}")
    moved = {RECIPIENTS[rcpt] for rcpt, place in ledger.places().items() if place != usual[rcpt]}
    moved |= {RECIPIENTS[rcpt] for rcpt in ledger.copies if rcpt in ledger.kept}
    for leaf in moved:
        if not (untouched(leaf, before, ledger) or explained(leaf, scene.log, usual_log)):
            faults.append(f"the log says nothing about {leaf}: {scene.log}")
    if re.search(r"inject=open.*error=(EMFILE|ENFILE|ENOMEM|EINTR):", fault[-1]) and "given up" in ledger.places().values():
        faults.append("mail was given up for want that passes")
    if re.search(r"inject=p?write(64)?:error=EINTR:", fault[-1]) and set(map(shape, scene.log)) - set(map(shape, usual_log)):
        faults.append(f"an interrupted write is no failure: {scene.log}")
    faults += scene.run_again()
    ledger = Ledger(scene).check_accounted().check_finished()
    if file:  # one failure is made up for; a lasting one costs those of a conversation a second copy, as the log says
        lasting = fault[-1].endswith("+")
        ledger.check_copies({rcpt for rcpt, leaf in RECIPIENTS.items() if lasting and ledger.logged(f" recipients-rewrite-failed msg={leaf} ")})
    return faults + ledger.faults


def shape(line):
    """What stays of a line from run to run."""
    return re.sub(r"^\d+ |rjctfile\w+|waited=\d+", "", line)


def untouched(leaf, before, ledger):
    """Nothing was done, so there is nothing to tell: a later run does it."""
    return all(ledger.spool.get(name) == before[name] for name in (leaf, leaf + ".rmd")) and \
        not any(ledger.copies[rcpt] for rcpt, of in RECIPIENTS.items() if of == leaf)


def explained(leaf, log, usual_log):
    """A line about the message that an undisturbed run does not write, with an error or a result."""
    usual = {shape(line) for line in usual_log}
    told = f"msg={leaf} ", f"to={sender_of(leaf)} "
    return any(shape(line) not in usual and any(word in line for word in told) and re.search(r" (error|code)=", line) for line in log)


# --- power cuts -----------------------------------------------------------------------------------
class Disk:
    """What a traced run did to its spool. Each name and each file's data has a durable value and the
    later ones that no sync has covered: after a cut any of them may be there."""

    def __init__(self, spool):
        self.files = {number: [data] for number, data in enumerate(spool.values())}
        self.names = {name: [number] for number, name in enumerate(spool)}
        self.open, self.at, self.next = {}, {}, len(spool)

    def point(self, name, number):
        self.names.setdefault(name, [None]).append(number)

    def create(self, name):
        self.files[self.next] = [b""]
        self.point(name, self.next)
        self.next += 1
        return self.names[name][-1]

    def write(self, number, at, data):
        values = self.files[number]
        for part in (data[:len(data) // 2], data):
            values.append(values[-1][:at] + part + values[-1][at + len(part):])

    def states(self, names):
        """Every content that a cut may leave under these names; None where there is no file."""
        choices = []
        for name in names:
            data = []
            for number in self.names.get(name, [None]):
                data += [None] if number is None else self.files[number]
            choices.append(list(dict.fromkeys(data)))
        return itertools.product(*choices)


CALL = re.compile(r"\d+ +(\w+)\((.*)\) += (-?\d+)(?: |$)")
FILE_CALLS = ("openat", "write", "pwrite64", "ftruncate", "fsync", "fdatasync", "rename", "unlink", "close", "flock",
              "recvfrom", "?recv", "sendto", "?send")  # without address: on 32 bits


def replay(trace, disk, root):
    """Carries the trace out on the disk. Yields, after each call, the message in hand, the names that
    belong to it so far, and how many mails were accepted and log lines written."""
    leaf, group, accepted, told = None, [], 0, 0
    for line in trace.splitlines():
        match = CALL.match(line)
        if not match or match[3].startswith("-"):
            continue
        name, argument, result = match[1], match[2], int(match[3])
        paths = [path[len(root):] for path in re.findall(r'"((?:[^"\\]|\\.)*)"', argument) if path.startswith(root)]
        fd = int(found[0]) if (found := re.match(r"\d+", argument)) else None
        if name == "openat":
            disk.open[result], disk.at[result] = paths and (paths[0] or "/"), 0
            if paths and paths[0] and "O_CREAT" in argument:
                disk.create(paths[0])
                group.append(paths[0])
        elif name == "flock":
            leaf = disk.open[fd][:-4]
            group = [leaf, leaf + ".rmd", leaf + ".rmd~"]
        elif name in ("recvfrom", "recv"):
            accepted += '"250 taken' in argument
        elif name in ("sendto", "send"):
            told += '"\\x3c' in argument
        elif name in ("rename", "unlink"):
            disk.point(paths[-1], disk.names[paths[0]][-1] if name == "rename" else None)
            disk.point(paths[0], None)
            group += paths
        elif not disk.open.get(fd):
            continue
        elif disk.open[fd] == "/":
            if name.endswith("sync"):
                disk.names = {key: values[-1:] for key, values in disk.names.items()}
        elif name in ("write", "pwrite64"):
            text, at = re.search(r'"((?:\\x..)*)"(?:\.\.\.)?, \d+(?:, (\d+))?', argument).groups()
            data = bytes.fromhex(text.replace("\\x", ""))
            disk.write(disk.names[disk.open[fd]][-1], int(at or disk.at.get(fd, 0)), data)
            if name == "write":
                disk.at[fd] = disk.at.get(fd, 0) + len(data)
        elif name.startswith("ftruncate"):
            values = disk.files[disk.names[disk.open[fd]][-1]]
            values.append(values[-1][:int(argument.split(", ")[1])])
        elif name.endswith("sync"):
            number = disk.names[disk.open[fd]][-1]
            disk.files[number] = disk.files[number][-1:]
        if leaf:
            yield leaf, list(dict.fromkeys(group)), accepted, told


def power_cases(scratch):
    scene = Scene(scratch).fill()
    disk = Disk({name: data for name, data in scene.world.spool().items() if name not in STRAYS})
    run = scene.run(strace=["-e", "trace=" + ",".join(FILE_CALLS), "-s", "100000", "-xx"])
    mails = sorted((s.began, mail) for server in scene.servers for s in server.sessions for mail in s.mails if mail.accepted)
    seen = set()
    trace = re.sub(r'"((?:\\x..)+)"', unhex, run.trace)
    for leaf, group, accepted, told in replay(trace, disk, scene.world.spool_dir):
        for state in disk.states(group):
            files = {name: data for name, data in zip(group, state) if data is not None}
            key = leaf, accepted, tuple(sorted(files.items()))
            if key not in seen:
                seen.add(key)
                done = [mail for _, mail in mails[:accepted]]
                yield f"{leaf} state {len(seen)}", functools.partial(after_cut, scratch, leaf, files, done, scene.log[:told])


def unhex(match):
    """Paths and replies readable, file data as it was traced."""
    data = bytes.fromhex(match[1].replace("\\x", ""))
    return f'"{data.decode().rstrip()}"' if re.fullmatch(rb"[ -!#-\[\]-~]*(\r\n)?", data) and data[:1] in b"/2" else match[0]


def after_cut(scratch, leaf, files, done, log):
    scene = Scene(scratch, [leaf])
    scene.log += log
    for name, data in files.items():
        scene.world.put(name, data)
    faults = Ledger(scene, done).check_accounted().faults + scene.run_again()
    return [f"{fault}   from {files}" for fault in faults + Ledger(scene, done).check_accounted().faults]
