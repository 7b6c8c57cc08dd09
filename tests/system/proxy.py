"""Starts a real zelproxy and stops it."""

import signal
import subprocess
import threading
import uuid

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


def make_agent_with(make_agent, pipe):
    """A running agent whose proxy is at that place."""
    agent = make_agent(f"[proxy]\npipe = {pipe}\n")
    agent.add_users()
    return agent.start()
