"""CoreUtilsCheckSMBShare: real file servers, and peers that are none, on both platforms."""

import concurrent.futures
import os
import pathlib
import time

import pytest

import silent_peers
from agents import Agent
from long_waits import LongWaits
from samba import CLOSED_SHARE, GUESTS_SHARE, PASSWORD, SEALED_SHARE, SHARE, USER
from silent_network import own_loopback
from silent_peers import FaultyFileServer, Peer
from uploads import new_log, wait_for

SUCCESS, FAILURE, BAD_PARAMETER, STEP_FAILED = 0, 1, 13, 20
OPENED, NOT_CONNECTED, NOT_AUTHENTICATED, SHARE_REFUSED, HOST_UNKNOWN = range(5)
CODES = {OPENED: SUCCESS, HOST_UNKNOWN: FAILURE}
# The caller's requests in their order: a NetBIOS session, a dialect, two for the log-in, the share,
# its end, the log-off.
SESSION, NEGOTIATION, LOG_IN, PROOF, CONNECT, DISCONNECT, LOG_OFF = range(7)
RESULTS = {SESSION: NOT_CONNECTED, NEGOTIATION: NOT_CONNECTED, LOG_IN: NOT_AUTHENTICATED,
           PROOF: NOT_AUTHENTICATED, CONNECT: SHARE_REFUSED, DISCONNECT: OPENED, LOG_OFF: OPENED}
# How soon what needs no waiting is answered on a busy machine.
PROMPT_S = 8


def check(agent, path, user=USER, password=PASSWORD):
    """What was found, after a look at the rest of the answer."""
    code, container = agent.call("CoreUtilsCheckSMBShare", SmbPathShare=path, SmbUser=user,
                                 SmbPassword=password)
    host, share = path.removeprefix("\\\\").split("\\", 1)
    assert list(container) == ["TargetHost", "TargetShare", "ConnectionResult"]
    assert (container["TargetHost"], container["TargetShare"]) == (host, share)
    result = container["ConnectionResult"]
    assert code == CODES.get(result, STEP_FAILED)
    return result


def told_by(agent):
    """Everything that the agent writes down."""
    return "".join(file.read_text(errors="replace")
                   for file in (agent.home / "log").rglob("*") if file.is_file())


# Real file servers.


def test_CoreUtilsCheckSMBShare_opens_a_share(agent, file_server):
    code, container = agent.call("CoreUtilsCheckSMBShare", SmbPathShare=file_server.share(),
                                 SmbUser=USER, SmbPassword=PASSWORD)
    assert (code, container) == (SUCCESS, {"TargetHost": file_server.address,
                                           "TargetShare": SHARE, "ConnectionResult": OPENED})


@pytest.mark.parametrize("share", [SHARE, SHARE.upper(), "with blank", "Größe 日本", "IPC$",
                                   GUESTS_SHARE])
def test_shares_that_open(agent, file_server, share):
    assert check(agent, file_server.share(share)) == OPENED
    assert check(agent, rf"{file_server.address}\{share}") == OPENED


@pytest.mark.parametrize("share", ["none", CLOSED_SHARE, SHARE + r"\sub", SHARE + r"\\" + SHARE,
                                   "x" * 300, "*", "日本", " "])
def test_shares_that_do_not_open(agent, file_server, share):
    assert check(agent, file_server.share(share)) == SHARE_REFUSED


@pytest.mark.parametrize("user, password", [
    (USER, "wrong"), (USER, ""), (USER, PASSWORD + " "), ("bob", PASSWORD), ("bob", ""),
    (USER, "x" * 256), ("x" * 256, PASSWORD), (f"{USER} ", "wrong"), ("\\", "wrong")])
def test_logins_that_are_refused(agent, file_server, user, password):
    assert check(agent, file_server.share(), user, password) == NOT_AUTHENTICATED


def test_longer_logins_than_there_are(make_agent, file_server):
    agent = make_agent()
    agent.add_users()
    agent.start()
    for user, password in ((USER, "x" * 5000), ("x" * 5000, PASSWORD),
                           ("x" * 5000 + "\\" + USER, "wrong"), (USER, "ü" * 100_000)):
        assert check(agent, file_server.share(), user, password) == NOT_AUTHENTICATED
    # Whatever it may have spoiled shows a little later.
    for _ in range(10):
        assert check(agent, file_server.share()) == OPENED
    assert agent.stop() == 0


@pytest.mark.parametrize("user", [USER, USER.upper(), f"ZELTEST\\{USER}", f"ELSEWHERE\\{USER}"])
def test_users_may_name_a_domain(agent, file_server, user):
    assert check(agent, file_server.share(), user) == OPENED


def test_guests_may_open_what_is_for_guests(agent, file_server):
    assert check(agent, file_server.share(GUESTS_SHARE), "", "") == OPENED
    assert check(agent, file_server.share(GUESTS_SHARE), "", "ignored") == OPENED
    assert check(agent, file_server.share(), "", "") == SHARE_REFUSED


def test_unknown_users_may_be_guests(agent, file_server_with):
    server = file_server_with({"map to guest": "bad user"})
    assert check(agent, server.share(GUESTS_SHARE), "bob", "whatever") == OPENED
    assert check(agent, server.share(), "bob", "whatever") == SHARE_REFUSED
    assert check(agent, server.share(), USER, "wrong") == NOT_AUTHENTICATED


@pytest.mark.parametrize("dialect", ["SMB2_02", "SMB2_10", "SMB3_00", "SMB3_02", "SMB3_11"])
@pytest.mark.parametrize("signing", ["default", "mandatory"])
def test_servers_of_each_dialect(agent, file_server_with, dialect, signing):
    server = file_server_with({"server min protocol": dialect, "server max protocol": dialect,
                               "server signing": signing})
    before = len(server.log())
    assert check(agent, server.share()) == OPENED
    assert f"Selected protocol {dialect}" in server.log()[before:]
    assert check(agent, server.share("none")) == SHARE_REFUSED
    assert check(agent, server.share(), USER, "wrong") == NOT_AUTHENTICATED


def test_a_server_that_is_too_old(agent, file_server_with):
    server = file_server_with({"server min protocol": "NT1", "server max protocol": "NT1"})
    assert check(agent, server.share()) == NOT_CONNECTED


@pytest.mark.parametrize("dialect", ["SMB3_00", "SMB3_02", "SMB3_11"])
def test_servers_and_shares_may_demand_encryption(agent, file_server_with, dialect):
    server = file_server_with({"server max protocol": dialect})
    assert check(agent, server.share(SEALED_SHARE)) == OPENED
    server = file_server_with({"server max protocol": dialect, "smb encrypt": "required"})
    assert check(agent, server.share()) == OPENED
    assert check(agent, server.share("none")) == SHARE_REFUSED
    assert check(agent, server.share(), USER, "wrong") == NOT_AUTHENTICATED


def test_what_demands_encryption_is_closed_to_older_dialects(agent, file_server_with):
    server = file_server_with({"server max protocol": "SMB2_10"})
    assert check(agent, server.share(SEALED_SHARE)) == SHARE_REFUSED


def test_hosts_may_be_names(agent, file_server_with):
    server = file_server_with({}, address="127.0.0.1")
    assert check(agent, rf"\\localhost\{SHARE}") == OPENED
    assert check(agent, rf"LOCALHOST\{SHARE}") == OPENED
    assert check(agent, server.share(), USER, "wrong") == NOT_AUTHENTICATED


def test_hosts_that_nobody_knows(agent):
    for host in ("nobody.invalid", "127.0.0.256", "no such host", "::1", "a" * 300, " "):
        result, log = new_log(agent, lambda: check(agent, rf"\\{host}\share"))
        assert (result, f"Failed to handle host {host}" in log) == (HOST_UNKNOWN, True)


def test_hosts_where_nobody_listens(agent):
    host = own_loopback()
    result, log = new_log(agent, lambda: check(agent, rf"\\{host}\share"))
    assert result == NOT_CONNECTED
    assert f"Failed to connect to {host} at TCP level" in log


@pytest.mark.parametrize("path", [
    "", "host", "//host/share", r"\\host", "host\\", "\\\\host\\", r"\\\host\share", r"\host\share",
    "\\", "\\\\", r"\\\\", "x" * 10_000, "\\" * 10_000])
def test_what_is_no_path_of_a_share(agent, path):
    answer = agent.call("CoreUtilsCheckSMBShare", SmbPathShare=path, SmbUser=USER,
                        SmbPassword=PASSWORD)
    assert answer == (BAD_PARAMETER, {})


def test_without_a_path(agent):
    assert agent.call("CoreUtilsCheckSMBShare") == (BAD_PARAMETER, {})
    assert agent.call("CoreUtilsCheckSMBShare", SmbPathShare=["a\\b"]) == (BAD_PARAMETER, {})


@pytest.mark.parametrize("share, user, rest", [
    (SHARE, USER, ["TCON", "TDIS", "LOGOFF"]), (GUESTS_SHARE, "", ["TCON", "TDIS", "LOGOFF"]),
    ("none", USER, ["TCON", "LOGOFF"]), (SHARE, "bob", [])])
def test_the_server_is_left_properly(agent, file_server, share, user, rest):
    before = len(file_server.log())
    check(agent, file_server.share(share), user)
    asked = ["NEGPROT", "SESSSETUP", "SESSSETUP"] + rest
    wait_for(lambda: file_server.requests(before) == asked)
    wait_for(lambda: not file_server.sessions() and file_server.connections() == 0)


def test_no_log_tells_the_password(agent, file_server):
    for path, password in ((file_server.share(), PASSWORD), (file_server.share(), "the wrong one"),
                           (file_server.share("none"), PASSWORD),
                           (rf"{own_loopback()}\share", PASSWORD),
                           (r"nobody.invalid\share", PASSWORD), ("no path", PASSWORD)):
        agent.call("CoreUtilsCheckSMBShare", SmbPathShare=path, SmbUser=USER, SmbPassword=password)
    told = told_by(agent)
    assert "CoreUtilsCheckSMBShare" in told and file_server.address in told
    assert PASSWORD not in told and "the wrong one" not in told


def test_checks_side_by_side_do_not_mix(agent, file_server):
    expected = {(SHARE, PASSWORD): OPENED, ("none", PASSWORD): SHARE_REFUSED,
                (SHARE, "wrong"): NOT_AUTHENTICATED}
    asked = list(expected) * 8
    with concurrent.futures.ThreadPoolExecutor(len(asked)) as callers:
        found = callers.map(
            lambda one: check(agent, file_server.share(one[0]), password=one[1]), asked)
        assert list(found) == list(expected.values()) * 8


def test_zelctl_asks_too(agent, file_server):
    code, container = agent.call_by_zelctl("CoreUtilsCheckSMBShare", SmbUser=USER,
                                           SmbPathShare=file_server.share(), SmbPassword=PASSWORD)
    assert (code, container["ConnectionResult"]) == (SUCCESS, OPENED)


# Peers that are none.

AT_EVERY_STEP = [silent_peers.close, silent_peers.reset, silent_peers.send_half,
                 silent_peers.announce_too_much, silent_peers.announce_huge]
OF_MESSAGES = [silent_peers.send_without_content, silent_peers.send_too_short,
               silent_peers.send_without_tail, silent_peers.send_garbage,
               silent_peers.send_all_ones, silent_peers.speak_http, silent_peers.send_endlessly]
FAULTS = ([(step, fault) for fault in AT_EVERY_STEP for step in RESULTS] +
          [(step, fault) for fault in OF_MESSAGES for step in RESULTS if step != SESSION] +
          [(SESSION, silent_peers.speak_http), (SESSION, silent_peers.send_endlessly)])
# The last answers of a session that is signed. A share whose answer is not to be believed is not
# opened.
FAULTS += [(step, silent_peers.spoil_signature) for step in (PROOF, CONNECT, DISCONNECT)]
# Who puts off the answer again and again is not waited for as long as who says nothing.
FAULTS += [(step, silent_peers.keep_alive) for step in (SESSION, NEGOTIATION, CONNECT)]
FAULTS += [(step, silent_peers.promise) for step in (PROOF, CONNECT)]


def name_of(value):
    return value.__name__ if callable(value) else str(value)


@pytest.mark.parametrize("step, fault", FAULTS, ids=name_of)
def test_a_server_that_goes_wrong(agent, file_server, step, fault):
    peer = FaultyFileServer(file_server, fault, step)
    try:
        begin = time.monotonic()
        assert check(agent, peer.share()) == RESULTS[step]
        assert time.monotonic() - begin < PROMPT_S
        wait_for(lambda: peer.count_open() == 0)
        assert peer.served == 1
    finally:
        peer.close()


@pytest.mark.parametrize("answer", [
    silent_peers.frame(silent_peers.NEGATIVE_RESPONSE, b"\x82"),
    silent_peers.frame(silent_peers.NEGATIVE_RESPONSE),
    silent_peers.frame(silent_peers.MESSAGE), silent_peers.frame(0x84, bytes(6)),
    silent_peers.frame(silent_peers.POSITIVE_RESPONSE, bytes(1000)), b"\x82\xff\xff\xff"],
    ids=repr)
def test_a_session_that_is_refused(agent, answer):
    def refuse(connection):
        silent_peers.read_frame(connection)
        connection.sendall(answer)

    peer = Peer(refuse)
    try:
        assert check(agent, peer.share()) == NOT_CONNECTED
        wait_for(lambda: peer.count_open() == 0)
    finally:
        peer.close()


def test_no_descriptors_are_left_behind(tmp_path, file_server):
    # Of Linux only: Wine's sockets are its server's. That connections end is seen above.
    agent = Agent("linux", tmp_path / "home")
    agent.add_users()
    agent.start()
    descriptors = pathlib.Path(f"/proc/{agent.process.pid}/fd")
    # The first one loads what the others use.
    check(agent, file_server.share())
    before = len(os.listdir(descriptors))

    peers = [FaultyFileServer(file_server, fault, step) for step, fault in FAULTS]
    with concurrent.futures.ThreadPoolExecutor(8) as callers:
        list(callers.map(lambda peer: check(agent, peer.share()), peers))
        list(callers.map(lambda _: check(agent, file_server.share()), range(50)))
    for peer in peers:
        peer.close()
    # The connections of the callers end a little later.
    wait_for(lambda: len(os.listdir(descriptors)) <= before)
    assert agent.stop() == 0


# Peers that let everybody wait, all of them at the same time and beside the other tests.

LIMIT_S, SLACK_S = 10, 4
WAITS = ([(step, silent_peers.stay_silent) for step in RESULTS] +
         [(step, silent_peers.drip) for step in (NEGOTIATION, PROOF, CONNECT)])
NOBODY = "nobody"


@pytest.fixture(scope="session")
def long_checks(tmp_path_factory, file_server, silent_network):
    waits = LongWaits(tmp_path_factory.mktemp("long-checks"))
    peers = []
    for step, fault in WAITS:
        peers.append(FaultyFileServer(file_server, fault, step))
        waits.begin((step, fault), lambda agent, share=peers[-1].share(): check(agent, share))
    swallowed = rf"{silent_network.address(50)}\share"
    waits.begin(NOBODY, lambda agent: check(agent, swallowed))
    yield waits
    assert waits.end() == [0] * len(waits.agents)
    for peer in peers:
        peer.close()


@pytest.mark.first
def test_others_are_answered_while_checks_wait(long_checks):
    begin = time.monotonic()
    for agent in long_checks.agents.values():
        assert agent.call("CoreUtilsGetFileSize", Path=agent.path(__file__))[0] == SUCCESS
    assert time.monotonic() - begin < LIMIT_S / 2
    assert not long_checks.is_any_done()


@pytest.mark.last
@pytest.mark.parametrize("step, fault", WAITS, ids=name_of)
def test_a_server_that_lets_everybody_wait(long_checks, platform, step, fault):
    result, seconds = long_checks.result(platform, (step, fault))
    assert result == RESULTS[step]
    # Who waited for a share, or its end, waits for the end of the log-in too.
    most = LIMIT_S * (2 if step in (CONNECT, DISCONNECT) else 1)
    assert LIMIT_S - 1 < seconds < most + SLACK_S


@pytest.mark.last
def test_a_host_that_swallows_everything(long_checks, platform):
    result, seconds = long_checks.result(platform, NOBODY)
    assert result == NOT_CONNECTED
    assert LIMIT_S - 1 < seconds < LIMIT_S + SLACK_S
