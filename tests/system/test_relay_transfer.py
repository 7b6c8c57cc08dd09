"""CoreUtilsCopyFileToRelay: uploads from one agent to another, and what can go wrong with them."""

import http.client
import json
import os
import random
import socket
import ssl
import threading
import time

import pytest

import hostile_archives
from agents import REPLY_TIMEOUT_S, agent_path, tls_context
from cutting_proxy import CuttingProxy
from fleet import SECRET, Authority, aliases, fleet_login, fleet_password, proof
from hostile_archives import HARMLESS

MIB = 1 << 20
SUCCESS, FAILURE = 0, 1
LOST = "Failed to copy file"

PAIRS = [
    ("plain", "linux", "linux"),
    ("ssl", "linux", "linux"),
    ("pac", "linux", "linux"),
    ("ssl and pac", "linux", "linux"),
    ("ssl ext", "linux", "linux"),
    ("plain", "windows", "windows"),
    ("ssl and pac", "windows", "linux"),
    ("ssl and pac", "linux", "windows"),
    ("ssl ext", "windows", "windows"),
]


@pytest.fixture(scope="module", params=PAIRS, ids=" ".join)
def pair(fleet, request):
    """A device and its relay."""
    return fleet.pair(*request.param)


@pytest.fixture(scope="module")
def plain_pair(fleet, platform):
    return fleet.pair("plain", platform, platform)


@pytest.fixture
def place(tmp_path):
    """A source file of the device and a directory of the relay."""
    return Place(tmp_path)


class Place:
    def __init__(self, directory):
        self.source = directory / "source file.bin"
        self.content = os.urandom(3 * MIB + 17)
        self.source.write_bytes(self.content)
        self.directory = directory / "relay"
        self.directory.mkdir()
        self.target = self.directory / "stored ü 日.bin"

    def stored(self):
        """{name: content} of what is on the relay."""
        return {path.name: path.read_bytes() for path in self.directory.iterdir()}

    def upload(self, device, relay, **parameters):
        return device.call("CoreUtilsCopyFileToRelay", SourcePath=device.path(self.source),
                           DestinationPath=relay.path(self.target), **parameters)


def new_log(agent, call):
    """What the call returns and what the agent logs meanwhile."""
    before = len(agent.log())
    answer = call()
    return answer, agent.log()[before:]


def wait_for(condition, seconds=20):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            return
        time.sleep(0.02)
    raise AssertionError("it did not come")


# Uploads that succeed.


def test_CoreUtilsCopyFileToRelay_stores_the_bytes(pair, place):
    device, relay = pair
    (code, container), log = new_log(device, lambda: place.upload(device, relay))
    assert (code, container["ErrorCode"]) == (SUCCESS, 0), log
    assert place.stored() == {place.target.name: place.content}, log
    assert place.source.exists()
    assert aliases(relay) == []
    assert "Sender is '" in log and "' and Receiver is '127.0.0.1:" in log
    assert "copying file " in log and LOST not in log


def test_no_log_tells_a_secret(fleet, pair, place):
    device, relay = pair
    place.upload(device, relay)
    place.source.unlink()
    place.upload(device, relay)
    for agent in (device, relay):
        told = agent.log() + (agent.home / "log/audit.jsonl").read_text(errors="replace")
        for name in ("device", "relay", "tester"):
            assert fleet_password(name) not in told
        assert SECRET not in told


def test_no_log_tells_a_secret_where_nobody_answers(fleet, place):
    device = fleet.make("linux", "device", parent=("127.0.0.1", 1))
    place.upload(device, device)
    device.call("CoreUtilsRestoreBackupFromRelay", HostName="127.0.0.1", HttpPort=1, Values={})
    device.call("CoreUtilsRestoreBackupFromRelay", HostName="no such host", HttpPort=1, Values={})
    told = device.log() + (device.home / "log/audit.jsonl").read_text(errors="replace")
    assert fleet_password("device") not in told and SECRET not in told
    assert device.stop() == 0


def test_CoreUtilsCopyFileToRelay_unpacks_archives(pair, place):
    device, relay = pair
    place.source.write_bytes(hostile_archives.among_harmless())
    place.target = place.directory / "packed.zip"
    code, container = place.upload(device, relay, IsZippedFile=True)
    assert (code, container["ErrorCode"]) == (SUCCESS, 0)
    assert [path.name for path in place.directory.iterdir()] == ["packed"]
    for name, content in HARMLESS.items():
        assert (place.directory / "packed" / name).read_bytes() == content
    assert aliases(relay) == []


def test_an_upload_makes_the_directory_and_replaces_an_older_file(plain_pair, place):
    device, relay = plain_pair
    place.directory = place.directory / "new/directory"
    place.target = place.directory / "file"
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.stored() == {"file": place.content}
    place.source.write_bytes(b"second")
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.stored() == {"file": b"second"}


@pytest.mark.parametrize("content", [b"", b"x", bytes(65536)], ids=["empty", "byte", "buffer"])
def test_small_files_arrive(plain_pair, place, content):
    device, relay = plain_pair
    place.source.write_bytes(content)
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.stored() == {place.target.name: content}


@pytest.mark.parametrize("name", ["a b", "per%cent", "plus+&=#", "semi;colon",
                                  "größe 日本 😀", "x" * 200, ".hidden"])
def test_odd_names_arrive(plain_pair, place, name):
    device, relay = plain_pair
    place.target = place.directory / name
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.stored() == {name: place.content}


def test_a_name_that_looks_encoded_twice_is_refused(plain_pair, place):
    device, relay = plain_pair
    place.target = place.directory / "per%2ecent"
    answer, log = new_log(device, lambda: place.upload(device, relay))
    assert (answer[0], LOST in log) == (SUCCESS, True)
    assert place.stored() == {}


def test_what_does_not_unpack_on_the_relay_fails(plain_pair, place):
    device, relay = plain_pair
    place.target = place.directory / "packed.zip"
    (code, container), log = new_log(
        device, lambda: place.upload(device, relay, IsZippedFile=True))
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert "Failed to extract '" in log
    assert place.target.read_bytes() == place.content


def test_uploads_side_by_side_do_not_mix(plain_pair, place):
    device, relay = plain_pair
    answers = []

    def upload(target):
        answers.append(device.call("CoreUtilsCopyFileToRelay",
                                   SourcePath=device.path(place.source),
                                   DestinationPath=relay.path(target))[0])

    targets = [place.directory / f"file{number}" for number in range(8)]
    threads = [threading.Thread(target=upload, args=(target,)) for target in targets]
    for one in threads:
        one.start()
    for one in threads:
        one.join()
    assert answers == [SUCCESS] * 8
    assert all(target.read_bytes() == place.content for target in targets)
    assert aliases(relay) == []


def test_memory_does_not_grow_with_the_file(fleet, place):
    device, relay = fleet.pair("plain", "linux", "linux")
    assert place.upload(device, relay)[0] == SUCCESS
    with open(place.source, "wb") as file:
        file.truncate(100 * MIB)
    before = device.resident_bytes(), relay.resident_bytes()
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.target.stat().st_size == 100 * MIB
    place.target.unlink()
    assert device.resident_bytes() - before[0] < 16 * MIB
    assert relay.resident_bytes() - before[1] < 16 * MIB


@pytest.mark.parametrize("device_mode, relay_mode, arrives", [
    ("pac", "plain", True), ("plain", "pac", False), ("ssl and pac", "ssl", True),
    ("ssl", "ssl ext", True), ("ssl", "plain", False)])
def test_members_that_are_configured_differently(
        fleet, place, device_mode, relay_mode, arrives):
    relay = fleet.make("linux", "relay", relay_mode)
    device = fleet.make("linux", "device", device_mode, relay.address())
    code, container = place.upload(device, relay)
    assert (code == SUCCESS) == (container["ErrorCode"] == SUCCESS) == arrives
    assert place.stored() == ({place.target.name: place.content} if arrives else {})
    assert device.stop() == 0 and relay.stop() == 0


# Uploads that something comes between.


@pytest.fixture(scope="module")
def cut_pair(fleet, platform):
    """A device whose way to the relay leads through a proxy: (device, relay, proxy)."""
    relay = fleet.make(platform, "relay", relay={"stall_timeout_ms": 1000})
    proxy = CuttingProxy(relay.address())
    device = fleet.make(platform, "device", parent=proxy.address())
    yield device, relay, proxy
    proxy.close()
    assert device.stop() == 0
    assert relay.stop() == 0


def upload_under(fault, after, cut_pair, place):
    """Uploads while the proxy strikes, then again: nothing of the first try may be left."""
    device, relay, proxy = cut_pair
    proxy.strike(fault, after)
    (code, container), log = new_log(device, lambda: place.upload(device, relay))
    assert proxy.struck.is_set()
    # Whether the file arrived is told by the log alone.
    assert (code, container["ErrorCode"], LOST in log) == (SUCCESS, 0, True), log
    wait_for(lambda: place.stored() == {}, 5)
    wait_for(lambda: aliases(relay) == [], 5)

    assert place.upload(device, relay)[0] == SUCCESS
    assert place.stored() == {place.target.name: place.content}


POINTS = random.Random(20250501).sample(range(1, 3 * MIB), 10)


@pytest.mark.parametrize("after", POINTS)
def test_an_upload_that_is_cut_leaves_nothing(cut_pair, place, after):
    upload_under("cut", after, cut_pair, place)


@pytest.mark.parametrize("after", [100, 2 * MIB])
def test_an_upload_that_is_half_closed_leaves_nothing(cut_pair, place, after):
    upload_under("half-close", after, cut_pair, place)


def test_an_upload_that_stalls_is_given_up(cut_pair, place):
    upload_under("stall", 2 * MIB, cut_pair, place)


def test_an_older_file_survives_an_upload_that_is_cut(cut_pair, place):
    device, relay, proxy = cut_pair
    place.target.write_bytes(b"older")
    proxy.strike("cut", MIB)
    assert place.upload(device, relay)[0] == SUCCESS
    assert proxy.struck.is_set()
    wait_for(lambda: place.stored() == {place.target.name: b"older"}, 5)


def test_a_relay_that_is_killed_and_starts_again(fleet, place, platform):
    relay = fleet.make(platform, "relay")
    proxy = CuttingProxy(relay.address())
    device = fleet.make(platform, "device", parent=proxy.address())
    proxy.strike("stall", 2 * MIB)
    answers = []
    log = len(device.log())
    thread = threading.Thread(target=lambda: answers.append(place.upload(device, relay)))
    thread.start()
    assert proxy.struck.wait(20)
    relay.kill()
    thread.join(REPLY_TIMEOUT_S)
    assert [code for code, _ in answers] == [SUCCESS]
    assert LOST in device.log()[log:]
    assert "Failed to delete alias" in device.log()[log:]
    assert not place.target.exists()

    relay.url = None
    relay.start()
    proxy.upstream = relay.address()
    assert aliases(relay) == []
    assert place.upload(device, relay)[0] == SUCCESS
    assert place.target.read_bytes() == place.content
    proxy.close()
    assert device.stop() == 0 and relay.stop() == 0


def test_a_relay_that_is_not_there(fleet, place):
    device = fleet.make("linux", "device", parent=("127.0.0.1", 1))
    (code, container), log = new_log(device, lambda: place.upload(device, device))
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert "Failed to add alias backup" in log
    assert device.stop() == 0


def test_no_relay_at_all(fleet, place):
    device = fleet.make("linux", "device")
    assert device.call("RelayGetValues")[0] == FAILURE
    code, container = place.upload(device, device)
    assert (code, container["ErrorCode"]) == (FAILURE, FAILURE)
    assert place.stored() == {}
    assert device.stop() == 0


def test_a_full_disk_of_the_relay(plain_pair, place, small_disk):
    device, relay = plain_pair
    place.directory = small_disk
    place.target = small_disk / "file"
    answer, log = new_log(device, lambda: place.upload(device, relay))
    assert (answer[0], LOST in log) == (SUCCESS, True)
    assert place.stored() == {}
    assert aliases(relay) == []


@pytest.mark.parametrize("what", ["missing", "directory"])
def test_a_source_that_cannot_be_read(plain_pair, place, what):
    device, relay = plain_pair
    place.source = place.source.parent / what
    if what == "directory":
        place.source.mkdir()
    answer, log = new_log(device, lambda: place.upload(device, relay))
    assert (answer[0], LOST in log) == (SUCCESS, True)
    assert place.stored() == {}
    assert aliases(relay) == []


# Uploads that nobody may make.


def send(agent, method, target, body=b"", authorization=None, context=None):
    """(status, body) of a request whose target is sent as it is."""
    host, port = agent.address()
    if agent.tls:
        connection = http.client.HTTPSConnection(host, port, timeout=REPLY_TIMEOUT_S,
                                                 context=context or agent.tls)
    else:
        connection = http.client.HTTPConnection(host, port, timeout=REPLY_TIMEOUT_S)
    try:
        connection.putrequest(method, target, skip_accept_encoding=True)
        connection.putheader("Content-Length", str(len(body)))
        if method == "POST":
            connection.putheader("Content-Type", "application/json")
        if authorization:
            connection.putheader("Authorization", authorization)
        connection.endheaders(body)
        reply = connection.getresponse()
        return reply.status, reply.read()
    finally:
        connection.close()


def invoke(agent, action, authorization, **parameters):
    """(code, container) of an action that another agent calls."""
    status, body = send(agent, "POST", "/v1/actions/" + action, json.dumps(parameters).encode(),
                        authorization)
    assert status == 200, (status, body)
    reply = json.loads(body)
    return reply["code"], reply["container"]


def host_of(agent):
    return "%s:%d" % agent.address()


class Alias:
    """An alias of an agent, as the one that is called "tester" makes it."""

    def __init__(self, agent, directory, name="drop"):
        self.agent, self.name = agent, name
        self.login = fleet_login("tester")
        self.parameters = {"AliasName": name, "AliasPath": agent.path(directory),
                           "AliasTemporary": False}
        assert invoke(agent, "HttpProtocolAddAlias", self.login, **self.parameters)[0] == 0

    def put(self, target, body=b"content", authorization=None):
        return send(self.agent, "PUT", target, body, authorization or self.login)[0]

    def delete(self):
        assert invoke(self.agent, "HttpProtocolDeleteAlias", self.login, **self.parameters)[0] == 0


@pytest.fixture
def alias(plain_pair, place):
    made = Alias(plain_pair[1], place.directory)
    yield made
    made.delete()


def test_an_alias_takes_files(alias, place):
    assert alias.put("/drop/file") in (200, 201, 204)
    assert place.stored() == {"file": b"content"}
    assert alias.put("/drop/file", b"") in (200, 201, 204)
    assert place.stored() == {"file": b""}


BAD_TARGETS = {
    "slash": "/drop/inner/file", "encoded slash": "/drop/inner%2ffile",
    "backslash": "/drop/inner%5Cfile", "parent": "/drop/../file", "parent alone": "/drop/..",
    "encoded parent": "/drop/%2e%2e/file", "encoded parent alone": "/drop/%2e%2e",
    "own directory": "/drop/.", "NUL": "/drop/file%00.txt", "no name": "/drop/",
    "300 characters": "/drop/" + "x" * 300, "other alias": "/other/file",
    "parent of the alias": "/../drop/file", "double slash": "//drop/file",
    "line feed": "/drop/a%0ab", "encoded twice": "/drop/%252e%252e%2ffile",
    "malformed encoding": "/drop/%zz", "not UTF-8": "/drop/%ff%fe",
    "long alias": "/" + "a" * 300 + "/file", "empty alias": "//file",
}


@pytest.mark.parametrize("what", BAD_TARGETS)
def test_names_that_lead_elsewhere_are_refused(alias, place, what):
    before = sorted(os.listdir(place.directory.parent))
    assert alias.put(BAD_TARGETS[what]) in (400, 404)
    assert place.stored() == {}
    assert sorted(os.listdir(place.directory.parent)) == before


WINDOWS_NAMES = ["file:stream", "CON", "nul.txt", "ends.", "ends%20", "w%3fld"]


@pytest.mark.parametrize("name", WINDOWS_NAMES)
def test_names_that_windows_takes_for_something_else_are_refused(alias, place, name):
    assert alias.put("/drop/" + name) in (400, 404)
    assert place.stored() == {}


@pytest.mark.parametrize("name", ["", "..", ".", "a/b", "a\\b", "a b", "v1", "a" * 65, "a\0b", "ü"])
def test_AddAlias_takes_plain_names_only(plain_pair, place, name):
    relay = plain_pair[1]
    assert relay.call("HttpProtocolAddAlias", AliasName=name,
                      AliasPath=relay.path(place.directory), AliasTemporary=False)[0] != SUCCESS
    assert aliases(relay) == []


def test_AddAlias_does_not_lead_into_the_agents_own_directory(plain_pair, tmp_path):
    relay = plain_pair[1]
    (tmp_path / "link").symlink_to(relay.home)
    (tmp_path / "config").symlink_to(relay.home / "config")
    home = relay.path(relay.home)
    for path in (home, home + "/config", home + "/data/../config", home + "/log",
                 relay.path(tmp_path / "link"), relay.path(tmp_path / "link") + "/config",
                 relay.path(tmp_path / "config"), home + "/config/new", "relative", "",
                 relay.path(relay.home / "config/zelagent.ini")):
        code, _ = relay.call("HttpProtocolAddAlias", AliasName="own", AliasPath=path,
                             AliasTemporary=False)
        assert code != SUCCESS, path
    assert aliases(relay) == []
    assert relay.call("HttpProtocolAddAlias", AliasName="own", AliasPath=home + "/data",
                      AliasTemporary=False)[0] == SUCCESS
    assert relay.call("HttpProtocolDeleteAlias", AliasName="own")[0] == SUCCESS


def test_AddAlias_asks_the_privacy_policy(fleet, platform, place):
    rules = {"rule1": f"admin, {agent_path(platform, place.directory)}, none"}
    relay = fleet.make(platform, "relay", privacy=rules)
    parameters = {"AliasName": "own", "AliasPath": relay.path(place.directory)}
    code, container = relay.call("HttpProtocolAddAlias", **parameters)
    assert (code, "privacy policy" in container["Error"]) == (FAILURE, True)
    # Other agents have no login.
    alias = Alias(relay, place.directory)
    assert alias.put("/drop/file") in (200, 201, 204)
    assert relay.stop() == 0


def test_an_alias_whose_directory_becomes_a_link_is_no_longer_used(alias, place):
    outside = place.directory.parent / "outside"
    outside.mkdir()
    place.directory.rmdir()
    place.directory.symlink_to(outside)
    assert alias.put("/drop/file") in (403, 404, 409)
    assert list(outside.iterdir()) == []


def test_a_link_under_the_name_of_the_file_is_replaced_and_not_followed(alias, place):
    precious = place.directory.parent / "precious"
    precious.write_bytes(b"precious")
    (place.directory / "file").symlink_to(precious)
    status = alias.put("/drop/file")
    assert precious.read_bytes() == b"precious"
    assert status in (200, 201, 204, 403, 409)


def test_two_agents_with_aliases_of_one_name_do_not_collide(plain_pair, alias, place):
    relay = plain_pair[1]
    second = fleet_login("second")
    other = place.directory.parent / "other"
    other.mkdir()
    parameters = {"AliasName": "drop", "AliasPath": relay.path(other), "AliasTemporary": False}
    assert invoke(relay, "HttpProtocolAddAlias", second, **parameters)[0] == SUCCESS
    assert sorted(row["Owner"] for row in aliases(relay)) == ["agent/second", "agent/tester"]

    assert alias.put("/drop/file", b"of the second", second) in (200, 201, 204)
    assert alias.put("/drop/file", b"of the first") in (200, 201, 204)
    assert place.stored() == {"file": b"of the first"}
    assert (other / "file").read_bytes() == b"of the second"
    assert invoke(relay, "HttpProtocolDeleteAlias", second, **parameters)[0] == SUCCESS
    assert alias.put("/drop/file", b"late", second) == 404
    assert alias.put("/drop/file", b"of the first again") in (200, 201, 204)


def test_an_alias_added_twice_is_deleted_twice_and_leads_to_one_directory(plain_pair, alias, place):
    relay = plain_pair[1]
    assert invoke(relay, "HttpProtocolAddAlias", alias.login, **alias.parameters)[0] == SUCCESS
    elsewhere = dict(alias.parameters, AliasPath=relay.path(place.directory.parent))
    assert invoke(relay, "HttpProtocolAddAlias", alias.login, **elsewhere)[0] != SUCCESS
    alias.delete()
    assert alias.put("/drop/file") in (200, 201, 204)


def test_a_temporary_alias_goes_with_its_file(plain_pair, place):
    relay = plain_pair[1]
    login = fleet_login("tester")
    parameters = {"AliasName": "once", "AliasPath": relay.path(place.directory),
                  "AliasTemporary": True}
    assert invoke(relay, "HttpProtocolAddAlias", login, **parameters)[0] == SUCCESS
    assert send(relay, "PUT", "/once/file", b"1", login)[0] in (200, 201, 204)
    assert send(relay, "PUT", "/once/file", b"2", login)[0] == 404
    assert place.stored() == {"file": b"1"}
    assert aliases(relay) == []


def test_an_alias_expires_when_its_owner_is_silent(fleet, platform, place):
    relay = fleet.make(platform, "relay", relay={"alias_silence_ms": 1000})
    made = Alias(relay, place.directory)
    assert [row["AliasName"] for row in aliases(relay)] == ["drop"]
    wait_for(lambda: aliases(relay) == [])
    assert made.put("/drop/file") == 404
    assert "expired" in relay.log()
    assert relay.stop() == 0


@pytest.mark.parametrize("method", ["GET", "HEAD", "DELETE", "POST", "OPTIONS"])
def test_an_alias_takes_files_and_gives_none(alias, place, method):
    (place.directory / "file").write_bytes(b"there")
    status, body = send(alias.agent, method, "/drop/file", b"", alias.login)
    assert status in (404, 405, 411, 415)
    assert b"there" not in body
    assert place.stored() == {"file": b"there"}


def test_uploads_need_credentials(alias, place):
    for wrong in (fleet_login("tester", "the secret of another fleet"), fleet_login("other"),
                  "Basic !!!", "Bearer x"):
        assert send(alias.agent, "PUT", "/drop/file", b"x", wrong)[0] in (401, 404)
    assert send(alias.agent, "PUT", "/drop/file", b"x")[0] == 401
    assert place.stored() == {}


@pytest.fixture
def small_relay(fleet, platform):
    limits = {"max_uploads": 1, "max_upload_bytes": MIB, "stall_timeout_ms": 500}
    relay = fleet.make(platform, "relay", relay=limits)
    yield relay
    assert relay.stop() == 0


def begin_upload(alias, target, length, sent):
    """A connection on which a part of an upload has been sent."""
    connection = socket.create_connection(alias.agent.address(), REPLY_TIMEOUT_S)
    header = (f"PUT {target} HTTP/1.1\r\nHost: {host_of(alias.agent)}\r\n"
              f"Authorization: {alias.login}\r\nContent-Length: {length}\r\n\r\n")
    connection.sendall(header.encode() + bytes(sent))
    return connection


def test_uploads_have_limits(small_relay, place):
    alias = Alias(small_relay, place.directory)
    with begin_upload(alias, "/drop/large", MIB + 1, 0) as connection:
        assert connection.recv(12) == b"HTTP/1.1 413"
    with begin_upload(alias, "/drop/held", 1000, 999) as connection:
        wait_for(lambda: [row["Uploads"] for row in aliases(small_relay)] == [1])
        assert alias.put("/drop/second") == 503
        # Nothing more comes: the relay gives it up.
        wait_for(lambda: [row["Uploads"] for row in aliases(small_relay)] == [0])
    assert place.stored() == {}
    assert alias.put("/drop/whole", bytes(MIB)) in (200, 201, 204)
    assert place.stored() == {"whole": bytes(MIB)}


def test_an_upload_of_single_bytes_is_given_up(small_relay, place):
    alias = Alias(small_relay, place.directory)
    with begin_upload(alias, "/drop/slow", 100_000, 1) as connection:
        deadline = time.monotonic() + 20
        with pytest.raises(ConnectionError):
            while time.monotonic() < deadline:
                connection.sendall(b"x")
                time.sleep(0.02)
    wait_for(lambda: [row["Uploads"] for row in aliases(small_relay)] == [0])
    assert "the connection stalled" in small_relay.log()
    assert place.stored() == {}


def test_an_agent_that_stops_leaves_no_piece_of_an_upload(fleet, platform, place):
    relay = fleet.make(platform, "relay", relay={"stall_timeout_ms": 1000})
    alias = Alias(relay, place.directory)
    with begin_upload(alias, "/drop/file", 1000, 999):
        wait_for(lambda: [row["Uploads"] for row in aliases(relay)] == [1])
        assert relay.stop() == 0
    assert place.stored() == {}


def test_of_two_uploads_of_one_file_one_is_whole(alias, place):
    relay = alias.agent
    with begin_upload(alias, "/drop/file", 1000, 999) as first:
        wait_for(lambda: [row["Uploads"] for row in aliases(relay)] == [1])
        assert alias.put("/drop/file", b"second") in (200, 201, 204)
        assert place.stored()["file"] == b"second"
        first.sendall(b"x")
        assert int(first.recv(1000).split()[1]) in (200, 201, 204)
    assert place.stored() == {"file": bytes(999) + b"x"}


def test_an_upload_may_come_in_chunks(alias, place):
    with socket.create_connection(alias.agent.address(), REPLY_TIMEOUT_S) as connection:
        header = (f"PUT /drop/file HTTP/1.1\r\nHost: {host_of(alias.agent)}\r\n"
                  f"Authorization: {alias.login}\r\nTransfer-Encoding: chunked\r\n\r\n")
        connection.sendall(header.encode() + b"5\r\nhello\r\n")
        connection.sendall(b"6\r\n world\r\n0\r\n\r\n")
        assert int(connection.recv(1000).split()[1]) in (200, 201, 204)
    assert place.stored() == {"file": b"hello world"}


def test_an_alias_that_is_deleted_meanwhile_stores_what_is_under_way_or_nothing(
        plain_pair, place):
    alias = Alias(plain_pair[1], place.directory)
    with begin_upload(alias, "/drop/file", 1000, 999) as connection:
        wait_for(lambda: [row["Uploads"] for row in aliases(alias.agent)] == [1])
        alias.delete()
        connection.sendall(b"x")
        status = int(connection.recv(1000).split()[1])
    stored = place.stored()
    assert (status in (200, 201, 204)) == bool(stored)
    assert stored in ({}, {"file": bytes(999) + b"x"})


ADMINISTRATORS_ONLY = [
    "CoreUtilsCopyFileToRelay", "CoreUtilsRestoreBackupFromRelay", "CoreUtilsRestoreBackup",
    "CoreUtilsExtractFile", "CoreUtilsConfigureJWS", "HttpProtocolAddAlias",
    "HttpProtocolDeleteAlias",
]


@pytest.mark.parametrize("action", ADMINISTRATORS_ONLY)
def test_a_console_user_without_the_role_is_refused(agent, action):
    status, _, body = agent.request("POST", "/v1/actions/" + action, b"{}", user="visitor")
    assert (status, json.loads(body)["error"]["code"]) == (403, "administrators_only")


# Proofs.


@pytest.fixture(scope="module")
def proving_relay(fleet, platform):
    return fleet.pair("pac", platform, platform)[1]


def ask(relay, authorization, target="/v1/actions/AgentGetIPAddress", body=b"{}"):
    return send(relay, "POST", target, body, authorization)[0]


def good_proof(relay, **changes):
    facts = dict(name="tester", method="POST", target="/v1/actions/AgentGetIPAddress",
                 host=host_of(relay), body=b"{}")
    facts.update(changes)
    return proof(**facts)


def test_a_proof_is_accepted_once(proving_relay):
    once = good_proof(proving_relay)
    assert ask(proving_relay, once) == 200
    _, log = new_log(proving_relay, lambda: ask(proving_relay, once))
    assert ask(proving_relay, once) == 401
    assert "refused: 401 unauthorized: the proof was used before" in log


@pytest.mark.parametrize("changes", [
    {"secret": "the secret of another fleet"}, {"method": "PUT"},
    {"target": "/v1/actions/AgentGetProgress"}, {"host": "127.0.0.1:1"},
    {"date": 1}, {"date": 1 << 40}, {"date": -1}, {"nonce": "00"}, {"nonce": "Z" * 32},
], ids=str)
def test_a_proof_of_something_else_is_refused(proving_relay, changes):
    # Good credentials in between, or the agent answers later and later.
    assert ask(proving_relay, good_proof(proving_relay)) == 200
    assert ask(proving_relay, good_proof(proving_relay, **changes)) == 401


def test_a_call_whose_body_is_not_the_proven_one_is_not_made(proving_relay):
    assert ask(proving_relay, good_proof(proving_relay, body=b'{"a":1}')) in (400, 401)


def test_an_expired_proof_is_refused_and_logged(proving_relay):
    late = good_proof(proving_relay, date=int(time.time()) - 301)
    status, log = new_log(proving_relay, lambda: ask(proving_relay, late))
    assert (status, "the proof is expired" in log) == (401, True), log
    early = good_proof(proving_relay, date=int(time.time()) + 310)
    assert ask(proving_relay, early) == 401
    assert ask(proving_relay, good_proof(proving_relay, date=int(time.time()) - 200)) == 200


def test_where_proofs_are_expected_a_fleet_password_is_refused(proving_relay):
    status, log = new_log(proving_relay, lambda: ask(proving_relay, fleet_login("tester")))
    assert (status, "agents must send proofs of their requests" in log) == (401, True), log
    assert proving_relay.call("AgentGetIPAddress")[0] == 0


def test_an_upload_whose_body_is_not_the_proven_one_is_not_stored(proving_relay, place):
    relay = proving_relay
    parameters = json.dumps({"AliasName": "drop", "AliasPath": relay.path(place.directory),
                             "AliasTemporary": False}).encode()
    target = "/v1/actions/HttpProtocolAddAlias"
    assert ask(relay, good_proof(relay, target=target, body=parameters), target, parameters) == 200
    put = lambda body, proven: send(relay, "PUT", "/drop/file", body, good_proof(
        relay, method="PUT", target="/drop/file", body=proven))[0]
    assert put(b"another", b"content") in (400, 401)
    assert place.stored() == {}
    assert put(b"content", b"content") in (200, 201, 204)
    assert place.stored() == {"file": b"content"}
    target = "/v1/actions/HttpProtocolDeleteAlias"
    assert ask(relay, good_proof(relay, target=target, body=parameters), target, parameters) == 200


# Members that do not belong.


def test_a_device_with_another_fleet_secret_is_refused(fleet, plain_pair, place):
    relay = plain_pair[1]
    device = fleet.make("linux", "device", parent=relay.address(),
                        secret="the secret of another fleet")
    (answer, device_log), log = new_log(
        relay, lambda: new_log(device, lambda: place.upload(device, relay)))
    assert answer[0] == FAILURE
    assert "Failed to add alias" in device_log
    assert "refused: 401 unauthorized: the credentials are not accepted" in log, log
    assert device.stop() == 0


def test_a_relay_with_a_certificate_of_another_authority_is_refused(fleet, place, tmp_path):
    stranger = Authority(tmp_path / "stranger")
    relay = fleet.make("linux", "relay", "ssl", issuer=stranger)
    device = fleet.make("linux", "device", "ssl", parent=relay.address())
    answer, log = new_log(device, lambda: place.upload(device, relay))
    assert answer[0] == FAILURE
    assert "Failed to add alias" in log and "certificate" in log.lower(), log
    assert place.stored() == {}
    assert device.stop() == 0 and relay.stop() == 0


def test_an_agent_without_a_certificate_is_refused_where_one_is_expected(fleet, platform, place):
    relay = fleet.pair("ssl ext", platform, platform)[1]
    body = json.dumps({"AliasName": "drop", "AliasPath": relay.path(place.directory),
                       "AliasTemporary": False}).encode()
    before = len(relay.log())
    try:
        status = send(relay, "POST", "/v1/actions/HttpProtocolAddAlias", body,
                      fleet_login("tester"))[0]
    except (ssl.SSLError, ConnectionError):
        status = 401
    assert status in (401, 403)
    wait_for(lambda: "certificate" in relay.log()[before:].lower(), 5)
    assert place.stored() == {}


def test_a_certificate_of_another_authority_is_refused_where_one_is_expected(
        fleet, platform, tmp_path):
    relay = fleet.pair("ssl ext", platform, platform)[1]
    certificate, key = Authority(tmp_path / "stranger").issue("tester")
    context = tls_context(fleet.authority.certificate)
    context.load_cert_chain(certificate, key)
    try:
        status = send(relay, "POST", "/v1/actions/AgentGetIPAddress", b"{}",
                      fleet_login("tester"), context)[0]
    except (ssl.SSLError, ConnectionError):
        status = 401
    assert status in (401, 403)

    context.load_cert_chain(*fleet.authority.issue("tester-" + platform))
    assert send(relay, "POST", "/v1/actions/AgentGetIPAddress", b"{}", fleet_login("tester"),
                context)[0] == 200


def test_a_device_without_tls_does_not_get_through_to_a_relay_that_speaks_it(fleet, place):
    relay = fleet.pair("ssl", "linux", "linux")[1]
    device = fleet.make("linux", "device", parent=relay.address())
    answer, log = new_log(device, lambda: place.upload(device, relay))
    assert (answer[0], "Failed to add alias" in log) == (FAILURE, True)
    assert device.stop() == 0


def test_credentials_do_not_leave_the_machine_in_clear(fleet, place):
    device = fleet.make("linux", "device", parent=("192.0.2.1", 7460))
    answer, log = new_log(device, lambda: place.upload(device, device))
    assert (answer[0], "Failed to add alias" in log) == (FAILURE, True)
    assert "TLS" in log or "clear" in log, log
    assert device.stop() == 0
