#!/usr/bin/python3
"""retryq run: what it tries, what it leaves, and how it ends."""
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
        server = self.smtp()
        for n in range(5):
            self.world.queue(f"due{n}", f"<u{n}@x{n}.test>")
        self.world.queue("waiting", "<w@x.test>", last=-60)
        run = self.retryq("run")
        self.assertEqual(sorted(mail.recipients[0][1:3] for mail in server.mails), [f"u{n}" for n in range(5)])
        self.assertEqual(sorted(self.world.spool()), ["waiting", "waiting.rmd"])
        self.assertRegex(run.out, "^5 of 5 due messages tried, 0 left for dead destinations, 1 not due; ")
        self.assertIn("recipients: 5 delivered, 0 deferred, 0 returned, 0 dropped\n", run.out)
        self.assertTrue(run.lines(" walk-ended entries=6 attempted=5 held=0 delivered=5 "), run.log)
        self.assertEqual({line.ident for line in run.log}, {"retryer"})
        self.retryq("run", "--now")
        self.assertEqual((len(server.mails), self.world.spool()), (6, {}))

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


if __name__ == "__main__":
    harness.main()
