#!/usr/bin/python3
"""retryq run: what it tries, what it leaves, and how it ends."""
import fcntl
import os
import re
import signal
import time

import harness
import world
from harness import RELAYS, SystemTest, cases

HERE_NOBODY = "127.0.0.77"


class Run(SystemTest):
    def setUp(self):
        super().setUp()
        self.world.table(*RELAYS)

    def start(self, *args):
        return self.world.start("run", *args, binary=world.RETRYQ)

    def test_tries_what_is_due_and_tells_in_the_walkers_name(self):
        self.world.table(*RELAYS, smtp_max_wait=86400)
        server = self.smtp()
        for n in range(5):
            self.world.queue(f"due{n}", f"<u{n}@x{n}.test>")
        self.world.queue("waiting", "<w@x.test>", last=-60)
        self.world.queue("rarely", "<r@x.test>", first=-50000, last=-7200)  # an old one waits longer
        run = self.retryq("run")
        self.assertEqual(sorted(mail.recipients[0][1:3] for mail in server.mails), [f"u{n}" for n in range(5)])
        self.assertEqual(sorted(self.world.spool()), ["rarely", "rarely.rmd", "waiting", "waiting.rmd"])
        self.assertRegex(run.out, "^5 of 5 due messages tried, 0 left for dead destinations, 2 not due; ")
        self.assertIn("recipients: 5 delivered, 0 deferred, 0 returned, 0 dropped\n", run.out)
        self.assertTrue(run.lines(" walk-ended entries=7 attempted=5 held=0 delivered=5 "), run.log)
        self.assertEqual({line.ident for line in run.log}, {"retryer"})
        last = self.world.run("--ignore-signal=CHLD", world.RETRYQ, "run", "--now", binary="/usr/bin/env")
        self.assertEqual((last.status, len(server.mails), self.world.spool()), (0, 7, {}))

    def test_ends_as_the_walker_does_without_a_table(self):
        self.world.table(raw="other: deferred-directory /tmp/\n")
        self.retryq("run", status=255)

    def test_a_dead_destination_costs_one_message_its_time_and_nobody_else_a_delivery(self):
        self.world.table(f"domain-relay dead.test {HERE_NOBODY}", *RELAYS)
        server = self.smtp()
        for n in range(6):
            self.world.queue(f"m{n}", f"<u{n}@dead.test>", first=-9000 + n)
        self.world.queue("both", ["<v@alive.test>", "<v@dead.test>"], first=-8000)  # the last is served first
        before = self.world.spool()
        run = self.retryq("run", "--workers", "4")
        self.assertEqual([mail.recipients for mail in server.mails], [["<v@alive.test>"]])
        self.assertEqual(len(run.lines(" connect-failed ", HERE_NOBODY)), 1)
        self.assertTrue(run.lines(f" destination-left destination=relay {HERE_NOBODY} messages=5"), run.log)
        untouched = [leaf for leaf, data in self.world.spool().items() if leaf.endswith(".rmd") and before[leaf] == data]
        self.assertEqual(untouched, [f"m{n}.rmd" for n in range(1, 6)])

    @cases({"one signal": (1, 0), "two signals": (2, -signal.SIGTERM)})
    def test_ends_in_order_with(self, signals, status):
        server = self.smtp(script={"rcpt": (1.0, "250 ok")})
        for n in range(20):
            self.world.queue(f"m{n}", f"<u{n}@x.test>")
        running = self.start("--workers", "2")
        while len(server.sessions) < 1:
            time.sleep(0.01)
        for _ in range(signals):
            time.sleep(0.2)
            os.kill(running.pid, signal.SIGTERM)
        run = self.world.finish(running)
        self.assertEqual(run.status, status, run.out)
        accepted = len(server.mails)
        self.assertTrue(1 <= accepted <= 2 if signals == 1 else accepted == 0, accepted)
        self.assertEqual(len(self.world.spool()), 2 * (20 - accepted))
        self.retryq("run", "--workers", "20")
        self.assertEqual(len({mail.recipients[0] for mail in server.mails if mail.accepted}), 20)

    @cases({"processes": ("clone", "EAGAIN"), "sockets": ("socketpair", "EMFILE")})
    def test_goes_on_without(self, call, error):
        server = self.smtp()
        self.world.queue("m", "<u@x.test>")
        run = self.retryq("run", strace=["-e", f"trace={call},{call}3", "-e", f"inject={call},{call}3:error={error}"] if call == "clone"
                          else ["-e", f"trace={call}", "-e", f"inject={call}:error={error}"])
        self.assertEqual((len(server.mails), self.world.spool()), (1, {}))
        self.assertEqual(len(run.lines(" fewer-workers wanted=more used=0 because=")), 1)

    def test_takes_as_many_workers_as_there_are_descriptors(self):
        self.smtp()
        self.world.queue("m", "<u@x.test>")
        run = self.world.run("-c", f"ulimit -n 40; exec {world.RETRYQ} run", binary="/bin/sh")
        self.assertEqual((run.status, self.world.spool()), (0, {}), run.out)
        line, = run.lines(" fewer-workers ")
        self.assertTrue(re.search("wanted=200 used=8 because=open files", line), line)

    def test_tells_now_and_then_how_it_comes_along_where_there_is_no_terminal(self):
        self.smtp(script={"rcpt": (2.5, "250 ok")})
        self.world.queue("m", "<u@x.test>")
        self.world.queue("waiting", "<w@x.test>", last=-60)
        lines = self.retryq("run", "--progress", "1").out.splitlines()
        self.assertTrue(2 <= len([line for line in lines if line.startswith("2 of 2 messages seen, 1 in hand, 0 tried (0.0/s), - left; 0 delivered, ")]) <= 4, lines)
        self.assertEqual(len(self.retryq("run", "--now").out.splitlines()), 2)  # once a minute, else

    def test_shows_on_a_terminal_how_it_comes_along_and_wipes_it_in_the_end(self):
        self.smtp(script={"rcpt": (1.1, "250 ok")})
        for n in range(4):
            self.world.queue(f"m{n}", f"<u{n}@x.test>")
        terminals = "mkdir -p /dev/pts; mount -t devpts -o newinstance,ptmxmode=666 none /dev/pts; mount --bind /dev/pts/ptmx /dev/ptmx"
        run = self.world.run("-c", f"{terminals}; exec script -qec 'stty cols 50; {world.RETRYQ} run' /dev/null", binary="/bin/sh")
        shown, end = run.out.rsplit("\x1b[J", 1)
        pictures = re.split("\x1b\\[\\d+A\r\x1b\\[J", shown)
        self.assertGreater(len(pictures), 1, run.out)
        self.assertTrue(all(len(line) < 50 for picture in pictures for line in picture.splitlines()), run.out)
        self.assertRegex(shown, r"4 of 4 messages seen, \d in hand,\s+0 tried \(0.0/s\),\s+- left")
        self.assertRegex(shown, r"slow: relay 127\.0\.0\.2, \d in hand,\s+the longest for 1s")
        self.assertTrue(end.startswith("4 of 4 due messages tried, "), end)


class Deliver(SystemTest):
    def setUp(self):
        super().setUp()
        self.world.table(*RELAYS)
        self.server = self.smtp(script={"rcpt": {"busy": "450 busy \x1b[2J", "bad": "550 no", "": "250 ok"}})
        for leaf, rcpts, sender in (("q1", ["<a@x.test>", "<busy@y.test>"], "<s@one.test>"), ("q2", ["<b@y.test>"], "<s@two.test>"),
                                    ("q20", ["<bad@z.test>"], "<>")):
            self.world.queue(leaf, rcpts, sender=sender, last=-5)

    @cases({"name": (["q1"], {"q1"}), "beginning": (["q20"], {"q20"}), "name that begins another": (["q2"], {"q2"}),
            "domain": (["--domain", "Y.test"], {"q1", "q2"}, "y.test"), "recipient": (["--recipient", "b*@*"], {"q1", "q2", "q20"}, "<b"),
            "both in one": (["--recipient", "b*", "--domain", "z.test"], {"q20"}, "z.test"), "sender": (["--sender", "<>"], {"q20"}),
            "both": (["q1", "q2", "--sender", "s@two.test"], {"q2"})})
    def test_tries_by(self, args, leaves, only=""):
        given = {leaf: self.world.rmd(leaf).recipients for leaf in ("q1", "q2", "q20")}
        told = self.objects("deliver", *args)
        wanted = {(leaf, rcpt) for leaf in leaves for rcpt, _ in given[leaf] if only in rcpt}
        self.assertEqual({(one["message"], one["recipient"]) for one in told if one["report"] == "outcome"}, wanted)
        asked = {line[9:].decode() for session in self.server.sessions for line in session.commands if line.startswith(b"RCPT")}
        self.assertEqual(asked, {rcpt for _, rcpt in wanted})

    def test_leaves_the_others_of_a_message_as_they_are(self):
        others = [("<new@y.test>", -1), ("<gone@y.test>", 550), ("<late@y.test>", 1001)]
        self.world.queue("q3", [*others[:2], ("<busy@x.test>", -1), others[2], ("<bad@x.test>", 450), ("<a@x.test>", -1)],
                         sender="<>", first=-9 * 86400, last=-5)
        run = self.retryq("deliver", "q3", "--domain", "x.test")
        self.assertEqual(sorted(self.world.rmd("q3").recipients), sorted([*others, ("<busy@x.test>", 450)]))
        self.assertEqual(run.lines("y.test"), [])  # nor a word about them
        self.assertEqual(len(run.lines(" deferred ")), 1)
        before = self.world.spool()
        self.assertIn("no message fits", self.retryq("deliver", "q3", "--domain", "z.test", status=1).out)
        self.assertEqual(self.world.spool(), before)

    @cases({"nothing": ([], "needs a message"), "no such": (["x"], "x is not in the queue"), "several": (["q"], "q may be q1, q2, q20"),
            "one of them wrong": (["q1", "x"], "x is not in the queue"), "no message": (["--domain", "none.test"], "no message fits")})
    def test_tries_nothing_for(self, args, says):
        before = self.world.spool()
        self.assertIn(says, self.retryq("deliver", *args, status=1).out)
        self.assertEqual((self.world.spool(), self.server.sessions), (before, []))

    def test_shows_outcomes_and_on_request_the_conversation(self):
        run = self.retryq("deliver", "q1", "--trace")
        self.assertIn("q1 delivered <a@x.test> by 127.0.0.2 at dot: 250 ", run.out)
        self.assertIn("q1 deferred <busy@y.test> by 127.0.0.2 at RCPT: 450 busy %1B[2J", run.out)
        for line in ("-> RCPT TO: <busy@y.test>", "<- 450 busy %1B[2J", "-> DATA", "-> .", "** connected to 127.0.0.2"):
            self.assertRegex(run.out, r"(?m)^\d\d:\d\d:\d\d\.\d{3} q1 " + re.escape(line) + "$")

    def test_names_who_holds_a_message_and_leaves_it(self):
        with open(self.world.spool_dir + "q2.rmd", "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.assertIn(f"q2 is being worked on by process {os.getpid()}\n", self.retryq("deliver", "q2", status=1).out)
            row, = self.objects("who")
        self.assertEqual((row["pid"], row["message"], row["recipients"], row["user"]), (os.getpid(), "q2", ["<b@y.test>"], "root"))
        self.assertIn("python", row["program"])
        self.assertEqual((self.server.sessions, self.objects("who")), ([], []))


class Who(SystemTest):
    @cases({"walker": ((), None, "talking"), "worker": (("run", "--workers", "2"), world.RETRYQ, "RCPT")})
    def test_tells_of_a(self, args, binary, stage):
        self.world.table(f"domain-relay dead.test {HERE_NOBODY}", *RELAYS)
        server = self.smtp(script={"rcpt": (3.0, "250 ok")})
        self.world.queue("m", ["<u@x.test>", "<v@x.test>"])
        for n in range(2 if binary else 0):
            self.world.queue(f"dead{n}", f"<u{n}@dead.test>", first=-9000)
        running = self.world.start(*args, binary=binary)
        while not any(line.startswith(b"RCPT") for session in server.sessions for line in session.commands):
            time.sleep(0.01)
        time.sleep(1.2)  # a run tells of itself once a second
        told = self.objects("who")
        dead = [(row.pop("dead_destination"), row["messages"]) for row in told if "dead_destination" in row]
        rows = {row["message"]: row for row in told if "message" in row}
        self.assertEqual(set(rows), {"m"} if binary is None else {"m", None})
        row = rows["m"]
        self.assertEqual((row["server"], row["stage"], sorted(row["recipients"])), ("127.0.0.2", stage, ["<u@x.test>", "<v@x.test>"]))
        self.assertEqual(running.pid, row["pid" if binary is None else "parent"])
        self.assertEqual(dead, [] if binary is None else [(f"relay {HERE_NOBODY}", 1)])
        self.assertEqual(row["in_hand_since"] is None, binary is None)
        self.assertLessEqual(row["since"], row["in_hand_since"] or row["since"])
        nobody = self.world.run("--reuid=65534", "--clear-groups", "--", world.RETRYQ, "who", binary="/usr/bin/setpriv")
        self.world.finish(running)
        self.assertIn("cannot open", nobody.out)


if __name__ == "__main__":
    harness.main()
