"""Connections that say nothing, or stop in the middle, do not keep the agent from its other callers."""

import contextlib
import socket
import ssl
import sys

import agents
import pytest
from agents import ROOT, program

sys.path.append(str(ROOT / "tests/reliability"))

from connections import (  # noqa: E402
    HeldConnections, allow_handles, half_hello, make_agent, measure_calls, take_sample, wait_handles)

# Long enough to make all connections, to ask others meanwhile, and to see the agent drop them then.
PATIENCE_MS = 8_000
# The agent looks every quarter of a second; the rest is for a busy machine.
DROPPED_WITHIN_S = PATIENCE_MS / 1000 + 5
SLOWEST_CALL_MS = 1_000
MOST_BYTES_EACH = {False: 4 << 10, True: 16 << 10}
REPLY_TIMEOUT_S = 20


@contextlib.contextmanager
def agents_with(directory, *kinds, **settings):
    """Running agents, for each of `kinds` one that serves with TLS or without."""
    with contextlib.ExitStack() as ending:
        made = []
        for number, tls in enumerate(kinds):
            (directory / str(number)).mkdir()
            made.append(make_agent(directory / str(number), tls, **settings))
            ending.callback(made[-1].kill)
        yield made


def test_others_are_served_while_ten_thousand_connections_are_held(tmp_path):
    counts = {False: 10_000, True: 3_000}
    allow_handles(sum(counts.values()))
    with agents_with(tmp_path, *counts, request_timeout_ms=PATIENCE_MS,
                     idle_timeout_ms=PATIENCE_MS) as both:
        for agent in both:
            measure_calls(agent)
        before = [take_sample(agent.process.pid) for agent in both]
        held = [HeldConnections(agent, count) for agent, count in zip(both, counts.values())]

        for agent, one, sample, (tls, count) in zip(both, held, before, counts.items()):
            taken = measure_calls(agent, 100) + measure_calls(agent, 100, keeps_connection=False)
            during = take_sample(agent.process.pid)
            assert during.handles >= sample.handles + count - 1
            assert max(taken) < SLOWEST_CALL_MS
            assert during.memory_bytes - sample.memory_bytes < count * MOST_BYTES_EACH[tls]

        for agent, one, sample in zip(both, held, before):
            assert one.wait_closed(DROPPED_WITHIN_S) is not None, one.closed
            assert wait_handles(agent, sample.handles, DROPPED_WITHIN_S) <= sample.handles


def test_a_full_agent_drops_the_connections_that_were_silent_for_longest(tmp_path):
    with agents_with(tmp_path, False, max_connections=100) as (agent,):
        held = HeldConnections(agent, 100)
        measure_calls(agent, 30, keeps_connection=False)
        held.look(5)
        assert held.count() in range(60, 100)
        held.close()


def test_connections_leave_the_agent_handles_for_its_work(tmp_path, monkeypatch):
    """Where the system lets a program open few files, and anybody may come."""
    limited = ["prlimit", "--nofile=400:400"]
    monkeypatch.setattr(agents, "program", lambda *names: limited + program(*names))
    with agents_with(tmp_path, False) as (agent,):
        held = HeldConnections(agent, 600)
        for number in range(30):
            copy = tmp_path / f"copy {number}"
            assert agent.call("CoreUtilsCopyFile", SourcePath="/etc/hostname",
                              DestinationPath=str(copy))[0] == 0
            assert copy.exists()
        assert take_sample(agent.process.pid).handles < 400
        assert "it takes 300 connections, not 12000" in agent.log()
        held.close()


@pytest.mark.parametrize("protocols", [0, 200], ids=["short", "of several KiB"])
def test_tls_begins_with_pieces_of_any_size(tmp_path, protocols):
    with agents_with(tmp_path, True) as (agent,):
        received, sent = ssl.MemoryBIO(), ssl.MemoryBIO()
        # The agent knows none of them; they make what the client says first longer.
        if protocols > 0:
            agent.tls.set_alpn_protocols([f"protocol {number}" for number in range(protocols)])
        client = agent.tls.wrap_bio(received, sent, server_hostname="127.0.0.1")
        with socket.create_connection(agent.address(), REPLY_TIMEOUT_S) as connection:
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            exchange(connection, client.do_handshake, received, sent)
            client.write(b"GET /v1/health HTTP/1.1\r\nHost: a\r\n\r\n")
            reply = exchange(connection, lambda: client.read(4096), received, sent)
            assert reply.startswith(b"HTTP/1.1 200 ")


def exchange(connection, step, received, sent):
    """What the step returns once it has what it needs; each byte that it says goes out alone."""
    while True:
        wants = False
        try:
            result = step()
        except ssl.SSLWantReadError:
            wants = True
        for byte in sent.read():
            connection.sendall(bytes([byte]))
        if not wants:
            return result
        piece = connection.recv(4096)
        assert piece, "the agent has closed the connection"
        received.write(piece)


def test_what_is_no_tls_is_hung_up_on(tmp_path):
    with agents_with(tmp_path, True) as (agent,):
        for said in (b"GET /v1/health HTTP/1.1\r\n\r\n", b"\x16\x03\x01\xff\xff" + 99 * b"a",
                     bytes(99), half_hello() + 999 * b"a"):
            with socket.create_connection(agent.address(), REPLY_TIMEOUT_S) as connection:
                connection.sendall(said)
                try:
                    answer = connection.recv(4096)
                except ConnectionResetError:
                    answer = b""
                # Nothing, or an alert of TLS.
                assert answer[:1] in (b"", b"\x15")
        measure_calls(agent, 3)
