"""A private place to measure in: network, mounts, host name and process ids of its own."""
import atexit
import ctypes
import json
import os
import shutil
import signal
import socket
import stat
import subprocess
import time
from pathlib import Path

CONTROL = "/run/bench-control"
NETWORK = "10.77.0.0/16"
SERVER = "10.77.0.1"    # the first of the sink's addresses
DEAD = "10.77.9.9"      # nothing listens here: connections are refused at once
HOSTS = 1000            # with a healthy server each
HOST = "gate.bench.test"
USERS = """Debian-exim:x:801:801::/var/spool/exim4:/bin/false
postfix:x:802:802::/var/spool/postfix:/bin/false
opensmtpd:x:803:803::/var/lib/opensmtpd/empty:/bin/false
opensmtpq:x:804:804::/var/lib/opensmtpd/empty:/bin/false
nullmail:x:805:805::/var/spool/nullmailer:/bin/false
smmsp:x:806:806::/var/lib/sendmail:/bin/false
smmta:x:807:807::/var/lib/sendmail:/bin/false
"""
GROUPS = "Debian-exim:x:801:\npostfix:x:802:\nopensmtpd:x:803:\nopensmtpq:x:804:\nnullmail:x:805:\n" \
         "smmsp:x:806:\nsmmta:x:807:\npostdrop:x:808:\n"


def run(*command, **options):
    return subprocess.run(command, check=True, **options)


def mount(source, target, kind=None, options=""):
    Path(target).mkdir(parents=True, exist_ok=True)
    run("mount", *(["-t", kind] if kind else ["--bind"]), *(["-o", options] if options else []),
        str(source), str(target))


def private_dev():
    names = [*("null", "zero", "full", "random", "urandom", "tty"), *(path.name for path in Path("/dev").glob("loop*"))]
    nodes = {name: os.stat(f"/dev/{name}") for name in names}
    mount("none", "/dev", "tmpfs", "mode=755")
    for name, node in nodes.items():
        os.mknod(f"/dev/{name}", node.st_mode, node.st_rdev)
        os.chmod(f"/dev/{name}", stat.S_IMODE(node.st_mode))
    os.symlink("/proc/self/fd", "/dev/fd")
    mount("none", "/dev/shm", "tmpfs")


def private_etc():
    copy = Path("/run/etc")
    shutil.copytree("/etc", copy, symlinks=True, ignore_dangling_symlinks=True)
    shutil.rmtree(copy / "alternatives", ignore_errors=True)
    mount(copy, "/etc")
    for name, text in {
            "hosts": f"127.0.0.1 localhost\n127.0.1.1 {HOST} gate\n",
            "resolv.conf": "nameserver 127.0.0.1\n", "mailname": HOST + "\n", "hostname": HOST + "\n",
            "nsswitch.conf": "passwd: files\ngroup: files\nhosts: files dns\nservices: files\n",
            "aliases": "postmaster: root\n"}.items():
        (copy / name).unlink(missing_ok=True)
        (copy / name).write_text(text)
    with open("/etc/passwd", "a") as passwd, open("/etc/group", "a") as group:
        passwd.write(USERS)
        group.write(GROUPS)


class Disc:
    """A new file system for all that the programs write: what was deleted on the host's before, by
    this benchmark or others, does not count then. Its space is free again when the benchmark ends."""

    def __init__(self, work):
        work.mkdir(parents=True, exist_ok=True)
        image = work / "disc"
        with open(image, "wb") as file:
            file.truncate(8 << 30)
        run("mkfs.ext4", "-q", "-F", "-N", "800000", "-E", "lazy_itable_init=0", str(image))
        mount(image, "/run/disc", "ext4", "loop")
        self.image = os.open(image, os.O_RDONLY)
        self.files = os.open("/run/disc", os.O_RDONLY)
        image.unlink()
        for name in ("spool", "lib", "log", "tmp"):
            Path(f"/run/disc/{name}").mkdir()
            mount(f"/run/disc/{name}", f"/var/{name}")
        os.chmod("/var/tmp", 0o1777)

    def prepare(self, seed):
        """Seeds a spool without waiting for its syncs one by one, and then writes out all of it, so
        that no run pays for what its preparation left in memory."""
        run("mount", "-o", "remount,nobarrier", "/run/disc")
        try:
            seed()
        finally:
            ctypes.CDLL(None).syncfs(self.files)
            os.fsync(self.image)
            run("mount", "-o", "remount,barrier", "/run/disc")


def set_up(work, peer_trees):
    """Called in fresh namespaces; everything that changes lies on the private disc or in memory."""
    mount("none", "/run", "tmpfs", "mode=755")
    disc = Disc(work)
    private_etc()
    private_dev()
    if peer_trees:
        for part in ("usr", "etc"):
            lower = ":".join(str(t / part) for t in peer_trees if (t / part).is_dir())
            if part == "usr":
                mount("overlay", "/usr", "overlay", f"ro,lowerdir={lower}:/usr")
            else:
                for tree in lower.split(":"):
                    shutil.copytree(tree, "/etc", symlinks=True, dirs_exist_ok=True)
    os.environ.update(TZ="UTC", PATH="/usr/sbin:/usr/bin:/sbin:/bin", LC_ALL="C")
    socket.sethostname(HOST)
    run("ip", "link", "set", "lo", "up")
    run("ip", "route", "add", "local", NETWORK, "dev", "lo")
    # Some resolvers ask for no addresses on a host that has none of its own.
    run("ip", "link", "add", "outside", "type", "bridge")
    run("ip", "addr", "add", "10.78.0.1/24", "dev", "outside")
    run("ip", "link", "set", "outside", "up")
    # As service managers set it: a burst of log lines need not wait for the collector line by line.
    Path("/proc/sys/net/unix/max_dgram_qlen").write_text("512")
    return disc


class FreshDisc:
    """A file system of its own for a spool of very many files, which can be forgotten: taken off and
    put on again, nothing of it is in memory."""

    def __init__(self, work, target, files):
        self.image, self.target = work / "fresh-disc", target
        with open(self.image, "wb") as file:
            file.truncate((1 << 30) + 5000 * files)
        atexit.register(self.image.unlink)
        run("mkfs.ext4", "-q", "-F", "-N", str(files + 10000), "-E", "lazy_itable_init=0", str(self.image))
        mount(self.image, target, "ext4", "loop,nobarrier")

    def forget(self):
        run("umount", self.target)
        image = os.open(self.image, os.O_RDONLY)
        os.fsync(image)
        os.posix_fadvise(image, 0, 0, os.POSIX_FADV_DONTNEED)
        os.close(image)
        mount(self.image, self.target, "ext4", "loop")


class Sink:
    """The servers, the name server and the log collector: one process beside what is measured."""

    def __init__(self, program):
        self.program = program
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("/run/bench-asker")
        self.socket.settimeout(30)
        self.certificate = "/run/bench-certificate"
        run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "9",
            "-subj", "/CN=sink.bench.test", "-keyout", self.certificate, "-out", "/run/bench-public", stderr=subprocess.DEVNULL)
        with open(self.certificate, "a") as file:
            file.write(Path("/run/bench-public").read_text())
        self.start()

    def start(self):
        self.process = subprocess.Popen([self.program, SERVER, str(HOSTS), CONTROL, "/dev/log", self.certificate])
        while not os.path.exists("/dev/log"):
            time.sleep(0.01)
        os.chmod("/dev/log", 0o666)

    def ended(self):
        """Nothing while it lives; else it is started again, and this is what to say about it."""
        status = self.process.poll()
        if status is None:
            return ""
        os.unlink("/dev/log")
        self.start()
        return f"; the sink had ended with status {status}"

    def reset(self, delay_us=0, tls=False):
        """Sets the delay before each reply, and whether TLS is offered; returns what was counted since
        the last call."""
        self.socket.sendto(f"{delay_us}{' tls' * tls}".encode(), CONTROL)
        return json.loads(self.socket.recv(1024))

    def peek(self):
        """What was counted, without a reset."""
        self.socket.sendto(b"?", CONTROL)
        return json.loads(self.socket.recv(1024))

    def stop(self):
        self.process.terminate()
        self.process.wait()


class Account:
    """Processor time of programs that scatter: a control group that holds all they start. It vanishes
    with the benchmark."""

    def __init__(self):
        self.new_style = os.path.exists("/sys/fs/cgroup/cgroup.controllers")
        base = "/sys/fs/cgroup" if self.new_style else "/sys/fs/cgroup/cpuacct"
        self.path = Path(f"{base}/queue-bench-{os.stat('/proc/self/ns/pid').st_ino}")
        self.path.mkdir(exist_ok=True)  # the name of a benchmark that was killed may come again

    def enter(self):
        """Puts the calling process in; for the moment before exec."""
        (self.path / "cgroup.procs").write_text("0")

    def seconds(self):
        if self.new_style:
            return int((self.path / "cpu.stat").read_text().split()[1]) * 1e-6
        return int((self.path / "cpuacct.usage").read_text()) * 1e-9

    def processes(self):
        return (self.path / "cgroup.procs").read_text().split()

    def memory(self):
        """KB that its processes take, each shared page divided among those that share it."""
        sizes = [0]
        for process in self.processes():
            try:
                rollup = Path(f"/proc/{process}/smaps_rollup").read_text()
            except OSError:  # it is gone
                continue
            sizes += [int(line.split()[1]) for line in rollup.splitlines() if line.startswith("Pss:")]
        return sum(sizes)

    def clear(self):
        """Ends what is left of a peer that could not be stopped in order."""
        while left := self.processes():
            for process in left:
                os.kill(int(process), signal.SIGKILL)
            time.sleep(0.1)

    def close(self):
        self.clear()
        self.path.rmdir()


def connections(kind):
    """How many the kernel has counted: "AttemptFails", refused ones; "ActiveOpens", all that were begun."""
    fields, values = [l.split() for l in open("/proc/net/snmp") if l.startswith("Tcp:")]
    return int(values[fields.index(kind)])
