#!/usr/bin/python3
"""The cases behind tools/cluster; see there. Mail is counted as the sweeps count it."""
import argparse
import collections
import concurrent.futures
import contextlib
import glob
import os
import subprocess
import sys
import threading
import time

sys.path[1:1] = [os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../tests")]
sys.path[1:1] = [os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../tests/faults")]
import scene
import world
from hosts import NET, OUTSIDE, PATIENCE, SHARED, Volume, prepare
from scene import Ledger, Scene, Server
from servers import DnsServer

NAMES = "host1", "host2", "host3"
SETTLED = 4 * PATIENCE  # nothing was accepted for so long: what still waits is not due


def elsewhere(text):
    """The servers of the sweeps, at addresses that the hosts reach."""
    return text.replace("127.0.0.", NET[:-2] + "1.")


def messages(count):
    """One to five recipients each, on two relays and one exchanger; every tenth message has one who
    is busy, and every twentieth one who is refused and of whom the sender is told."""
    for n in range(count):
        to = [f"ok{n}.{k}@{('a.test', 'b.test', 'mx.test')[(n + k) % 3]}" for k in range(1 + n % 5)]
        if n % 20 in (3, 13, 17):
            to[0] = to[0].replace("ok", "bad" if n % 20 == 17 else "busy")
        yield f"m{n}", ("from.test", to, {})


class Gateways(Scene):
    """A spool on the volume, and the walkers of all hosts on it."""

    def __init__(self, scratch, volume, name, options):
        super().__init__(scratch)
        self.hosts = volume.hosts[:1] if name == "alone" else volume.hosts
        self.walkers, self.stop = options.walkers, False
        folder = os.path.join(scratch if name == "near" else SHARED, name)
        self.world.spool_dir, self.world.outgoing_dir = folder + "/deferred/", folder + "/outgoing/"
        os.makedirs(self.world.spool_dir)
        os.mkdir(self.world.outgoing_dir)
        self.world.table(*map(elsewhere, scene.ROUTES))
        places = {"retryer": self.world.binary, "retryq": world.RETRYQ}
        self.commands = [[places.get(word, word) for word in program.split()] for program in options.programs.split(",")]
        self.slots, self.faults = [], []

    def fill(self):
        def one(leaf):
            sender, rcpts, _ = scene.MESSAGES[leaf]
            self.world.queue(leaf, [f"<{rcpt}>" for rcpt in rcpts], scene.text_of(leaf), scene.sender_of(leaf))
        with concurrent.futures.ThreadPoolExecutor(16) as pool:
            list(pool.map(one, scene.MESSAGES))

    def schedule(self, host):
        """Starts walkers on the host again and again, as its scheduler would."""
        for at in range(self.walkers):
            command = self.commands[at % len(self.commands)]
            self.slots.append(threading.Thread(target=self._again_and_again, args=(host, command), daemon=True))
            self.slots[-1].start()

    def _again_and_again(self, host, command):
        while not self.stop:
            env = {"PATH": os.environ["PATH"], "TAVORIX": self.world.root, "TZ": "UTC"}
            done = subprocess.run(host.inside("env", "--chdir=/", *command), env=env, check=False,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            if done.returncode < 0:
                return  # the host is gone
            time.sleep(1)

    def accepted(self):
        return sum(len(mail.recipients) for mail in self.mails())

    def finish(self, most):
        """Waits until nothing has been accepted for a while, and for the walkers. Returns the time of
        the last acceptance."""
        count, last, end = self.accepted(), time.monotonic(), time.monotonic() + most
        while time.monotonic() < min(last + SETTLED, end):
            time.sleep(0.2)
            if self.accepted() > count:
                count, last = self.accepted(), time.monotonic()
        self.stop = True
        for slot in self.slots:
            slot.join(most)
        self.log += [line.text for line in self.world._syslog.take()]
        return last

    def run_again(self):
        """The last word: whatever waits is tried once more, by one walker."""
        self.run("-t", str(self.hosts[0].first), "-a", self.world.binary, "-now", binary="nsenter", timeout=900)

    def in_hand(self):
        """The messages that each host's walkers have open now."""
        self.middle, self.hands = time.monotonic(), {host.name: set() for host in self.hosts}
        for host in self.hosts:
            for path in glob.glob(f"/proc/{host.first}/root/proc/[0-9]*/fd/*"):
                with contextlib.suppress(OSError):
                    leaf = os.path.basename(os.readlink(path)).partition(".")[0].split(" ")[0]
                    self.hands[host.name] |= {leaf} & scene.MESSAGES.keys()

    def of_host(self, host):
        """The recipients of the messages that it had in hand."""
        return {rcpt for rcpt, leaf in scene.RECIPIENTS.items() if leaf in self.hands[host.name]}

    def twice_told(self):
        """For each message with second copies: who sent them when, from the middle on, and who had it
        in hand then."""
        names = {host.address: host.name for host in self.hosts}
        copies = collections.defaultdict(list)
        for server in self.servers:
            for session in server.sessions:
                for rcpt in [rcpt for mail in session.mails if mail.accepted for rcpt in mail.recipients]:
                    copies[rcpt].append((round(session.began - self.middle, 1), names.get(session.client, session.client)))
        told = collections.defaultdict(set)
        for rcpt, sent in copies.items():
            if rcpt in scene.RECIPIENTS and len(sent) > 1:
                told[scene.RECIPIENTS[rcpt]].add(tuple(sorted(sent)))
        for leaf, ways in told.items():
            by = [name for name, leaves in self.hands.items() if leaf in leaves]
            yield f"{leaf}, in hand of {', '.join(by) or 'nobody'}, was sent " + "; ".join(
                " and ".join(f"by {name} at {seconds:+} s" for seconds, name in way) for way in sorted(ways))


def calm(volume, gateways):
    gateways.in_hand()
    return set(), []


near = alone = calm  # other hosts, or another spool, and nothing happens


def brick(volume, gateways):
    """The copy of one host ends; it is started again later and catches up."""
    gateways.in_hand()
    host = volume.hosts[1]
    host.play("kill", "-9", str(host.brick_process()))
    time.sleep(PATIENCE)
    volume.gluster("volume", "start", "spool", "force")
    return set(), []


def ended(volume, gateways):
    """A host loses its power; the others see its locks go. It comes back when they are done."""
    host = volume.hosts[2]
    host.network(False)
    gateways.in_hand()
    host.end()
    return gateways.of_host(host), [host.start, host.attach]


def cut(volume, gateways):
    """A host loses its network, longer than the others wait for it, and gets it back."""
    host = volume.hosts[2]
    host.network(False)
    gateways.in_hand()
    time.sleep(3 * PATIENCE)
    host.network(True)
    return gateways.of_host(host), []


CASES = {"near": near, "alone": alone, "calm": calm, "brick": brick, "ended": ended, "cut": cut}


def play(scratch, volume, name, options):
    """One case; returns its row of the table and its faults."""
    gateways = Gateways(scratch, volume, name, options)
    gateways.fill()
    began = time.monotonic()
    for host in gateways.hosts:
        gateways.schedule(host)
    total = sum(len(rcpts) for _, rcpts, _ in scene.MESSAGES.values())
    while gateways.accepted() < total / 2:
        time.sleep(0.02)
    middle = time.monotonic()
    twice, later = CASES[name](volume, gateways)
    seconds = gateways.finish(options.most) - began
    for step in later:
        step()
    gateways.run_again()
    healing = volume.heal()
    ledger = Ledger(gateways).check_accounted().check_copies(twice).check_finished()
    faults = ledger.faults + healing + [f"{leaf} differs between the copies" for leaf in volume.differences()]
    lost = sum(place is None for place in ledger.places().values())
    again = sum(count - 1 for count in (ledger.copies + ledger.told).values())
    row = name, len(scene.MESSAGES), total, sum(ledger.copies.values()), lost, again, len(twice), round(middle - began, 1), round(seconds, 1)
    hands = [f"in hand then: {name} {' '.join(sorted(leaves)) or '-'}" for name, leaves in gateways.hands.items()]
    return row, faults, hands + list(gateways.twice_told())


def main():
    scratch = world.enter()
    parser = argparse.ArgumentParser()
    parser.add_argument("--messages", type=int, default=5000)
    parser.add_argument("--walkers", type=int, default=4)
    parser.add_argument("--only", default=",".join(CASES))
    parser.add_argument("--with", dest="programs", default="retryer")
    parser.add_argument("--most", type=int, default=3600, help="seconds for one case")
    options = parser.parse_args()
    scene.cast(dict(messages(options.messages)))
    servers = {elsewhere(address): script for address, script in scene.SERVERS.items()}
    prepare(NAMES, servers)
    Scene.servers = [Server(address, script) for address, script in servers.items()]
    DnsServer({key: [record.replace(b"\x7f\0\0", bytes([10, 9, 1])) for record in records] for key, records in scene.ZONE.items()}, OUTSIDE)
    volume = Volume(scratch, NAMES)
    form = "{:8} {:>8} {:>10} {:>9} {:>5} {:>6} {:>12} {:>9} {:>8}"
    print(form.format("case", "messages", "recipients", "accepted", "lost", "twice", "(in hand)", "half at s", "all at s"), flush=True)
    failed = 0
    for name in options.only.split(","):
        row, faults, more = play(scratch, volume, name, options)
        print(form.format(*row), flush=True)
        for fault in more + faults[:20]:
            print("   ", fault, flush=True)
        failed += len(faults)
        Scene.forget(Scene)
    print(f"{failed} faults")
    return failed > 0


sys.exit(main())
