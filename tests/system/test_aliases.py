"""Aliases: who may store which files through them, and how long they last."""

import json
import os
import socket
import time

import pytest

from agents import REPLY_TIMEOUT_S, agent_path
from fleet import aliases, fleet_login
from uploads import (FAILURE, MIB, SUCCESS, Alias, begin_upload, host_of, invoke, send, wait_for)


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


def test_AddAlias_does_not_lead_to_certificates_and_keys(fleet, platform):
    relay = fleet.pair("ssl", platform, platform)[1]
    directory = fleet.authority.directory
    code, container = relay.call("HttpProtocolAddAlias", AliasName="own",
                                 AliasPath=relay.path(directory), AliasTemporary=False)
    assert (code, "the directory holds the agent's" in container["Error"]) == (FAILURE, True)
    # Nothing but the directory of the files themselves.
    assert relay.call("HttpProtocolAddAlias", AliasName="own", AliasTemporary=False,
                      AliasPath=relay.path(directory.parent / "other"))[0] == SUCCESS
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
    relay = fleet.make(platform, "relay", relay={"alias_silence_ms": 2000})
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
    limits = {"max_uploads": 1, "max_upload_bytes": MIB, "stall_timeout_ms": 2000}
    relay = fleet.make(platform, "relay", relay=limits)
    yield relay
    assert relay.stop() == 0


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
    relay = fleet.make(platform, "relay", relay={"stall_timeout_ms": 3000})
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


@pytest.mark.parametrize("field, status", [
    ("Content-Range: bytes 0-6/14", 400), ("Content-Encoding: gzip", 415)])
def test_parts_and_encodings_of_files_are_refused(alias, place, field, status):
    (place.directory / "file").write_bytes(b"older")
    with socket.create_connection(alias.agent.address(), REPLY_TIMEOUT_S) as connection:
        connection.sendall((f"PUT /drop/file HTTP/1.1\r\nHost: {host_of(alias.agent)}\r\n"
                            f"Authorization: {alias.login}\r\n{field}\r\n"
                            "Content-Length: 7\r\n\r\ncontent").encode())
        assert int(connection.recv(1000).split()[1]) == status
    assert place.stored() == {"file": b"older"}


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
    "HttpProtocolDeleteAlias", "HttpProtocolListAliases", "AgentGetProgress",
]


@pytest.mark.parametrize("action", ADMINISTRATORS_ONLY)
def test_a_console_user_without_the_role_is_refused(agent, action):
    status, _, body = agent.request("POST", "/v1/actions/" + action, b"{}", user="visitor")
    assert (status, json.loads(body)["error"]["code"]) == (403, "administrators_only")
