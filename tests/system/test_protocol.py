"""The HTTP protocol of a whole agent: who may ask, and what it answers to bad requests."""

import json
import re
import socket
import time

import pytest

from agents import basic

SIZE = "/v1/actions/CoreUtilsGetFileSize"


def error_of(reply):
    status, headers, body = reply
    assert headers["Content-Type"].startswith("application/json")
    assert headers["X-Request-Id"]
    error = json.loads(body)["error"]
    assert error["message"]
    return status, error["code"]


def test_health_answers_everyone(agent):
    status, headers, body = agent.request("GET", "/v1/health", user=None)
    assert (status, json.loads(body)) == (200, {"status": "ok"})
    assert headers["X-Request-Id"]


def test_a_call_has_exactly_the_documented_form(agent, tmp_path):
    (tmp_path / "file").write_text("123")
    status, headers, body = agent.request(
        "POST", SIZE, json.dumps({"Path": agent.path(tmp_path / "file")}).encode())
    assert (status, body) == (200, b'{"code":0,"container":{"Result":3}}')
    assert headers["Content-Type"] == "application/json"


def test_no_credentials_and_wrong_ones_are_401(agent):
    for user_header in ({}, {"Authorization": basic("admin", "wrong")},
                        {"Authorization": basic("nobody", "wrong")},
                        {"Authorization": "Bearer x"}, {"Authorization": "Basic !!!"}):
        for method, target, body in (("GET", "/v1/actions", None), ("POST", SIZE, b"{}")):
            reply = agent.request(method, target, body, user_header, user=None)
            assert error_of(reply) == (401, "unauthorized")
            assert reply[1]["WWW-Authenticate"].startswith("Basic ")


def test_a_foreign_origin_is_403_and_the_agents_own_is_not(agent, tmp_path):
    body = json.dumps({"Path": agent.path(tmp_path / "none")}).encode()
    for origin in ("http://evil.example", "null", "https://127.0.0.1:1"):
        assert error_of(agent.request("POST", SIZE, body, {"Origin": origin})) == (
            403, "foreign_origin")
    assert agent.request("POST", SIZE, body, {"Origin": agent.url})[0] == 200


def test_other_content_types_are_415(agent):
    for kind in ("text/plain", "application/x-www-form-urlencoded", "multipart/form-data"):
        assert error_of(agent.request("POST", SIZE, b"{}", {"Content-Type": kind}))[0] == 415


@pytest.mark.parametrize("body", [
    b"", b"{", b"[]", b"null", b'"text"', b'{"Path":null}', b'{"Path":1.5}', b'{"Path":[1,"a"]}',
    b'{"Path":[[1]]}', b'{"Path":"\xff"}', b'{"Path":"a","Path":"b"}', b'{"Path":99999999999999999999}',
    b'{"A":' * 40 + b"1" + b"}" * 40, b'{"Path":"x"} trailing', b"{" + b'"k":[' * 50_000])
def test_a_body_that_is_no_container_is_400(agent, body):
    assert error_of(agent.request("POST", SIZE, body)) == (400, "malformed_body")


def test_a_parameter_of_another_type_is_400_and_nothing_runs(agent, tmp_path):
    target = tmp_path / "target"
    reply = agent.request("POST", "/v1/actions/CoreUtilsCopyFile",
                          json.dumps({"SourcePath": agent.path(__file__),
                                      "DestinationPath": {"a": 1}}).encode())
    assert error_of(reply) == (400, "wrong_type")
    assert b"DestinationPath" in reply[2]
    assert not target.exists()


def test_unknown_actions_and_targets_are_404_and_wrong_methods_405(agent):
    assert error_of(agent.request("POST", "/v1/actions/Nonsense", b"{}")) == (404, "unknown_action")
    assert error_of(agent.request("GET", "/nonsense"))[0] == 404
    reply = agent.request("GET", SIZE)
    assert error_of(reply)[0] == 405
    assert reply[1]["Allow"] == "POST"


def test_a_body_beyond_the_limit_is_413_before_it_is_sent(agent):
    host, port = agent.address()
    with socket.create_connection((host, port), timeout=30) as client:
        client.sendall((f"POST {SIZE} HTTP/1.1\r\nHost: {host}:{port}\r\n"
                        f"Authorization: {basic('admin', 'correct horse battery')}\r\n"
                        "Content-Type: application/json\r\n"
                        "Content-Length: 999999999999\r\n\r\n").encode())
        assert client.recv(4096).startswith(b"HTTP/1.1 413")


def test_200_half_sent_connections_hold_nobody_up(agent, tmp_path):
    (tmp_path / "file").write_text("123")
    halves = []
    try:
        for _ in range(200):
            client = socket.create_connection(agent.address(), timeout=30)
            client.sendall(b"POST /v1/actions/CoreUtilsGetFileSize HTTP/1.1\r\nHost: a\r\nContent-Le")
            halves.append(client)

        agent.call("CoreUtilsGetFileSize", Path=agent.path(tmp_path / "file"))
        slowest = 0.0
        for _ in range(50):
            start = time.monotonic()
            assert agent.call("CoreUtilsGetFileSize", Path=agent.path(tmp_path / "file")) == (
                0, {"Result": 3})
            slowest = max(slowest, time.monotonic() - start)
        assert slowest < 5
    finally:
        for client in halves:
            client.close()


def test_a_half_sent_request_is_dropped_in_time(make_agent):
    agent = make_agent("[http]\nrequest_timeout_ms = 500\n")
    agent.start()
    with socket.create_connection(agent.address(), timeout=20) as client:
        client.sendall(b"GET /v1/hea")
        start = time.monotonic()
        data = b""
        while more := client.recv(4096):
            data += more
        assert time.monotonic() - start < 10
        assert data == b"" or data.startswith(b"HTTP/1.1 408")
    assert agent.stop() == 0


def test_a_slow_reader_holds_nobody_up(agent):
    host, port = agent.address()
    request = (f"GET /v1/actions HTTP/1.1\r\nHost: {host}:{port}\r\n"
               f"Authorization: {basic('admin', 'correct horse battery')}\r\n\r\n").encode()
    with socket.socket() as slow:
        slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        slow.settimeout(5)
        slow.connect((host, port))
        # Replies pile up until the agent stops reading: then sending blocks here.
        try:
            for _ in range(20_000):
                slow.sendall(request)
        except (socket.timeout, ConnectionError):
            pass
        for _ in range(20):
            assert agent.request("GET", "/v1/actions")[0] == 200


def test_requests_in_one_packet_are_answered_in_order(agent):
    with socket.create_connection(agent.address(), timeout=30) as client:
        one = b"GET /v1/health HTTP/1.1\r\nHost: a\r\n\r\n"
        other = b"GET /nonsense HTTP/1.1\r\nHost: a\r\n\r\n"
        client.sendall(one + other + one)
        data = b""
        while data.count(b'"status":"ok"') < 2:
            more = client.recv(65536)
            assert more
            data += more
    statuses = re.findall(rb"HTTP/1\.1 (\d+)", data)
    # Without credentials the target in between is refused or not found.
    assert statuses[0] == statuses[2] == b"200"
    assert statuses[1] in (b"401", b"404")


def test_a_full_disk_is_a_failure_that_leaves_nothing_behind(agent, small_disk, tmp_path):
    source = tmp_path / "source"
    source.write_bytes(b"x" * (2 << 20))
    target = small_disk / "target"
    target.write_text("old content")

    code, _ = agent.call("CoreUtilsCopyFile", SourcePath=agent.path(source),
                         DestinationPath=agent.path(target))

    assert code == 1
    assert target.read_text() == "old content"
    assert [entry.name for entry in small_disk.iterdir()] == ["target"]
