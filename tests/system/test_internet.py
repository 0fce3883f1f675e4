#!/usr/bin/python3
"""What the rule table may ask for beyond the old ways: EHLO and what servers offer, TLS, return mail for
programs."""
import base64
import email
import hashlib
import os
import re
import ssl
import subprocess
import unittest

import harness
import world
from harness import SENDERS, THERE, RELAYS, SystemTest, cases
from servers import A, CLOSE, CNAME, MX, SILENT, TLSA, Cut, SignIn, a, drip, mx, name, record, reply
from tables import outcome, route_agrees, table
from world import DNS_ADDRESS, HOST, etc_file

NAMES = {"good": "mx.test", "other": "other.test", "expired": "mx.test", "self": "mx.test", "far": "secure.test"}
TLS = {name: (lines.split("; "), server, outcome(ends), log.split(), why)
       for name, lines, server, ends, log, *why in table("system/data/tls.txt")}
DANE = {name: (lines.split("; "), links.split(), [] if records == "-" else records.split("; "), kind, outcome(ends), log.split(), why)
        for name, lines, links, records, kind, ends, log, *why in table("system/data/dane.txt")}
SIGN_IN = {name: (file, relay, outcome(ends), log, *via) for name, file, relay, ends, log, *via in table("system/data/signin.txt")}
USER, PASSWORD = "us", "p@ss w=rd"
OFFER = "250-mx.test\r\n250-SIZE 5000\r\n250-8BITMIME\r\n250-SMTPUTF8\r\n250 ENHANCEDSTATUSCODES"
# Rule-table lines, what the server answers to EHLO, the text, the recipient, what is said up to RCPT (by connection),
# the outcome.
HELO = f"HELO {HOST}"
EHLO = f"EHLO {HOST}"
MAIL, RCPT = "mail from: <sender@from.test>", "RCPT TO: <u@secure.test>"
TEXT = b"Subject: x\n\n.dot\n"  # 20 bytes on the wire, and the empty line at its end
EXTENSIONS = {
    "off": ("no", OFFER, TEXT, "u", [[HELO, MAIL, RCPT]], "delivered"),
    "nothing offered": ("yes", "250 mx.test", TEXT, "u", [[EHLO, MAIL, RCPT]], "delivered"),
    "size": ("yes", OFFER, TEXT, "u", [[EHLO, MAIL + " SIZE=22", RCPT]], "delivered"),
    "8 bits": ("yes", OFFER, b"\n\xe4\n", "u", [[EHLO, MAIL + " SIZE=7 BODY=8BITMIME", RCPT]], "delivered"),
    "8 bits, not offered": ("yes", "250 mx.test", b"\n\xe4\n", "u", [[EHLO, MAIL, RCPT]], "delivered"),
    "address beyond ASCII": ("yes", OFFER, TEXT, "\xfc", [[EHLO, MAIL + " SIZE=22 SMTPUTF8", RCPT.replace("u@", "\xfc@")]],
                             "delivered"),
    "too large": ("yes", OFFER, b"x" * 4998 + b"\n", "u", [[EHLO]], "returned 552"),
    "just fits": ("yes", OFFER, b"x" * 4996 + b"\n", "u", [[EHLO, MAIL + " SIZE=5000", RCPT]], "delivered"),
    "EHLO refused": ("yes", "502 what", TEXT, "u", [[EHLO, HELO, MAIL, RCPT]], "delivered"),
    "EHLO refused for now": ("yes", "451 later", TEXT, "u", [[EHLO]], "kept 451"),
    "EHLO ends it": ("yes", (CLOSE,), TEXT, "u", [[EHLO], [HELO, MAIL, RCPT]], "delivered"),
    "EHLO without answer": ("yes", (SILENT,), TEXT, "u", [[EHLO]], "kept 1001"),
}


# Many recipients and what becomes of them, with a server that offers PIPELINING and with one that does not.
AHEAD = "250-mx.test\r\n250-8BITMIME\r\n250 PIPELINING"
LONG = [f"u{n}" for n in range(250)]
PIPELINED = {
    "all taken": (["a", "b", "c"], {}),
    "one refused, one busy": (["a", "b", "c", "d"], {"rcpt": {"b@": "550 no", "c@": "450 later"}}),
    "the first refused": (["a", "b", "c"], {"rcpt": {"a@": "550 no", "c@": "452 too many"}}),
    "all refused": (["a", "b"], {"rcpt": "550 no"}),
    "sender refused": (["a", "b"], {"mail": "550 no"}),
    "no text": (["a", "b", "c"], {"rcpt": {"b@": "550 no"}, "data": "451 later"}),
    "text refused": (["a", "b", "c"], {"rcpt": {"b@": "450 no"}, "dot": "554 spam"}),
    "leaves early": (["a", "b", "c"], {"rcpt": {"b@": ("421 bye", CLOSE)}}),
    "8 bits refused with MAIL": (["a", "b"], {"mail": {"BODY=8BITMIME": "555 no such option", "": "250 ok"}}),
    "more than a window": (LONG, {"rcpt": {f"u{n}@": "550 no" for n in range(1, 250, 7)}}),
    "more bytes than a window": ([f"{n}" + "x" * 500 for n in range(40)], {"rcpt": {"7x": "450 later"}}),
    "too long for a command": (["a", "b" * 1100, "c"], {}),
}


FAR = "10.9.8.7"  # an address of this host that /etc/hosts does not know, in this world also another's
FOREIGN = "192.0.2.7"  # of a host that is not known to be this one


class Many:
    """So many useless exchangers, and behind them the best: over UDP as far as the question has room for them."""

    def __init__(self, count, tcp=True):
        self.over_tcp = self._over_tcp if tcp else None
        self._records = [mx(b"\xc0\x0c", 50, f"dead{n}.test") for n in range(count)] + [mx(b"\xc0\x0c", 5, "far.test")]

    def __call__(self, query):
        room = int.from_bytes(query[-8:-6], "big") if query[11] else 512  # where EDNS tells it
        whole = reply(query, *self._records)
        return whole if len(whole) <= room else reply(query, flags=0x8380)

    def _over_tcp(self, query):
        whole = reply(query, *self._records)
        return len(whole).to_bytes(2, "big"), whole


def temporary(query):
    return reply(query, rcode=2)


# What the name server says, the recipient, further rule-table lines, outcome and servers reached by either rule.
RFC = {
    "null MX": ({("x.test", MX): [mx("x.test", 0, "")]}, "<u@x.test>", [], ("kept 1001", []), ("returned 1007", [])),
    "null MX, fallback": ({("x.test", MX): [mx("x.test", 0, "")]}, "<u@x.test>", [f"fallback-relay * {THERE}"],
                          ("delivered", [THERE]), ("returned 1007", [])),
    "silent about the address": ({("x.test", MX): lambda q: reply(q), ("x.test", A): temporary}, "<u@x.test>", [],
                                 ("returned 1002", []), ("kept 1001", [])),
    "no address": ({("x.test", MX): lambda q: reply(q), ("x.test", A): lambda q: reply(q)}, "<u@x.test>", [],
                   ("returned 1002", []), ("returned 1002", [])),
    "a datagram of 900 bytes": ({("x.test", MX): Many(40, tcp=False), ("far.test", A): [a("far.test", FOREIGN)]}, "<u@x.test>", [],
                                ("kept 1001", []), ("delivered", [FOREIGN])),
    "5,000 bytes over TCP": ({("x.test", MX): Many(220), ("far.test", A): [a("far.test", FOREIGN)]}, "<u@x.test>", [],
                             ("kept 1001", []), ("delivered", [FOREIGN])),
    "an address of no other": ({("x.test", MX): [mx("x.test", 10, "loop.test")], ("loop.test", A): [a("loop.test", THERE)]},
                               "<u@x.test>", [], ("delivered", [THERE]), ("kept 1001", [])),
    "an address of ours": ({("x.test", MX): [mx("x.test", 10, "our.test"), mx("x.test", 20, "far.test")],
                            ("our.test", A): [a("our.test", FAR)], ("far.test", A): [a("far.test", THERE)]},
                           "<u@x.test>", [], ("delivered", [FAR]), ("kept 1001", [])),
    "relay without address now": ({("relay.test", A): temporary, ("x.test", MX): [mx("x.test", 10, "far.test")],
                                   ("far.test", A): [a("far.test", THERE)]},
                                  "<u@x.test>", ["domain-relay x.test relay.test"], ("delivered", [THERE]), ("kept 1001", [])),
}


def openssl(*words):
    subprocess.run(["openssl", *words], cwd=harness.SCRATCH, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def make_certificates():
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key", "-out", "ca.pem", "-days", "9", "-subj", "/CN=ca")
    for kind, host in NAMES.items():
        openssl("req", "-newkey", "rsa:2048", "-nodes", "-keyout", kind + ".key", "-out", kind + ".csr", "-subj", "/CN=" + host)
        signer = ["-signkey", kind + ".key"] if kind == "self" else ["-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial"]
        openssl("x509", "-req", "-in", kind + ".csr", "-out", kind + ".pem", "-days", "-1" if kind == "expired" else "9", *signer)


    with open(os.path.join(harness.SCRATCH, "chain.pem"), "wb") as chain:
        chain.write(b"".join(read(kind + ".pem") for kind in ("good", "ca")))
    os.link(os.path.join(harness.SCRATCH, "good.key"), os.path.join(harness.SCRATCH, "chain.key"))
    with open(os.path.join(harness.SCRATCH, "own.pem"), "wb") as own:  # what we show, certificate and key
        own.write(read("far.pem") + read("far.key"))


def read(leaf):
    with open(os.path.join(harness.SCRATCH, leaf), "rb") as file:
        return file.read()


def tlsa_data(usage, selector, matching, kind):
    """The data of a TLSA record; "short" stands for bytes that are neither certificate nor digest."""
    found = b"short"
    if kind != "short":
        found = ssl.PEM_cert_to_DER_cert(read(kind + ".pem").decode())
    if selector == "1" and kind != "short":
        key = subprocess.run(["openssl", "x509", "-inform", "DER", "-noout", "-pubkey"], input=found, check=True, capture_output=True)
        found = subprocess.run(["openssl", "pkey", "-pubin", "-outform", "DER"], input=key.stdout, check=True, capture_output=True).stdout
    digest = {"1": hashlib.sha256, "2": hashlib.sha512}.get(matching)
    return bytes(map(int, (usage, selector, matching))) + (digest(found).digest() if digest and kind != "short" else found)


def tls(kind, how=""):
    """Makes a connection one of TLS, with that certificate."""
    made = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    made.load_cert_chain(*(os.path.join(harness.SCRATCH, kind + end) for end in (".pem", ".key")))
    if how == "old":
        made.minimum_version = made.maximum_version = ssl.TLSVersion.TLSv1
        made.set_ciphers("ALL:@SECLEVEL=0")
    elif how.startswith("asks"):
        made.maximum_version = ssl.TLSVersion.TLSv1_2 if how == "asks1.2" else ssl.TLSVersion.TLSv1_3
        made.verify_mode = ssl.CERT_REQUIRED
        made.load_verify_locations(os.path.join(harness.SCRATCH, "ca.pem"))
    elif how.startswith(("stall=", "cut=")) and "dot" not in how:
        word, most = how.split("=")
        return lambda sock: Cut(made, sock, int(most), {"stall": SILENT, "cut": CLOSE}[word])
    return lambda sock: made.wrap_socket(sock, server_side=True)


class Internet(SystemTest):
    @classmethod
    def setUpClass(cls):
        subprocess.run(["ip", "address", "add", FAR + "/32", "dev", "lo"], check=True)
        subprocess.run(["ip", "route", "add", "local", FOREIGN, "dev", "lo"], check=True)
        zone = {"secure.test": [(10, "mx.test")], "mx.test": [THERE], "from.test": [SENDERS]}
        cls.addClassCleanup(harness.Dnsmasq(harness.SCRATCH, zone).stop)
        if not os.path.exists(os.path.join(harness.SCRATCH, "ca.pem")):
            make_certificates()

    def table(self, *lines, **settings):
        ca = [] if any("smtp-tls-ca" in line for line in lines) else ["smtp-tls-ca " + os.path.join(harness.SCRATCH, "ca.pem")]
        self.world.table(*ca, *filter(None, lines), **settings)

    def server(self, does):
        """As a row of tls.txt describes it."""
        reply, kind, how, *_ = *does.split(), "", ""
        script = {"ehlo": "250 mx.test" if reply == "-" else "250-mx.test\r\n250 STARTTLS", "starttls": reply + " here"}
        if reply == "inject":
            script["starttls"] = ("220 go\r\n250 injected",)
        odd = {"nonsense": ("220 go", 0.2, "nonsense, long enough for a record", CLOSE), "close": ("220 go", CLOSE),
               "silence": ("220 go", SILENT), "alerts": ("220 go", 0.2, b"\x15\x03\x03\0\2\1\x5a" * 10000, SILENT),
               "giant": ("220 go", 0.2, b"\x16\x03\x03\xff\xff" + bytes(65535), SILENT),
               "drip": ("220 go", 0.2, *drip(b"\x16\x03\x03\x40\0\2\0\x3f\0" + bytes(90), 0.1), SILENT)}
        script["starttls"] = odd.get(kind, script["starttls"])
        script.update({"notify=dot": {"dot": (lambda client: client.unwrap(), SILENT)}, "cut=dot": {"dot": (CLOSE,)},
                       "silent=dot": {"dot": (SILENT,)}, "wants": {"mail": "530 5.7.0 Must issue STARTTLS"}}.get(how, {}))
        return self.smtp(THERE, script, tls=tls(kind, how) if kind in NAMES or kind == "chain" else None)

    @cases(TLS)
    def test_tls(self, *row):
        self.tls(*row)

    def tls(self, lines, does, ends, log, why):
        self.table(*(line.format(harness.SCRATCH) for line in lines))
        server, returns = self.server(does), self.smtp(SENDERS)
        route = self.objects("route", "u@secure.test", "--probe")[0]
        probed = route["probed"]
        self.assertEqual(route["steps"][0]["servers"][0].get("tls", "").startswith("TLSA ") or "dane" not in log, True, route)
        self.assertEqual(probed["passes"], ends[0] == "delivered" or does.split()[2:3] == ["wants"] or "=dot" in does, probed)
        self.assertEqual([probed["tls"].split("/")[0], probed["verified"]], log if len(log) == 2 else ["", ""], probed)
        self.world.queue("m", "<u@secure.test>")
        run = self.run_ok()
        self.assert_outcome("m", ends, returns)
        line, = run.lines(f" {ends[0].replace('kept', 'deferred')} ", "to=<u@secure.test>")
        said = re.findall(r" (?:tls|verified)=([^/ ]+)", line)
        self.assertEqual(said, [] if log == ["-"] else log, line)
        failed = run.lines(" tls-failed ")
        self.assertEqual(len(failed), len(why))
        for words in why:
            self.assertIn(words, failed[0])
        if "TLS" in log[0] and ends[0] == "delivered":
            self.assertEqual(server.sessions[1].commands[2], EHLO.encode())

    def validating(self, links, records):
        """A name server that says of each answer whether it is validated, as a row of dane.txt has it."""
        hosts, (exchangers, address, tlsa) = "mx.test", links
        base = "real.test" if address == "alias" else hosts
        target = [record(hosts, CNAME, name("real.test")), a("real.test", THERE)]
        zone = {("secure.test", MX): (exchangers, [mx("secure.test", 10, hosts)]),
                (hosts, A): (address, target if "alias" in address else [a(hosts, THERE)]), (hosts, CNAME): ("ad", target[:1]),
                ("real.test", A): ("ad", target[1:]),
                (f"_25._tcp.{base}", TLSA): (tlsa, [record(f"_25._tcp.{base}", TLSA, tlsa_data(*one.split())) for one in records])}

        def answer(link, found):
            def say(query):
                how = link.removeprefix("then-") if query[11] else link  # with EDNS it is DANE that asks
                records = [mx("secure.test", 10, "real.test")] if how == "other" else found
                return reply(query, *records, rcode={"deny": 3, "fail": 2}.get(how, 0),
                             flags=0x8180 if how.endswith("no") else 0x81a0)[:-9 if how == "cut" else None]
            return say
        etc_file("resolv.conf", "nameserver 127.0.0.54\noptions timeout:1 attempts:1 trust-ad\n")
        self.addCleanup(etc_file, "resolv.conf", f"nameserver {DNS_ADDRESS}\noptions timeout:1 attempts:1\n")
        return self.dns({question: answer(*how) for question, how in zone.items()}, "127.0.0.54")

    @cases(DANE)
    def test_dane(self, lines, links, records, kind, ends, log, why):
        self.validating(links, records)
        if "distrust" in lines:
            lines.remove("distrust")
            etc_file("resolv.conf", "nameserver 127.0.0.54\noptions timeout:1 attempts:1\n")
            self.table("smtp-tls dane")
            self.assertIn('lacks "options trust-ad"', self.retryq("check", status=1).out)
        self.tls(["smtp-tls dane"] * ("smtp-tls none" not in lines) + lines, kind if kind == "-" else "220 " + kind, ends, log, why)

    def access_file(self, text):
        path = os.path.join(self.world.root, "access")
        mode, _, rest = text.partition(" ")
        with open(path, "w") as out:
            out.write((rest if mode.isdigit() else text).replace("; ", "\n"))
        os.chmod(path, int(mode, 8) if mode.isdigit() else 0o600)
        return path if text != "-" else path + ".not"

    def relay(self, does):
        """As a row of signin.txt describes it."""
        port, kind, mechanisms, does = does.split(None, 3)
        script = {"ehlo": "250-mx.test\r\n250-STARTTLS\r\n250 AUTH " + mechanisms.replace(",", " "), "starttls": "220 go",
                  "auth": SignIn(USER, PASSWORD, "raw " + "A" * 2000 if does == "long" else does)}
        if kind == "-":
            script["ehlo"] = script["ehlo"].replace("STARTTLS", "X")
        return self.smtp(THERE, script, port=int(port), tls=tls(kind) if kind in NAMES else None)

    @cases(SIGN_IN)
    def test_sign_in(self, file, does, ends, log, via="domain-relay * mx.test"):
        file = self.access_file(file)
        self.table("relay-access " + file, harness.BACK, via)
        relay, returns = self.relay(does), self.smtp(SENDERS)
        probed = self.objects("route", "u@nowhere.test", "--probe")[0]["probed"]
        self.assertEqual(probed["passes"], ends[0] == "delivered", probed)
        self.assertEqual(probed["user"], USER if ends[0] == "delivered" and log else "")
        self.world.queue("m", "<u@nowhere.test>")
        run = self.run_ok()
        self.assert_outcome("m", ends, returns)
        self.world.queue("m", "<u@nowhere.test>")
        shown = self.retryq("deliver", "m", "--trace").out
        if ends[0] == "delivered":
            self.assertEqual([session.signed_in for session in relay.sessions], [log] * 3)
            self.assertIn(f"AUTH {log} ***".replace("LOGIN ***", "LOGIN\n") if log else "", shown)
        else:
            self.assertIn(log, run.lines("-failed ", " reason=")[0])
            self.assertIn("error=0 (", run.lines(" deferred ", " code=1001 ")[0])
            self.assertEqual({session.signed_in for session in relay.sessions} - {""},
                             {"SCRAM-SHA-256"} if "did not prove" in log else set())
        if any(words in log for words in ("offer it", "mismatch", "self-signed", "file", "others", "line 2")):
            self.assertFalse([1 for session in relay.sessions for line in session.commands if line[:4] == b"AUTH"])
        told = "".join(self.world.run(*words.split(), binary=world.RETRYQ).out
                       for words in ("check", "route u@nowhere.test", "settings --json"))
        self.assertIn("no relay is used, their mail waits" if re.search("file|others|line 2", log)
                      else f"signs in as {USER} at mx.test:" if log else "mx.other, which is no relay here", told.replace("MX", "mx"))
        everything = shown + probed["trouble"] + told + "".join(line.text for line in run.log)
        for secret in (PASSWORD, PASSWORD[:-1] + "x", "cEBzcyB3PXJ", base64.b64encode(f"\0{USER}\0{PASSWORD}".encode())[:-4].decode()):
            self.assertNotIn(secret, everything)

    def test_dane_domains_share_no_conversation_and_no_server_waits_for_a_question(self):
        there, waiting = self.server("220 self"), []
        dns = self.validating(["ad"] * 3, ["3 1 1 self"])
        for domain, flags in (("also.test", 0x81a0), ("open.test", 0x8180)):
            dns.answers[domain, MX] = lambda query, owner=domain, flags=flags: reply(query, mx(owner, 10, "mx.test"), flags=flags)

        def watched(answer):
            return lambda query: (waiting.append(sum(b"QUIT" not in met.commands for met in there.sessions)), answer(query))[1]
        dns.answers = {question: watched(answer) for question, answer in dns.answers.items()}
        self.table("smtp-tls dane")
        self.world.queue("m", ["<a@secure.test>", "<b@also.test>", "<c@open.test>", "<d@secure.test>", "<e@open.test>"])
        self.run_ok()
        self.assertEqual(sorted(sorted(mail.recipients) for mail in there.mails),
                         [["<a@secure.test>", "<d@secure.test>"], ["<b@also.test>"], ["<c@open.test>", "<e@open.test>"]])
        self.assertEqual(set(waiting), {0})

    def test_a_connection_is_shared_by_those_who_sign_in_alike(self):
        file = self.access_file(f"mx.test {USER} {PASSWORD}; {THERE}:2525 {USER} {PASSWORD}x")
        self.table("relay-access " + file, f"domain-relay plain.test {THERE}", "domain-relay * mx.test")
        relay, other = self.relay("587 good PLAIN accept"), self.relay("2525 good PLAIN accept")
        self.world.queue("m", ["<a@one.test>", "<b@plain.test>", "<c@two.test>"])
        self.run_ok()
        self.assertEqual([sorted(mail.recipients) for mail in relay.mails], [["<a@one.test>", "<c@two.test>"]])
        self.assertEqual(self.world.rmd("m").recipients, [("<b@plain.test>", 1001)])
        self.assertEqual([len(server.sessions) for server in (relay, other)], [1, 1])

    def test_a_refused_password_is_not_tried_with_every_message(self):
        self.table("relay-access " + self.access_file(f"mx.test {USER} x"), "domain-relay * mx.test")
        relay = self.relay("587 good PLAIN accept")
        for number in range(40):
            self.world.queue(f"m{number}", "<u@nowhere.test>")
        self.run_ok()
        self.assertEqual(len(relay.sessions), 1)
        for leaf in [name for name in self.world.spool() if name.endswith(".rmd")]:
            self.assertEqual(self.world.rmd(leaf[:-4]).recipients, [("<u@nowhere.test>", 1001)])
            self.world.queue(leaf[:-4], "<u@nowhere.test>")
        relay.sessions.clear()
        self.retryq("run")
        self.assertLessEqual(len(relay.sessions), 20)  # as many conversations as one server gets at once

    def test_a_shared_server_is_not_shared_below_a_domains_level(self):
        self.zone_of_two = self.server("220 self")
        self.table("smtp-tls-policy strict.test verify", "domain-relay * mx.test")
        self.world.queue("m", ["<a@lax.test>", "<b@strict.test>", "<c@lax.test>"])
        self.run_ok()
        self.assertEqual([mail.recipients for mail in self.zone_of_two.mails], [["<c@lax.test>", "<a@lax.test>"]])
        self.assertEqual(self.world.rmd("m").recipients, [("<b@strict.test>", 1001)])

    @cases(EXTENSIONS)
    def test_extensions(self, on, offered, text, user, said, ends):
        self.table("smtp-extensions " + on)
        server, returns = self.smtp(THERE, {"ehlo": offered}), self.smtp(SENDERS)
        self.world.queue("m", f"<{user}@secure.test>", text=text)
        self.run_ok()
        found = [[line.decode("latin-1") for line in session.commands if line[:4] not in (b"DATA", b"QUIT")]
                 for session in server.sessions]
        self.assertEqual(found, said)
        self.assert_outcome("m", outcome(ends), returns)

    @cases(PIPELINED)
    def test_pipelining_changes_nothing_but_the_writes(self, users, script):
        self.table("smtp-extensions yes")
        returns, found = self.smtp(SENDERS), []
        for offer in (AHEAD.replace("PIPELINING", "HELP"), AHEAD):
            server = self.smtp(THERE, {"ehlo": offer, **script})
            returns.sessions.clear()
            self.world.queue("m", [f"<{user}@secure.test>" for user in users], text="Subject: \xe4\n\n.dot\n".encode())
            run = self.run_ok()
            left = self.world.rmd("m").recipients if "m.rmd" in self.world.spool() else []
            found.append((left, [(mail.recipients, mail.data) for mail in server.mails], len(server.sessions),
                          [re.findall(rb"^<.*?>: .*$", mail.data, re.M) for mail in returns.mails],
                          [re.sub(r"^\d+ |waited=\d+|rjct\w+|error=\d+ \(.*?\)", "", line.text) for line in run.log]))
            server.stop()
            for name in self.world.spool():
                os.unlink(self.world.spool_dir + name)
        self.assertEqual(*found)
        first, = (piece for piece in server.sessions[0].pieces if piece.startswith(b"mail from:"))
        if len(users) < 4 and max(map(len, users)) < 1000:
            self.assertTrue(first.endswith(b"\r\nDATA\r\n"), first)

    @cases(RFC)
    def test_dns_by_the_internets_rules(self, answers, rcpt, lines, classic, rfc):
        others = "127.0.0.54"
        etc_file("resolv.conf", f"nameserver {others}\noptions timeout:1 attempts:1\n")
        self.addCleanup(etc_file, "resolv.conf", f"nameserver {DNS_ADDRESS}\noptions timeout:1 attempts:1\n")
        self.dns(answers, others, getattr(answers.get(("x.test", MX)), "over_tcp", None))
        servers, returns = [self.smtp(THERE), self.smtp(FAR), self.smtp(FOREIGN)], self.smtp(SENDERS)
        for rules, (ends, reached) in (("classic", classic), ("rfc", rfc)):
            with self.subTest(rules):
                self.world.table(f"domain-relay *.from.test {SENDERS}", f"dns-rules {rules}", *lines)
                self.world.queue("m", rcpt)
                for server in (*servers, returns):
                    server.sessions.clear()
                route, = self.objects("route", rcpt)
                self.run_ok()
                there = [session.address for server in servers for session in server.sessions]
                self.assertEqual(there, reached)
                self.assert_outcome("m", outcome(ends), returns)
                self.assertTrue(route_agrees(route, outcome(ends), reached, (THERE, FAR, FOREIGN)), route)
                for name in self.world.spool():
                    os.unlink(self.world.spool_dir + name)

    def test_return_mail_for_programs(self):
        self.world.table(*RELAYS, return_mail_format="dsn", badadmin="admin@home.test")
        self.smtp(THERE, {"rcpt": {"full": "552-5.2.2 over\r\n552 5.2.2 quota", "": "550 no"}})
        returns = self.smtp(SENDERS)
        self.world.queue("m", ["<full@a.test>", "<u@a.test>", "nodomain"], text=b"Subject: lost\n\n\xc3\xa4\n")
        self.run_ok()
        self.assertEqual(self.world.spool(), {})
        mail = email.message_from_bytes(returns.mails[0].data.replace(b"\r\n..", b"\r\n."))
        self.assertEqual((mail["From"], mail["To"], mail["Auto-Submitted"], mail.get_content_type(), mail.defects),
                         ("admin@home.test", "<sender@from.test>", "auto-replied", "multipart/report", []))
        human, status, original = mail.get_payload()
        self.assertIn("<full@a.test>: ", human.get_payload())
        gateway, *blocks = status.get_payload()
        self.assertEqual(gateway["Reporting-MTA"], "dns; " + HOST)
        self.assertEqual(sorted((block["Final-Recipient"], block["Action"], block["Status"], block["Remote-MTA"],
                                 block["Diagnostic-Code"]) for block in blocks),
                         sorted([("rfc822; full@a.test", "failed", "5.2.2", f"dns; [{THERE}]", "smtp; 552 5.2.2 quota"),
                                 ("rfc822; nodomain", "failed", "5.1.3", None, "x-gateway; Malformed e-mail address"),
                                 ("rfc822; u@a.test", "failed", "5.0.0", f"dns; [{THERE}]", "smtp; 550 no")]))
        self.assertEqual(original.get_payload()[0]["Subject"], "lost")


if __name__ == "__main__":
    harness.main()
