#!/usr/bin/python3
"""One message meets one server: what is said, what arrives, what the spool keeps, what comes back."""
import random
import time

import harness
from harness import RELAYS, SENDERS, THERE, SystemTest, cases
from servers import CLOSE, RST, SILENT, Exim, drip
from world import HOST, wire

# A server's script; the outcome (None delivered, n kept with code n, -n returned with code n); the
# seconds that this may take with time limits of one second.
ANSWERS = {
    "plain": ({}, None, 1),
    "multi-line reply": ({"rcpt": b"250-a\r\n250-b\r\n250 c\r\n"}, None, 1),
    "the last line's number counts": ({"rcpt": b"250-a\r\n550 no\r\n"}, -550, 1),
    "reply in three pieces": ({"rcpt": (b"25", 0.05, b"0 ok\r", 0.05, b"\n")}, None, 1),
    "reply byte by byte": ({"helo": drip(b"250 hello\r\n", 0.01)}, None, 1),
    "replies ended by LF": ({"banner": b"220 hi\n", "rcpt": b"250 ok\n"}, None, 1),
    "replies ended by CR": ({"mail": b"250 ok\r", "rcpt": b"250 ok\r"}, None, 1),
    "three digits only": ({"rcpt": "250"}, 1001, 1),
    "not a number": ({"rcpt": "hello"}, 0, 1),
    "greeting 554": ({"banner": "554 go away"}, 1001, 1),
    "greeting closes": ({"banner": (CLOSE,)}, 1001, 1),
    "greeting silent": ({"banner": (SILENT,)}, 1001, 2),
    "HELO 450": ({"helo": "450 later"}, 450, 1),
    "HELO 554": ({"helo": "554 no"}, -554, 1),
    "MAIL 451": ({"mail": "451 local error"}, 451, 1),
    "MAIL 553": ({"mail": "553 no such name"}, -553, 1),
    "MAIL silent": ({"mail": (SILENT,)}, 1001, 4),
    "RCPT 450": ({"rcpt": "450 busy"}, 450, 1),
    "RCPT 499": ({"rcpt": "499 odd"}, 499, 1),
    "RCPT 500": ({"rcpt": "500 what"}, -500, 1),
    "RCPT 521": ({"rcpt": "521 no mail here"}, -521, 1),
    "RCPT 550": ({"rcpt": "550 unknown"}, -550, 1),
    "RCPT reset": ({"rcpt": (RST,)}, 1001, 1),
    "RCPT answers 550 too late": ({"rcpt": (1.5, "550 unknown")}, 1001, 4),
    "DATA 451": ({"data": "451 full"}, 451, 1),
    "DATA 554": ({"data": "554 no"}, -554, 1),
    "DATA 250": ({"data": "250 wrong"}, 250, 1),
    "DATA silent": ({"data": (SILENT,)}, 1001, 4),
    "dot 452": ({"dot": "452 no room"}, 452, 1),
    "dot 552": ({"dot": "552 too big"}, -552, 1),
    "dot closes": ({"dot": (CLOSE,)}, 1001, 1),
    "dot silent": ({"dot": (SILENT,)}, 1001, 4),
    "reset in the body": ({"body": (RST,)}, 1001, 2),
    "body never read": ({"body": (6, CLOSE)}, 1001, 5),
    "QUIT unanswered": ({"quit": (SILENT,)}, None, 3),
    "QUIT refused": ({"quit": "500 never"}, None, 1),
    # The buffer holds 1027 bytes: with the CR, and with the CR LF of the reply before.
    "greeting of 1025 bytes": ({"banner": "220 " + "x" * 1021}, None, 1),
    "greeting of 1026 bytes": ({"banner": "220 " + "x" * 1022}, None, 1),
    "greeting of 1027 bytes": ({"banner": "220 " + "x" * 1023}, 1001, 3),
    "line of 1024 bytes": ({"rcpt": "250 " + "x" * 1020}, None, 1),
    "line of 1025 bytes": ({"rcpt": "250 " + "x" * 1021}, 1001, 4),
    "line without end": ({"rcpt": b"250 " + b"x" * 9000}, 1001, 4),
    "endless multi-line reply": ({"rcpt": (("endless", b"250-more\r\n" * 5000),)}, 1001, 4),
    "slow endless reply": ({"helo": (b"250-wait\r\n", 0.4) * 155 + (CLOSE,)}, 1001, 70),
    "urgent data": ({"rcpt": (("oob", b"!"), 0.1, "250 ok")}, None, 2),
    "urgent data, then silence": ({"rcpt": (("oob", b"!"), SILENT)}, 1001, 4),
    "NULs in a reply": ({"rcpt": b"250 \0\0ok\0\r\n"}, None, 1),
    "8-bit reply": ({"rcpt": b"250 \xff\xfe\x80\r\n"}, None, 1),
}

LENGTHS = (1, 1021, 1022, 1023, 1024, 1025, 2043, 2044, 2045, 2046, 2047, 3000, 5000)
BODIES = {
    "empty": b"",
    "one line end": b"\n",
    "dots": b".\n..\n...x\n.x.\n\n.\n",
    "dots and CR": b".\r\na\rb\r.\r\n\r.\r\n\r\n",
    "NULs": b"\0\n.\0\n\0\0\0.\n",
    "every byte": bytes(range(256)) * 300 + b"\n",
    "line lengths": b"".join(b"a" * n + b"\n" for n in LENGTHS),
    "dotted line lengths": b"".join(b"." * n + b"\n" for n in LENGTHS),
    "CR at the end of a piece": b"x" * 1021 + b"\r\n" + b"x" * 1022 + b"\r.\n",
    "last line unfinished": b"a\nb",
    "long last line unfinished": b"." * 3000,
    "line of 3 MB": b"q" * 3000000 + b"\nend\n",
    "noise": random.Random(7).randbytes(400000) + b"\n",
}


class Conversation(SystemTest):
    @cases(ANSWERS)
    def test_answer(self, script, expected, seconds):
        self.world.table(*RELAYS, **{f"smtp_{name}_timeout": 1 for name in
                                     ("connect", "mail", "rcpt", "data", "send", "final")})
        self.smtp(THERE, script)
        returns = self.smtp(SENDERS)
        text = b"Subject: x\n\n" + b"line\n" * (4000000 if "body" in script else 3)
        self.world.queue("m", "<user@there.test>", text=text)
        run = self.run_ok(timeout=100)
        self.assertLess(run.seconds, seconds + 1)
        self.assert_outcome("m", expected, returns)
        word = "delivered" if expected is None else "deferred" if expected >= 0 else "returned"
        self.assertEqual(len(run.lines(f" {word} ", "to=<user@there.test>")), 1, run.log)

    def test_dialogue_is_said_as_it_always_was(self):
        self.world.table(*RELAYS)
        server = self.smtp()
        self.world.queue("m", ["<one@a.test>", "two@b.test", "Three <three@c.test> there"], text=b"a\n.b\n", sender="<s@from.test>")
        self.run_ok()
        lines = [f"HELO {HOST}", "mail from: <s@from.test>", "RCPT TO: <three@c.test>", "RCPT TO: <two@b.test>",
                 "RCPT TO: <one@a.test>", "DATA", "a", "..b", "", ".", "QUIT"]
        self.assertEqual(bytes(server.sessions[0].raw).decode(), "".join(line + "\r\n" for line in lines))

    def test_bodies_arrive_as_they_were_queued(self):
        self.world.table(*RELAYS)
        server = self.smtp()
        for number, text in enumerate(BODIES.values()):
            self.world.queue(f"m{number}", f"<{number}@there.test>", text=text)
        self.run_ok()
        got = dict(server.received())
        for number, (name, text) in enumerate(BODIES.items()):
            with self.subTest(name):
                self.assertTrue(got.get(f"<{number}@there.test>") == wire(text))
        self.assertEqual(self.world.spool(), {})

    def test_a_late_refusal_bounces_nobody_else(self):
        self.world.table(*RELAYS, smtp_rcpt_timeout=1)
        self.smtp(THERE, {"rcpt": {"slow": (1.5, "550 slow is unknown")}})
        returns = self.smtp(SENDERS)
        self.world.queue("m", ["<slow@there.test>", "<good@there.test>"])
        self.run_ok()
        self.assertEqual(sorted(self.world.rmd("m").recipients), [("<good@there.test>", 1001), ("<slow@there.test>", 1001)])
        self.assertEqual(returns.mails, [])

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
            self.assert_outcome("m", -1003, returns)


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
        reasons = [("first", harness.REASONS[550]), ("second", harness.REASONS[552]), ("third", "Unknown SMTP code 599")]
        failed = sorted(f"<{who}@a.test>: {why}" for who, why in reasons)
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

    def test_refused_is_dropped_and_said(self):
        run, returns = self.fail({"rcpt": "550 unknown"})
        self.assertEqual((self.world.spool(), returns.mails), ({}, []))
        self.assertEqual(len(run.lines(" dropped ", "<sender@from.test>")), 1)

    @cases({"brackets": ("<>",), "nothing": ("",), "blank": ("< >",)})
    def test_null_sender_gets_none(self, sender):
        self.world.table(*RELAYS)
        server = self.smtp(THERE, {"rcpt": "550 no"})
        self.world.queue("m", ["<a@a.test>", "<b@b.test>"], sender=sender)
        run = self.run_ok()
        self.assertEqual((self.world.spool(), server.mails), ({}, []))
        self.assertEqual(len(run.lines(" dropped ")), 2)


class RealServers(SystemTest):
    def test_a_real_mail_server_stores_what_was_queued(self):
        self.zone({"a.test": [(10, "mx.test")], "b.test": [(10, "mx.test")], "mx.test": ["127.0.0.10"]})
        exim = Exim(harness.SCRATCH, "127.0.0.10")
        self.addCleanup(exim.stop)
        noise = random.Random(9).randbytes(300000).replace(b"\r", b"")
        texts = {"dots": b".\n..\n...\n", "noise": noise + b"\n",
                 "long": b"x" * 3000000 + b"\n" + b"." * 3000000 + b"\n"}
        for leaf, text in texts.items():
            self.world.queue(leaf, ["<u@a.test>", "<v@b.test>"], text=f"Subject: {leaf}\n\n".encode() + text)
        self.run_ok()
        self.assertEqual(self.world.spool(), {})
        stored = {mail.text.split(b"\n", 1)[0][9:].decode(): mail for mail in exim.stored()}
        self.assertEqual({leaf: sorted(mail.recipients) for leaf, mail in stored.items()}, {leaf: ["u@a.test", "v@b.test"] for leaf in texts})
        for leaf, text in texts.items():
            # The gateway ends every body with one empty line of its own.
            self.assertTrue(stored[leaf].text == f"Subject: {leaf}\n\n".encode() + text + b"\n", leaf)


if __name__ == "__main__":
    harness.main()
