"""Other queue runners, unpacked apart: how each is set up, given its mail, and made to send it."""
import copy
import glob
import itertools
import os
import re
import shutil
import smtplib
import subprocess
import time
from pathlib import Path

from . import space, spool

PACKAGES = ("exim4-daemon-light", "postfix", "sendmail-bin", "dma", "nullmailer", "opensmtpd", "msmtp")
RECIPIENT = "r@d0.bench.test"


def install(cache):
    """Fetches the packages and what they lack on this host, each unpacked into a tree of its own."""
    for name in ("debs", "pkg"):
        (cache / name).mkdir(parents=True, exist_ok=True)
    for package in PACKAGES:
        plan = subprocess.run(["apt-get", "-s", "--no-install-recommends", "install", package],
                              stdout=subprocess.PIPE, text=True, check=True)
        for name in re.findall(r"^Inst (\S+)", plan.stdout, re.MULTILINE):
            tree = cache / "pkg" / name
            if tree.is_dir():
                continue
            subprocess.run(["apt-get", "-qq", "-o", "APT::Sandbox::User=root", "download", name],
                           cwd=cache / "debs", check=True)
            deb = glob.glob(str(cache / "debs" / f"{name}_*.deb"))[0]
            subprocess.run(["dpkg", "-x", deb, tree], check=True)


def trees(cache):
    Postfix.tree = cache / "pkg/postfix"
    return sorted(p for p in (cache / "pkg").iterdir() if p.is_dir())


def feed(argv, data):
    done = subprocess.run(argv, input=data, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode:
        raise RuntimeError(f"{argv}: {done.stdout[-400:]}")


def dialogue(recipients, body):
    """The SMTP commands that hand in a message to each."""
    text = spool.wire(body)
    mails = b"".join(f"MAIL FROM:{spool.SENDER}\r\nRCPT TO:<{recipient}>\r\nDATA\r\n".encode() + text for recipient in recipients)
    return b"HELO gate.bench.test\r\n" + mails + b"QUIT\r\n"


def hand_in(argv, recipients, body):
    """The same, one command at a time."""
    with subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as server:
        def say(text, expected):
            server.stdin.write(text)
            server.stdin.flush()
            while (reply := server.stdout.readline())[3:4] == b"-":
                pass
            if not reply.startswith(expected):
                raise RuntimeError(f"{argv}: {reply}")

        text = spool.wire(body)
        say(b"", b"220")
        say(b"HELO gate.bench.test\r\n", b"250")
        for recipient in recipients:
            say(f"MAIL FROM:{spool.SENDER}\r\n".encode(), b"250")
            say(f"RCPT TO:<{recipient}>\r\n".encode(), b"250")
            say(b"DATA\r\n", b"354")
            say(text, b"250")
        say(b"QUIT\r\n", b"221")


def owned(path, user, group=None, mode=0o770):
    os.makedirs(path, exist_ok=True)
    shutil.chown(path, user, group or user)
    os.chmod(path, mode)


class Peer:
    """A queue runner that ends when its pass is over. `argv` makes one pass; `idle_argv`, where there
    is such a thing, makes one over messages that are not due."""
    daemon = False
    rounds = 3
    account = None      # where its processes are
    idle_argv = None
    idle = False
    recipients = None   # one of each message, in turn; None: all to the one server

    def towards_domains(self, recipients):
        """The same for mail to many domains, with servers looked up."""
        other = copy.copy(self)
        other.recipients, other.rounds = recipients, 2
        return other

    def to(self, count):
        return list(itertools.islice(itertools.cycle(self.recipients or [RECIPIENT]), count))

    def seed_idle(self, count, body):
        """Messages that were tried in vain a moment ago; a pass over them leaves them as they are."""
        if not self.idle:
            self.seed(count, body)
            self.configure(space.DEAD)
            subprocess.run(self.argv, check=True)
            self.idle = True


class Exim(Peer):
    name = "exim"
    argv = ["/usr/sbin/exim4", "-q"]
    idle_argv = argv
    CONFIG = """primary_hostname = gate.bench.test
spool_directory = /var/spool/exim4
message_size_limit = 0
smtp_accept_max_per_connection = 0
queue_only
keep_environment =
begin routers
%s
  transport = smtp
begin transports
smtp:
  driver = smtp
begin retry
* * F,4d,1h
"""

    def seed(self, count, body):
        spool.empty("/var/spool/exim4")
        owned("/var/spool/exim4", "Debian-exim")
        owned("/var/log/exim4", "Debian-exim")
        self.configure(space.SERVER)
        feed(["/usr/sbin/exim4", "-odq", "-bS"], dialogue(self.to(count), body))

    def configure(self, server):
        Path("/etc/exim4").mkdir(exist_ok=True)
        router = "out:\n  driver = dnslookup" if self.recipients else f"relay:\n  driver = manualroute\n  route_list = * {server}"
        Path("/etc/exim4/exim4.conf").write_text(self.CONFIG % router)


class Sendmail(Peer):
    name = "sendmail"
    PROGRAM = "/usr/libexec/sendmail/sendmail"
    argv = [PROGRAM, "-q"]
    idle_argv = [PROGRAM, "-q", "-OMinQueueAge=1d"]
    MACROS = """divert(-1)
include(`/usr/share/sendmail/cf/m4/cf.m4')
OSTYPE(`linux')
define(`SMART_HOST', `[%s]')
define(`confDOMAIN_NAME', `gate.bench.test')
define(`confDELIVERY_MODE', `q')
define(`confQUEUE_LA', `1000')
define(`confREFUSE_LA', `1000')
FEATURE(`nocanonify')
FEATURE(`accept_unresolvable_domains')
MAILER(`smtp')
"""

    def configure(self, server):
        macros = self.MACROS % server
        if self.recipients:
            macros = re.sub("define\\(`SMART_HOST.*\n", "", macros)
        config = subprocess.run(["m4", "-"], input=macros, text=True, check=True,
                                stdout=subprocess.PIPE, cwd="/usr/share/sendmail/cf/cf").stdout
        Path("/etc/mail/sendmail.cf").write_text(config)

    def seed(self, count, body):
        for name in ("local-host-names", "aliases", "relay-domains"):
            Path(f"/etc/mail/{name}").touch()
        self.configure(space.SERVER)
        os.makedirs("/run/sendmail/mta", exist_ok=True)
        spool.empty("/var/spool/mqueue")
        os.chmod("/var/spool/mqueue", 0o700)
        hand_in([self.PROGRAM, "-bs", "-odq"], self.to(count), body)


class Dma(Peer):
    name = "dma"
    argv = ["/usr/sbin/dma", "-q"]

    def seed(self, count, body):
        Path("/etc/dma").mkdir(exist_ok=True)
        settings = ("" if self.recipients else f"SMARTHOST {space.SERVER}\n") + "MAILNAME gate.bench.test\n"
        Path("/etc/dma/dma.conf").write_text(settings + "DEFER\n")
        spool.empty("/var/spool/dma")
        owned("/var/spool/dma", "root", "mail", 0o2775)
        for recipient in self.to(count):
            feed(["/usr/sbin/dma", "-f", spool.SENDER.strip("<>"), recipient], body)
        Path("/etc/dma/dma.conf").write_text(settings)


class Nullmailer(Peer):
    name = "nullmailer"
    argv = ["/usr/sbin/nullmailer-send"]

    def seed(self, count, body):
        Path("/etc/nullmailer").mkdir(exist_ok=True)
        Path("/etc/nullmailer/remotes").write_text(f"{space.SERVER} smtp\n")
        Path("/etc/nullmailer/pausetime").write_text("0\n")  # one pass, then the end
        spool.empty("/var/spool/nullmailer")
        for name in ("queue", "tmp", "failed"):
            owned(f"/var/spool/nullmailer/{name}", "mail")
        os.mkfifo("/var/spool/nullmailer/trigger")
        head = f"{spool.SENDER.strip('<>')}\n{RECIPIENT}\n\n".encode()
        for _ in range(count):
            feed(["/usr/sbin/nullmailer-queue"], head + body)


class Msmtp(Peer):
    name = "msmtp"
    argv = ["/usr/libexec/msmtp/msmtpqueue/msmtp-runqueue.sh"]

    def seed(self, count, body):
        os.environ["HOME"] = "/var/spool/msmtp"
        queue = "/var/spool/msmtp/.msmtpqueue"
        spool.empty(queue)
        config = Path("/var/spool/msmtp/.msmtprc")
        config.write_text(f"account default\nhost {space.SERVER}\nsyslog on\n")
        config.chmod(0o600)
        for i in range(count):
            spool.write(f"{queue}/2024-01-01-00.00.00-{i}.mail", body)
            spool.write(f"{queue}/2024-01-01-00.00.00-{i}.msmtp",
                        f"-f {spool.SENDER.strip('<>')} -- {RECIPIENT}\n".encode())


class Daemon(Peer):
    """A queue runner that stays. Its time runs from the order to send to the last message taken."""
    daemon = True
    argv = ["(daemon)"]

    def start(self, *command):
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                       preexec_fn=self.account.enter)

    def peak(self):
        sizes = [0]
        for process in self.account.processes():
            status = Path(f"/proc/{process}/status").read_text()
            sizes.append(int(re.search(r"VmHWM:\s+(\d+)", status)[1]))
        return max(sizes)

    def run(self, sink, messages, counted="messages"):
        before = self.account.seconds()
        begin = time.monotonic()
        self.go()
        while sink.peek()[counted] < messages:
            time.sleep(0.002)
        wall = time.monotonic() - begin
        time.sleep(0.1)  # for what follows the last reply
        cpu, peak = self.account.seconds() - before, self.peak()
        self.stop()
        return {"wall": wall, "cpu": cpu, "rss": peak, "status": 0}

    @staticmethod
    def wait_for(done):
        while not done():
            time.sleep(0.1)


class Postfix(Daemon):
    name = "postfix"
    EXTRA = ""

    def seed(self, count, body):
        subprocess.run(["rm", "-rf", "/var/spool/postfix", "/var/lib/postfix"], check=True)
        os.makedirs("/var/spool/postfix", exist_ok=True)
        owned("/var/lib/postfix", "postfix", mode=0o700)
        share = Path("/usr/share/postfix")
        services = [l for l in (share / "master.cf.dist").read_text().splitlines() if l[:1].strip("# ")]
        services = [l for l in services if not l.startswith("smtp      inet")]
        Path("/etc/postfix/master.cf").write_text("".join(
            re.sub(r"^(\S+\s+\S+\s+\S+\s+\S+\s+)\S", r"\1n", l) + "\n" for l in services))
        self.configure("defer_transports = smtp\n")
        self.start("/usr/sbin/postfix", "start")
        hand_in([str(self.tree / "usr/sbin/sendmail"), "-bs"], self.to(count), body)
        self.wait_for(lambda: self.queued("deferred") >= count and not self.queued("active"))
        self.configure("")
        subprocess.run(["/usr/sbin/postfix", "reload"], check=True, stderr=subprocess.DEVNULL)
        time.sleep(1.5)

    @staticmethod
    def queued(name):
        return sum(len(files) for _, _, files in os.walk(f"/var/spool/postfix/{name}"))

    def configure(self, more):
        Path("/etc/postfix/main.cf").write_text(
            "compatibility_level = 3.6\ncommand_directory = /usr/sbin\n"
            "daemon_directory = /usr/lib/postfix/sbin\ndata_directory = /var/lib/postfix\n"
            "myhostname = gate.bench.test\nmydestination =\ninet_interfaces = loopback-only\n"
            "inet_protocols = ipv4\nmessage_size_limit = 0\nmailbox_size_limit = 0\n"
            f"relayhost = {'' if self.recipients else '[' + space.SERVER + ']'}\nsyslog_facility = mail\n"
            + self.EXTRA + more)

    def go(self):
        subprocess.run(["/usr/sbin/postqueue", "-f"], check=True)

    def stop(self):
        subprocess.run(["/usr/sbin/postfix", "stop"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(0.2)
        self.account.clear()


    def with_tls(self):
        """As Debian sets it up: where it is offered, and with a cache of sessions."""
        other = copy.copy(self)
        other.EXTRA += ("smtp_tls_security_level = may\nsmtp_tls_CApath = /etc/ssl/certs\n"
                        "smtp_tls_session_cache_database = btree:${data_directory}/smtp_scache\n")
        return other


class SlowPostfix(Postfix):
    name = "postfix, one at a time"
    EXTRA = "default_destination_concurrency_limit = 1\ninitial_destination_concurrency = 1\n"


class OpenSmtpd(Daemon):
    """It rests for seconds after every hundred messages of a conversation, which makes its time."""
    name = "opensmtpd"
    rounds = 1
    EXTRA = ""

    def seed(self, count, body):
        Path("/etc/smtpd.conf").write_text(
            self.EXTRA + "smtp max-message-size 200M\nlisten on socket\nlisten on 127.0.0.1 port 2500\n"
            f'action "out" relay{"" if self.recipients else f" host smtp://{space.SERVER}"}\nmatch from any for any action "out"\n')
        subprocess.run(["rm", "-rf", "/var/spool/smtpd"], check=True)
        os.makedirs("/var/lib/opensmtpd/empty", exist_ok=True)
        owned("/var/spool/smtpd", "root", mode=0o711)
        owned("/var/spool/smtpd/offline", "root", "opensmtpq", 0o770)
        owned("/var/spool/smtpd/purge", "opensmtpq", "root", 0o700)
        self.process = subprocess.Popen(["/usr/sbin/smtpd", "-F"], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, preexec_fn=self.account.enter)
        time.sleep(1)
        self.control("pause")
        submit(self.to(count), body)

    @staticmethod
    def control(order):
        subprocess.run(["/usr/sbin/smtpctl", order, "mta"], check=True, group="opensmtpq",
                       stdout=subprocess.DEVNULL)

    def go(self):
        self.control("resume")

    def stop(self):
        self.account.clear()
        self.process.wait()


class SlowOpenSmtpd(OpenSmtpd):
    name = "opensmtpd, one at a time"
    EXTRA = "mta limit max-conn-per-relay 1\n"


class LongOpenSmtpd(OpenSmtpd):
    """Without its pause after every hundred messages: all go through one conversation."""
    name = "opensmtpd, one long session"
    rounds = 3
    EXTRA = SlowOpenSmtpd.EXTRA + "mta limit session-mail-max 100000\n"


def submit(recipients, body):
    """Over SMTP, in sessions short enough for the server's limit."""
    for begin in range(0, len(recipients), 50):
        with smtplib.SMTP("127.0.0.1", 2500, "gate.bench.test") as client:
            for recipient in recipients[begin:begin + 50]:
                client.sendmail(spool.SENDER, [recipient], body)


ALL = (Exim(), Sendmail(), Dma(), Nullmailer(), Msmtp(), SlowPostfix(), Postfix(),
       SlowOpenSmtpd(), LongOpenSmtpd(), OpenSmtpd())


def chosen(options):
    if not options.peers:
        return []
    names = [n for n in options.peer.split(",") if n]
    return [p for p in ALL if not names or any(p.name.startswith(n) for n in names)]
