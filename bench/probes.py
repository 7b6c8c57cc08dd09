"""The probes of the network beside programs that do the same."""

import contextlib
import os
import shutil
import socket
import statistics
import subprocess
import tempfile
import threading
import time
from pathlib import Path

from agents import Agent
from measuring import alternate, seconds_of
from report import at_most, below, row

ROUNDS = 31
WAITING_PROBES = 100
TRIVIAL_CALLS = 300
NETBIOS_SESSION = 139
USER, PASSWORD, SHARE = "alice", "bench-password", "files"
ACCOUNT = "nobody"  # whom the user is on this machine


def loopback(host):
    """An address that no other run uses."""
    return f"127.{200 + host}.{os.getpid() // 250 % 250}.{1 + os.getpid() % 250}"


@contextlib.contextmanager
def file_server(address):
    """Samba on port 139 of a loopback address."""
    # Its accounts have to enter it.
    directory = Path(tempfile.mkdtemp(prefix="zelbench"))
    directory.chmod(0o755)
    settings = ""
    for name in ("private dir", "state directory", "lock directory", "cache directory",
                 "pid directory", "ncalrpc dir"):
        path = directory / name.split()[0]
        path.mkdir(mode=0o755)
        settings += f"{name} = {path}\n"
    (directory / "users").write_text(f"{ACCOUNT} = {USER}\n")
    configuration = directory / "smb.conf"
    configuration.write_text(f"""
[global]
{settings}
server role = standalone server
interfaces = {address}/8
bind interfaces only = yes
smb ports = {NETBIOS_SESSION}
log file = {directory}/log
passdb backend = tdbsam
username map = {directory}/users
load printers = no
printcap name = /dev/null
disable spoolss = yes
[{SHARE}]
path = {directory}
""")
    subprocess.run(["smbpasswd", "-c", configuration, "-L", "-a", "-s", ACCOUNT],
                   input=f"{PASSWORD}\n{PASSWORD}\n".encode(), check=True, capture_output=True)
    # At its end it ends its whole group.
    server = subprocess.Popen(["smbd", "-F", "--no-process-group", "-s", configuration],
                              start_new_session=True, stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        for _ in range(500):
            with contextlib.suppress(OSError):
                socket.create_connection((address, NETBIOS_SESSION), 1).close()
                break
            time.sleep(0.02)
        yield
    finally:
        server.terminate()
        server.wait(30)
        shutil.rmtree(directory)


@contextlib.contextmanager
def dead_host(address):
    """Whoever connects there waits: the system has no room for the connection and says nothing."""
    with contextlib.ExitStack() as open_sockets:
        listener = open_sockets.enter_context(socket.socket())
        listener.bind((address, NETBIOS_SESSION))
        listener.listen(0)
        while True:
            one = open_sockets.enter_context(socket.socket())
            one.settimeout(0.5)
            try:
                one.connect((address, NETBIOS_SESSION))
            except TimeoutError:
                break
        yield


def bench_share(build, directory):
    """The whole way to a share, from the connection to the log-off."""
    address = loopback(0)
    with file_server(address), Agent(build, directory / "home") as agent, \
            agent.connect() as connection:
        def run_ours():
            answer = connection.call("CoreUtilsCheckSMBShare", SmbUser=USER, SmbPassword=PASSWORD,
                                     SmbPathShare=rf"\\{address}\{SHARE}")
            assert answer["container"]["ConnectionResult"] == 0, answer

        def run_smbclient():
            subprocess.run(["smbclient", f"//{address}/{SHARE}", "-p", str(NETBIOS_SESSION), "-U",
                            f"{USER}%{PASSWORD}", "-c", "quit"], check=True, capture_output=True)

        ours, peer = alternate([run_ours, run_smbclient], ROUNDS)
    return [row("check of a share, from the connection to the log-off", ours * 1e3, "ms",
                "`smbclient -c quit`", peer * 1e3, below(1))]


def bench_ping(build, directory):
    with Agent(build, directory / "home") as agent, agent.connect() as connection:
        def run_ours():
            answer = connection.call("CoreUtilsPingICMP", PingAddr="127.0.0.1")
            assert answer["container"]["Result"] is True, answer

        def run_ping():
            subprocess.run(["ping", "-c1", "127.0.0.1"], check=True, capture_output=True)

        ours, peer = alternate([run_ours, run_ping], ROUNDS)
    return [row("ping of 127.0.0.1", ours * 1e6, "µs", "`ping -c1`", peer * 1e6, below(1))]


def bench_waiting(build, directory):
    """The latency of a trivial action while probes wait for a host that is dead, and without."""
    address = loopback(1)
    results = []

    def probe(agent):
        answer = agent.call("CoreUtilsCheckSMBShare", {
            "SmbUser": "", "SmbPassword": "", "SmbPathShare": rf"\\{address}\{SHARE}"})
        results.append(answer["container"]["ConnectionResult"])

    with Agent(build, directory / "home") as agent, agent.connect() as connection:
        trivial = connection.caller("CoreUtilsGetFileSize", {"Path": "/etc/hostname"})

        def latency():
            return statistics.median(seconds_of(trivial) for _ in range(TRIVIAL_CALLS))

        latency()
        alone = [latency() for _ in range(3)]
        with dead_host(address):
            callers = [threading.Thread(target=probe, args=(agent,))
                       for _ in range(WAITING_PROBES)]
            for one in callers:
                one.start()
            time.sleep(2)  # all wait for the host, or for those that do
            beside = [latency() for _ in range(3)]
            assert not results, "the probes were over before the measurement"
        # What still waits is refused now.
        for one in callers:
            one.join()
        assert results == [1] * WAITING_PROBES, results
    return [row(f"trivial action while {WAITING_PROBES} probes wait for a dead host",
                statistics.median(beside) * 1e6, "µs", "without them",
                statistics.median(alone) * 1e6, at_most(1.5))]


def bench_network(build, directory):
    rows = []
    for bench in (bench_share, bench_ping, bench_waiting):
        own = directory / bench.__name__
        own.mkdir()
        rows += bench(build, own)
    return rows
