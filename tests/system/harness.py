"""What the system tests share: a test case with a fresh World and servers that are stopped with it,
tests from tables, and main()."""
import os
import sys
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "tools/lib"))
import world  # noqa: E402
from servers import Dnsmasq, DnsServer, SmtpServer  # noqa: E402

SCRATCH = None
THERE, SENDERS = "127.0.0.2", "127.0.0.9"  # where "domain-relay *" leads; where return mail goes
RELAYS = (f"domain-relay *.from.test {SENDERS}", f"domain-relay * {THERE}")


def cases(table):
    """Makes one test of each entry: the method is called with the entry's values."""
    def mark(method):
        method.cases = table
        return method
    return mark


class SystemTest(unittest.TestCase):
    def __init_subclass__(cls):
        for name, method in list(vars(cls).items()):
            for key, row in getattr(method, "cases", {}).items():
                def test(self, method=method, row=row):
                    method(self, *row)
                setattr(cls, f"{name}: {key}", test)
            if hasattr(method, "cases"):
                delattr(cls, name)

    def setUp(self):
        self.world = world.World(SCRATCH)

    def smtp(self, address=THERE, script=None, **how):
        server = SmtpServer(address, script, **how)
        self.addCleanup(server.stop)
        return server

    def zone(self, entries):
        self.addCleanup(Dnsmasq(SCRATCH, entries).stop)

    def dns(self, answers):
        server = DnsServer(answers)
        self.addCleanup(server.stop)
        return server

    def run_ok(self, *args, **how):
        """A run that must end in status 0 by itself."""
        run = self.world.run(*args, **how)
        self.assertEqual(run.status, 0, run.out + "".join(f"{line.text}\n" for line in run.log))
        return run

    def assert_outcome(self, leaf, expected, returns):
        """expected: None delivered, n kept with code n, -n returned with code n; `returns` is the
        server that takes return mail."""
        kept = expected is not None and expected >= 0
        spool = self.world.spool()
        if kept:
            self.assertIn(leaf, spool, [mail.data for mail in returns.mails])
            self.assertEqual([code for _, code in self.world.rmd(leaf).recipients], [expected])
        else:
            self.assertEqual(spool, {})
        back = [mail.data.decode() for mail in returns.mails]
        self.assertEqual(len(back), expected is not None and expected < 0)
        if back:
            self.assertIn(REASONS[-expected], back[0])


REASONS = {1002: "Host not found.", 1003: "Malformed e-mail address", 1004: "Attempt to send mail to self",
           500: "Syntax error, command unrecognized. [SMTP Error Code 500]",
           521: "Unknown SMTP code 521",
           550: "Requested action not taken: mailbox unavailable. [SMTP Error Code 550]",
           552: "Requested mail action aborted: exceeded storage allocation. [SMTP Error Code 552]",
           553: "Requested action not taken: mailbox name not allowed. [SMTP Error Code 553]",
           554: "Transaction failed. [SMTP Error Code 554]"}


def main():
    global SCRATCH
    SCRATCH = world.enter()
    options = sys.argv[1:]
    words = options[options.index("-k") + 1] if "-k" in options else ""
    loader = unittest.TestLoader()
    loader.getTestCaseNames = lambda case: [
        name for name in unittest.TestLoader().getTestCaseNames(case)
        if not words or any(word in name for word in words.lstrip("!").split(",")) != words.startswith("!")]
    runner = unittest.TextTestRunner(verbosity=2 if "-v" in options else 1, stream=sys.stdout)
    result = runner.run(loader.loadTestsFromModule(sys.modules["__main__"]))
    failed = len(result.failures) + len(result.errors)
    print(f"{result.testsRun - failed} passed, {failed} failed", flush=True)
    sys.exit(failed > 0)
