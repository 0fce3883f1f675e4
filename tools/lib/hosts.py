"""Hosts of a world: namespaces with a network, mounts, processes and a name of their own, joined by a
bridge; and a replicated GlusterFS volume (unpacked, not installed) with a copy on each."""
import contextlib
import glob
import os
import re
import shutil
import signal
import stat
import subprocess
import time

from servers import _await
from world import REPO, etc_file, mount

GLUSTER = os.path.join(REPO, "build/peers/glusterfs-server")
NET, OUTSIDE, VOLUME = "10.9.0.", "10.9.0.1", "spool"
SHARED = "/run/shared"  # where every host, and the world around them, sees the volume
# How soon one that does not answer is given up, in seconds: GlusterFS's own 42 is long for a gateway.
PATIENCE = 10
OPTIONS = {"network.ping-timeout": PATIENCE, "server.tcp-user-timeout": PATIENCE}


def prepare(names, addresses):
    """In a fresh world: the bridge with the servers' addresses, the names of the hosts, the programs."""
    mount("-t", "overlay", "overlay", "-o", f"ro,lowerdir={GLUSTER}/usr:/usr", "/usr")
    shutil.copytree(GLUSTER + "/etc/glusterfs", "/etc/glusterfs", dirs_exist_ok=True)
    os.mknod("/dev/fuse", stat.S_IFCHR | 0o600, os.makedev(10, 229))
    etc_file("hosts", "127.0.0.1 localhost\n" + "".join(f"{NET}{11 + at} {name}\n" for at, name in enumerate(names)), "/etc")
    etc_file("resolv.conf", f"nameserver {OUTSIDE}\noptions timeout:1 attempts:1\n", "/etc")
    ip("link", "add", "bridge", "type", "bridge")
    ip("link", "set", "bridge", "up")
    for address in (OUTSIDE, *addresses):
        ip("addr", "add", address + "/16", "dev", "bridge")


def ip(*words):
    subprocess.run(["ip", *words], check=True)


class Host:
    """One host. What it keeps on its discs outlives it: start() after end() is a restart."""

    SCRIPT = """set -e
        hostname {name}
        mount --rbind {scratch} /mnt; mount -t tmpfs none /run; mkdir -p {scratch} {shared} /run/gluster
        mount --move /mnt {scratch}
        for part in lib log; do mount --bind {home}/$part /var/$part; done
        echo up; sleep infinity; :"""  # a shell, as it takes notice of every process that ends

    def __init__(self, scratch, name, number):
        self.name, self.address, self.link = name, NET + str(11 + number), f"to-{name}"
        self.home, self.scratch = os.path.join(scratch, name), scratch
        self.brick = self.home + "/lib/brick/copy"
        os.makedirs(self.brick)
        os.makedirs(self.home + "/log/glusterfs")
        shutil.copytree(GLUSTER + "/var/lib/glusterd", self.home + "/lib/glusterd")
        self.start()

    def start(self):
        script = self.SCRIPT.format(name=self.name, scratch=self.scratch, home=self.home, shared=SHARED)
        flags = ["--net", "--mount", "--uts", "--pid", "--fork", "--kill-child", "--mount-proc"]
        self._outer = subprocess.Popen(["unshare", *flags, "/bin/sh", "-c", script], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        assert self._outer.stdout.readline() == b"up\n", f"{self.name} does not come up"
        with open(f"/proc/{self._outer.pid}/task/{self._outer.pid}/children") as children:
            self.first = int(children.read())
        ip("link", "add", self.link, "type", "veth", "peer", "name", "eth0", "netns", str(self.first))
        ip("link", "set", self.link, "master", "bridge", "up")
        self.play("sh", "-c", f"ip link set lo up; ip addr add {self.address}/16 dev eth0; ip link set eth0 up")
        self.play("glusterd")

    def inside(self, *command):
        """The command line that plays a command on this host."""
        return ["nsenter", "-t", str(self.first), "-a", *command]

    def play(self, *command, check=True):
        return subprocess.run(self.inside(*command), check=check, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True).stdout

    def attach(self):
        """Sees the volume in SHARED, once its own copy takes part."""
        _await(lambda: self.brick_process() is not None, f"the copy on {self.name}", 60)
        join(self.play, self.address)

    def brick_process(self):
        """Its number as the host itself counts."""
        for path in glob.glob(f"/proc/{self.first}/root/run/gluster/vols/{VOLUME}/*.pid"):
            with contextlib.suppress(OSError, ValueError), open(path) as file:
                return int(file.read())
        return None

    def end(self):
        """As when its power goes: nobody is told."""
        ip("link", "del", self.link)
        os.kill(self.first, signal.SIGKILL)
        self._outer.wait()

    def network(self, there):
        ip("link", "set", self.link, "up" if there else "down")


def join(play, server):
    play("glusterfs", f"--volfile-server={server}", f"--volfile-id={VOLUME}", "--log-file=/dev/null", SHARED)


class Volume:
    """The hosts with one replicated volume, which the world around them sees as well."""

    def __init__(self, scratch, names):
        self.hosts = [Host(scratch, name, at) for at, name in enumerate(names)]
        _await(lambda: "Number of Peers: 0" in self.gluster("peer", "status"), "glusterd")
        for host in self.hosts[1:]:
            _await(lambda: "success" in self.gluster("peer", "probe", host.name), f"peer {host.name}")
        _await(lambda: self.gluster("peer", "status").count("in Cluster (Connected)") == len(names) - 1, "the cluster")
        bricks = [f"{host.name}:/var/lib/brick/copy" for host in self.hosts]
        _await(lambda: "success" in self.gluster("volume", "create", VOLUME, "replica", str(len(names)), *bricks, "force"), "the volume")
        for option, value in OPTIONS.items():
            self.gluster("volume", "set", VOLUME, option, str(value))
        self.gluster("volume", "start", VOLUME)
        os.mkdir(SHARED)
        for host in self.hosts:
            host.attach()
        join(lambda *command: subprocess.run(command, check=True), self.hosts[0].address)

    def gluster(self, *words):
        return self.hosts[0].play("gluster", "--mode=script", *words, check=False)

    def heal(self, seconds=120):
        """Waits until nothing is left that one copy has and another lacks; says what is."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            told = self.gluster("volume", "heal", VOLUME, "info")
            if re.findall(r"Number of entries: (\S+)", told) == ["0"] * len(self.hosts):
                return []
            self.gluster("volume", "heal", VOLUME)
            time.sleep(1)
        return [f"the copies are not alike after {seconds} s: {told}" + self.gluster("volume", "status", VOLUME)]

    def differences(self):
        """Files that are not alike on all copies."""
        copies = [dict(_files(host.brick)) for host in self.hosts]
        return {name for copy in copies for name in copy if any(other.get(name) != copy[name] for other in copies)}


def _files(root):
    for path, folders, names in os.walk(root):
        folders[:] = [folder for folder in folders if not folder.startswith(".glusterfs")]
        for name in names:
            with open(os.path.join(path, name), "rb") as file:
                yield os.path.relpath(file.name, root), file.read()
