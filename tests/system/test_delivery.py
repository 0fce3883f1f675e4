#!/usr/bin/python3
"""One message meets one server: what is said, what arrives, what the spool keeps, what comes back."""
import re
import time

import harness
from harness import BACK, RELAYS, SENDERS, THERE, SystemTest, cases
from servers import CLOSE, MX, RST, SILENT, reply
from tables import reason
from world import HOST, wire

class Conversation(SystemTest):
    def test_dialogue_is_said_as_it_always_was(self):
        self.world.table(*RELAYS)
        server = self.smtp()
        self.world.queue("m", ["<one@a.test>", "two@b.test", "Three <three@c.test> there"], text=b"a\n.b\n", sender="<s@from.test>")
        self.run_ok()
        lines = [f"HELO {HOST}", "mail from: <s@from.test>", "RCPT TO: <three@c.test>", "RCPT TO: <two@b.test>",
                 "RCPT TO: <one@a.test>", "DATA", "a", "..b", "", ".", "QUIT"]
        self.assertEqual(bytes(server.sessions[0].raw).decode(), "".join(line + "\r\n" for line in lines))

    def test_a_hung_server_costs_few_time_limits_however_many_recipients(self):
        self.world.table(*RELAYS, smtp_rcpt_timeout=1)
        self.smtp(THERE, {"rcpt": {"first": "250 ok", "": (SILENT,)}})
        self.world.queue("m", [f"<u{n}@there.test>" for n in range(50)] + ["<first@there.test>"])
        self.assertLess(self.run_ok().seconds, 15)
        self.assertEqual(len(self.world.rmd("m").recipients), 51)


class Recipients(SystemTest):
    def test_each_goes_its_own_way(self):
        self.world.table(*RELAYS)
        server = self.smtp(THERE, {"rcpt": {"busy": "450 busy", "bad": "550 bad"}})
        returns = self.smtp(SENDERS)
        self.world.queue("m", ["<bad@a.test>", ("<busy@b.test>", 1001), "<good@c.test>", "<worse@bad.test>"], tries=4)
        before, now = self.world.rmd("m"), int(time.time())
        run = self.run_ok()
        self.assertEqual(len(server.sessions), 2)  # one more for the recipient that was refused first
        self.assertEqual([rcpt for rcpt, _ in server.received()], ["<good@c.test>"])
        after = self.world.rmd("m")
        self.assertEqual((after.first, after.tries, after.sender, after.recipients),
                         (before.first, 5, before.sender, [("<busy@b.test>", 450)]))
        self.assertAlmostEqual(after.last, now, delta=5)
        self.assertEqual(len(returns.mails), 1)
        for word, who in (("delivered", "good@c"), ("deferred", "busy@b"), ("returned", "bad@a"), ("returned", "worse@bad")):
            self.assertEqual(len(run.lines(f" {word} ", f"<{who}.test>")), 1, (word, who, run.log))

    def test_two_domains_of_one_server_share_a_connection(self):
        self.zone({"a.test": [(10, "mx.test")], "b.test": [(10, "mx.test")], "c.test": [(10, "other.test")],
                   "mx.test": [THERE], "other.test": ["127.0.0.3"]})
        shared, other = self.smtp(), self.smtp("127.0.0.3")
        self.world.queue("m", ["<1@a.test>", "<2@c.test>", "<3@b.test>", "<4@a.test>"])
        self.run_ok()
        self.assertEqual([mail.recipients for mail in shared.mails], [["<4@a.test>", "<3@b.test>", "<1@a.test>"]])
        self.assertEqual([mail.recipients for mail in other.mails], [["<2@c.test>"]])

    # As it stands in the file, the RCPT argument, with "default-domain corp.test".
    @cases({"bare domain": ("<u@mail>", "<u@mail.corp.test>"), "local name": ("u", "<u.corp.test>"),
            "display name": ("Some One <u@x.test>", "<u@x.test>"), "full": ("u@x.test", "<u@x.test>"),
            "quoted local part": ('<"a b"@x.test>', '<"a b"@x.test>')})
    def test_address(self, queued, said):
        self.world.table(*RELAYS, default_domain="corp.test")
        server, returns = self.smtp(), self.smtp(SENDERS)
        self.world.queue("m", queued)
        self.run_ok()
        if "@" in said:
            self.assertEqual([rcpt for rcpt, _ in server.received()], [said])
        else:
            self.assert_outcome("m", ("returned", 1003), returns)


# What the server of this message does (None: there is none), and what its recipient's line tells, from
# relay= on (R stands for that field) and without the code in words.
TOLD = {
    "taken": ({"dot": "250 2.0.0 <id=7> queued"}, 'delivered R code=250 stage=dot reply="250 2.0.0 %3Cid%3D7%3E queued"'),
    "greylisted": ({"rcpt": ("450-4.2.0 first", "450 4.2.0 come back")}, 'deferred R code=450 stage=RCPT reply="450 4.2.0 come back"'),
    "unknown": ({"rcpt": b"550 5.1.1 \xff\r\n"}, 'returned R code=550 stage=RCPT reply="550 5.1.1 %FF"'),
    "long": ({"rcpt": "450 " + "x" * 600}, f'deferred R code=450 stage=RCPT reply="450 {"x" * 249}..."'),
    "forged": ({"rcpt": "450 to=<v@x.test> a\"b'c\\"}, 'deferred R code=450 stage=RCPT reply="450 to%3D%3Cv@x.test%3E a%22b%27c%5C"'),
    "unwelcome": ({"banner": "554 not you"}, 'deferred R code=1001 stage=greeting reply="554 not you"'),
    "mute": ({"banner": (SILENT,)}, "deferred R code=1001 stage=greeting error=62 (no answer in 1 s)"),
    "closed": ({"helo": (CLOSE,)}, "deferred R code=1001 stage=HELO error=61 (the server closed the connection)"),
    "reset": ({"mail": (RST,)}, "deferred R code=1001 stage=MAIL error=104 (Connection reset by peer)"),
    "short": ({"rcpt": "250"}, 'deferred R code=1001 stage=RCPT error=0 (unreadable reply) reply="250"'),
    "odd": ({"data": "250 done"}, 'deferred R code=250 stage=DATA error=0 (DATA was not answered with 354) reply="250 done"'),
    "busy": ({"data": "451 wait"}, 'deferred R code=451 stage=DATA reply="451 wait"'),
    "stuck": ({"body": (RST,)}, "deferred R code=1001 stage=body error=104 (Connection reset by peer)"),
    "full": ({"dot": "552 full"}, 'returned R code=552 stage=dot reply="552 full"'),
    "absent": (None, "deferred R code=1001 stage=connect error=111 (Connection refused)"),
}


class Told(SystemTest):
    def test_each_line_is_enough_by_itself(self):
        """All in one run, so that nothing of one conversation can pass for another's unnoticed."""
        address = {leaf: f"127.0.1.{n}" for n, leaf in enumerate(TOLD, 1)}
        routes = [f"domain-relay *.{leaf}.test {there}" for leaf, there in address.items()]
        self.world.table(BACK, *routes, smtp_connect_timeout=1, use_dns="yes")
        self.dns({("failing.test", MX): lambda query: reply(query, rcode=2)})
        self.smtp(SENDERS)
        expected = {"nowhere": "returned code=1002 left-out=none:no-domain", "failing": "deferred code=1001 left-out=none:lookup-failed",
                    "second": f"deferred code=1001 left-out=blacklist:{address['absent']}"}
        for leaf, (script, line) in TOLD.items():
            if script is not None:
                self.smtp(address[leaf], script)
            others = ["<second@absent.test>"] if leaf == "absent" else []
            self.world.queue(leaf, [*others, f"<{leaf}@{leaf}.test>"], b"line\n" * (800000 if leaf == "stuck" else 1))
            expected[leaf] = line.replace("R", f"relay={address[leaf]}", 1)
        for leaf in ("nowhere", "failing"):
            self.world.queue(leaf, f"<{leaf}@{leaf}.test>")
        run = self.run_ok()
        found = (re.match(r"\d+ (\w+) msg=\w+ from=<sender@from.test> to=<(\w+)@[\w.]+>(.*)", line.text) for line in run.log)
        told = {match[2]: match[1] + re.sub(r" text=.*?(?=( stage=| left-out=|$))", "", match[3])
                for match in found if match and " code=" in match[3]}
        self.assertEqual({who: line for who, line in told.items() if "self" not in line}, expected)
        self.assertEqual(run.lines(" walk-ended ")[0].partition(" seconds=")[0].split()[2:],
                         "entries=17 attempted=17 held=0 delivered=1 return-delivered=3 deferred=14 returned=3 dropped=0".split())


class ReturnMail(SystemTest):
    TEXT = b"Subject: lost\n\nline one\n.\n" + b"x" * 2000 + b"\nlast"

    def fail(self, script=None, **settings):
        self.world.table(*RELAYS, **settings)
        self.smtp(THERE, {"rcpt": {"first": "550 no", "second": "552 full", "": "599 odd"}})
        returns = self.smtp(SENDERS, script)
        self.world.queue("m", ["<first@a.test>", "<second@a.test>", "<third@a.test>"], text=self.TEXT)
        return self.run_ok(), returns

    # Settings, the From line, the quoted lines.
    @cases({"plain": ({}, "Z880_SMTP_Mail_Service", ["Subject: lost", "", "line one", ".", "x" * 1023, "x" * 977]),
            "administrator": ({"badadmin": "postmaster@home.test", "max_returned_line_count": 3}, "postmaster@home.test",
                              ["Subject: lost", "", "line one"]),
            "nothing quoted": ({"max_returned_line_count": 0}, "Z880_SMTP_Mail_Service", [])})
    def test_content(self, settings, author, quoted):
        _, returns = self.fail(**settings)
        self.assertEqual(self.world.spool(), {})
        self.assertEqual([(mail.sender, mail.recipients) for mail in returns.mails], [("<>", ["<sender@from.test>"])])
        lines = returns.mails[0].data.decode().replace("\r\n..", "\r\n.").split("\r\n")
        self.assertRegex(lines.pop(1), r"^Date: \w{3}, \d\d \w{3} \d{4} \d\d:\d\d:\d\d \+0000 \(UTC\)$")
        failed = [f"<{who}@a.test>: {reason(code)}" for who, code in (("first", 550), ("second", 552), ("third", 599))]
        self.assertEqual(sorted(lines[6:9]), failed)
        del lines[6:9]
        self.assertEqual(lines, [f"From: {author}", "To: <sender@from.test>", "Subject:Returned Mail - Error During Delivery",
                                 "", "------ Failed Recipients ------", "", "-------- Returned Mail --------", "", *quoted, ""])

    def test_kept_until_the_sender_takes_it(self):
        run, returns = self.fail([{"rcpt": "450 later"}, {}])
        leaf = next(name for name in self.world.spool() if not name.endswith(".rmd"))
        self.assertRegex(leaf, r"^rjctfile\w{6}$")
        kept = self.world.rmd(leaf)
        self.assertEqual((kept.tries, kept.sender, kept.recipients), (1, "<>", [("<sender@from.test>", 450)]))
        self.assertEqual(len(run.lines(" deferred ", leaf)), 1)
        text = self.world.spool()[leaf]
        self.run_ok("-now")
        self.assertEqual([mail.data for mail in returns.mails], [wire(text)])
        self.assertEqual(self.world.spool(), {})


if __name__ == "__main__":
    harness.main()
