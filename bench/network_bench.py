#!/usr/bin/python3
"""Measures the probes of the network beside programs that do the same, in one run.

Usage: network_bench.py BUILD_DIRECTORY
"""

import contextlib
import http.client
import json
import os
import re
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from bench import Agent, alternate, authorization, report, seconds_of

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


class Connection:
    """Calls over one connection, which stays open as a console's does."""

    def __init__(self, agent):
        host, port = re.search(r"//([^:]+):(\d+)", agent.url).groups()
        self._connection = http.client.HTTPConnection(host, int(port), timeout=60)
        self._headers = {"Content-Type": "application/json", "Authorization": authorization()}

    def call(self, action, **parameters):
        self._connection.request("POST", f"/v1/actions/{action}", json.dumps(parameters),
                                 self._headers)
        return json.loads(self._connection.getresponse().read())


def bench_share(build, directory):
    """The whole way to a share, from the connection to the log-off."""
    address = loopback(0)
    with file_server(address), Agent(build, directory / "home") as agent:
        connection = Connection(agent)

        def run_ours():
            answer = connection.call("CoreUtilsCheckSMBShare", SmbUser=USER, SmbPassword=PASSWORD,
                                     SmbPathShare=rf"\\{address}\{SHARE}")
            assert answer["container"]["ConnectionResult"] == 0, answer

        def run_smbclient():
            subprocess.run(["smbclient", f"//{address}/{SHARE}", "-p", str(NETBIOS_SESSION), "-U",
                            f"{USER}%{PASSWORD}", "-c", "quit"], check=True, capture_output=True)

        ours, peer = alternate([run_ours, run_smbclient], ROUNDS)
    return [report("check of a share, beside smbclient", ours * 1e3, peer * 1e3, "ms", 1,
                   "smaller")]


def bench_ping(build, directory):
    with Agent(build, directory / "home") as agent:
        connection = Connection(agent)

        def run_ours():
            answer = connection.call("CoreUtilsPingICMP", PingAddr="127.0.0.1")
            assert answer["container"]["Result"] is True, answer

        def run_ping():
            subprocess.run(["ping", "-c1", "127.0.0.1"], check=True, capture_output=True)

        ours, peer = alternate([run_ours, run_ping], ROUNDS)
    return [report("ping of this machine, beside ping", ours * 1e6, peer * 1e6, "us", 1,
                   "smaller")]


def bench_waiting(build, directory):
    """The latency of a trivial action while probes wait for a host that is dead, and without."""
    address = loopback(1)
    results = []

    def probe(agent):
        answer = Connection(agent).call("CoreUtilsCheckSMBShare", SmbUser="", SmbPassword="",
                                        SmbPathShare=rf"\\{address}\{SHARE}")
        results.append(answer["container"]["ConnectionResult"])

    with Agent(build, directory / "home") as agent:
        connection = Connection(agent)

        def latency():
            return statistics.median(
                seconds_of(lambda: connection.call("CoreUtilsGetFileSize", Path="/etc/hostname"))
                for _ in range(TRIVIAL_CALLS))

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
    return [report(f"trivial action while {WAITING_PROBES} probes wait, beside without them",
                   statistics.median(beside) * 1e6, statistics.median(alone) * 1e6, "us", 1.5,
                   "smaller")]


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    results = []
    for bench in (bench_share, bench_ping, bench_waiting):
        directory = Path(tempfile.mkdtemp(prefix="zel_bench_"))
        try:
            results += bench(sys.argv[1], directory)
        finally:
            shutil.rmtree(directory)
    missed = results.count(False)
    print(f"{len(results) - missed} aims met, {missed} missed")


if __name__ == "__main__":
    main()
