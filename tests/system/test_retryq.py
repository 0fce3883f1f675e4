#!/usr/bin/python3
"""The administrator's program beside the real retryer: what it tells must be what a run then does."""
import calendar
import fcntl
import gzip
import json
import os
import re
import shutil
import time

import harness
import world
from harness import RELAYS, SENDERS, SystemTest, cases

DAY = 86400
DAEMON_NOTICE = 3 * 8 + 5


class Queue(SystemTest):
    def setUp(self):
        super().setUp()
        self.world.table(*RELAYS)

    def test_states_are_what_a_run_does(self):
        server, returns = self.smtp(), self.smtp(SENDERS)
        self.world.queue("due", "<due@x.test>", last=-2001)
        self.world.queue("waiting", "<waiting@x.test>", last=-1900)
        self.world.queue("overdue", "<overdue@x.test>", first=-5 * DAY)
        self.world.put("unreadable", b"text\n")
        self.world.put("unreadable.rmd", b"")
        before = self.world.spool()
        entries = {entry["message"]: entry for entry in self.objects("list")}
        listed = {leaf: entry["state"] for leaf, entry in entries.items()}
        tried, due = (calendar.timegm(time.strptime(entries["waiting"][key], "%Y-%m-%dT%H:%M:%SZ")) for key in ("latest_try", "next_try"))
        self.assertEqual(due - tried, 2000)
        self.assertEqual(listed, {leaf: leaf for leaf in ("due", "waiting", "overdue", "unreadable")})
        self.assertEqual(self.world.spool(), before)
        self.run_ok()
        self.assertEqual(([mail.recipients for mail in server.mails], len(returns.mails)), ([["<due@x.test>"]], 1))
        self.assertEqual(sorted(self.world.spool()), ["waiting", "waiting.rmd"])

    def test_route_connects_to_nothing(self):
        run = self.retryq("route", "u@order.test", strace=["-e", "trace=connect"])
        self.assertNotIn("htons(25)", run.trace)
        self.assertIn("try 1      127.0.0.2", run.out)

    def test_looking_takes_no_lock_and_writes_nothing(self):
        self.world.queue("m", "<u@x.test>")
        for command in (["list"], ["show", "m", "--body"], ["summary"], ["metrics"], ["route", "u@x.test"]):
            run = self.retryq(*command, strace=["-e", "trace=flock,openat,unlink,unlinkat,rename,fcntl"])
            spool = [line for line in run.trace.splitlines() if self.world.spool_dir in line]
            self.assertFalse("flock(" in run.trace or "F_SETLK" in run.trace, run.trace)
            self.assertFalse([line for line in spool if "O_RDONLY" not in line], spool)

    def test_retry_makes_due_and_changes_nothing_else(self):
        self.world.queue("m", [("<u@x.test>", 450), ("<v@x.test>", 1001)], first=-3000, last=-60, tries=7)
        before = self.world.rmd("m")
        self.assertEqual(self.objects("list")[0]["state"], "waiting")
        run = self.retryq("retry", "m", "-y", env={"SUDO_USER": "x uid=7"})
        line, = run.log
        self.assertEqual((line.priority, line.ident), (DAEMON_NOTICE, "retryq"))
        self.assertRegex(line.text, r"^\d{5,} made-due msg=m from=<sender@from.test> latest-try=\S+Z by=x%20uid%3D7 uid=0$")
        after = self.world.rmd("m")
        self.assertEqual(self.objects("list")[0]["state"], "due")
        self.assertEqual((after.first, after.tries, after.sender, after.recipients),
                         (before.first, before.tries, before.sender, before.recipients))
        server = self.smtp()
        self.run_ok()
        self.assertEqual(len(server.mails), 1)

    def test_a_message_on_hold_waits_for_its_release(self):
        server = self.smtp()
        self.world.queue("m", ["<u@x.test>", "<v@x.test>"])
        before = self.world.rmd("m")
        self.retryq("hold", "-y", "m", strace=["-e", "inject=fsync:error=EIO"], status=1)
        self.assertEqual(sorted(self.world.spool()), ["m", "m.rmd"])
        self.assertRegex(self.retryq("hold", "-y", "m").log[0].text, r" put-on-hold msg=m from=\S+ state=due by=root uid=0$")
        self.run_ok()
        self.run_ok("-now")
        found, = self.objects("list", "--state", "on-hold")
        self.assertEqual((server.sessions, found["recipients"], found["hold_by"]), ([], 2, 0))
        self.assertIn("on hold by root", self.retryq("list").out)
        self.assertNotIn("m", [word for o in self.objects("check", status=1) if o["check"] == "spool" for word in o.get("text", "").split()])
        for command in ("retry", "return"):
            self.retryq(command, "-y", "m", status=1)
        self.retryq("release", "-y", "m")
        self.assertEqual(self.world.rmd("m"), before)
        self.retryq("release", "-y", "m", status=1)
        self.retryq("hold", "-y", "m")
        self.retryq("remove", "-y", "m")
        self.assertEqual(self.world.spool(), {})

    def test_one_recipient_less_and_given_up(self):
        returns = self.smtp(SENDERS)
        self.world.queue("m", [("<u@x.test>", 450), ("<v@x.test>", -1), ("<u@y.test>", 1001)], last=-60, tries=7)
        before = self.world.rmd("m")
        self.retryq("remove", "-y", "m", "--recipient", "w@x.test", status=1)
        self.retryq("remove", "-y", "m", "--recipient", "U@x.test")
        after = self.world.rmd("m")
        self.assertEqual((after.first, after.last, after.tries, after.recipients), (before.first, before.last, 7, before.recipients[1:]))
        self.retryq("return", "-y", "m")
        self.assertEqual((self.world.spool(), [mail.recipients for mail in returns.mails]), ({}, [["<sender@from.test>"]]))
        self.assertTrue(b"<v@x.test>: " in returns.mails[0].data and b"<u@x.test>: " not in returns.mails[0].data)

    def test_remove(self):
        for leaf in ("m", "n", "stays"):
            self.world.queue(leaf, ["<u@x.test>", "<v@x.test>"])
        self.world.put("m.rmd~", b"")
        self.retryq("remove", "m", status=1)  # nobody to ask
        self.assertIn("m", self.world.spool())
        run = self.retryq("remove", "--yes", "m", "n", "../stays", "missing", status=1)
        self.assertEqual(sorted(self.world.spool()), ["stays", "stays.rmd"])
        self.assertEqual(len(run.lines(" removed msg=")), 4)
        self.assertEqual(len(run.lines(" removed msg=m ", "to=<u@x.test>", "by=root uid=0")), 1)

    def test_a_held_message_is_told_and_left_alone(self):
        self.world.queue("m", "<u@x.test>", last=-60)
        with open(self.world.spool_dir + "m.rmd", "rb") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.assertIn("being tried now", self.retryq("list").out)
            self.assertEqual([entry["message"] for entry in self.objects("list", "--state", "held")], ["m"])
            before = self.world.spool()
            for command in ("remove", "retry"):
                self.retryq(command, "--yes", "m", status=1)
            self.assertEqual(self.world.spool(), before)
        self.assertFalse(self.objects("list")[0]["held"])

    def test_listing_while_walkers_work(self):
        self.smtp()
        for number in range(300):
            self.world.queue(f"m{number}", f"<u{number}@x.test>")
        walkers = [self.world.start() for _ in range(3)]
        while os.listdir(self.world.spool_dir):
            self.assertLessEqual({entry["state"] for entry in self.objects("list")}, {"due"})
        for walker in walkers:
            self.assertEqual(self.world.finish(walker).status, 0)

    def test_metrics_replace_a_file(self):
        path = os.path.join(self.world.root, "retryer.prom")
        self.world.queue("m", [f"<u@d{n}.test>" for n in range(25)])
        self.retryq("metrics", path)
        text = open(path, encoding="ascii").read()
        self.assertIn('retryer_queue_recipients{state="due"} 25\n', text)
        self.assertEqual(text.count("retryer_queue_domain_recipients{"), 20)
        self.assertIn("retryer_queue_other_domain_recipients 5\n", text)
        self.assertFalse(os.path.exists(path + "~"))

    def test_outside_text_is_printable(self):
        self.world.queue("m", ["<\x1b[2J\xff@x.test>", f"<{'u' * 1500}@x.test>", *(f"<u{n}@x.test>" for n in range(9))], sender="<\x1b]0;x\x07@from.test>", text=b"Subject: \x1b[2J\xc3\x28\n\n\x9b\n")
        for command in (["list"], ["show", "--body", "m"], ["summary"], ["metrics"]):
            out = self.retryq(*command).out.replace("\n", "")
            self.assertTrue(out.isascii() and out.isprintable(), out)
            self.assertLess(len(out), 4000)
        self.assertTrue(self.objects("show", "--body", "m")[0]["body"])


# Rule table behind the usual lines, and the status of "check".
CHECKS = {"well": ("", 0), "typing mistake": ("vorn: smtp-min-deferal 5\n", 1), "rejected line": ("vorn: use-dns\n", 1),
          "two values": ("vorn: use-dns no no\n", 2), "relay without server": ("vorn: domain-relay *\n", 2),
          "relay that is local": ("vorn: domain-relay * 127.0.0.1\n", 1), "loses mail": ("vorn: smtp-max-deferral 4d\n", 3),
          "relay behind another": ("vorn: domain-relay *.a.test 127.0.0.2\nvorn: domain-relay *.b.a.test 127.0.0.2\n", 1),
          "relays apart": ("vorn: domain-relay a.test 127.0.0.2\nvorn: domain-relay *.a.test 127.0.0.2\n", 0)}
# A file system that does not do what is asked of it: the call, and what "check" says of it.
PROMISES = {"no lock": ("flock:error=ENOLCK:when=1", "no message is ever tried (No locks available)"),
            "lock for all": ("flock:retval=0:when=2", "may send a message twice"),
            "lock kept": ("flock:error=EAGAIN:when=4", "never be tried again"),
            "lock for writers": ("flock:error=EBADF:when=5", "open for writing"),
            "no rename": ("?renameat,?renameat2:error=EXDEV", "a copy at each run"),
            "a rename that does nothing": ("?renameat,?renameat2:retval=0", "may use an old list"),
            "no sync": ("fsync:error=EIO:when=1", "may tear recipient lists"),
            "no sync of names": ("fsync:error=EINVAL:when=2", "may take return mail")}


# A first word that is no command, and what is said of it.
COMMANDS = {"letter missing": ("lst", ": did you mean list?"), "plural": ("routes", ": did you mean route?"), "far": ("qqqqqqqq", "")}


class Check(SystemTest):
    @cases(PROMISES)
    def test_promise(self, fault, told):
        run = self.retryq("--json", "check", status=1, strace=["-e", "inject=" + fault])
        self.assertIn(told, run.out)
        self.assertEqual(os.listdir(self.world.spool_dir), [])

    @cases(CHECKS)
    def test_status(self, lines, status):
        for directory in (self.world.spool_dir, self.world.outgoing_dir):
            os.chmod(directory, 0o2770)
        self.zone({})
        usual = f"vorn: deferred-directory {self.world.spool_dir}\nvorn: directory {self.world.outgoing_dir}\nvorn: badadmin a@b.test\n"
        self.world.table(raw=usual + lines)
        self.assertEqual(self.objects("check", status=status)[-1], {"check": "verdict", "status": status})
        fatal = self.retryq("check", "--fatal", status=255 if status == 2 else 0)
        self.assertEqual(len(fatal.lines(' stopped status=255 reason="')), status == 2)
        self.assertEqual(self.world.run().status, 1 if status == 2 else 0)
        self.assertEqual(os.listdir(self.world.spool_dir), [])

    def test_judged_as_the_service(self):
        units = "/run/systemd/system/retryer@.service"
        os.makedirs(units + ".d", exist_ok=True)
        self.addCleanup(shutil.rmtree, "/run/systemd")
        with open(units, "w") as unit, open(units + ".d/a.conf", "w") as drop_in:
            unit.write("[Unit]\nUser=root\n[Service]\nUser = nobody\nProtectSystem=strict\nReadWritePaths=-/var/spool/deferred\n")
            drop_in.write(f"[Service]\nReadWritePaths=\nReadWritePaths=/x -{self.world.spool_dir}\n")
        self.world.queue("m", "<u@d.test>")
        for directory in (self.world.root, self.world.spool_dir):
            os.chmod(directory, 0o755)
        said = self.retryq("check", status=1).out
        for fault in ("no file can be made here (Permission denied)", "m.rmd: cannot be opened for locking (Permission denied): never"):
            self.assertIn(fault, said)
        self.assertNotIn("ReadWritePaths", said)
        os.unlink(units + ".d/a.conf")
        said = self.retryq("check", "--user", "root", status=1).out
        self.assertIn("ReadWritePaths= of /run/systemd/system/retryer@.service and", said)
        self.assertNotIn("Permission denied", said)
        self.assertIn("the user nobody2 does not exist", self.retryq("check", "--user", "nobody2", status=1).out)
        # Of two instances the one goes by its own drop-in, the other by the template.
        for instance, lines in (("1", f"ReadWritePaths={self.world.spool_dir}\nUser=root"), ("2", "Group=root")):
            os.makedirs(units.replace("@", "@" + instance) + ".d")
            with open(units.replace("@", "@" + instance) + ".d/a.conf", "w") as drop_in:
                drop_in.write(f"[Service]\n{lines}\n")
        for directory in (self.world.spool_dir, self.world.outgoing_dir):
            os.chmod(directory, 0o770)
        said = self.retryq("check", status=1).out
        self.assertIn("ReadWritePaths= of /run/systemd/system/retryer@.service (retryer@2.service) and", said)
        self.assertNotIn("retryer@1.service", said)
        self.assertIn("m.rmd: cannot be opened for locking (Permission denied)", said)
        self.assertNotIn("no file can be made here", said)  # the group may

    def test_host(self):
        world.etc_file("hosts", "127.0.0.1 localhost\n")
        self.addCleanup(world.etc_file, "hosts", f"127.0.0.1 localhost\n127.0.0.1 {world.HOST} gateway\n")
        self.assertIn("the name service gives no answer", self.retryq("check", status=1).out)
        asked = self.dns({})
        self.retryq("list")
        self.retryq("check", "--fatal")
        self.assertEqual(asked.questions, [])
        self.assertIn("is not in /etc/hosts", self.retryq("check", status=1).out)

    def test_a_planted_link_is_not_written_through(self):
        victim, link = os.path.join(self.world.root, "victim"), os.path.join(self.world.root, "retryer.prom")
        with open(victim, "w", encoding="ascii") as file:
            file.write("root's\n")
        for path in [link, *(f"{self.world.spool_dir}.retryq-check.{os.getpid() + n}" for n in range(3000))]:
            os.symlink(victim, path)
        self.retryq("check", status=1)
        self.retryq("metrics", link)
        self.assertFalse(os.path.islink(link))
        os.symlink(victim, self.world.spool_dir + "m")
        self.world.put("m.rmd", b"2020/00/01@00:00:00_GMT\n2020/00/01@00:00:00_GMT\n1\n<s@x.test>\n<u@x.test>\t450\n")
        self.assertNotIn("root's", self.retryq("show", "--body", "m").out)
        os.symlink("/dev/null", link + "2")
        self.retryq("metrics", link + "2", status=1)
        with open(victim, encoding="ascii") as file:
            self.assertEqual(file.read(), "root's\n")

    @cases(COMMANDS)
    def test_unknown_command(self, word, said):
        run = self.retryq(word, status=1)
        self.assertIn(f"unknown command {word}{said}\n", run.out)

    def test_no_rule_table(self):
        self.retryq("check", "-as", "other", status=2)
        self.assertEqual(self.world.run("-as", "other").status, 255)
        self.retryq("-AS", "other", "list", status=2)


# What every command is asked for here; the log is NEW_LOG, the queue and the servers those of the test.
TOLD = ["list", "list --state unreadable", "show m --body", "summary", "summary --by code", "summary --by sender", "settings",
        "check", "route u@x.test", "route u@literal.test --probe", "who", "metrics --counters {root}/counters --log {root}/log", "report {root}/log",
        "story m1 --log {root}/log", "hold -y --sender o@from.test", "list --state on-hold", "release -y o", "retry -y m", "remove -y --recipient w@y.test",
        "deliver m --trace", "run --progress 1 --now", "return -y n", "remove -y o missing"]


class Json(SystemTest):
    def documented(self):
        """Command: the words that the page has for its objects."""
        page = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../packaging/man/retryq.8")
        with open(page, encoding="utf-8") as file:
            part = file.read().partition(".Sh JSON OUTPUT")[2].partition(".Sh EXAMPLES")[0]
        words = {}
        for entry in part.split("\n.It Cm ")[1:]:
            commands, _, rest = entry.partition("\n")
            found = {word.strip(",.;()") for line in re.findall(r"(?m)^(?:\.Pq )?(?:or )?\.?Li (.*)|No or Li (\S+)", rest) for word in " ".join(line).split()}
            for command in commands.split(" , "):
                words[command.strip()] = found
        words["show"] |= words["list"]
        return words

    def keys(self, value):
        found = set()
        for item in value.values() if isinstance(value, dict) else value if isinstance(value, list) else ():
            found |= self.keys(item)
        return found | (set(value) if isinstance(value, dict) else set())

    def test_every_command_tells_what_its_page_has(self):
        self.world.table(*RELAYS, "smtp-tls may")
        for address in (harness.THERE, SENDERS):
            self.smtp(address, script={"rcpt": {"busy": (1.5, "450 busy"), "": "250 ok"}})
        for leaf in ("m", "n", "o"):
            self.world.queue(leaf, ["<u@x.test>", "<busy@x.test>", "<w@y.test>"], sender=f"<{leaf}@from.test>", last=-60)
        self.world.queue("dead", "<u@dead.test>")
        self.world.put("unreadable", b"text\n")
        self.world.put("unreadable.rmd", b"")
        with open(self.world.root + "/log", "w") as file:
            file.write(NEW_LOG + OLD_LOG)
        documented, seen = self.documented(), {}
        lock = os.open(self.world.spool_dir + "n.rmd", os.O_RDONLY)
        self.addCleanup(os.close, lock)
        for line in TOLD:
            words = line.format(root=self.world.root).split()
            fcntl.flock(lock, fcntl.LOCK_EX if words[0] == "who" else fcntl.LOCK_UN)
            out = self.world.run("--json", *words, binary=world.RETRYQ).out
            objects = [json.loads(row) for row in out.splitlines() if not row.startswith("retryq")]
            self.assertTrue(objects, line)
            keys = seen.setdefault(words[0], set())
            for found in objects:
                self.assertIsInstance(found, dict, line)
                keys |= self.keys({name: [] if name in ("ages", "states", "labels") else value for name, value in found.items()})
        self.assertEqual({command: keys - documented[command] for command, keys in seen.items() if keys - documented[command]}, {})
        self.assertEqual(set(documented), set(seen))


OLD_LOG = """\
Nov 20 23:59:58 gw retryer[77]: 00077 connect-failed msg=m1 to=<a@x.test> relay=127.0.0.9 error=111 (Connection refused)
Nov 21 00:00:08 gw retryer[77]: 00077 deferred msg=m1 from=<s@y.test> to=<a@x.test> code=1001 text=Mail Server is down
Nov 21 00:00:09 gw sshd[5]: retryer: 00077 delivered msg=forged from=<s@y.test> to=<a@x.test> code=250 text=Accepted
Nov 31 25:00:09 gw retryer: 1 delivered msg=
"""
NEW_LOG = """\
2026-11-21T01:30:00.5+01:30 gw retryer: 00078 deferred msg=m1 from=<s@y.test> to=<a@x.test> relay=127.0.0.9 code=450 text=Busy stage=RCPT reply="450 4.2.0 wait 283 seconds"
2026-11-21T00:00:31Z gw retryer: 00078 deferred msg=m2 from=<s@y.test> to=<b@z.test> relay=127.0.0.9 code=450 text=Busy stage=RCPT reply="450 4.2.0 wait 117 seconds"
2026-11-21T01:00:00Z gw retryer: 00079 overdue msg=m1 from=<s@y.test> waited=400001 tries=9
2026-11-21T01:00:00Z gw retryer: 00079 returned msg=m1 from=<s@y.test> to=<a@x.test> code=450 text=Busy stage=RCPT reply="450 no relay=127.0.0.66 to=<c@w.test>"
2026-11-21T01:00:07Z gw retryer: 00079 walk-ended entries=2 attempted=1 held=0 delivered=0 return-delivered=0 deferred=0 returned=1 dropped=0 seconds=37
2026-11-21T01:00:07Z gw retryer: 00079 run-ended due=1 tried=1 left=0 died=0 waiting=1
"""


class Log(SystemTest):
    def setUp(self):
        super().setUp()
        self.old, self.new = self.world.root + "/syslog.1.gz", self.world.root + "/syslog"
        with gzip.open(self.old, "wt") as old, open(self.new, "w") as new:
            old.write(OLD_LOG)
            new.write(NEW_LOG)

    def test_report(self):
        told = self.objects("report", self.old, self.new)
        self.assertEqual([(o["hour"][11:13], o["deferred"], o["returned"]) for o in told if "hour" in o],
                         [("00", 3, 0), ("01", 0, 1)])
        self.assertEqual([(o["domain"], o["deferred"]) for o in told if "domain" in o], [("x.test", 2), ("z.test", 1)])
        self.assertEqual([(o["recipients"], o["reason"], o["server"]) for o in told if "reason" in o][0],
                         (2, "450 4.2.0 wait 283 seconds", "127.0.0.9"))
        self.assertEqual([(o["seconds"], o["lines"]) for o in told if "seconds" in o], [(31, 1)])
        self.assertEqual((told[-1]["delivered"], told[-1]["lines"]), (0, 8))
        self.assertEqual(self.objects("report", self.new, "--since", "2026-11-21 00:30")[-1]["returned"], 1)
        self.assertEqual(self.objects("report", self.new, "--since", "2026-11-21 00:30")[-1]["deferred"], 0)

    def test_story(self):
        told = [event["text"].split()[0] for event in self.objects("story", "a@x.test", "--log", self.new, "--log", self.old)]
        self.assertEqual(told, ["connect-failed", "deferred", "deferred", "overdue", "returned"])
        self.assertEqual(len(self.objects("story", "m2", "--log", self.new)), 1)
        self.retryq("story", "nobody@x.test", "--log", self.new, status=1)

    def test_a_journal_that_breaks_off_is_not_counted_with_the_files(self):
        for broken, status in (("", 0), ("exit 1", 1)):
            fake = self.world.root + "/journalctl"
            with open(fake, "w") as file:
                file.write(f"#!/bin/sh\ncat '{self.new}'\n{broken}\n")
            os.chmod(fake, 0o755)
            run = self.retryq("report", "--since", "9999d", env={"PATH": self.world.root + ":" + os.environ["PATH"]}, status=status)
            self.assertEqual("the journal cannot be read to its end" in run.out, bool(broken), run.out)

    def test_counters_count_each_line_once(self):
        kept = self.world.root + "/counters"
        self.retryq("metrics", "--counters", kept, "--log", self.old)
        self.assertTrue(os.path.exists(kept))  # else counting would begin anew each time
        with open(kept, "w") as file:
            file.write('{"up_to": 1700000000, "outcomes": [["delivered", "250", 7], ["x"], 3]}')
        for _ in range(2):
            text = self.retryq("metrics", "--counters", kept, "--log", self.old, "--log", self.new).out
            self.assertEqual(re.findall(r'_total{outcome="(\w+)",code="(\d+)"} (\d+)', text),
                             [("deferred", "1001", "1"), ("deferred", "450", "2"), ("delivered", "250", "7"),
                              ("returned", "450", "1")])
            self.assertIn("\nretryer_last_run_duration_seconds 37\n", text)
        # What alerts and dashboard ask for is what there is.
        monitoring = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../packaging/monitoring")
        asked = set()
        for name in ("alerts.yml", "dashboard.json"):
            with open(os.path.join(monitoring, name), encoding="utf-8") as file:
                asked |= set(re.findall(r"retryer_\w+", file.read()))
        self.assertLessEqual(asked, set(re.findall(r"^# TYPE (\w+)", text, re.M)))

    def test_a_damaged_file_is_told_and_the_others_are_read(self):
        with open(self.old, "r+b") as old:
            old.truncate(60)
        run = self.retryq("--json", "report", self.old, self.new, status=1)
        self.assertIn("damaged", run.out)


if __name__ == "__main__":
    harness.main()
