"""Starts a real zelproxy and stops it."""

import signal
import socket
import struct
import subprocess
import threading
import uuid
from xml.etree import ElementTree
from xml.sax.saxutils import escape

from agents import START_TIMEOUT_S, STOP_TIMEOUT_S, clean_environment, program


def unused_pipe(platform, directory):
    name = f"zelproxy-test-{uuid.uuid4().hex[:12]}"
    return rf"\\.\pipe\{name}" if platform == "windows" else str(directory / name)


class Proxy:
    """A zelproxy with variables in its environment."""

    def __init__(self, platform, directory, pipe=None, **environment):
        self.platform = platform
        self.pipe = pipe or unused_pipe(platform, directory)
        self.process = subprocess.Popen(
            program(platform, "zelproxy") + ["--pipe", self.pipe],
            env=clean_environment(**environment), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        timer = threading.Timer(START_TIMEOUT_S, self.process.kill)
        timer.start()
        line = self.process.stdout.readline().decode().strip()
        timer.cancel()
        if line != "zelproxy ready: " + self.pipe:
            self.kill()
            raise AssertionError((line, self.process.stderr.read()))

    def stop(self):
        self.process.send_signal(signal.SIGINT if self.platform == "windows" else signal.SIGTERM)
        return self.process.wait(STOP_TIMEOUT_S)

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()


class Talk:
    """A connection to a proxy, on which the test says what an agent would say."""

    def __init__(self, proxy, **environment):
        self.program = None
        if proxy.platform == "windows":
            self.program = subprocess.Popen(
                program("windows", "test_programs/pipe_talk") + [proxy.pipe],
                env=clean_environment(**environment), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL)
            self.to_proxy, self.from_proxy = self.program.stdin, self.program.stdout
        else:
            self.socket = socket.socket(socket.AF_UNIX)
            self.socket.connect(proxy.pipe)
            self.to_proxy = self.from_proxy = self.socket.makefile("rwb")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.to_proxy.close()
        if self.program:
            self.program.wait(STOP_TIMEOUT_S)
            self.from_proxy.close()
        else:
            self.socket.close()

    def ask(self, request, **fields):
        """The code of the reply."""
        lines = "".join(f'<field name="{name}">{escape(text)}</field>'
                        for name, text in fields.items())
        document = f'<message kind="request" name="{request}" id="1">{lines}</message>'.encode()
        self.to_proxy.write(struct.pack(">I", len(document)) + document)
        self.to_proxy.flush()
        size, = struct.unpack(">I", self.from_proxy.read(4))
        return int(ElementTree.fromstring(self.from_proxy.read(size)).get("code"))


def make_agent_with(make_agent, pipe):
    """A running agent whose proxy is at that place."""
    agent = make_agent(f"[proxy]\npipe = {pipe}\n")
    agent.add_users()
    return agent.start()
