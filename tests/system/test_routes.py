#!/usr/bin/python3
"""Which server a recipient's mail goes to, and what retryq tells of it beforehand: relays, exchangers,
literals, direct sends."""
import socket
import subprocess

import harness
import servers
from harness import BACK, SENDERS, SystemTest, cases
from servers import A, MX, a, mx
from tables import outcome, route_agrees, table
from world import BINARY, DNS_ADDRESS, HOST, etc_file

ONE, TWO = "127.0.0.2", "127.0.0.3"
ZONE = {
    "plain.test": [(10, "one.test")], "one.test": [ONE], "two.test": [TWO], "dead.test": ["127.0.0.66"],
    "order.test": [(20, "two.test"), (10, "one.test")], "deadfirst.test": [(10, "dead.test"), (20, "two.test")],
    "onlydead.test": [(10, "dead.test")], "noname.test": [(10, "missing.test"), (20, "two.test")],
    "nothing.test": [(10, "missing.test")], "here.test": [TWO, (10, HOST), (20, "one.test")],
    "better.test": [(5, "two.test"), (10, HOST), (20, "one.test")],
}
# Name: rule-table lines, recipient, outcome, the server reached, if any.
ROUTES = {name: (lines.split("; "), rcpt, outcome(ends), reached)
          for name, lines, rcpt, ends, *reached in table("system/data/routes.txt")}
# What route tells of each server, by step: tried (+) or why not, in the last word about it.
TOLD = {
    ("u@noname.test", ""): "exchangers -missing.test:resolve +127.0.0.3",
    ("u@better.test", ""): f"exchangers +127.0.0.3 -{HOST}:it -one.test:it",
    ("u@here.test", ""): f"exchangers -{HOST}:it -one.test:it own-address +127.0.0.3",
    ("u@order.test", "max-addr-to-try 1"): "exchangers +127.0.0.2 -127.0.0.3:before",
    ("u@better.test", "dns-rules rfc"): f"exchangers -127.0.0.3:other -{HOST}:it -one.test:it",
    ("u@two.test", "dns-rules rfc"): "own-address -127.0.0.3:other",
    ("u@[127.0.0.3]", "domain-relay * one.test"): "literal +127.0.0.3",
    ("u@plain.test", "domain-relay *.test 127.0.0.1; domain-relay plain.test two.test; domain-relay * one.test"):
        "domain-relay -127.0.0.1:(/etc/hosts) domain-relay +127.0.0.3",
    ("u@plain.test", "max-addr-to-try 1; domain-relay * missing.test two.test one.test"):
        "domain-relay -missing.test:resolve +127.0.0.3 -one.test:before",
    ("u@plain.test", "use-dns no; fallback-relay * one.test; domain-relay x.test two.test"): "exchangers fallback-relay +127.0.0.2",
}


class Routes(SystemTest):
    @classmethod
    def setUpClass(cls):
        cls.addClassCleanup(servers.Dnsmasq(harness.SCRATCH, ZONE).stop)

    @cases(ROUTES)
    def test_route(self, lines, rcpt, ends, reached):
        self.world.table(BACK, *filter(None, lines))
        there = [self.smtp(address) for address in (ONE, TWO)]
        returns = self.smtp(SENDERS)
        self.world.queue("m", f"<{rcpt}>" if "@" in rcpt else rcpt)
        route, = self.objects("route", rcpt)
        self.assertTrue(route_agrees(route, ends, reached, (ONE, TWO)), route)
        self.run_ok()
        self.assertEqual([session.address for server in there for session in server.sessions], reached)
        self.assert_outcome("m", ends, returns)

    def test_route_tells_of_each_server(self):
        for (rcpt, lines), told in TOLD.items():
            with self.subTest(rcpt + " " + lines):
                self.world.table(*filter(None, lines.split("; ")))
                route, = self.objects("route", rcpt)
                words = [word for step in route["steps"] for word in (step["by"], *(
                    f"-{server['address'] or server['name']}:{server['left_out'].split()[-1]}" if "left_out" in server
                    else "+" + server["address"] for server in step["servers"]))]
                self.assertEqual(" ".join(words), told)

    def test_a_failing_server_is_asked_once_a_run(self):
        self.world.table(BACK, f"domain-relay * {ONE} {TWO}")
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

    def resolver(self, address, *lines):
        etc_file("resolv.conf", "\n".join([f"nameserver {address}", "options timeout:1 attempts:1", *lines, ""]))
        self.addCleanup(etc_file, "resolv.conf", f"nameserver {DNS_ADDRESS}\noptions timeout:1 attempts:1\n")

    def test_each_domain_is_asked_for_once(self):
        self.resolver("127.0.0.54")
        dns = self.dns({("x.test", MX): [mx("x.test", 10, "mx.test")], ("mx.test", A): [a("mx.test", ONE)]}, "127.0.0.54")
        self.smtp(ONE)
        self.world.queue("m", [f"<{n}@x.test>" for n in range(20)])
        self.world.queue("n", "<other@x.test>")
        self.run_ok()
        self.assertEqual(self.world.spool(), {})
        self.assertEqual(dns.questions.count(("x.test", MX)), 1)

    def test_nobody_is_looked_up_while_a_server_waits(self):
        self.resolver("127.0.0.54")
        there, waiting = self.smtp(ONE), []
        silent = {(f"{n}.dead.test", MX): lambda query: waiting.append(len(there.sessions)) for n in range(3)}
        self.dns({("x.test", MX): [mx("x.test", 10, "mx.test")], ("y.test", MX): [mx("y.test", 10, "mx.test")],
                  ("mx.test", A): [a("mx.test", ONE)], **silent}, "127.0.0.54")
        self.world.queue("m", ["<z@y.test>", *(f"<u@{n}.dead.test>" for n in range(3)), "<v@x.test>"])
        self.run_ok()
        self.assertEqual(waiting, [0, 0, 0])
        self.assertEqual([mail.recipients for mail in there.mails], [["<v@x.test>", "<z@y.test>"]])

    def test_no_name_server_at_all(self):
        self.resolver("127.0.0.55")
        self.world.queue("m", "<u@plain.test>")
        self.run_ok()
        self.assertEqual(self.world.rmd("m").recipients, [("<u@plain.test>", 1001)])

    def test_only_a_name_without_dot_gets_the_default_domain(self):
        """With a wildcard in the gateway's own zone every domain would lead there."""
        self.world.table(BACK)
        self.resolver("127.0.0.54", "search home.test other.test")
        there, returns = self.smtp(ONE), self.smtp(SENDERS)
        self.dns({("lone.home.test", MX): [mx("lone.home.test", 10, "one.home.test")], ("one.home.test", A): [a("one.home.test", ONE)],
                  ("half.test", MX): [mx("half.test", 10, "mx.gone.test")],
                  **{(f"{name}.test.home.test", kind): [mx(f"{name}.test.home.test", 10, "one.home.test") if kind == MX else a(f"{name}.test.home.test", ONE)]
                     for name in ("gone", "mx.gone") for kind in (A, MX)}}, "127.0.0.54")
        self.world.queue("m", ["<v@half.test>", "<w@lone>"])
        self.world.queue("n", "<u@gone.test>")
        self.run_ok()
        self.assertEqual([mail.recipients for mail in there.mails], [["<w@lone>"]])
        self.assertEqual(self.world.rmd("m").recipients, [("<v@half.test>", 1001)])
        self.assertEqual(len(returns.mails), 1)

    def test_a_way_back_to_this_host_is_told(self):
        subprocess.run(["ip", "address", "add", "10.9.9.9/32", "dev", "lo"], check=True)
        self.addCleanup(subprocess.run, ["ip", "address", "del", "10.9.9.9/32", "dev", "lo"], check=True)
        for rcpt, warned in {"u@plain.test": 1, "u@[10.9.9.9]": 1, "u@[10.9.9.8]": 0, "u@[0.0.0.0]": 1, "u@relayed.test": 0}.items():
            self.world.table("domain-relay relayed.test 127.0.0.2")
            route, = self.objects("route", rcpt)
            self.assertEqual(sum("warning" in server for step in route["steps"] for server in step["servers"]), warned, route)
        self.assertIn("10.9.9.9: an address of this host", self.retryq("check", status=1).out)

    @cases({"silent": ((servers.SILENT,),), "drips": ((b"\2", 1.0) * 60,), "resets": ((servers.RST,),), "closes": ((),), "leaves": (servers.CLOSE,), "accepts nobody": (None,)})
    def test_no_look_up_lasts_for_ever(self, tcp):
        """Own name, relay, exchanger, address: a name server that sends everybody to its TCP side."""
        self.resolver("127.0.0.54")
        etc_file("hosts", "127.0.0.1 localhost\n")
        self.addCleanup(etc_file, "hosts", f"127.0.0.1 localhost\n127.0.0.1 {HOST} gateway\n")
        self.dns({
            ("two.test", MX): [mx("two.test", 10, "mx.test")],
            **{asked: lambda query: servers.reply(query, flags=0x8380)
               for asked in ((HOST, A), ("relay.test", A), ("mx.test", A), ("one.test", MX))}}, "127.0.0.54", tcp if tcp in (None, servers.CLOSE) else lambda query: tcp)
        if tcp is None:
            full = socket.create_server(("127.0.0.54", 53), backlog=0)
            self.addCleanup(full.close)
            waiting = socket.create_connection(("127.0.0.54", 53))
            self.addCleanup(waiting.close)
        self.world.table(BACK, "domain-relay relayed.test relay.test")
        self.world.queue("m", ["<u@one.test>", "<v@two.test>"])
        late = ["-e", "inject=writev:delay_enter=50000"]  # the question over TCP meets a peer that is gone
        blocked = self.world.run("--block-signal=RTMIN,ALRM", BINARY, "--help", binary="/usr/bin/env")
        helped, told, run = self.world.run("--help"), self.retryq("list"), self.run_ok(strace=late, env={"ASAN_OPTIONS": "detect_leaks=0"})
        self.assertLess(max(helped.seconds, blocked.seconds, told.seconds, run.seconds / 4), 2.5)
        self.assertEqual([code for _, code in self.world.rmd("m").recipients], [1001, 1001])


if __name__ == "__main__":
    harness.main()
