"""The desktop of a logged-on user: a screen, a session, a proxy in it and an agent."""

import concurrent.futures
import contextlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile

import pytest

from agents import ROOT, START_TIMEOUT_S, Agent, agent_path, clean_environment, program
from mock_logind import MockLogind, end_programs, wait_listening
from proxy import Proxy, Talk
from screen_reader import read_screen
from screens import TwoMonitors, wait_until

SESSION = "c7"
PREFIX_TIMEOUT_S = 120
MACHINE_ENVIRONMENT = r"HKLM\System\CurrentControlSet\Control\Session Manager\Environment"
# For what cannot be brought about under Wine; each test says why.
ON_LINUX = pytest.mark.parametrize("platform", ["linux"], indirect=True)
# For what only programs of Windows can bring about.
ON_WINDOWS = pytest.mark.parametrize("platform", ["windows"], indirect=True)
DIALOG_TITLE = "Message from your administrator"
CONFIG = "[proxy]\npipe = {pipe}\nstart = no\n"


def windows_libraries():
    return os.environ.get("ZEL_WINDOWS_DEPS") or subprocess.run(
        [ROOT / "scripts/windows-deps"], check=True, capture_output=True, text=True).stdout.strip()


class Desk:
    """What is made once for all tests of a platform. Its user is the one who runs the tests."""

    def __init__(self, platform, directory, scale=1):
        """`directory` has a short path and is empty. With a `scale` of 2 there are twice as many dots
        per inch."""
        self.platform = platform
        self.directory = directory
        self.scale = scale
        self.agents = []
        self.proxy = None
        self.pipe = None
        self.ending = contextlib.ExitStack()
        try:
            self.make()
        except BaseException:
            self.end()
            raise

    def make(self):
        self.screen = TwoMonitors(self.directory, self.scale)
        self.ending.callback(self.screen.stop)
        self.environment = {"DISPLAY": self.screen.display, "LC_ALL": "en_US.UTF-8",
                            "XDG_SESSION_TYPE": "x11"}
        if self.platform == "windows":
            # Wine ties all windows of a prefix to the screen that the first one was on.
            self.environment["ZEL_WINEPREFIX"] = str(self.directory / "prefix")
            self.ending.callback(self.end_prefix)
            self.make_prefix()
        else:
            (self.directory / "bus").mkdir()
            self.logind = MockLogind(self.directory / "bus")
            self.ending.callback(self.logind.stop)
            self.environment |= self.logind.environment | self.start_session_bus()
            self.environment["GDK_SCALE"] = self.scale
            self.log_on()
        self.ending.callback(self.end_proxy)
        self.start_proxy()
        self.ending.callback(lambda: [agent.kill() for agent in self.agents])
        self.agent = self.start_agent()

    def end(self):
        self.ending.close()

    def end_prefix(self):
        self.wine_run("--stop")
        # Its files appear until its last program has gone.
        wait_until(lambda: not shutil.rmtree(self.directory / "prefix", ignore_errors=True)
                   and not (self.directory / "prefix").exists(), START_TIMEOUT_S,
                   "Wine to leave its prefix")

    def end_session_bus(self):
        self.session_bus.terminate()
        self.session_bus.wait(START_TIMEOUT_S)
        end_programs(self.directory / "run")

    def wine_run(self, *arguments, **environment):
        subprocess.run([ROOT / "scripts/wine-run", *arguments], check=True,
                       stdin=subprocess.DEVNULL, timeout=PREFIX_TIMEOUT_S,
                       env=clean_environment(**(self.environment | environment)))

    def make_prefix(self):
        """Without a screen: Wine would show there what it does. A program that the agent starts in
        the session has the machine's environment, not that of scripts/wine-run: there, too, the
        system finds the build's libraries."""
        path = r"C:\windows\system32;C:\windows;" + agent_path("windows", windows_libraries() + "/bin")
        self.wine_run("reg.exe", "add", MACHINE_ENVIRONMENT, "/v", "PATH", "/t", "REG_EXPAND_SZ",
                      "/d", path, "/f", DISPLAY="")
        self.wine_run("reg.exe", "add", r"HKCU\Control Panel\Desktop", "/v", "LogPixels",
                      "/t", "REG_DWORD", "/d", str(96 * self.scale), "/f", DISPLAY="")
        self.wine_run("--stop")

    def start_session_bus(self):
        """What leads programs to it. Screen readers and what they read meet there."""
        run_time_directory = self.directory / "run"
        run_time_directory.mkdir(mode=0o700)
        socket = run_time_directory / "bus"
        environment = {"DBUS_SESSION_BUS_ADDRESS": f"unix:path={socket}",
                       "XDG_RUNTIME_DIR": str(run_time_directory)}
        self.session_bus = subprocess.Popen(
            ["dbus-daemon", "--session", "--nofork", "--nopidfile", f"--address=unix:path={socket}"],
            env=clean_environment(**(self.environment | environment)), stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.ending.callback(self.end_session_bus)
        wait_listening(socket)
        return environment

    def read_screen(self):
        """On Linux: (role, name) of everything that a screen reader finds."""
        return read_screen(self.environment)

    def texts(self):
        """Everything that the proxy's windows say."""
        found = self.read_screen() if self.platform == "linux" else self.window_texts()
        return [text for _, text in found]

    # On Windows: what other programs do on this desktop.

    def start_windows_program(self, name):
        """One of the tests' own, with its output as a pipe; the caller ends it."""
        return subprocess.Popen(program("windows", "test_programs/" + name),
                                env=clean_environment(**self.environment),
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.DEVNULL)

    def window_texts(self):
        """(class, text) of each window of the proxy's and of its controls; a backslash and an n
        stand for the end of a line."""
        with self.start_windows_program("read_windows") as reader:
            lines = reader.stdout.read().decode().splitlines()
        assert reader.returncode == 0
        return [tuple(line.split("\t", 1)) for line in lines]

    # The session, on Linux. Wine has one and no more.

    def log_on(self, **properties):
        self.logind.clear()
        self.logind.add_session(SESSION, display=self.screen.display, **properties)

    def log_off(self):
        self.logind.clear()

    # The proxy.

    def start_proxy(self, **environment):
        self.proxy = Proxy(self.platform, self.directory, pipe=self.pipe,
                           **(self.environment | environment))
        self.pipe = self.proxy.pipe
        return self.proxy

    def end_proxy(self):
        if self.proxy:
            self.proxy.kill()
        self.proxy = None

    def talk(self):
        return Talk(self.proxy, **self.environment)

    def restart_proxy(self, **environment):
        self.end_proxy()
        return self.start_proxy(**environment)

    # The agent.

    def start_agent(self, config="", pipe=None):
        """Another agent of this desk, with more settings; it goes with the desk."""
        home = self.directory / f"home{len(self.agents)}"
        agent = Agent(self.platform, home, CONFIG.format(pipe=pipe or self.pipe) + config,
                      variables=self.environment)
        self.agents.append(agent)
        agent.add_users()
        return agent.start()

    def call(self, action, **parameters):
        """(code, container)"""
        return self.agent.call(action, **parameters)

    def begin(self, action, agent=None, **parameters):
        """A call that waits for the user."""
        return Waiting(agent or self.agent, action, **parameters)

    # The hands.

    def click_button(self, window, from_the_end=1):
        """Clicks a button of a dialog, the last one or one before; labels are short."""
        window.click(self.scale * (-66 - 102 * (from_the_end - 1)), self.scale * -30)

    # For each test.

    def tidy(self):
        """Makes the desk as the next test expects it, whatever the last one left."""
        if self.platform == "linux":
            self.log_on()
        if not self.proxy or self.proxy.process.poll() is not None:
            self.end_proxy()
            self.start_proxy()
        if self.screen.windows() or self.screen.picture() != self.screen.empty:
            self.restart_proxy()
            self.agent.kill()
            self.agent.start()
            for window in self.screen.windows():
                window.close()
            self.screen.wait_free()
        # Whoever sits there touched the mouse just now.
        self.screen.move(self.screen.width - 2, self.screen.height - 1)
        self.screen.move(self.screen.width - 1, self.screen.height - 1)


@contextlib.contextmanager
def new_desk(platform, scale=1):
    directory = pathlib.Path(tempfile.mkdtemp(prefix="zeldesk"))
    try:
        made = Desk(platform, directory, scale)
        try:
            yield made
        finally:
            made.end()
    finally:
        shutil.rmtree(directory)


class Waiting:
    """A call that waits for the user: of an action, in a thread of its own."""

    pool = concurrent.futures.ThreadPoolExecutor(16)

    def __init__(self, agent, action, **parameters):
        self.future = self.pool.submit(agent.call, action, **parameters)

    def is_over(self):
        return self.future.done()

    def result(self, limit_s=10):
        """(code, container)"""
        return self.future.result(limit_s)


def audited(agent):
    """A list of (user, address, text) of the agent's audit lines by the module."""
    file = agent.home / "log/audit.jsonl"
    lines = [json.loads(line) for line in file.read_text().splitlines()]
    return [(line["user"], line["address"], line["text"]) for line in lines
            if not re.match(r"action \w+ code ", line["text"])]


class AuditWatch:
    """The audit lines that a module writes from now on."""

    def __init__(self, agent):
        self.agent = agent
        self.before = len(audited(agent))

    def lines(self):
        return audited(self.agent)[self.before:]
