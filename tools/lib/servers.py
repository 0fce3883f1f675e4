"""Servers for a world: scripted SMTP and DNS servers whose whole behaviour is data, a real DNS server
(dnsmasq) and a real mail server (Exim, unpacked apart from the host)."""
import base64
import contextlib
import hashlib
import hmac
import os
import re
import shutil
import socket
import ssl
import struct
import subprocess
import threading
import time

from world import DNS_ADDRESS, REPO

CLOSE, RST, SILENT = "<close>", "<reset>", "<silence>"
DEFAULT = {"banner": "220 ready", "helo": "250 hello", "mail": "250 sender ok", "rcpt": "250 ok", "data": "354 go on",
           "dot": "250 taken", "quit": "221 bye", "rset": "250 ok", "starttls": "500 unknown", "auth": "500 unknown",
           "other": "500 unknown", "early": "503 not now"}
COMMANDS = {b"HELO": "helo", b"EHLO": "ehlo", b"STAR": "starttls", b"MAIL": "mail", b"RCPT": "rcpt", b"DATA": "data", b"QUIT": "quit",
            b"RSET": "rset", b"AUTH": "auth"}


def end(sock, thread):
    """Ends the thread that waits on the socket, then closes it."""
    with contextlib.suppress(OSError):  # an unconnected one says so, but the wait ends
        sock.shutdown(socket.SHUT_RDWR)
    thread.join()
    sock.close()


def drip(data, seconds):
    """Steps that send one byte at a time."""
    return tuple(step for byte in data for step in (bytes([byte]), seconds))


class Mail:
    """One accepted-or-not transaction: data is the body as it came, up to the final dot; None if DATA
    never came; accepted once a 2xx reply to the dot was sent."""

    def __init__(self, sender):
        self.sender, self.recipients, self.data, self.accepted = sender, [], None, False


class Session:
    """What one client did: every byte, its command lines, its mails, the address it came to and its own."""

    def __init__(self, address, client=""):
        self.client, self.address, self.raw, self.commands, self.mails, self.began = client, address, bytearray(), [], [], time.monotonic()
        self.pieces = []  # as they arrived
        self.signed_in = ""  # the mechanism of an AUTH that was passed


class Cut:
    """TLS of which the client gets the first bytes only, then nothing more (SILENT) or the end (CLOSE)."""

    def __init__(self, context, sock, most, then):
        self._sock, self._left, self._then = sock, most, then
        self._in, self._out = ssl.MemoryBIO(), ssl.MemoryBIO()
        self._tls = context.wrap_bio(self._in, self._out, server_side=True)
        self._drive(self._tls.do_handshake)
        self.setsockopt = sock.setsockopt

    def _drive(self, step, *how):
        while True:
            try:
                return step(*how)
            except ssl.SSLWantReadError:
                pass
            finally:
                self._send(self._out.read())
            self._in.write(self._sock.recv(65536) or self._end())

    def _send(self, data):
        self._sock.sendall(data[:self._left])
        self._left -= len(data)
        if self._left < 0:
            while self._then == SILENT and self._sock.recv(65536):
                pass
            self._end()

    def _end(self):
        raise EOFError

    def recv(self, most):
        return self._drive(self._tls.read, most)

    def sendall(self, data):
        self._drive(self._tls.write, data)


class SmtpServer:
    """A scripted server on port 25 of one address ("" = every address without its own server).

    The script maps a stage (DEFAULT's keys, and "body": before the body is read) to an action, or, for
    "rcpt", "mail" and "helo", to a dictionary: action by a piece of the argument, "" for the rest. An
    action is a reply line, or a tuple of steps: str a line, bytes raw, a number of seconds to wait,
    ("oob", byte), ("endless", bytes), CLOSE, RST, SILENT (until the client leaves), a function of the connection. A list of scripts serves one
    connection each, the last one all that follow. EHLO is answered as HELO unless there is an "ehlo"; with
    `tls` (a function of the socket) TLS begins behind a 2xx to STARTTLS, or on port 465 at once. "auth" may be a SignIn.
    "early" answers RCPT without MAIL, and DATA without an accepted recipient; with "serial" what came behind a command is thrown
    away. With a `gate` (threading.Event) nobody is greeted before it is set."""

    def __init__(self, address="127.0.0.2", script=None, port=25, gate=None, tls=None):
        self.sessions, self._lock, self._gate, self._tls, self._port = [], threading.Lock(), gate, tls, port
        scripts = script if isinstance(script, list) else [script or {}]
        self._scripts = [{**DEFAULT, **one} for one in scripts]
        self._socket = socket.socket()
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.bind((address, port))
        self._socket.listen(128)
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    def stop(self):
        end(self._socket, self._thread)

    @property
    def mails(self):
        """Every accepted mail, in order of connection."""
        return [mail for session in self.sessions for mail in session.mails if mail.accepted]

    def received(self):
        """(recipient, body) of each accepted mail's each recipient."""
        return [(rcpt, mail.data) for mail in self.mails for rcpt in mail.recipients]

    def _accept(self):
        while True:
            try:
                client, peer = self._socket.accept()
            except OSError:
                return
            with self._lock:
                script = self._scripts[min(len(self.sessions), len(self._scripts) - 1)]
                session = Session(client.getsockname()[0], peer[0])
                self.sessions.append(session)
            threading.Thread(target=self._serve, args=(client, session, script), daemon=True).start()

    def _serve(self, client, session, script):
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            with client:
                if self._gate:
                    self._gate.wait()
                if self._port == 465:
                    client = self._tls(client)
                _Conversation(client, session, script, self._tls).play()
        except (OSError, EOFError):  # a failed handshake is an OSError too
            pass


class _Conversation:
    def __init__(self, client, session, script, tls):
        self.client, self.session, self.script, self.tls, self.pending = client, session, script, tls, b""
        self.step = ""  # the last of MAIL and RCPT that was accepted

    def play(self):
        self.act("banner")
        while True:
            line = self.read_until(b"\n").rstrip(b"\r\n")
            self.session.commands.append(line)
            stage = COMMANDS.get(line[:4].upper(), "other")
            argument = line.partition(b":")[2].strip() if b":" in line else line[5:].strip()
            self.command(stage, argument.decode("latin-1"))
            if stage == "quit":
                return

    def command(self, stage, argument):
        if stage == "mail":
            self.session.mails.append(Mail(argument))
        if isinstance(self.script.get(stage), SignIn):
            self.script[stage].check(self, argument)
            return
        early = (stage, self.step) in (("rcpt", ""), ("data", ""), ("data", "mail"))
        reply = self.act("early" if early else stage, argument)
        good = reply[:1] == b"2"
        if stage == "mail" or good and stage == "rcpt":
            self.step = stage if good else ""
        if stage == "rcpt" and good and self.session.mails:
            self.session.mails[-1].recipients.append(argument)
        if stage == "data" and reply[:1] == b"3":
            self.body()
        if stage == "starttls" and reply[:1] == b"2" and self.tls:
            self.client = self.tls(self.client)

    def body(self):
        if "body" in self.script:
            self.act("body")
        mail = self.session.mails[-1]
        mail.data = self.read_until(b"\r\n.\r\n", b"\r\n")[2:-5]
        # Of CR LF . CR LF the first two bytes end the empty line that the gateway adds.
        reply = self.reply_of("dot")
        mail.accepted = reply[:1] == b"2"
        self.act("dot")

    def read_until(self, end, before=b""):
        data, seen = bytearray(before + self.pending), 0
        while (at := data.find(end, seen)) < 0:
            seen = max(0, len(data) - len(end))
            data += self.receive()
        at += len(end)
        self.pending = b"" if "serial" in self.script else bytes(data[at:])
        return bytes(data[:at])

    def receive(self):
        self.client.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 0)  # acknowledge as late as a host may
        got = self.client.recv(65536)
        if not got:
            raise EOFError
        self.session.raw += got
        self.session.pieces.append(got)
        return got

    def steps(self, stage, argument=""):
        action = self.script["helo" if stage == "ehlo" and stage not in self.script else stage]
        if isinstance(action, dict):
            action = next((value for key, value in action.items() if key and key in argument), action.get("", DEFAULT[stage]))
        return action if isinstance(action, tuple) else (action,)

    def reply_of(self, stage, argument=""):
        said = [step if isinstance(step, bytes) else step.encode("latin-1") + b"\r\n"
                for step in self.steps(stage, argument) if isinstance(step, (str, bytes)) and step[:1] != "<"]
        return b"".join(said).split(b"\n")[-2 if said and said[-1].endswith(b"\n") else -1]

    def act(self, stage, argument=""):
        for step in self.steps(stage, argument):
            if isinstance(step, (int, float)):
                time.sleep(step)
            elif callable(step):
                step(self.client)
            elif isinstance(step, tuple) and step[0] == "oob":
                self.client.send(step[1], socket.MSG_OOB)
            elif isinstance(step, tuple):
                while True:
                    self.client.sendall(step[1])
            elif step == SILENT:
                while True:
                    self.receive()
            elif step in (CLOSE, RST):
                if step == RST:
                    self.client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                raise EOFError
            else:
                self.client.sendall(step if isinstance(step, bytes) else step.encode("latin-1") + b"\r\n")
        return self.reply_of(stage, argument)


class SignIn:
    """What a server does with AUTH, for one user: "accept" when all is right; or, whatever is said, a reply
    line ("535 no"), which may name {password} and {said}; or with SCRAM-SHA-256 a trick: "nonce" (not ours), "proof"
    (a wrong one), "unproven" (a 235 in its place), "rounds N", "raw TEXT" (a challenge as it stands), "again" (challenges
    without end)."""

    def __init__(self, user, password, does):
        self._user, self._password, (self._does, _, self._what) = user, password, does.partition(" ")

    def check(self, talk, argument):
        mechanism, _, first = argument.partition(" ")
        code = f"{self._does} {self._what}".format(password=self._password, said=first)
        if not code[:3].isdigit():
            good = {"PLAIN": self._plain, "LOGIN": self._login, "SCRAM-SHA-256": self._scram}[mechanism](talk, first)
            code = "235 welcome" if good else "535 no"
        talk.session.signed_in = mechanism if code[:3] == "235" else ""
        talk.client.sendall(code.encode() + b"\r\n")

    @staticmethod
    def _ask(talk, challenge):
        talk.client.sendall(b"334 " + challenge + b"\r\n")
        return base64.b64decode(talk.read_until(b"\n"))

    def _plain(self, _, first):
        return base64.b64decode(first) == f"\0{self._user}\0{self._password}".encode()

    def _login(self, talk, _):
        said = [self._ask(talk, base64.b64encode(question)) for question in (b"Username:", b"Password:")]
        while self._does == "again":
            self._ask(talk, b"TW9yZTo=")
        return said == [self._user.encode(), self._password.encode()]

    def _scram(self, talk, first):  # RFC 5802, 3
        bare = base64.b64decode(first)[3:]
        nonce = (b"other" if self._does == "nonce" else bare.partition(b",r=")[2]) + b"server"
        rounds = int(self._what) if self._does == "rounds" else 4096
        challenge = b"r=%s,s=%s,i=%d" % (nonce, base64.b64encode(b"salt"), rounds)
        raw = self._what.encode().decode("unicode_escape").encode("latin-1")
        answer = self._ask(talk, raw if self._does == "raw" else base64.b64encode(challenge))
        without, _, proof = answer.rpartition(b",p=")
        message = b",".join((bare, challenge, without))
        salted = hashlib.pbkdf2_hmac("sha256", self._password.encode(), b"salt", rounds)
        keys = {name: hmac.digest(salted, name + b" Key", "sha256") for name in (b"Client", b"Server")}
        signature = hmac.digest(hashlib.sha256(keys[b"Client"]).digest(), message, "sha256")
        if bytes(a ^ b for a, b in zip(keys[b"Client"], signature)) != base64.b64decode(proof):
            return False
        final = hmac.digest(keys[b"Client" if self._does == "proof" else b"Server"], message, "sha256")
        return self._does == "unproven" or self._ask(talk, base64.b64encode(b"v=" + base64.b64encode(final))) == b""


# --- DNS messages by hand -------------------------------------------------------------------------
A, CNAME, MX, TLSA = 1, 5, 15, 52


def name(text):
    return b"".join(bytes([len(label)]) + label.encode() for label in text.split(".") if label) + b"\0"


def record(owner, kind, data, klass=1, length=None):
    owner = owner if isinstance(owner, bytes) else name(owner)
    return owner + struct.pack(">HHIH", kind, klass, 60, len(data) if length is None else length) + data


def mx(owner, preference, exchanger, **how):
    exchanger = exchanger if isinstance(exchanger, bytes) else name(exchanger)
    return record(owner, MX, struct.pack(">H", preference) + exchanger, **how)


def a(owner, address):
    return record(owner, A, socket.inet_aton(address))


def reply(query, *answers, rcode=0, flags=0x8180, count=None):
    """A reply to the query with these answer records (bytes); count overrides the header's."""
    count = len(answers) if count is None else count
    return query[:2] + struct.pack(">HHHHH", flags | rcode, 1, count, 0, 0) + question(query) + b"".join(answers)


def question(query):
    return query[12:12 + query[12:].index(b"\0") + 5]


def asked(query):
    """What a query is for: name and type."""
    labels = question(query)
    return re.sub(rb"[\x00-\x1f]", b".", labels[1:-5]).decode("latin-1"), labels[-3]


class DnsServer:
    """Answers each (name, type) by its entry: a function of the query giving the reply bytes, a list
    of records, or None for silence; names without entry do not exist. Keeps the questions. `tcp` gives
    the steps that follow a query over TCP: bytes, seconds to wait, SILENT, RST; CLOSE in its place
    leaves at once, unread, with FIN and RST; without it nobody listens there."""

    def __init__(self, answers, address=DNS_ADDRESS, tcp=None):
        self.answers, self.questions, self._listener = answers, [], None
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind((address, 53))
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()
        if tcp:
            self._listener = socket.create_server((address, 53))
            self._acceptor = threading.Thread(target=self._accept, args=(tcp,), daemon=True)
            self._acceptor.start()

    def stop(self):
        end(self._socket, self._thread)
        if self._listener:
            end(self._listener, self._acceptor)

    def _accept(self, tcp):
        with contextlib.suppress(OSError):
            while True:
                client, _ = self._listener.accept()
                threading.Thread(target=self._serve_tcp, args=(client, tcp), daemon=True).start()

    def _serve_tcp(self, client, tcp):
        with client, contextlib.suppress(OSError):
            if tcp == CLOSE:
                client.shutdown(socket.SHUT_WR)
            for step in (RST,) if tcp == CLOSE else tcp(client.recv(65536)[2:]):
                if isinstance(step, bytes):
                    client.sendall(step)
                elif step == SILENT:
                    while client.recv(65536):
                        pass
                elif step == RST:
                    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                else:
                    time.sleep(step)

    def _serve(self):
        while True:
            try:
                query, peer = self._socket.recvfrom(4096)
            except OSError:
                return
            if not query:
                return
            self.questions.append(asked(query))
            answer = self.answers.get(asked(query), lambda q: reply(q, rcode=3))
            if isinstance(answer, list):
                answer = reply(query, *answer)
            elif answer is not None:
                answer = answer(query)
            if answer is not None:
                self._socket.sendto(answer, peer)


class Dnsmasq:
    """A real DNS server for the zone "test": {name: [address or (preference, exchanger), ...]}."""

    def __init__(self, scratch, zone, address=DNS_ADDRESS):
        hosts, lines = os.path.join(scratch, "dns.hosts"), ["local=/test/"]
        with open(hosts, "w") as out:
            for owner, entries in zone.items():
                out.writelines(f"{entry} {owner}\n" for entry in entries if isinstance(entry, str))
                lines += [f"mx-host={owner},{entry[1]},{entry[0]}" for entry in entries if isinstance(entry, tuple)]
        config = os.path.join(scratch, "dns.conf")
        with open(config, "w") as out:
            out.write("\n".join(lines + [f"addn-hosts={hosts}", "no-hosts", "no-resolv", "bind-interfaces", "user=root",
                                         f"listen-address={address}", "pid-file", "log-facility=/dev/null"]) + "\n")
        self._process = subprocess.Popen(["dnsmasq", "--keep-in-foreground", "--conf-file=" + config])
        _await(lambda: _answers(address), "dnsmasq")

    def stop(self):
        self._process.kill()
        self._process.wait()


def _answers(address):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.settimeout(0.1)
        try:
            probe.connect((address, 53))
            probe.send(struct.pack(">HHHHHH", 7, 0x100, 1, 0, 0, 0) + name("test") + struct.pack(">HH", A, 1))
            return probe.recv(512)
        except OSError:
            return None


def _await(ready, what, seconds=20):
    end = time.monotonic() + seconds
    while not ready():
        if time.monotonic() > end:
            raise RuntimeError(f"{what} does not come up")
        time.sleep(0.01)


# --- the real mail server -------------------------------------------------------------------------
EXIM_ROOT = os.path.join(REPO, "build/peers/exim4-daemon-light")
EXIM_CONFIG = """
primary_hostname = store.test
local_interfaces = {interfaces}
spool_directory = {root}/spool
log_file_path = {root}/log/%slog
pid_file_path = {root}/pid
exim_path = {exim}
keep_environment = LD_LIBRARY_PATH
host_lookup =
allow_domain_literals
rfc1413_query_timeout = 0s
message_size_limit = 200M
smtp_accept_max = 0
smtp_accept_queue_per_connection = 0
deliver_drop_privilege
acl_smtp_rcpt = accept
begin routers
all:
  driver = accept
  transport = store
begin transports
store:
  driver = appendfile
  file = {root}/store/$message_exim_id
  message_prefix =
  message_suffix =
  return_path_add
  envelope_to_add
  batch_max = 10000
"""


class Stored:
    """A mail as the mail server stored it: its envelope, and the text below the headers it added."""

    def __init__(self, data):
        added = re.match(rb"(?:(?:Return-path|Envelope-to|Received):.*\n(?:[ \t].*\n)*)+", data)
        head = re.sub(rb"\n[ \t]+", b" ", added[0]).decode("latin-1")
        self.sender = re.search(r"^Return-path: (.*)$", head, re.M)[1]
        self.recipients = re.search(r"^Envelope-to: (.*)$", head, re.M)[1].replace(" ", "").split(",")
        self.text = data[added.end():]


class Exim:
    """Accepts mail for everybody on port 25 of the given addresses and stores each as a file."""

    def __init__(self, scratch, *addresses):
        self.root = os.path.join(scratch, "exim")
        for name_ in ("spool", "log", "store"):
            os.makedirs(os.path.join(self.root, name_))
        for path in (self.root, *(os.path.join(self.root, n) for n in os.listdir(self.root))):
            shutil.chown(path, "Debian-exim", "Debian-exim")
        exim = os.path.join(EXIM_ROOT, "usr/sbin/exim4")
        config = os.path.join(scratch, "exim.conf")
        with open(config, "w") as out:
            out.write(EXIM_CONFIG.format(root=self.root, exim=exim, interfaces=" : ".join(addresses)))
        shutil.rmtree("/etc/exim4", ignore_errors=True) if not os.path.islink("/etc/exim4") else os.unlink("/etc/exim4")
        os.mkdir("/etc/exim4")
        with open("/etc/exim4/trusted_configs", "w") as out:
            out.write(config + "\n")
        libraries = [d for d, _, files in os.walk(EXIM_ROOT) if any(".so" in f for f in files)]
        env = dict(os.environ, LD_LIBRARY_PATH=":".join(libraries))
        self._process = subprocess.Popen([exim, "-C", config, "-bdf", "-q1h"], env=env)
        _await(lambda: all(_listens(address) for address in addresses), "exim")

    def stored(self):
        """Everything stored so far, once the server has nothing left to deliver."""
        inbox, store = os.path.join(self.root, "spool/input"), os.path.join(self.root, "store")
        _await(lambda: not (os.path.isdir(inbox) and any(files for _, _, files in os.walk(inbox))), "exim's queue")
        return [Stored(open(os.path.join(store, file), "rb").read())
                for file in sorted(os.listdir(store)) if not file.endswith(".lock")]

    def stop(self):
        self._process.terminate()
        self._process.wait()


def _listens(address):
    with socket.socket() as probe:
        return probe.connect_ex((address, 25)) == 0
