"""Many walkers, and dispatchers with their workers, on one spool: each due message is attempted by one
of them."""
import collections
import functools
import os
import random
import time

import world
from scene import Server

MESSAGES, SOME = 2000, 300
ROUTES = "domain-relay *.a.test 127.0.0.2", "domain-relay *.b.test 127.0.0.3"


def walker_cases(scratch, chosen, seed):
    everything = chosen(0) and chosen(1)  # and not every eighth
    there = [Server(address, {"rcpt": {"busy": "450 busy", "": "250 ok"}}) for address in ("127.0.0.2", "127.0.0.3")]
    for number in range(3) if everything else [seed]:
        for args in ((), ("-now",)):
            for kills in (0, 6):
                play = functools.partial(together, scratch, there, args, kills, MESSAGES if everything else SOME, number)
                yield f"round {number} {' '.join(args)} {kills} killed", play
        play = functools.partial(together, scratch, there, (), 0, SOME, number, hands=True)
        yield f"round {number} with hold and release", play


RUN = "run", "--workers", "8"
PLAIN, DISPATCHER = {}, {"binary": world.RETRYQ}
CHOSEN = "deliver", "--recipient", "*"  # whatever their schedule; what a walker has at the time is left, with status 1


def run_cases(scratch, chosen, seed):
    """A dispatcher alone, among walkers, two of them, and one for chosen messages; killed: any
    worker, or a whole dispatcher."""
    everything = chosen(0) and chosen(1)
    there = [Server(address, {"rcpt": {"busy": "450 busy", "": (0.02, "250 ok")}}) for address in ("127.0.0.2", "127.0.0.3")]
    crews = {"alone": [(RUN, DISPATCHER)], "beside walkers": [(RUN, DISPATCHER)] + [((), PLAIN)] * 4, "two": [(RUN, DISPATCHER)] * 2,
             "deliver beside walkers": [(CHOSEN, DISPATCHER)] + [((), PLAIN)] * 4}
    for number in range(3) if everything else [seed]:
        for name, crew in crews.items():
            for victims in ("nobody", "workers", "dispatchers"):
                play = functools.partial(dispatched, scratch, there, crew, victims, MESSAGES if everything else SOME, number)
                yield f"round {number} {name}, killed: {victims}", play


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as file:
        return [int(child) for child in file.read().split()]


def dispatched(scratch, there, crew, victims, count, seed):
    spool = fill(scratch, there, count)
    faults, killed, chance = [], 0, random.Random(seed)
    running = [spool.start(*args, **how) for args, how in crew]
    ended = []
    for _ in range(0 if victims == "nobody" else 6):
        time.sleep(0.05 + 0.1 * chance.random())
        workers = children(running[0].pid)
        for victim in [running[0].pid] if victims == "dispatchers" else chance.sample(workers, min(2, len(workers))):
            os.kill(victim, 9)
            killed += 1
        if victims == "dispatchers":
            ended.append(running.pop(0))
            running.insert(0, spool.start(*crew[0][0], **DISPATCHER))
    runs = [spool.finish(one, 300) for one in running]
    [spool.finish(one, 300) for one in ended]
    chosen = crew[0][0] == CHOSEN
    fine = {0} | ({9} if victims == "workers" else set())
    bad = [run for run in runs if run.status not in (fine | {1} if chosen and run is runs[0] else fine)]
    faults += [f"ended with {run.status}: {run.out}" for run in bad]
    told = sum(" worker-died " in line.text for run in runs for line in run.log)
    if victims == "workers" and told != killed:
        faults.append(f"{killed} killed, {told} told")
    if killed:
        time.sleep(0.3)  # for the workers whose dispatcher is gone
        faults += ["the last run failed"] * (spool.run(*RUN, timeout=300, **DISPATCHER).status != 0)
    for server in there:
        server.settle()
    return faults + check(spool, there, CHOSEN if chosen else (), killed, count)


def hold_and_release(spool, chance):
    """While the walkers work; nobody stays on hold."""
    for _ in range(40):
        leaves = [f"m{chance.randrange(SOME)}" for _ in range(5)]
        spool.run("hold", "-y", *leaves, **DISPATCHER)
        on_hold = [name.partition(".rmd.hold-")[0] for name in os.listdir(spool.spool_dir) if ".rmd.hold-" in name]
        spool.run("release", "-y", *on_hold, **DISPATCHER)


def together(scratch, there, args, kills, count, seed, hands=False):
    spool = fill(scratch, there, count)
    faults, killed, chance = [], 0, random.Random(seed)
    running = [spool.start(*args) for _ in range(8)]
    for _ in range(kills):
        time.sleep(0.1 + 0.2 * chance.random())
        victim = running.pop(0)
        os.kill(victim.pid, 9)
        killed += spool.finish(victim).status == -9
        running.append(spool.start(*args))
    if hands:
        hold_and_release(spool, chance)
    faults += [f"a walker ended with {run.status}" for run in [spool.finish(one, 300) for one in running] if run.status != 0]
    if kills or hands:
        faults += ["the last run failed"] * (spool.run(*args, timeout=300).status != 0)
    for server in there:
        server.settle()
    return faults + check(spool, there, args, killed, count)


def fill(scratch, there, count):
    """Every message has a recipient at each server, every fifth one a busy one besides."""
    spool = world.World(scratch)
    spool.table(*ROUTES)
    for server in there:
        server.sessions.clear()
        server.served = 0
    for n in range(count):
        spool.queue(f"m{n}", [f"<{n}@a.test>", f"<{n}@b.test>"] + [f"<busy{n}@b.test>"] * (n % 5 == 0))
    return spool


def check(spool, there, args, killed, count):
    sessions = [session for server in there for session in server.sessions]
    copies = collections.Counter(rcpt for s in sessions for mail in s.mails if mail.accepted for rcpt in mail.recipients)
    asked = collections.Counter(line[9:].decode() for s in sessions for line in s.commands if line[:9] == b"RCPT TO: ")
    expected = {f"<{n}@{where}.test>" for n in range(count) for where in "ab"}
    busy = {f"<busy{n}@b.test>" for n in range(0, count, 5)}
    second = sum(copies.values()) - len(copies)
    faults = [f"{rcpt} did not get it" for rcpt in expected - set(copies)]
    faults += [f"{second} second copies with {killed} killed"] * (second > 2 * killed)
    # With -now a message is due again at once: for each walker once, or as often as the system lists a
    # name to it while others change the directory.
    most = 1 + killed if not args else 4 * (9 + killed)
    often = {rcpt: asked[rcpt] for rcpt in busy if not 1 <= asked[rcpt] <= most}
    kept = {rcpt for name in os.listdir(spool.spool_dir) if name.endswith(".rmd") and os.path.exists(spool.spool_dir + name[:-4])
            for rcpt, _ in spool.rmd(name[:-4]).recipients}
    return faults + [f"asked about {often}"] * bool(often) + [f"kept {kept ^ busy}"] * (kept != busy)
