"""What the system tests share: a test case with a fresh World and servers that are stopped with it,
tests from tables, and main()."""
import json
import os
import sys
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path[:0] = [os.path.join(ROOT, "tools/lib"), os.path.join(ROOT, "tests")]
import world  # noqa: E402
from servers import Dnsmasq, DnsServer, SmtpServer  # noqa: E402
from tables import reason  # noqa: E402

SCRATCH = None
THERE, SENDERS = "127.0.0.2", "127.0.0.9"  # where "domain-relay *" leads; where return mail goes
BACK = f"domain-relay *.from.test {SENDERS}"
RELAYS = (BACK, f"domain-relay * {THERE}")


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

    def dns(self, answers, address=world.DNS_ADDRESS, tcp=None):
        server = DnsServer(answers, address, tcp)
        self.addCleanup(server.stop)
        return server

    def run_ok(self, *args, **how):
        """A run that must end in status 0 by itself."""
        run = self.world.run(*args, **how)
        self.assertEqual(run.status, 0, run.out + "".join(f"{line.text}\n" for line in run.log))
        return run

    def retryq(self, *args, status=0, **how):
        if "strace" in how:  # two that cannot both trace
            how["env"] = {"ASAN_OPTIONS": "detect_leaks=0"}
        run = self.world.run(*args, binary=world.RETRYQ, **how)
        self.assertEqual(run.status, status, run.out)
        return run

    def objects(self, *args, **how):
        """What retryq tells, for programs."""
        return [json.loads(line) for line in self.retryq("--json", *args, **how).out.splitlines()]

    def assert_outcome(self, leaf, ends, returns):
        """ends: ("delivered", None), ("kept", code) or ("returned", code); `returns` is the server that
        takes return mail."""
        word, code = ends
        self.assertEqual(bool(self.world.spool()), word == "kept", [mail.data for mail in returns.mails])
        if word == "kept":
            self.assertEqual([found for _, found in self.world.rmd(leaf).recipients], [code])
        self.assertEqual(len(returns.mails), word == "returned")
        for mail in returns.mails:
            self.assertIn(reason(code), mail.data.decode())


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
    passed = result.testsRun - failed - len(result.skipped)
    print(f"{passed} passed, {failed} failed", flush=True)
    sys.exit(failed > 0)
