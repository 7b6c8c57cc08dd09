"""One client of the soak: its connections, and what it makes of replies."""

import base64
import json
import socket
import ssl
import time

# What the agent writes into containers that come back.
OF_THE_CALLER = ("DACurrentConsoleUser", "HttpProtocolRequestInfo")
REPLY_TIMEOUT_S = 120
# A connection is given up after so many requests, so that connections come and go as well.
REQUESTS_PER_CONNECTION = 500
# The agent gives up a connection that was silent for a minute.
LONGEST_SILENCE_S = 20


class Unexpected(Exception):
    """A reply that is not the one that it had to be."""


class Connection:
    """Keeps a connection to one agent open, as one of its users."""

    def __init__(self, address, user, password, context):
        self._address, self._context = tuple(address), context
        credentials = base64.b64encode(f"{user}:{password}".encode()).decode()
        self._fields = (f" HTTP/1.1\r\nHost: {address[0]}:{address[1]}\r\n"
                        f"Authorization: Basic {credentials}\r\n").encode()
        self._socket = None
        self._requests = 0
        self._last_use = 0.0

    def close(self):
        if self._socket:
            self._socket.close()
        self._socket = None

    def request(self, method, target, body=None):
        """(status, body)."""
        self.send(method, target, body)
        return self.receive()

    def send(self, method, target, body=None):
        now = time.monotonic()
        if self._requests == REQUESTS_PER_CONNECTION or now - self._last_use > LONGEST_SILENCE_S:
            self.close()
        self._last_use = now
        if self._socket is None:
            self._socket = self._connect()
            self._requests = 0
        self._requests += 1
        head = f"{method} {target}".encode() + self._fields
        if body is not None:
            head += b"Content-Type: application/json\r\nContent-Length: %d\r\n" % len(body)
        self._socket.sendall(head + b"\r\n" + (body or b""))

    def _connect(self):
        connection = socket.create_connection(self._address, REPLY_TIMEOUT_S)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if self._context is None:
            return connection
        return self._context.wrap_socket(connection, server_hostname=self._address[0])

    def receive(self):
        received = self._socket.recv(65536)
        while received and b"\r\n\r\n" not in received:
            received += self._socket.recv(65536)
        head, _, body = received.partition(b"\r\n\r\n")
        if not head.startswith(b"HTTP/1.1 "):
            raise Unexpected(f"no reply but {received[:100]!r}")
        length = int(head.lower().split(b"content-length:")[1].split(b"\r\n")[0])
        while len(body) < length:
            piece = self._socket.recv(65536)
            if not piece:
                raise Unexpected("a reply that is cut off")
            body += piece
        if b"\r\nConnection: close" in head:
            self.close()
        return int(head[9:12]), body

    def fileno(self):
        return self._socket.fileno()


def tls_context(ca):
    return ssl.create_default_context(cafile=ca) if ca else None


def without_caller(container):
    return {key: value for key, value in container.items() if key not in OF_THE_CALLER}


class Client:
    """Calls actions and insists on their answers. `calls` counts them."""

    def __init__(self, number, agents, context):
        """`agents`: {name: {"address", "users": {login: password}}}"""
        self.number = number
        self.calls = 0
        self._agents, self._context = agents, context
        self._connections = {}

    def connection(self, agent="device", user="admin", purpose=""):
        key = agent, user, purpose
        if key not in self._connections:
            described = self._agents[agent]
            self._connections[key] = Connection(described["address"], user,
                                                described["users"][user], self._context)
        return self._connections[key]

    def close(self):
        for connection in self._connections.values():
            connection.close()

    def ask(self, method, target, body=None, agent="device", user="admin"):
        connection = self.connection(agent, user)
        try:
            answer = connection.request(method, target, body)
        except Exception:
            connection.close()
            raise
        self.calls += 1
        return answer

    def call(self, action, expected=None, code=0, agent="device", user="admin", **parameters):
        """The container of a call whose code, and whose container where `expected` is given, must be
        these."""
        status, body = self.ask("POST", "/v1/actions/" + action, json.dumps(parameters).encode(),
                                agent, user)
        return self.check(action, parameters, status, body, expected, code)

    @staticmethod
    def check(action, parameters, status, body, expected, code):
        described = f"{action} {parameters}: {status} {body[:300]!r}"
        if status != 200:
            raise Unexpected(described)
        reply = json.loads(body)
        container = without_caller(reply["container"])
        if reply["code"] != code or (expected is not None and container != expected):
            raise Unexpected(f"{described}, expected code {code}, {expected}")
        return container

    def refused(self, status, word, target, body=b"{}", method="POST", user="admin"):
        """A request that must be refused with that status and code word."""
        answered, text = self.ask(method, target, body, user=user)
        if answered != status or json.loads(text)["error"]["code"] != word:
            raise Unexpected(f"{target}: {answered} {text[:300]!r}, expected {status} {word}")

    def insist(self, holds, what):
        if not holds:
            raise Unexpected(what)
