#!/usr/bin/python3
"""Which server a recipient's mail goes to: relays, exchangers, literals, direct sends, sick DNS."""
import struct
import subprocess

import harness
import servers
from harness import SENDERS, SystemTest, cases
from servers import A, MX, a, mx, name, record, reply
from world import HOST, etc_file, DNS_ADDRESS

ONE, TWO, DEAD = "127.0.0.2", "127.0.0.3", "127.0.0.66"  # nobody listens on DEAD
BACK = f"domain-relay *.from.test {SENDERS}"
ZONE = {
    "plain.test": [(10, "one.test")], "one.test": [ONE], "two.test": [TWO], "dead.test": [DEAD],
    "order.test": [(20, "two.test"), (10, "one.test")], "deadfirst.test": [(10, "dead.test"), (20, "two.test")],
    "onlydead.test": [(10, "dead.test")], "noname.test": [(10, "missing.test"), (20, "two.test")],
    "nothing.test": [(10, "missing.test")], "here.test": [TWO, (10, HOST), (20, "one.test")],
    "better.test": [(5, "two.test"), (10, HOST), (20, "one.test")],
}

# Table lines and settings, recipient, the servers that were reached in order, the outcome.
ROUTES = {
    "exchanger": ([], {}, "u@plain.test", [ONE], None),
    "order of preference": ([], {}, "u@order.test", [ONE], None),
    "dead first exchanger": ([], {}, "u@deadfirst.test", [TWO], None),
    "only exchanger dead": ([], {}, "u@onlydead.test", [], 1001),
    "exchanger without address": ([], {}, "u@noname.test", [TWO], None),
    "no exchanger has an address": ([], {}, "u@nothing.test", [], 1001),
    "no exchanger, own address": ([], {}, "u@two.test", [TWO], None),
    "this host is the best exchanger": ([], {}, "u@here.test", [TWO], None),
    "better exchangers than this host": ([], {}, "u@better.test", [TWO], None),
    "unknown domain": ([], {}, "u@unknown.test", [], -1002),
    "unknown domain, fallback relay": ([f"fallback-relay * {TWO}"], {}, "u@unknown.test", [TWO], None),
    "dead exchanger, fallback relay": ([f"fallback-relay * {TWO}"], {}, "u@onlydead.test", [TWO], None),
    "fallback relay of another domain": ([f"fallback-relay *.x.test {TWO}"], {}, "u@unknown.test", [], -1002),
    "no DNS, fallback relay": ([f"fallback-relay * {TWO}"], {"use_dns": "no"}, "u@plain.test", [TWO], None),
    "no DNS, no relay": ([], {"use_dns": "no"}, "u@plain.test", [], 1001),
    "relay": ([f"domain-relay plain.test {TWO}"], {}, "u@plain.test", [TWO], None),
    "relay by name": (["domain-relay plain.test two.test"], {}, "u@plain.test", [TWO], None),
    "relay for subdomains": ([f"domain-relay *.plain.test {TWO}"], {}, "u@a.b.PLAIN.test", [TWO], None),
    "relay for all": ([f"domain-relay * {TWO}"], {}, "u@plain.test", [TWO], None),
    "first relay line wins": ([f"domain-relay *.plain.test {TWO}", f"domain-relay * {ONE}"], {}, "u@plain.test", [TWO], None),
    "second relay word": ([f"domain-relay plain.test {DEAD} {TWO}"], {}, "u@plain.test", [TWO], None),
    "dead relay ends the search": ([f"domain-relay plain.test {DEAD}", f"fallback-relay * {TWO}"], {}, "u@plain.test", [], 1001),
    "local relay is no relay": (["domain-relay plain.test 127.0.0.1"], {}, "u@plain.test", [ONE], None),
    "literal": ([], {}, f"u@[{TWO}]", [TWO], None),
    "literal passes relays by": ([f"domain-relay * {ONE}"], {}, f"u@[{TWO}]", [TWO], None),
    "nonsense literal": ([], {}, "u@[999.1.1.1]", [], 1001),
    "this host": ([], {}, f"u@{HOST}", [], -1004),
    "a prefix of this host": ([], {}, "u@gateway.home", [], -1004),
    "this host, proxy on another port": ([f"fallback-relay * {TWO}"], {"bind_port": 10025}, f"u@{HOST}", [TWO], None),
    "no domain": ([], {}, "user", [], -1003),
    "empty line": ([], {}, "", [], -1003),
}

# Behind header and question of x.test an answer's first record begins at byte 24, the exchanger's
# name of a first record for x.test at byte 44.
GOOD = mx("x.test", 10, "mx.test")
# Two addresses of a host are tried, and no more.
ONLY = {("four.test", A): [a("four.test", address) for address in (DEAD, "127.0.0.67", ONE, TWO)],
        ("two.test", A): [a("two.test", address) for address in (DEAD, ONE, TWO)],
        ("mx.test", A): [a("mx.test", ONE)], ("x.test", A): [a("x.test", TWO)]}


def raw(data):
    return lambda query: reply(query, count=1) + data


# The answer for the exchangers of x.test (whose only exchanger is ONE, its own address TWO), the
# server reached, the outcome.
ANSWERS = {
    "plain": ([GOOD], ONE, None),
    "second address of a host": ([mx("x.test", 10, "two.test")], ONE, None),
    "third address of a host": ([mx("x.test", 10, "four.test")], None, 1001),
    "no such domain": (lambda q: reply(q, rcode=3), None, -1002),
    "server failure": (lambda q: reply(q, rcode=2), None, 1001),
    "refused": (lambda q: reply(q, rcode=5), None, 1001),
    "format error": (lambda q: reply(q, rcode=1), None, 1001),
    "silence": (None, None, 1001),
    "no records": ([], TWO, None),
    "no records, count says one": (lambda q: reply(q, count=1), TWO, None),
    "no records, count says 65535": (lambda q: reply(q, count=65535), TWO, None),
    "count says less": (lambda q: reply(q, mx("x.test", 5, "no.test"), GOOD, count=1), ONE, None),
    "other records first": ([a("x.test", DEAD), record("x.test", 16, b"\x03txt"), GOOD], ONE, None),
    "another class": ([mx("x.test", 10, "mx.test", klass=3)], ONE, None),
    "exchanger by pointer": ([mx("x.test", 10, b"\x02mx\xc0\x0e")], ONE, None),
    "owner by pointer": ([mx(b"\xc0\x0c", 10, "mx.test")], ONE, None),
    "owner points to itself": (raw(b"\xc0\x18" + GOOD[8:]), None, -1002),
    "exchanger points to itself": ([mx("x.test", 10, b"\xc0\x2c")], None, -1002),
    "pointer past the end": ([mx("x.test", 10, b"\xc3\xff")], None, -1002),
    "half a pointer": ([mx("x.test", 10, b"\xc0")], None, -1002),
    "label past the end": ([mx("x.test", 10, b"\x3fab")], None, -1002),
    "reserved label type": ([mx("x.test", 10, b"\x80ab\0")], None, -1002),
    "name of 300 bytes": ([mx("x.test", 10, (b"\x3b" + b"a" * 59) * 5 + b"\0")], None, -1002),
    "fixed part cut": (raw(name("x.test") + b"\0\x0f\0\x01\0"), TWO, None),
    "preference cut": (raw(record("x.test", MX, b"\0")), TWO, None),
    "cut after a good record": (lambda q: reply(q, GOOD) + name("x.test") + b"\0\x0f", ONE, None),
    "length past the end": ([record("x.test", 16, b"abc", length=60000), GOOD], TWO, None),
    "length past the end, good before": ([GOOD, record("x.test", 16, b"abc", length=60000)], ONE, None),
    "length zero": ([mx("x.test", 10, "mx.test", length=0)], ONE, None),
    "null exchanger": ([mx("x.test", 0, "")], None, 1001),
    "ten records count": ([mx("x.test", 10 + n, f"no{n}.test") for n in range(10)] + [mx("x.test", 1, "mx.test")], None, 1001),
    "equal preferences": ([mx("x.test", 10, "no1.test"), mx("x.test", 10, "no2.test"), GOOD], ONE, None),
    "preferences at the edges": ([mx("x.test", 65535, "no.test"), mx("x.test", 0, "mx.test")], ONE, None),
    "782 bytes": ([GOOD] + [record("x.test", 16, b"\xc8" + b"t" * 200)] * 3 + [record("x.test", 16, b"\x3a" + b"t" * 58)], ONE, None),
    "cut at 512 in a name": ([record("x.test", 16, b"t" * 440), mx("x.test", 10, "a-name-that-crosses-the-end.test")], None, -1002),
    "another question": (lambda q: reply(q[:12] + b"\x01y\x04test\0\0\x0f\0\x01", GOOD), None, 1001),
    "another number": (lambda q: b"\xff\xff" + reply(q, GOOD)[2:], None, 1001),
    "question instead of answer": (lambda q: q, None, 1001),
    "twelve bytes": (lambda q: q[:2] + struct.pack(">HHHHH", 0x8180, 0, 0, 0, 0), None, 1001),
    "three bytes": (lambda q: q[:3], None, 1001),
    "noise": (lambda q: q[:2] + bytes(range(40, 250)), None, 1001),
}


class Routes(SystemTest):
    @classmethod
    def setUpClass(cls):
        cls.addClassCleanup(servers.Dnsmasq(harness.SCRATCH, ZONE).stop)

    @cases(ROUTES)
    def test_route(self, lines, settings, rcpt, reached, expected):
        self.world.table(BACK, *lines, **settings)
        there = [self.smtp(address) for address in (ONE, TWO)]
        returns = self.smtp(SENDERS)
        self.world.queue("m", f"<{rcpt}>" if "@" in rcpt else rcpt)
        self.run_ok()
        self.assertEqual([session.address for server in there for session in server.sessions], reached)
        self.assert_outcome("m", expected, returns)

    def test_a_failing_server_is_asked_once_a_run(self):
        self.world.table(BACK, "domain-relay * 127.0.0.2 127.0.0.3")
        sick, well = self.smtp(ONE, {"banner": "554 sick"}), self.smtp(TWO)
        for number in range(5):
            self.world.queue(f"m{number}", f"<{number}@x.test>")
        run = self.run_ok()
        self.assertEqual((len(sick.sessions), len(well.mails)), (1, 5))
        self.assertEqual(len(run.lines("no-greeting", f"relay={ONE}")), 1)

    def test_direct_send_goes_to_its_own_address(self):
        subprocess.run(["ip", "address", "add", "1.0.0.127/32", "dev", "lo"], check=True)
        server = self.smtp("1.0.0.127", port=2525)
        self.world.table(BACK, send_port=2525, bind_port=10025, direct_send_domains="outside.test")
        self.world.queue("m", ["<u@inside.test>", "<v@elsewhere.test>"])
        self.run_ok()
        self.assertEqual([mail.recipients for mail in server.mails], [["<v@elsewhere.test>", "<u@inside.test>"]])

    def test_each_domain_is_asked_for_once(self):
        etc_file("resolv.conf", "nameserver 127.0.0.54\noptions timeout:1 attempts:1\n")
        self.addCleanup(etc_file, "resolv.conf", f"nameserver {DNS_ADDRESS}\noptions timeout:1 attempts:1\n")
        dns = servers.DnsServer({("x.test", MX): [GOOD], **ONLY}, "127.0.0.54")
        self.addCleanup(dns.stop)
        self.smtp(ONE)
        self.world.queue("m", [f"<{n}@x.test>" for n in range(20)])
        self.world.queue("n", "<other@x.test>")
        self.run_ok()
        self.assertEqual(self.world.spool(), {})
        self.assertEqual(dns.questions.count(("x.test", MX)), 1)


class Answers(SystemTest):
    @cases(ANSWERS)
    def test_answer(self, answer, reached, expected):
        self.dns({("x.test", MX): answer, **ONLY})
        there = {address: self.smtp(address) for address in (ONE, TWO)}
        returns = self.smtp(SENDERS)
        self.world.table(BACK)
        self.world.queue("m", "<u@x.test>")
        self.assertLess(self.run_ok().seconds, 15)
        self.assertEqual([address for address in there if there[address].sessions], [reached] if reached else [])
        self.assert_outcome("m", expected, returns)

    def test_no_server_at_all(self):
        self.world.queue("m", "<u@x.test>")
        self.run_ok()
        self.assertEqual(self.world.rmd("m").recipients, [("<u@x.test>", 1001)])


if __name__ == "__main__":
    harness.main()
