"""A small world of its own for the built program: private network, mounts, host name and processes;
a scratch install tree with its rule table and spool; a collector for the system log.

enter() plays the calling script inside; from then on port 25 of 127.0.0.2 and up, /etc/hosts,
/etc/resolv.conf and /dev/log belong to this world, and every process in it ends when the script does.
All its files are in memory of its own: nothing of it is left on the host, however it ends.
Servers to talk to are in servers.py.
"""
import calendar
import collections
import ctypes
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BINARY = os.environ.get("RETRYER", os.path.join(REPO, "build/release/proxies/retryer/retryer"))
RETRYQ = os.path.join(os.path.dirname(BINARY), "../retryq/retryq")
HOST = "gateway.home.test"
DNS_ADDRESS = "127.0.0.53"
SCRATCH = "/run/world"
MARK = "GATEWAY_WORLD"  # set inside; names the mounts of who is outside


def enter():
    """Puts the calling script into namespaces of its own and returns the scratch directory, which is
    memory. Needs root, or a kernel and /etc/subuid that let a user act as root."""
    os.environ["PATH"] += ":/usr/local/sbin:/usr/sbin:/sbin"  # a plain user's has none of these
    mounts = os.readlink("/proc/self/ns/mnt")
    if os.environ.pop(MARK, mounts) == mounts:
        _play_inside(mounts)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    mount("-t", "tmpfs", "-o", "mode=755", "world", "/run")  # a name cache of the host would answer from outside
    os.mkdir(SCRATCH, 0o755)
    _private_etc(SCRATCH)
    _private_dev(SCRATCH)
    if os.path.isdir("/var/spool"):  # a run with default directories must not find the host's spool
        mount("-t", "tmpfs", "none", "/var/spool")
    socket.sethostname(HOST)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    return SCRATCH


def _play_inside(mounts):
    """Plays the calling script once more, inside, and ends as that ends."""
    flags = ["--net", "--mount", "--uts", "--ipc", "--pid", "--fork", "--kill-child", "--mount-proc"]
    if os.geteuid() != 0:
        flags += ["--user", "--map-root-user", "--map-auto"]
    sys.stdout.flush()
    _end_with_parent()
    world = subprocess.Popen(["unshare", *flags, "/usr/bin/python3", *sys.orig_argv[1:]],
                             env=dict(os.environ, **{MARK: mounts}), preexec_fn=_end_with_parent)
    signal.signal(signal.SIGTERM, lambda *_: world.kill())  # unshare is deaf to SIGTERM, but its death ends the world
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the script inside hears it as well
    status = world.wait()
    sys.exit(status if status >= 0 else 128 - status)


def _end_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def mount(*args):
    subprocess.run(["mount", *args], check=True)


def _private_etc(scratch):
    """The host's /etc by links, with our own name-service files in it."""
    etc, host = os.path.join(scratch, "etc"), os.path.join(scratch, "etc.host")
    os.mkdir(etc, 0o755)
    os.mkdir(host, 0o755)
    mount("--rbind", "/etc", host)
    subprocess.run(["mount", "-o", "remount,bind,ro", host], stderr=subprocess.DEVNULL, check=False)
    users = open("/etc/passwd").read() + "Debian-exim:x:90:90::/:/bin/false\n"
    groups = open("/etc/group").read() + "Debian-exim:x:90:\n"
    own = {"hosts": f"127.0.0.1 localhost\n127.0.0.1 {HOST} gateway\n", "passwd": users, "group": groups,
           "resolv.conf": f"nameserver {DNS_ADDRESS}\noptions timeout:1 attempts:1\n",
           "nsswitch.conf": "passwd: files\ngroup: files\nhosts: files dns\nservices: files\n",
           "services": "smtp 25/tcp\n"}
    for name in set(os.listdir(host)) - set(own):
        os.symlink(os.path.join(host, name), os.path.join(etc, name))
    for name, text in own.items():
        etc_file(name, text, etc)
    mount("--rbind", etc, "/etc")


def etc_file(name, text, etc="/etc"):
    """Rewrites one of the world's own files in /etc."""
    with open(os.path.join(etc, name), "w") as out:
        out.write(text)


def _private_dev(scratch):
    dev = os.path.join(scratch, "dev")
    os.mkdir(dev, 0o755)
    for name in ("null", "zero", "full", "random", "urandom", "tty", "ptmx"):
        if os.path.exists("/dev/" + name):
            open(os.path.join(dev, name), "w").close()
            mount("--bind", "/dev/" + name, os.path.join(dev, name))
    for name in ("pts", "shm"):
        os.mkdir(os.path.join(dev, name))
    if os.path.isdir("/dev/pts"):
        mount("--bind", "/dev/pts", os.path.join(dev, "pts"))
    for name, target in (("fd", "fd"), ("stdin", "fd/0"), ("stdout", "fd/1"), ("stderr", "fd/2")):
        os.symlink("/proc/self/" + target, os.path.join(dev, name))
    mount("--rbind", dev, "/dev")


LogLine = collections.namedtuple("LogLine", "priority ident text")  # priority = facility * 8 + level
LOG_PATTERN = re.compile(rb"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d (?:([^\s:\[]+)(?:\[\d+\])?: )?(.*)", re.S)


class Syslog:
    """Owns /dev/log and keeps every line sent to it."""

    def __init__(self, path="/dev/log"):
        self._lines, self._marks, self._copy = [], set(), None
        self._path = path
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(path)
        os.chmod(path, 0o666)
        threading.Thread(target=self._collect, daemon=True).start()

    def _collect(self):
        while True:
            data = self._socket.recv(65536)
            match = LOG_PATTERN.fullmatch(data.rstrip(b"\n\0"))
            if data.startswith(b"mark "):
                self._marks.add(data)
                continue
            priority, ident, text = match.groups() if match else (b"-1", b"", data)
            self._lines.append(LogLine(int(priority), (ident or b"").decode("latin-1"), text.decode("latin-1")))
            if self._copy:
                self._copy.write(f"{time.strftime('%H:%M:%S')} {self._lines[-1].ident}: {self._lines[-1].text}\n")

    def copy_to(self, path):
        """Appends each line to a file as well, from now on."""
        self._copy = open(path, "a", buffering=1)

    def take(self):
        """All lines since the last call, including every one that was sent before this call."""
        mark = b"mark %d" % time.monotonic_ns()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(mark, self._path)
        while mark not in self._marks:
            time.sleep(0.001)
        lines, self._lines = self._lines, []
        return lines


def stamp(seconds):
    """A recipient file's time text; its month counts from 0."""
    t = time.gmtime(seconds)
    return f"{t[0]:04d}/{t[1] - 1:02d}/{t[2]:02d}@{t[3]:02d}:{t[4]:02d}:{t[5]:02d}_GMT"


def unstamp(text):
    year, month, *rest = map(int, re.fullmatch(r"(\d+)/(\d+)/(\d+)@(\d+):(\d+):(\d+)_GMT", text).groups())
    return calendar.timegm((year, month + 1, *rest))


class Rmd(collections.namedtuple("Rmd", "first last tries sender recipients")):
    """A recipient file; recipients is a list of (address, code)."""

    @classmethod
    def parse(cls, data):
        first, last, tries, sender, *rest = data.decode("latin-1").split("\n")[:-1]
        rcpts = [(line.rpartition("\t")[0], int(line.rpartition("\t")[2])) for line in rest]
        return cls(unstamp(first), unstamp(last), int(tries), sender, rcpts)

    def text(self):
        head = [stamp(self.first), stamp(self.last), str(self.tries), self.sender]
        rcpts = [f"{address}\t{code}" for address, code in self.recipients]
        return "".join(line + "\n" for line in head + rcpts).encode("latin-1")


def wire(text):
    """The body bytes that a queued text gives, up to the final dot: CR LF ends, dots doubled, and of
    an unterminated last line only the whole pieces of 1022 that leave more than 1023 bytes."""
    *lines, tail = text.split(b"\n")
    out = b"".join((b"." if line[:1] == b"." else b"") + line + b"\r\n" for line in lines)
    kept = 0
    while len(tail) - kept >= 1024:
        kept += 1022
    return out + (b"." if kept and tail[:1] == b"." else b"") + tail[:kept]


class Run:
    """A finished run: status (negative = signal), out, seconds, cpu (seconds), peak (KiB), log."""

    def __init__(self, **members):
        self.__dict__.update(members)

    def lines(self, *words):
        """The log lines that hold all these words."""
        return [line.text for line in self.log if all(word in line.text for word in words)]

    def calls(self):
        """How often each system call was made (runs under strace only)."""
        return collections.Counter(re.findall(r"^(?:\d+ +)?(\w+)\(", self.trace, re.M))


class World:
    """The program's install tree, rule table and spool, fresh in a directory of their own."""

    _syslog = None
    always = ()  # lines of every rule table

    def __init__(self, scratch, binary=BINARY, **settings):
        self.root = tempfile.mkdtemp(prefix="w", dir=scratch)
        self.spool_dir = os.path.join(self.root, "deferred", "")
        self.outgoing_dir = os.path.join(self.root, "outgoing", "")
        self.binary = binary
        os.makedirs(os.path.join(self.root, "usr/local/etc"))
        os.mkdir(self.spool_dir)
        os.mkdir(self.outgoing_dir)
        World._syslog = World._syslog or Syslog()
        self.table(**settings)

    def table(self, *extra, raw=None, **settings):
        """Writes the rule table: our directories, short time-outs, the settings given (_ for -) and
        extra lines ("domain-relay * 127.0.0.2"), or just the raw text."""
        values = {"deferred-directory": self.spool_dir, "directory": self.outgoing_dir,
                  "smtp-connect-timeout": 3, "smtp-mail-timeout": 3, "smtp-rcpt-timeout": 3,
                  "smtp-data-timeout": 3, "smtp-send-timeout": 3, "smtp-final-timeout": 3}
        values.update((key.replace("_", "-"), value) for key, value in settings.items())
        lines = [f"{key} {value}" for key, value in values.items() if value is not None] + [*self.always, *extra]
        with open(os.path.join(self.root, "usr/local/etc/rulbex-table"), "w") as out:
            out.write("".join(f"vorn: {line}\n" for line in lines) if raw is None else raw)

    def queue(self, leaf, to, text=b"Subject: test\n\nhello\n", sender="<sender@from.test>", first=-7200,
              last=-3600, tries=1):
        """Queues a message; times are seconds from now; `to` holds addresses or (address, code)."""
        now = int(time.time())
        rcpts = [entry if isinstance(entry, tuple) else (entry, -1) for entry in ([to] if isinstance(to, str) else to)]
        self.put(leaf, text)
        self.put(leaf + ".rmd", Rmd(now + first, now + last, tries, sender, rcpts).text())

    def put(self, name, data):
        with open(self.spool_dir + name, "wb") as out:
            out.write(data)

    def spool(self):
        """Every file of the deferred spool with its bytes."""
        files = {}
        for name in sorted(os.listdir(self.spool_dir)):
            with open(self.spool_dir + name, "rb") as file:
                files[name] = file.read()
        return files

    def rmd(self, leaf):
        return Rmd.parse(self.spool()[leaf + ".rmd"])

    def start(self, *args, env=None, strace=None, binary=None):
        """Starts a run; finish() waits for it."""
        command = [binary or self.binary, *args]
        trace = os.path.join(self.root, "strace")
        if strace is not None:
            command = ["strace", "-f", "-o", trace, *strace, *command]
        full = {"PATH": os.environ["PATH"], "TAVORIX": self.root, "TZ": "UTC", **(env or {})}
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "ASAN_SYMBOLIZER_PATH"):
            if name in os.environ:
                full.setdefault(name, os.environ[name])
        out = tempfile.TemporaryFile()
        process = subprocess.Popen(command, env=full, cwd=self.root, stdin=subprocess.DEVNULL, stdout=out,
                                   stderr=subprocess.STDOUT)
        process.began, process.out_file, process.trace_file = time.monotonic(), out, strace is not None and trace
        return process

    def finish(self, process, timeout=60):
        """Waits for a started run, killing it after `timeout` (status None)."""
        peak, killed = 0, False
        while True:
            peak = max(peak, _peak(process.pid))
            pid, status, usage = os.wait4(process.pid, os.WNOHANG)
            if pid:
                break
            if not killed and time.monotonic() - process.began > timeout:
                os.kill(process.pid, signal.SIGKILL)
                killed = True
            time.sleep(0.003)
        process.returncode = os.waitstatus_to_exitcode(status)
        seconds = time.monotonic() - process.began
        process.out_file.seek(0)
        trace = open(process.trace_file, errors="replace").read() if process.trace_file else ""
        return Run(status=None if killed else process.returncode, out=process.out_file.read().decode("latin-1"),
                   seconds=seconds, cpu=usage.ru_utime + usage.ru_stime, peak=peak, log=World._syslog.take(), trace=trace)

    def run(self, *args, timeout=60, **how):
        return self.finish(self.start(*args, **how), timeout)


def _peak(pid):
    try:
        with open(f"/proc/{pid}/status") as status:
            return int(re.search(r"VmHWM:\s*(\d+)", status.read())[1])
    except (OSError, TypeError):
        return 0
