#!/usr/bin/python3
"""The walk over the spool: what is due, what is skipped, many walkers, crashes, cost."""
import fcntl
import os
import time

import harness
from harness import RELAYS, SENDERS, SystemTest, cases
from servers import A, MX, SILENT, a, mx
from tables import table

SCHEDULE = {name: row for name, *row in table("system/data/schedule.txt")}


class Walk(SystemTest):
    def setUp(self):
        super().setUp()
        self.world.table(*RELAYS)
        self.server, self.returns = self.smtp(), self.smtp(SENDERS)

    @cases(SCHEDULE)
    def test_schedule(self, tries, args, sender, fate):
        first, last = map(int, tries.split())
        self.world.queue("m", "<u@there.test>", sender=sender, first=first, last=last)
        before = self.world.spool()
        run = self.run_ok(*args.split())
        self.assertEqual(self.world.spool(), before if fate == "kept" else {})
        self.assertEqual((len(self.server.mails), len(self.returns.mails)), (fate == "sent", fate == "returned"))
        for word in ("overdue", "returned", "dropped"):
            self.assertEqual(len(run.lines(f" {word} ")), fate == word or (word == "overdue" and fate in ("returned", "dropped")))

    def test_what_is_no_message_is_passed_over(self):
        for leaf in ("orphan", "n" * 190):
            self.world.queue(leaf, "<u@there.test>")
        os.unlink(self.world.spool_dir + "orphan")
        os.mkdir(self.world.spool_dir + "directory")
        before = sorted(os.listdir(self.world.spool_dir))
        self.run_ok(timeout=10)
        self.assertEqual(sorted(os.listdir(self.world.spool_dir)), before)

    def test_a_held_message_is_left_alone(self):
        self.world.queue("held", "<a@there.test>")
        self.world.queue("free", "<b@there.test>")
        self.world.queue("called-so.rmd", "<c@there.test>")  # a text, and no list
        with open(self.world.spool_dir + "held.rmd", "r+") as holder:
            fcntl.flock(holder, fcntl.LOCK_EX)
            self.run_ok()
            self.assertEqual(list(self.world.spool()), ["held", "held.rmd"])
        self.run_ok()
        self.assertEqual(sorted(rcpt for rcpt, _ in self.server.received()), ["<a@there.test>", "<b@there.test>", "<c@there.test>"])

    def test_a_crash_is_told_and_frees_the_message(self):
        self.server.stop()
        self.smtp("127.0.0.4", [{"rcpt": (SILENT,)}, {}])
        self.world.table("domain-relay * 127.0.0.4")
        self.world.queue("m", "<u@there.test>")
        walker = self.world.start()
        time.sleep(0.5)
        os.kill(walker.pid, 11)
        run = self.world.finish(walker)
        self.assertEqual(run.status, 11)
        trace = [line for line in run.log if line.ident == "retryer-stack"]
        self.assertEqual({line.priority for line in trace}, {3 * 8 + 3})
        self.assertEqual(trace[0].text, "[SEGV] ---------- Start of stack trace ---------------")
        self.run_ok()
        self.assertEqual(self.world.spool(), {})


class Cost(SystemTest):
    def setUp(self):
        super().setUp()
        self.world.table(*RELAYS)

    def fill(self, count, text, **how):
        for number in range(count):
            self.world.queue(f"m{number}", f"<{number}@there.test>", text=text, **how)

    def test_memory_does_not_grow_with_the_queue_or_the_message(self):
        self.smtp()
        peaks = []
        for count, text in ((20, b"x" * 60 + b"\n"), (1000, (b"x" * 63 + b"\n") * 64), (2, (b"x" * 63 + b"\n") * 600000)):
            self.fill(count, text)
            run = self.run_ok()
            self.assertEqual(self.world.spool(), {})
            peaks.append(run.peak)
        self.assertLess(max(peaks) - min(peaks), 600, peaks)

    def test_nothing_stalls_before_the_final_dot(self):
        self.smtp()
        seconds = {900: [], 1100: []}  # lines; the second is one full block and a rest that must not wait for it
        for lines in list(seconds) * 3:
            self.fill(100, (b"x" * 63 + b"\n") * lines)
            seconds[lines].append(self.run_ok().seconds)
        self.assertLess(min(seconds[1100]), 2.5 * min(seconds[900]) + 0.05, seconds)

    def calls(self, count, text, script=None, **how):
        server = self.smtp("127.0.0.2", script)
        self.fill(count, text, **how)
        run = self.run_ok(strace=[])
        server.stop()
        return run.calls()

    def test_delivered_mail_costs_no_sync_and_no_call_a_line(self):
        few = self.calls(100, b"x" * 4096 + b"\n")
        many = self.calls(100, b"x\n" * 2048)
        # Greeting aside, HELO, MAIL, RCPT, DATA, the whole text with its dot, QUIT; and one log line,
        # and one for the run.
        sent = [calls["sendto"] + calls["send"] for calls in (few, many)]  # the second on 32 bits
        self.assertEqual(sent, [701, 701])
        self.assertEqual(few["fsync"] + few["fdatasync"] + many["fsync"], 0)
        self.assertLessEqual(sum(many.values()) - sum(few.values()), 300, (few, many))

    def test_waiting_mail_costs_its_lock_its_list_and_a_look_at_its_text(self):
        few, many = (sum(self.calls(count, b"x\n", last=-60).values()) for count in (100, 200))
        self.assertLessEqual(many - few, 100 * 7 + 10)

    def test_kept_mail_costs_one_sync_a_message(self):
        calls = self.calls(100, b"x\n", {"rcpt": "450 busy"})
        self.assertEqual(calls["fsync"] + calls["fdatasync"], 100)

    def test_processor_time_is_linear_in_recipients(self):
        names = [f"d{n}.test" for n in range(100)]
        answers = {(name, MX): [mx(name, 10, "mx." + name)] for name in names}
        answers.update({("mx." + name, A): [a("mx." + name, f"127.0.3.{n + 1}")] for n, name in enumerate(names)})
        dns, server = self.dns(answers), self.smtp("")
        cpu = []
        for count in (1000, 10000):
            self.world.table()
            self.world.queue("m", [f"<{n}@{names[n % 100]}>" for n in range(count)])
            run = self.run_ok(timeout=120)
            self.assertEqual((self.world.spool(), len(server.received())), ({}, count))
            self.assertEqual(len(server.sessions), 100)
            self.assertEqual(len(dns.questions), 200)
            server.sessions.clear()
            dns.questions.clear()
            cpu.append(run.cpu)
        self.assertLess(cpu[1], 15 * cpu[0] + 0.1, cpu)


if __name__ == "__main__":
    harness.main()
