"""Uploads between agents: what the tests of several files need for them."""

import http.client
import json
import os
import socket
import time

from agents import REPLY_TIMEOUT_S
from fleet import fleet_login

MIB = 1 << 20
SUCCESS, FAILURE = 0, 1
LOST = "Failed to copy file"
# What the log tells of how a transfer is protected, by the mode of the fleet.
PROTECTION = {"ssl": "SSL is enabled", "pac": "PAC is enabled"}

PAIRS = [
    ("plain", "linux", "linux"),
    ("ssl", "linux", "linux"),
    ("pac", "linux", "linux"),
    ("ssl and pac", "linux", "linux"),
    ("ssl ext", "linux", "linux"),
    ("plain", "windows", "windows"),
    ("ssl", "windows", "windows"),
    ("pac", "windows", "windows"),
    ("ssl and pac", "windows", "linux"),
    ("ssl and pac", "linux", "windows"),
    ("ssl ext", "windows", "windows"),
]


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


def begin_upload(alias, target, length, sent):
    """A connection on which a part of an upload has been sent."""
    connection = socket.create_connection(alias.agent.address(), REPLY_TIMEOUT_S)
    header = (f"PUT {target} HTTP/1.1\r\nHost: {host_of(alias.agent)}\r\n"
              f"Authorization: {alias.login}\r\nContent-Length: {length}\r\n\r\n")
    connection.sendall(header.encode() + bytes(sent))
    return connection
