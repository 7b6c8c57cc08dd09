"""An agent that runs out of file handles: clear errors, no spinning, and service goes on afterwards."""

import http.client
import json
import os
import pathlib
import resource
import socket
import time

import pytest

from agents import PASSWORDS, Agent, basic
from uploads import wait_for

SPARE_HANDLES = 6
CONNECTIONS = 40
LOOK_S = 1.0
# Of one processor, while connections wait that cannot be accepted.
MOST_LOAD = 0.2
HEADERS = {"Authorization": basic("admin", PASSWORDS["admin"]), "Content-Type": "application/json"}


@pytest.fixture
def hungry(tmp_path):
    agent = Agent("linux", tmp_path / "home")
    agent.add_users()
    agent.start()
    yield agent
    agent.kill()


def cpu_seconds(agent):
    fields = pathlib.Path(f"/proc/{agent.process.pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def handles(agent):
    return [int(name) for name in os.listdir(f"/proc/{agent.process.pid}/fd")]


def call_on(connection, action, **parameters):
    """(code, container) on a connection that is kept."""
    connection.request("POST", "/v1/actions/" + action, json.dumps(parameters), HEADERS)
    reply = connection.getresponse()
    body = json.loads(reply.read())
    assert reply.status == 200, body
    return body["code"], body["container"]


def limit_handles(agent, most):
    hard = resource.prlimit(agent.process.pid, resource.RLIMIT_NOFILE)[1]
    resource.prlimit(agent.process.pid, resource.RLIMIT_NOFILE, (most, hard))


def first_free_handle(agent):
    used = handles(agent)
    return next(number for number in range(len(used) + 1) if number not in used)


def load_of(agent):
    """How much of a processor it takes."""
    began, used = time.monotonic(), cpu_seconds(agent)
    time.sleep(LOOK_S)
    return (cpu_seconds(agent) - used) / (time.monotonic() - began)


def test_users_that_could_not_be_read_for_lack_of_a_handle_are_read_later(hungry):
    # The first log-in reads them.
    kept = http.client.HTTPConnection(*hungry.address(), timeout=20)
    kept.request("GET", "/v1/health")
    assert kept.getresponse().read() == b'{"status":"ok"}'
    before = resource.prlimit(hungry.process.pid, resource.RLIMIT_NOFILE)[0]
    limit_handles(hungry, first_free_handle(hungry))
    kept.request("GET", "/v1/actions", headers=HEADERS)
    reply = kept.getresponse()
    assert (reply.status, b"unauthorized" in reply.read()) == (401, True)
    assert "No console user is known: cannot read" in hungry.log()

    limit_handles(hungry, before)
    wait_for(lambda: hungry.request("GET", "/v1/actions")[0] == 200)
    kept.close()
    assert hungry.stop() == 0


def test_more_connections_than_handles_neither_spin_nor_shut_out_callers(hungry):
    assert hungry.call("CoreUtilsInfosProcessAvailable")[0] == 0
    limit_handles(hungry, max(handles(hungry)) + 1 + SPARE_HANDLES)
    waiting = [socket.create_connection(hungry.address(), 20) for _ in range(CONNECTIONS)]
    wait_for(lambda: "could not be accepted: Too many open files" in hungry.log())
    load = load_of(hungry)
    assert load < MOST_LOAD, f"{load:.0%} of a processor"
    # Connections that do nothing make room for those that ask.
    assert hungry.call("CoreUtilsInfosProcessAvailable")[0] == 0
    for one in waiting:
        one.close()
    wait_for(lambda: hungry.call("CoreUtilsInfosProcessAvailable")[0] == 0)
    assert hungry.stop() == 0


def test_without_a_file_handle_actions_fail_clearly_and_go_on_afterwards(hungry, tmp_path):
    place = tmp_path / "place"
    place.mkdir()
    (place / "file.txt").write_text("text")
    whole = {"Path": str(place / "file.txt"), "Length": 100}
    new = {"Path": str(place / "new.txt"), "FileContent": "dGV4dA=="}
    copy = {"SourcePath": whole["Path"], "DestinationPath": str(place / "copy.txt")}
    kept = http.client.HTTPConnection(*hungry.address(), timeout=20)
    assert call_on(kept, "CoreUtilsReadFile", **whole)[1]["Result"] == "dGV4dA=="

    before = resource.prlimit(hungry.process.pid, resource.RLIMIT_NOFILE)[0]
    limit_handles(hungry, first_free_handle(hungry))
    assert call_on(kept, "CoreUtilsReadFile", **whole)[1].get("Result") == ""
    assert call_on(kept, "CoreUtilsWriteFile", **new)[0] == 1
    assert call_on(kept, "CoreUtilsCopyFile", **copy)[0] == 1
    assert [path.name for path in place.iterdir()] == ["file.txt"]
    assert "Too many open files" in hungry.log()

    limit_handles(hungry, before)
    assert call_on(kept, "CoreUtilsWriteFile", **new)[0] == 0
    assert call_on(kept, "CoreUtilsCopyFile", **copy)[0] == 0
    kept.close()
    verified = hungry.zelctl("audit", "verify", str(hungry.home / "log/audit.jsonl"))
    assert (verified.returncode, hungry.stop()) == (0, 0)
