"""A spool with every kind of outcome, the servers that bring them about, and the ledger: where each
recipient's mail is, added up from what servers accepted, what lies in the spool and what the log
admits. Written from docs/promises.md; what the program does inside is not its business."""
import collections
import os
import re
import ssl
import subprocess
import time

import world
from servers import A, CLOSE, MX, DnsServer, SignIn, SmtpServer, a, mx
from tables import table

OUT, KEPT, BACK, DROPPED = "delivered", "kept", "returned", "dropped"
# A recipient's local part tells what becomes of it, its domain which server it is for.
FATES = {"ok": OUT, "busy": KEPT, "lost": KEPT, "bad": BACK}
ANSWERS = {"rcpt": {"busy": "450 busy", "bad": "550 unknown"}}
SERVERS = {"127.0.0.2": ANSWERS, "127.0.0.3": ANSWERS, "127.0.0.4": {"dot": (CLOSE,)}, "127.0.0.9": {},
           "127.0.0.10": {"rcpt": "450 no room"}, "127.0.0.11": {"rcpt": "550 no return mail here"}}
ROUTES = ("domain-relay *.a.test 127.0.0.2", "domain-relay *.b.test 127.0.0.3", "domain-relay *.lost.test 127.0.0.4",
          "domain-relay *.from.test 127.0.0.9", "domain-relay *.later.test 127.0.0.10", "domain-relay *.never.test 127.0.0.11")
ZONE = {("mx.test", MX): [mx("mx.test", 10, "host.test")], ("host.test", A): [a("host.test", "127.0.0.3")]}

# Leaf: the domain of the sender, recipients, more for World.queue.
MESSAGES = {leaf: (sender, rcpts.split(), {word: int(seconds) for word, seconds in map(str.split, more)})
            for leaf, sender, rcpts, *more in table("faults/data/scene.txt")}
OFFER = "250-mx.test\r\n250-PIPELINING\r\n250-SIZE 10000000\r\n250-8BITMIME\r\n250-SMTPUTF8\r\n250 ENHANCEDSTATUSCODES"
TLS = "127.0.0.2"
FOREIGN = "192.0.2.3"  # for those who take 127.0.0.3 for this host itself
STRAYS = {"no-list": b"a text nobody ever listed\n", "no-text.rmd": b"2020/00/01@00:00:00_GMT\n"}


class Server(SmtpServer):
    """Knows when it has heard the last of its clients, and how many seconds each stayed."""

    offer, context = None, None  # to EHLO, and for TLS where it is wanted

    def __init__(self, address, script=None, tls=False):
        self.served = 0
        offer = {"ehlo": self.offer} if self.offer and "helo" not in (script or {}) else {}
        if tls and self.context:
            offer = {"ehlo": self.offer.replace("250 ", "250-STARTTLS\r\n250-AUTH SCRAM-SHA-256\r\n250 "), "starttls": "220 go",
                     "auth": SignIn("us", "password", "accept")}
        super().__init__(address, {**offer, **(script or {})}, tls=lambda sock: self.context.wrap_socket(sock, server_side=True))

    def _serve(self, client, session, script):
        try:
            super()._serve(client, session, script)
        finally:
            with self._lock:
                session.seconds = time.monotonic() - session.began
                self.served += 1

    def settle(self):
        while self.served < len(self.sessions):
            time.sleep(0.001)


def sender_of(leaf):
    domain = MESSAGES[leaf][0]
    return "<>" if domain == "-" else f"<{leaf}@{domain}>"


def fate_of(leaf, rcpt):
    fate = next(fate for word, fate in FATES.items() if rcpt[1:].startswith(word))
    return DROPPED if fate == BACK and MESSAGES[leaf][0] in ("-", "never.test") else fate


def text_of(leaf):
    return f"Subject: {leaf}\n\n.dotted\nlast line of {leaf}\n".encode()


RECIPIENTS = {}


def cast(messages):
    """Puts these in place of the usual messages."""
    usual = dict(messages)
    MESSAGES.clear()
    MESSAGES.update(usual)
    RECIPIENTS.clear()
    RECIPIENTS.update((f"<{rcpt}>", leaf) for leaf, (_, rcpts, _) in MESSAGES.items() for rcpt in rcpts)


cast(MESSAGES)
FAILED = re.compile(rb"------ Failed Recipients ------\s+(.*?)(?:-------- Returned Mail --------|\r?\n--=_)", re.S)


def told_about(body):
    """The recipients that a return mail names, each with the reason it gives."""
    part = FAILED.search(body)
    return re.findall(r"^(<.*>): (.*?)\r?$", part[1].decode("latin-1"), re.M) if part else []


def internet(scratch):
    """From here on every rule table has what the sample recommends for Internet mail, and servers offer what it
    can use; the first server TLS too, where the gateway signs in."""
    with open(os.path.join(world.REPO, "packaging/etc/rulbex-table")) as sample:
        block = sample.read().partition("# Internet mail, recommended")[2].partition("\n\n")[0]
    world.World.always = re.findall(r"^#vorn: (.*)", block, re.M)
    subprocess.run(["ip", "route", "add", "local", FOREIGN, "dev", "lo"], check=True)
    ZONE["host.test", A] = [a("host.test", FOREIGN)]
    SERVERS[FOREIGN] = ANSWERS
    pem = os.path.join(scratch, "pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", pem, "-out", pem + ".crt", "-subj", "/CN=mx",
                    "-addext", "subjectAltName=IP:" + TLS], check=True, stderr=subprocess.DEVNULL)
    access = os.path.join(scratch, "access")
    with open(access, "w", opener=lambda name, flags: os.open(name, flags, 0o600)) as out:
        out.write(f"{TLS}:25 us password\n")
    # Without the module, as in 32-bit builds, mail for a relay that is signed in to would wait for ever.
    if os.path.exists(os.path.join(os.path.dirname(world.BINARY), "../../lib/tls/retryer-tls.so")):
        world.World.always += ["relay-access " + access, f"smtp-tls-ca {pem}.crt"]
    Server.offer, Server.context = OFFER, ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    Server.context.load_cert_chain(pem + ".crt", pem)


class Scene:
    """The spool in a world of its own; servers and name server are shared by all scenes."""

    servers = None

    def __init__(self, scratch, leaves=MESSAGES):
        if Scene.servers is None:
            Scene.servers = [Server(address, script, tls=address == TLS) for address, script in SERVERS.items()]
            DnsServer(ZONE)
        self.world, self.log, self.leaves = world.World(scratch), [], leaves
        self.world.table(*ROUTES)
        self.forget()

    def fill(self):
        for leaf in self.leaves:
            _, rcpts, how = MESSAGES[leaf]
            self.world.queue(leaf, [f"<{rcpt}>" for rcpt in rcpts], text_of(leaf), sender_of(leaf), **how)
        for name, data in STRAYS.items():
            self.world.put(name, data)
        return self

    def forget(self):
        for server in self.servers:
            server.sessions.clear()
            server.served = 0

    def run(self, *args, **how):
        run = self.world.run(*args, **how)
        self.settle()
        self.log += [line.text for line in run.log]
        return run

    def run_again(self):
        """What is wrong when the next run is."""
        return ["the next run failed"] * (self.run("-now").status != 0)

    def settle(self):
        for server in self.servers:
            server.settle()

    def mails(self):
        return [mail for server in self.servers for mail in server.mails]

    def in_flight(self):
        """The recipients of the last conversation, or, when that was for a return mail, those it is
        about."""
        last = max((s for server in self.servers for s in server.sessions), key=lambda s: s.began, default=None)
        named = {line.decode().partition(" TO: ")[2] for line in (last.commands if last else [])}
        return named | {rcpt for rcpt, leaf in RECIPIENTS.items() if sender_of(leaf) in named}


class Ledger:
    """Where the recipients are: copies (accepted by a server), told (named in a return mail that was
    accepted or is stored), kept (in the spool, text and list), admitted (dropped under a rule that
    the log names)."""

    def __init__(self, scene, before=()):
        self.scene, self.faults = scene, []
        self.spool, self.lists = scene.world.spool(), {}
        self.copies, self.told, self.kept = collections.Counter(), collections.Counter(), set()
        for mail in [*before, *scene.mails()]:
            self.accept(mail)
        for name in self.spool:
            if name.endswith(".rmd") and name not in STRAYS and name[:-4] in self.spool:
                self.keep(name[:-4])

    def fault(self, text):
        self.faults.append(text)

    def tell(self, body):
        self.told.update(rcpt for rcpt, _ in told_about(body))

    def accept(self, mail):
        for rcpt in mail.recipients:
            leaf = RECIPIENTS.get(rcpt)
            if leaf is None:
                self.tell(mail.data)
            elif mail.data != world.wire(text_of(leaf)):
                self.fault(f"{rcpt} got another body than was queued: {mail.data!r}")
            else:
                self.copies[rcpt] += 1

    def keep(self, leaf):
        """Promise 2: a list is old and whole or new and whole."""
        data = self.spool[leaf + ".rmd"]
        try:
            rmd = self.lists[leaf] = world.Rmd.parse(data)
        except (ValueError, AttributeError, IndexError):
            return self.fault(f"{leaf}.rmd is torn: {data!r}")
        undeletable = self.logged(" delete-failed ", f"msg={leaf} ")  # then its list names nobody
        if leaf in MESSAGES:
            if rmd.sender != sender_of(leaf) or any(RECIPIENTS.get(rcpt) != leaf for rcpt, _ in rmd.recipients) \
                    or self.spool[leaf] != text_of(leaf) or not data.endswith(b"\n") or not (rmd.recipients or undeletable):
                self.fault(f"{leaf} is not whole: {data!r}")
            self.kept.update(rcpt for rcpt, _ in rmd.recipients)
        else:
            if not self.spool[leaf].endswith(b"\n") or not re.search(rb"Returned Mail --------|--=_\S+--\n\Z", self.spool[leaf]):
                self.fault(f"{leaf} is not a whole return mail: {self.spool[leaf]!r}")
            self.tell(self.spool[leaf])

    def logged(self, *words):
        return any(all(word in line for word in words) for line in self.scene.log)

    def dropped(self, rcpt, leaf):
        """Under a stated rule: nobody to tell, or the one to be told refused to hear it."""
        return self.logged(" dropped ", f"to={rcpt} ") or (
            self.logged(" returned ", f"to={rcpt} ") and self.logged(" dropped ", f"to={sender_of(leaf)} "))

    def lost_by_rule(self, rcpt, leaf):
        """The documented limits, by the line that admits them."""
        return self.logged("action=delete", f"msg={leaf} ") or self.logged(" return-lost ", f"to={rcpt} ")

    def place(self, rcpt):
        leaf = RECIPIENTS[rcpt]
        if self.copies[rcpt]:
            return OUT
        if rcpt in self.kept:
            return KEPT
        if self.told[rcpt]:
            return BACK
        if self.dropped(rcpt, leaf):
            return DROPPED
        return "given up" if self.lost_by_rule(rcpt, leaf) else None

    def places(self):
        return {rcpt: self.place(rcpt) for rcpt, leaf in RECIPIENTS.items() if leaf in self.scene.leaves}

    def check_accounted(self):
        """Promises 1 and 7: everybody is somewhere, and nobody failed who need not."""
        for rcpt, place in self.places().items():
            fate = fate_of(RECIPIENTS[rcpt], rcpt)
            if place is None:
                self.fault(f"{rcpt} is lost")
            elif fate in (OUT, KEPT) and (place in (BACK, DROPPED) or self.told[rcpt]) and not self.logged(f"to={rcpt} code=1002"):
                self.fault(f"{rcpt} was {place} though its trouble may pass")
            elif fate in (BACK, DROPPED) and self.copies[rcpt]:
                self.fault(f"{rcpt} was delivered though it was refused")
        return self

    def check_copies(self, twice):
        """Promises 3 and 9: one copy, one return mail; two only for those in flight."""
        for what, counter in (("copies", self.copies), ("return mails", self.told)):
            for rcpt, count in counter.items():
                if count > 1 + (rcpt in twice):
                    self.fault(f"{count} {what} for {rcpt}; in flight: {sorted(twice)}")
        return self

    def check_finished(self):
        """Everybody is where they belong, and no file needs a hand."""
        for rcpt, place in self.places().items():
            if place not in (fate_of(RECIPIENTS[rcpt], rcpt), "given up"):
                if not self.logged(f"to={rcpt} code=1002"):  # a look-up that failed: a documented limit
                    self.fault(f"{rcpt} ended as {place}")
        for name, data in STRAYS.items():
            if name in self.spool and self.spool[name] != data:
                self.fault(f"{name} was touched")
        for name in self.left_over():
            if not (name.endswith((".rmd", ".rmd~")) or name.startswith("rjctfile") or
                    self.logged(" delete-failed ", f"msg={name} ")):
                self.fault(f"{name} was left behind")
        return self

    def left_over(self):
        """Files that are part of no message. They hold no mail that is not safe elsewhere."""
        whole = set(self.lists) | {leaf + ".rmd" for leaf in self.lists} | set(STRAYS)
        return [name for name in self.spool if name not in whole]
