#!/usr/bin/python3
"""What the host or the spool denies: descriptors, memory, room, names, rights. Nothing is lost, nobody
gets a second copy, and the log says why."""
import collections
import os

import harness
import world
from harness import RELAYS, SENDERS, SystemTest, cases

NOBODY = ("/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")
MANY = [f"<{n}@there.test>" for n in range(30)] + ["<busy@there.test>"]
INHERITED = "ulimit -n 4096; for ((n = 3; n < 1103; n++)); do eval \"exec $n</dev/null\"; done; exec " + world.BINARY
# Spool contents that a denied name or full disc meets, and what each is left with: copies, words of the log.
DENIED = {"one": (["<1@there.test>"], 1, "delete-failed"), "more": (MANY, 0, "recipients-rewrite-failed")}


class Limits(SystemTest):
    def setUp(self):
        super().setUp()
        self.world.table(*RELAYS)
        self.server, self.returns = self.smtp(script={"rcpt": {"busy": "450 busy"}}), self.smtp(SENDERS)

    def within(self, *command, status=0, **how):
        """A run by another command that starts it."""
        run = self.world.run(*command[1:], world.BINARY, binary=command[0], **how)
        self.assertEqual(run.status, status, run.out + str(run.log))
        return run

    def copies(self):
        return collections.Counter(rcpt for rcpt, _ in self.server.received())

    @cases({f"{limit} descriptors": (limit,) for limit in range(5, 11)})
    def test_too_few_descriptors_cost_no_mail(self, limit):
        for n in range(4):
            self.world.queue(f"m{n}", f"<{n}@there.test>")
        run = self.world.run(f"--nofile={limit}", world.BINARY, binary="/usr/bin/prlimit")
        self.assertEqual(run.lines("action=delete"), [])
        self.assertEqual(len(self.copies()) + len(self.world.spool()) // 2, 4)
        if run.status:
            self.assertEqual((run.status, len(run.lines(" run-stopped ", "error=24 "))), (1, 1), run.log)
        else:
            self.assertTrue(len(self.copies()) == 4 or run.lines(" connect-failed "), run.log)

    def test_inherited_descriptors_are_no_matter(self):
        self.world.queue("m", "<u@there.test>")
        self.assertEqual(self.world.run("-c", INHERITED, binary="/bin/bash").status, 0)
        self.assertEqual(self.world.spool(), {})

    @cases({"ten in a row": (20, None, 1, 9, 22), "others between": (19, 9, 0, 18, 0)})
    def test_texts_that_may_not_be_opened_end_the_run(self, count, readable, status, deleted, left):
        os.chmod(self.world.root, 0o755)
        os.chmod(self.world.spool_dir, 0o777)
        for n in range(count):
            self.world.queue(f"m{n}", f"<{n}@there.test>")
            os.chmod(self.world.spool_dir + f"m{n}", 0o666 if n == readable else 0)
            os.chmod(self.world.spool_dir + f"m{n}.rmd", 0o666)
        run = self.within(*NOBODY, status=status)
        self.assertEqual((len(run.lines("action=delete")), len(run.lines(" run-stopped ", "error=13 "))), (deleted, status))
        self.assertEqual(len(os.listdir(self.world.spool_dir)), left)

    def test_a_message_that_takes_too_much_memory_is_passed_over(self):
        self.world.queue("m", "<u@there.test>")
        self.world.queue("huge", [])
        self.world.put("huge.rmd", self.world.spool()["huge.rmd"] + b"\n" * (3 << 20))
        before = self.world.spool()
        run = self.within("/usr/bin/prlimit", f"--as={128 << 20}")
        self.assertEqual(len(run.lines(" out-of-memory msg=huge")), 1)
        self.assertEqual(self.world.spool(), {name: before[name] for name in ("huge", "huge.rmd")})

    def full(self, **messages):
        """A spool of its own with these messages and not a byte left."""
        world.mount("-t", "tmpfs", "-o", "size=256k,mode=755", "none", self.world.spool_dir)
        self.addCleanup(world.subprocess.run, ["umount", self.world.spool_dir], check=True)
        for leaf, rcpts in messages.items():
            self.world.queue(leaf, rcpts)
        with open(self.world.spool_dir + "filler", "wb", buffering=0) as filler:
            try:
                while True:
                    filler.write(bytes(4096))
            except OSError:
                pass

    def test_a_full_spool_begins_nothing_that_it_cannot_write_down(self):
        self.full(more=MANY)
        for _ in range(2):
            run = self.run_ok()
            self.assertEqual(len(run.lines("recipients-rewrite-failed msg=more ", "error=28 ")), 1, run.log)
        self.assertEqual(self.copies(), {})
        os.unlink(self.world.spool_dir + "filler")
        self.run_ok()
        self.assertEqual((set(self.copies().values()), len(self.copies())), ({1}, 30))
        self.assertEqual(self.world.rmd("more").recipients, [("<busy@there.test>", 450)])

    def test_a_full_spool_drains(self):
        self.full(more=MANY, **{f"m{n}": f"<m{n}@there.test>" for n in range(5)})
        for _ in range(2):
            self.run_ok()
        self.assertEqual((set(self.copies().values()), len(self.copies())), ({1}, 35))
        self.assertEqual(sorted(self.world.spool()), ["filler", "more", "more.rmd"])

    def test_names_that_look_like_our_own_cost_nobody_anything(self):
        for leaf in ("m.rmd~", "m.rmd+", "m"):  # the last one is listed first
            self.world.queue(leaf, [f"<{leaf}{n}@{n}.test>" for n in range(2)] + ["<busy@there.test>"] * (leaf == "m"))
        self.retryq("hold", "-y", "m.rmd~", status=1)  # else it would be no message any more, and its text left over
        for _ in range(2):
            self.run_ok("-now")
        self.assertEqual((set(self.copies().values()), len(self.copies())), ({1}, 6))
        self.assertEqual(sorted(self.world.spool()), ["m", "m.rmd"])

    @cases(DENIED)
    def test_a_directory_that_takes_no_names_gives_no_second_copies(self, rcpts, copies, word):
        os.chmod(self.world.root, 0o755)
        self.world.queue("m", rcpts)
        os.chmod(self.world.spool_dir + "m.rmd", 0o666)
        for _ in range(2):
            run = self.within(*NOBODY)
            self.assertTrue(run.lines(f" {word} msg=m ", "error=13 "), run.log)
        self.assertEqual(sum(self.copies().values()), copies)


if __name__ == "__main__":
    harness.main()
