"""A Debian 12 that boots: systemd in namespaces of its own, above a root that nobody changes."""

import os
import pathlib
import re
import subprocess
import time

BOOT_TIMEOUT_S = 60
COMMAND_TIMEOUT_S = 120
PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")

# Runs as the first process of the new namespaces, in the machine's root.
BOOT = r"""
set -e
cd "$1"
mount -t proc proc proc
# The kernel's settings are those of the machine that the tests run on.
mount --bind proc/sys proc/sys
mount -o remount,bind,ro proc/sys
mount -t sysfs -o ro sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs -o mode=755 tmpfs run
mount -t tmpfs -o mode=755 tmpfs dev
for device in $2; do
  touch dev/$device
  mount --bind /dev/$device dev/$device
done
mkdir dev/pts dev/shm .before
pivot_root . .before
umount -l .before
rmdir .before
exec env -i container=tests PATH="$3" /lib/systemd/systemd --unit=multi-user.target </dev/null
"""


def cgroup_root():
    """Where this machine has the second version of control groups."""
    for line in pathlib.Path("/proc/mounts").read_text().splitlines():
        _, place, kind = line.split()[:3]
        if kind == "cgroup2":
            return pathlib.Path(place)
    raise AssertionError("this machine has no control groups of version 2 to run systemd in")


class DebianMachine:
    """Its files are those of `root`, and what it changes is gone with it."""

    def __init__(self, root, directory):
        self.lower = pathlib.Path(root)
        self.layers = pathlib.Path(directory) / "layers"
        self.root = pathlib.Path(directory) / "root"
        self.group = cgroup_root() / f"zel-tests-{os.getpid()}"
        self.process = None
        self.init = None

    def mount(self):
        for directory in (self.layers, self.root):
            directory.mkdir(parents=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "none", self.layers], check=True)
        for name in ("upper", "work"):
            (self.layers / name).mkdir()
        subprocess.run(["mount", "-t", "overlay", "none", self.root, "-o",
                        f"lowerdir={self.lower},upperdir={self.layers}/upper,"
                        f"workdir={self.layers}/work"], check=True)
        return self

    def boot(self):
        self.group.mkdir(exist_ok=True)
        enter = f'echo $$ >{self.group}/cgroup.procs; exec "$@"'
        unshare = ["unshare", "--kill-child=KILL", "--fork", "--pid", "--mount", "--uts", "--ipc",
                   "--net", "--cgroup", "--propagation", "private"]
        self.process = subprocess.Popen(
            ["sh", "-c", enter, "sh", *unshare, "sh", "-c", BOOT, "sh", self.root,
             " ".join(DEVICES), PATH],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.wait_for(self._is_up, BOOT_TIMEOUT_S, "the machine does not boot")
        return self

    def _is_up(self):
        assert self.process.poll() is None, self.process.stdout.read().decode()
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        self.init = (children.read_text().split() or [None])[0]
        if not self.init or not os.path.exists(f"/proc/{self.init}/root/run/systemd/private"):
            return False
        return self.run("systemctl", "is-system-running", check=False).stdout.strip() in (
            "running", "degraded")

    @staticmethod
    def wait_for(condition, timeout_s, complaint):
        end = time.monotonic() + timeout_s
        while not condition():
            assert time.monotonic() < end, complaint
            time.sleep(0.05)

    def run(self, *command, check=True):
        """Runs a command on the machine, or in its files while it is not booted."""
        if self.init:
            where = ["nsenter", "--all", "--target", self.init]
        else:
            where = ["unshare", "--pid", "--fork", "--kill-child", "chroot", self.root]
        done = subprocess.run(
            [*where, "/usr/bin/env", "-i", "PATH=" + PATH, "DEBIAN_FRONTEND=noninteractive",
             "LC_ALL=C.UTF-8", *map(str, command)],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=COMMAND_TIMEOUT_S)
        assert not check or done.returncode == 0, (command, done.stdout, done.stderr)
        return done

    def output(self, *command):
        return self.run(*command).stdout.strip()

    def install(self, package):
        """Installs a package's file by dpkg; what that prints."""
        (self.root / "package.deb").write_bytes(pathlib.Path(package).read_bytes())
        done = self.run("dpkg", "-i", "--force-confold", "/package.deb")
        return done.stdout + done.stderr

    def write(self, path, text, mode=0o600):
        file = self.path(path)
        file.write_text(text)
        file.chmod(mode)

    def path(self, path):
        """A path of the machine, as this one sees it; links above its last name lead nowhere."""
        return self.root / str(path).lstrip("/")

    def processes_of(self, pattern):
        """The process numbers of the programs whose file, a whole path, matches the pattern."""
        command = 'for p in /proc/[0-9]*; do echo "${p#/proc/} $(readlink $p/exe)"; done'
        lines = self.run("sh", "-c", command, check=False).stdout.splitlines()
        found = (line.partition(" ") for line in lines)
        return [int(number) for number, _, file in found if re.fullmatch(pattern, file)]

    def remove(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.wait_for(self._groups_are_gone, BOOT_TIMEOUT_S, "processes of the machine remain")
        for mounted in (self.root, self.layers):
            subprocess.run(["umount", "-l", mounted], check=False, capture_output=True)

    def _groups_are_gone(self):
        for directory, _, _ in os.walk(self.group, topdown=False):
            try:
                os.rmdir(directory)
            except OSError:
                return False
        return True
