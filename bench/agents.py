"""The agents that are measured, and what speaks to them."""

import base64
import json
import re
import signal
import socket
import subprocess
import urllib.request
from pathlib import Path

PASSWORD = "bench-password"


def authorization():
    return "Basic " + base64.b64encode(f"admin:{PASSWORD}".encode()).decode()


class Agent:
    """A running agent with a console user, in a home of its own."""

    def __init__(self, build, home):
        self.build, self.home = Path(build), Path(home)
        subprocess.run([self.build / "bin/zelagent", "user", "add", "admin", "--role",
                        "administrator", "--home", self.home],
                       input=PASSWORD + "\n", text=True, check=True, stdout=subprocess.DEVNULL)
        self.process, self.url = None, None

    def __enter__(self):
        self.process = subprocess.Popen(
            [self.build / "bin/zelagent", "run", "--home", self.home, "--port", "0"],
            stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        ready = re.search(r"ready: (\S+)", line)
        assert ready, f"the agent did not start: {line}"
        self.url = ready.group(1).rstrip("/")
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(30)
        self.process.stdout.close()

    def call(self, action, parameters):
        request = urllib.request.Request(
            f"{self.url}/v1/actions/{action}", json.dumps(parameters).encode(),
            {"Content-Type": "application/json", "Authorization": authorization()})
        with urllib.request.urlopen(request, timeout=600) as reply:
            return json.load(reply)

    def connect(self):
        return Connection(self.url)

    def resident_bytes(self):
        return self._memory("VmRSS")

    def peak_bytes(self):
        """The most memory that was resident since the start, or since `forget_peak`."""
        return self._memory("VmHWM")

    def forget_peak(self):
        Path(f"/proc/{self.process.pid}/clear_refs").write_text("5")

    def _memory(self, name):
        status = Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(name + r":\s+(\d+) kB", status).group(1)) * 1024


class Connection:
    """Calls over one connection, which stays open as a console's does, with as little of this
    program's own time as can be."""

    def __init__(self, url):
        self._host, port = re.search(r"//([^:]+):(\d+)", url).groups()
        self._socket = socket.create_connection((self._host, int(port)), 600)
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        # One buffer for all replies: fetching memory for each would be this program's cost.
        self._received = bytearray(1 << 16)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._socket.close()

    def request(self, action, parameters):
        body = json.dumps(parameters).encode()
        return (f"POST /v1/actions/{action} HTTP/1.1\r\nHost: {self._host}\r\n"
                f"Content-Type: application/json\r\nAuthorization: {authorization()}\r\n"
                f"Content-Length: {len(body)}\r\n\r\n").encode() + body

    def exchange(self, request):
        """The content of the reply as it comes, valid until the next one."""
        self._socket.sendall(request)
        end, begin = 0, -1
        while begin < 0:
            end += self._receive(end)
            begin = self._received.find(b"\r\n\r\n", 0, end)
        begin += 4
        size = int(re.search(rb"Content-Length: (\d+)", self._received[:begin]).group(1))
        if len(self._received) < begin + size:
            self._received += bytes(begin + size - len(self._received))
        while end < begin + size:
            end += self._receive(end)
        content = memoryview(self._received)[begin:end]
        assert content[:10] == b'{"code":0,', bytes(content[:200])
        return content

    def _receive(self, at):
        with memoryview(self._received) as view:
            count = self._socket.recv_into(view[at:])
        assert count, "the agent closed the connection"
        return count

    def caller(self, action, parameters):
        """The call, ready to be repeated."""
        request = self.request(action, parameters)
        return lambda: self.exchange(request)

    def call(self, action, **parameters):
        return json.loads(bytes(self.exchange(self.request(action, parameters))))


def fleet_home(directory, name, is_tls=False, is_relay=False, parent_port=None):
    """The home of an agent of a fleet, with the relay at `parent_port` when it is none itself."""
    home = directory / name
    (home / "config").mkdir(parents=True)
    secret = home / "config/secret"
    secret.write_text("the secret of this bench")
    secret.chmod(0o600)
    lines = ["[agent]", f"name = {name}", "[fleet]", "secret_file = secret"]
    if is_tls:
        lines += [f"ca = {directory}/ca.pem", "[security]", "ssl = send"]
    if is_tls and is_relay:
        lines += ["[http]", "tls = yes", f"certificate = {directory}/own.pem",
                  f"private_key = {directory}/own.key"]
    if parent_port:
        lines += ["[relay]", f"parent = 127.0.0.1:{parent_port}"]
    (home / "config/zelagent.ini").write_text("\n".join(lines) + "\n")
    return home
