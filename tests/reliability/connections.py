#!/usr/bin/python3
"""Holds many connections against one agent, silent ones and ones that stop in the middle, and looks how
others are served meanwhile.

    tests/reliability/connections.py [--count N] [--tls]

Needs root: it runs in a network of its own. Prints a table.
"""

import argparse
import base64
import collections
import pathlib
import resource
import select
import socket
import ssl
import statistics
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "system")]

import own_network  # noqa: E402
from agents import PASSWORDS, Agent  # noqa: E402
from fleet import Authority  # noqa: E402
from process_samples import take_sample  # noqa: E402
from soak_client import Connection, tls_context  # noqa: E402

CONNECT_TIMEOUT_S = 60
CALL = "/v1/actions/CoreUtilsGetFileSize"
BODY = b'{"Path":"/etc/hostname"}'
BEHIND_HANDSHAKE = "header without end in TLS"
# Beside the connections that are held.
FURTHER_HANDLES = 1000

# What is sent of a request before nothing more comes.
PARTS = {
    "silent": b"",
    "half a request line": b"POST /v1/acti",
    "header without end": b"GET /v1/health HTTP/1.1\r\nHost: 127.0.0.1\r\nX-More: ",
    "body that stops": (b"POST /v1/actions/CoreUtilsGetFileSize HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                        b"Authorization: Basic %s\r\nContent-Type: application/json\r\n"
                        b"Content-Length: 1000\r\n\r\n{\"Path\":"),
}


def half_hello():
    """What a TLS client says first, and of it the first half."""
    received, sent = ssl.MemoryBIO(), ssl.MemoryBIO()
    try:
        ssl.create_default_context().wrap_bio(received, sent, server_hostname="a").do_handshake()
    except ssl.SSLWantReadError:
        pass
    hello = sent.read()
    return hello[:len(hello) // 2]


def parts_for(agent):
    """[(what, bytes), ...] of connections that follow each other."""
    if agent.tls:
        # Handshakes take this side's time as well.
        return (8 * [("silent", b""), ("half a TLS hello", half_hello())]
                + [(BEHIND_HANDSHAKE, PARTS["header without end"])])
    credentials = base64.b64encode(f"admin:{PASSWORDS['admin']}".encode())
    return [(what, part % credentials if b"%s" in part else part) for what, part in PARTS.items()]


def allow_handles(count):
    """Needs root where the limit is lower."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    wanted = count + FURTHER_HANDLES
    if soft < wanted:
        resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, max(hard, wanted)))


class HeldConnections:
    """`count` connections from several addresses, of every kind some."""

    def __init__(self, agent, count):
        self.closed = collections.Counter()
        self._open = {}
        self._poll = select.epoll()
        self._address, self._tls = agent.address(), agent.tls
        self._parts = parts_for(agent)
        self.begin = time.monotonic()
        for number in range(count):
            self._add(number)
        self.made = time.monotonic()

    def _add(self, number):
        what, part = self._parts[number % len(self._parts)]
        one = socket.socket()
        one.settimeout(CONNECT_TIMEOUT_S)
        # An address has some ten thousand ports, and they stay in use for a while.
        one.bind((f"127.0.{1 + number % 16}.1", 0))
        one.connect(self._address)
        if what == BEHIND_HANDSHAKE:
            one = self._tls.wrap_socket(one, server_hostname=self._address[0])
        if part:
            one.sendall(part)
        one.setblocking(False)
        self._open[one.fileno()] = what, one
        self._poll.register(one, select.EPOLLIN | select.EPOLLRDHUP)

    def count(self):
        return len(self._open)

    def look(self, seconds=0.0):
        """Takes note of those that the agent has closed."""
        for descriptor, _ in self._poll.poll(seconds, 4096):
            what, one = self._open[descriptor]
            try:
                said = one.recv(4096)
            except ssl.SSLWantReadError:
                continue  # tickets of TLS, no word of the agent's
            except (ConnectionResetError, ssl.SSLEOFError):
                said = b""
            assert said == b"", (what, said)
            self._poll.unregister(one)
            one.close()
            del self._open[descriptor]
            self.closed[what] += 1

    def wait_closed(self, seconds):
        """How long it took until the agent had closed them all; None when it did not."""
        deadline = time.monotonic() + seconds
        while self._open and time.monotonic() < deadline:
            self.look(0.05)
        return None if self._open else time.monotonic() - self.made

    def close(self):
        for _, one in self._open.values():
            one.close()
        self._open.clear()
        self._poll.close()


def measure_calls(agent, calls=300, keeps_connection=True):
    """Milliseconds of each of so many calls, over one connection or each over its own."""
    context = agent.tls
    taken, connection = [], None
    for _ in range(calls):
        if connection is None:
            connection = Connection(agent.address(), "admin", PASSWORDS["admin"], context)
        begin = time.monotonic()
        status, body = connection.request("POST", CALL, BODY)
        taken.append(1000 * (time.monotonic() - begin))
        assert status == 200 and body.startswith(b'{"code":0,'), (status, body)
        if not keeps_connection:
            connection.close()
            connection = None
    if connection:
        connection.close()
    return taken


def wait_handles(agent, most, seconds):
    """How many handles the agent has once they are no more than that, or the time is over."""
    deadline = time.monotonic() + seconds
    while True:
        handles = take_sample(agent.process.pid).handles
        if handles <= most or time.monotonic() > deadline:
            return handles
        time.sleep(0.02)


def make_agent(directory, tls=False, **http):
    directory = pathlib.Path(directory)
    settings = {key: str(value) for key, value in http.items()}
    if tls:
        authority = Authority(directory / "ca")
        certificate, key = authority.issue("agent")
        settings |= {"tls": "yes", "certificate": str(certificate), "private_key": str(key)}
    config = "[http]\n" + "".join(f"{key} = {value}\n" for key, value in settings.items())
    agent = Agent("linux", directory / "home", config)
    agent.add_users()
    if tls:
        agent.tls = tls_context(str(authority.certificate))
    return agent.start()


def describe(taken):
    ordered = sorted(taken)
    return (f"median {statistics.median(ordered):.2f} ms, 99 of 100 within "
            f"{ordered[len(ordered) * 99 // 100]:.1f} ms, slowest {ordered[-1]:.1f} ms")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=10_000)
    parser.add_argument("--tls", action="store_true")
    options = parser.parse_args()
    own_network.enter()
    allow_handles(options.count)
    with tempfile.TemporaryDirectory(prefix="zelconnections") as directory:
        agent = make_agent(directory, options.tls)
        try:
            report(agent, options.count)
        finally:
            agent.kill()


def report(agent, count):
    measure_calls(agent)
    for keeps, what in ((True, "one connection"), (False, "a connection for each call")):
        print(f"before, {what}: {describe(measure_calls(agent, keeps_connection=keeps))}")
    before = take_sample(agent.process.pid)
    held = HeldConnections(agent, count)
    print(f"{held.count()} connections made in {held.made - held.begin:.1f} s")
    for keeps, what in ((True, "one connection"), (False, "a connection for each call")):
        print(f"meanwhile, {what}: {describe(measure_calls(agent, keeps_connection=keeps))}")
    during = take_sample(agent.process.pid)
    print(f"handles {before.handles}, then {during.handles}; memory {before.memory_bytes >> 20} MiB, then "
          f"{during.memory_bytes >> 20} MiB: "
          f"{(during.memory_bytes - before.memory_bytes) / count / 1024:.1f} KiB a connection")
    seen = 0
    while held.count() and time.monotonic() < held.made + 90:
        held.look(0.25)
        if sum(held.closed.values()) != seen:
            seen = sum(held.closed.values())
            print(f"after {time.monotonic() - held.made:.1f} s closed by the agent: {dict(held.closed)}")
            time.sleep(1)
    time.sleep(2)
    after = take_sample(agent.process.pid)
    print(f"afterwards {after.handles} handles, {after.memory_bytes >> 20} MiB")
    held.close()


if __name__ == "__main__":
    main()
