"""A Windows network of the tests' own: hosts with servers and browsers, each in a network namespace.

`alpha` is the browser of the workgroup ZELFIRST, `beta` a member of it, `gamma` the browser of
ZELSECOND. Agents run on `beta`, whose /etc/samba/smb.conf is the one made here. The network exists
as long as its processes; nothing of it has a name that the machine would see.
"""

import concurrent.futures
import ctypes
import itertools
import os
import pathlib
import shutil
import subprocess
import tempfile
import time

from agents import clean_environment

START_TIMEOUT_S = 60
STOP_TIMEOUT_S = 20
POLL_S = 0.2
THREADS = 4  # of a host: as many calls at once

SMBD = "/usr/sbin/smbd"
NMBD = "/usr/sbin/nmbd"

CONFIGURATION = """[global]
netbios name = {name}
workgroup = {workgroup}
server string = {name} of the tests
interfaces = eth0
bind interfaces only = yes
server min protocol = NT1
map to guest = bad user
local master = {browser}
preferred master = {browser}
domain master = {browser}
os level = 255
dns proxy = no
disable spoolss = yes
load printers = no
printcap name = /dev/null
log level = 1
log file = {place}/log
pid directory = {place}
lock directory = {place}
state directory = {place}
cache directory = {place}
private dir = {place}
ncalrpc dir = {place}/ncalrpc
"""

_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_FS, _CLONE_NEWNS, _CLONE_NEWNET = 0x200, 0x20000, 0x40000000


def _checked(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def _enter(process):
    """Moves this thread, and what it starts from now on, into the namespaces of a process."""
    _checked(_libc.unshare(_CLONE_FS))
    for name, kind in (("net", _CLONE_NEWNET), ("mnt", _CLONE_NEWNS)):
        descriptor = os.open(f"/proc/{process}/ns/{name}", os.O_RDONLY | os.O_CLOEXEC)
        try:
            _checked(_libc.setns(descriptor, kind))
        finally:
            os.close(descriptor)


def run(*command):
    done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True)
    assert done.returncode == 0, (command, done.stdout, done.stderr)


def _launch(*command, **options):
    """Ends with the tests, whatever becomes of them. It has a session of its own: some servers send
    what ends them to their whole process group."""
    return subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *map(str, command)],
                            stdin=subprocess.DEVNULL, env=clean_environment(),
                            start_new_session=True, **options)


class Host:
    """A machine of its own as far as its network and its smb.conf are concerned."""

    def __init__(self):
        self.holder = _launch("unshare", "--net", "--mount", "--propagation", "private",
                              "sleep", "infinity")
        self.servers = {}
        self._threads = None
        try:
            self._wait_for_namespaces()
            self._threads = concurrent.futures.ThreadPoolExecutor(
                THREADS, initializer=_enter, initargs=(self.holder.pid,))
            self.run(run, "ip", "link", "set", "lo", "up")
        except BaseException:
            self.remove()
            raise

    def _wait_for_namespaces(self):
        """Until the holder has left the ones it was started in for its own, both of them."""
        deadline = time.monotonic() + START_TIMEOUT_S
        command = f"/proc/{self.holder.pid}/comm"
        while open(command).read() != "sleep\n":
            assert self.holder.poll() is None and time.monotonic() < deadline
            time.sleep(0.01)

    def begin(self, function, *arguments, **options):
        """Calls `function` on this host; a future."""
        return self._threads.submit(function, *arguments, **options)

    def run(self, function, *arguments, **options):
        return self.begin(function, *arguments, **options).result()

    def configure(self, directory, name, workgroup, is_browser=False):
        """Makes the smb.conf of this host."""
        place = directory / name
        # Samba looks who may enter the one for its sockets.
        (place / "ncalrpc").mkdir(parents=True, mode=0o755)
        self.place = place
        configuration = place / "smb.conf"
        configuration.write_text(CONFIGURATION.format(
            name=name, workgroup=workgroup, place=place, browser="yes" if is_browser else "no"))
        self.use(configuration.read_text())
        # The servers of all hosts would bind one socket here, and those that start at once hinder each other.
        os.makedirs("/run/samba", exist_ok=True)
        self.run(_mount_own, "/run/samba")

    def use(self, configuration):
        """This text is the host's smb.conf from now on, which every account may read."""
        self.run(_write_own, "/etc/samba", "smb.conf", configuration)

    def serve(self):
        for program in (NMBD, SMBD):
            with open(self.place / "output", "ab") as output:
                self.servers[program] = self.run(
                    _launch, program, "--foreground", "--no-process-group", stdout=output,
                    stderr=output)

    def signal(self, program, number):
        self.servers[program].send_signal(number)

    def describe(self):
        return "\n".join(f"{file}:\n{file.read_text(errors='replace')[-2000:]}"
                         for file in (self.place / "log", self.place / "output") if file.exists())

    def remove(self):
        for server in self.servers.values():
            server.terminate()
        for server in self.servers.values():
            try:
                server.wait(STOP_TIMEOUT_S)
            except subprocess.TimeoutExpired:
                server.kill()
                server.wait()
        if self._threads:
            self._threads.shutdown()
        self.holder.kill()
        self.holder.wait()


def _mount_own(directory):
    """Puts an empty directory in the place of one of the system, seen in this mount namespace alone."""
    run("mount", "-t", "tmpfs", "-o", "mode=755", "none", directory)


def _write_own(directory, name, text):
    """Writes a file of a directory of the system, seen in this mount namespace alone."""
    if not os.path.ismount(directory):
        _mount_own(directory)
    path = os.path.join(directory, name)
    with open(path, "w") as file:
        file.write(text)
    os.chmod(path, 0o644)


class WindowsNetwork:
    """Use `start`, and `remove` in any case."""

    def __init__(self):
        # Not below the tests' own directories: what is asked anonymously is answered by an account
        # that may not enter them.
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="zelnet"))
        self.directory.chmod(0o755)
        self.hosts = []
        self._numbers = itertools.count(1)

    def start(self):
        self.switch = self._add_host()
        self.switch.run(run, "ip", "link", "add", "hub", "type", "bridge")
        self.switch.run(run, "ip", "link", "set", "hub", "up")

        self.alpha = self._add_member("ALPHA", "ZELFIRST", is_browser=True)
        self.beta = self._add_member("BETA", "ZELFIRST")
        self.gamma = self._add_member("GAMMA", "ZELSECOND", is_browser=True)
        for host in (self.alpha, self.beta, self.gamma):
            host.serve()
        return self

    def _add_host(self):
        host = Host()
        self.hosts.append(host)
        return host

    def _add_member(self, name, workgroup, is_browser=False):
        host = self._add_host()
        number = next(self._numbers)
        host.run(run, "ip", "link", "add", "eth0", "type", "veth", "peer", "name", f"port{number}",
                 "netns", self.switch.holder.pid)
        self.switch.run(run, "ip", "link", "set", f"port{number}", "master", "hub", "up")
        host.run(run, "ip", "address", "add", f"10.213.7.{number}/24", "broadcast", "+",
                 "dev", "eth0")
        host.run(run, "ip", "link", "set", "eth0", "up")
        host.configure(self.directory, name, workgroup, is_browser)
        return host

    def lonely(self):
        """A host whose network has nobody else in it."""
        host = self._add_host()
        host.run(run, "ip", "link", "add", "eth0", "type", "veth", "peer", "name", "other")
        host.run(run, "ip", "address", "add", "10.213.8.1/24", "broadcast", "+", "dev", "eth0")
        for name in ("eth0", "other"):
            host.run(run, "ip", "link", "set", name, "up")
        return host

    def wait_until(self, is_so):
        """Asks again until the browsers have found each other."""
        deadline = time.monotonic() + START_TIMEOUT_S
        while not is_so():
            assert time.monotonic() < deadline, self.describe()
            time.sleep(POLL_S)

    def describe(self):
        return "\n".join(host.describe() for host in (self.alpha, self.beta, self.gamma))

    def remove(self):
        for host in reversed(self.hosts):
            host.remove()
        shutil.rmtree(self.directory)
