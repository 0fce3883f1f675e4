#!/usr/bin/python3
"""The command line, the rule table's faults and the exit statuses."""
import os
import re
import time

import harness
from harness import SystemTest, cases

LOCAL, OURS = 1 * 8 + 5, 3 * 8 + 3  # facility user, priority notice; daemon, error
PID = re.compile(r"^\d{5,} ")
TABLE = "/usr/local/etc/rulbex-table"

# Arguments, exit status, what stands before the usage line (None: no usage, nothing printed).
ARGUMENTS = {
    "none": ([], 0, None), "now": (["-now"], 0, None), "another service": (["-as", "other"], 255, None),
    "the last name wins": (["-as", "other", "-AS", "vorn"], 0, None),
    "help": (["-h"], 1, ""), "long help": (["--HELP"], 1, ""), "help comes too late": (["x", "-h"], 1, 'unknown argument "x"\n'),
    "no name": (["-now", "-as"], 1, "-as requires an argument\n"),
    "old switches": (["-daemon", "-h", "-service", "--help", "-now"], 0, None), "old switch at the end": (["-service"], 0, None),
    "an option is taken as name": (["-as", "-h"], 255, None), "empty": ([""], 1, 'unknown argument ""\n'),
}

# How a run with no spool that can be opened, or one that stops, tells its end; for status 1 each case has its check.
ENDS = {0: 'spool-unreadable dir="/var/spool/deferred/" error=2 (No such file or directory)',
        1: 'stopped status=1 reason="failed check in {}"', 255: 'stopped status=255 reason="no rule table, or nothing in it for the service"'}
# The rule table, exit status, the log lines (all but the one of ENDS), the check.
TABLES = {
    "missing": (None, 255, [f"syserr: configuring vorn, cannot open {{}}{TABLE}: No such file or directory"]),
    "empty": ("", 255, []),
    "other services only": ("other: mail-log on\n", 255, []),
    "everybody's": ("*: mail-log on\n", 0, []),
    "in a list": ("other, vorn\tthird: mail-log on\n", 0, []),
    "comment and blank": ("# vorn: x\n \t\nvorn: mail-log on\n", 0, []),
    "no colon": ("vorn mail-log\nvorn: mail-log on\n", 0, ["cfgerr: {}" + TABLE + " line 1 malformed"]),
    "no parameter": ("vorn: mail-log on\nvorn: mail-log\n", 0, ["cfgerr: {}" + TABLE + " line 2 missing parameter"]),
    "too long": ("vorn: mail-log on\nvorn: mail-log " + "x" * 8200 + "\n", 0, ["cfgerr: {}" + TABLE + " line 2 too long"]),
    "no newline at the end": ("vorn: mail-log on\nvorn: use-dns no", 0, ["cfgerr: {}" + TABLE + " line 2 too long"]),
    "two words for a number": ("vorn: smtp-max-deferral 1 2\n", 1, [], "lib/email/mailscanGlobals, line 42: cf->argc == 1"),
    "relay without server": ("vorn: domain-relay *\n", 1, [], "lib/email/DomainRelay, line 213: cf->argc > 1"),
    "no word for yes or no": ("vorn: mail-log  \n", 0, []),
    "NUL and 8-bit": ("vorn: mail-log \0\xff on\n", 0, []),
}


class Command(SystemTest):
    @cases(ARGUMENTS)
    def test_arguments(self, args, status, before):
        run = self.world.run(*args)
        usage = f"Usage: {self.world.binary} [ -as <name> ] [ -now ] [ -h | --help]\n"
        self.assertEqual((run.status, run.out), (status, "" if before is None else before + usage))

    @cases(TABLES)
    def test_rule_table(self, text, status, lines, check=""):
        self.world.table(raw=text or "")
        if text is None:
            os.unlink(self.world.root + TABLE)
        run = self.world.run()
        self.assertEqual((run.status, run.out), (status, ""))
        end = (OURS, "retryer", ENDS[status].format(check))
        self.assertEqual([(line.priority, line.ident, PID.sub("", line.text)) for line in run.log],
                         [(LOCAL, "retryer", line.format(self.world.root)) for line in lines] + [end])

    def test_arguments_that_stop_a_run_are_told(self):
        self.assertEqual(len(self.world.run("x").lines(' stopped status=1 reason="the command line is not valid, or asks for help"')), 1)

    def test_log_switches(self):
        self.world.table("domain-relay * 127.0.0.2", mail_log="off")
        self.smtp("127.0.0.2", {"rcpt": {"busy": "450 no", "bad": "550 no"}})
        self.world.queue("m", ["<u@x.test>", "<busy@x.test>", "<bad@x.test>"])
        self.assertEqual([PID.sub("", line.text)[:-1] for line in self.run_ok().log],
                         ["walk-ended entries=1 attempted=1 held=0 delivered=1 return-delivered=1 deferred=1 returned=1 dropped=0 seconds="])

    def test_a_limit_of_file_size_ends_no_run(self):
        self.world.table("domain-relay * 127.0.0.2")
        there = self.smtp("127.0.0.2", {"rcpt": "450 later"})
        for leaf in "mn":
            self.world.queue(leaf, "<u@x.test>")
        run = self.world.run("--fsize=50", self.world.binary, binary="prlimit")
        self.assertEqual((run.status, len(there.sessions)), (0, 2), run.out)
        self.assertEqual(len(run.lines("recipients-rewrite-failed")), 2)

    def test_closed_standard_descriptors_take_no_file_of_the_spool(self):
        self.world.table("domain-relay * 127.0.0.2")
        there = self.smtp("127.0.0.2", {"banner": (0.5, "220 ready")})
        self.world.queue("m", "<u@x.test>")
        run = self.world.start("-c", f"exec {self.world.binary} <&- >&- 2>&-", binary="/bin/sh")
        while not there.sessions:
            time.sleep(0.01)
        self.assertEqual({os.readlink(f"/proc/{run.pid}/fd/{n}") for n in range(3)}, {"/dev/null"})
        self.assertEqual((self.world.finish(run).status, self.world.spool()), (0, {}))


if __name__ == "__main__":
    harness.main()
