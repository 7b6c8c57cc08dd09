"""The agent starts the proxies of the sessions, and asks that of the active one."""

import contextlib
import os
import pathlib
import pwd
import re
import shutil
import signal
import subprocess
import sys

import pytest

from agents import Agent
from desks import DIALOG_TITLE, ON_LINUX, ON_WINDOWS
from mock_logind import MockLogind, end_programs
from screens import Screen, wait_until

# Accounts that every Debian has.
FIRST, SECOND = "nobody", "daemon"
START_S = 15


def processes(uid):
    """Numbers of the proxies of an account."""
    found = []
    for directory in pathlib.Path("/proc").iterdir():
        with contextlib.suppress(OSError, ValueError):
            if (directory / "comm").read_text() == "zelproxy\n" and directory.stat().st_uid == uid:
                found.append(int(directory.name))
    return found


def variables(process):
    lines = pathlib.Path(f"/proc/{process}/environ").read_bytes().decode().split("\0")
    return dict(line.split("=", 1) for line in lines if line)


class Session:
    """A session at a display, of an account that has a run-time directory."""

    def __init__(self, logind, identifier, user, screen, active):
        self.logind, self.identifier, self.screen = logind, identifier, screen
        self.account = pwd.getpwnam(user)
        self.uid = self.account.pw_uid
        self.directory = pathlib.Path(f"/run/user/{self.uid}")
        self.directory.mkdir(mode=0o700, parents=True)
        os.chown(self.directory, self.uid, self.account.pw_gid)
        logind.add_session(identifier, uid=self.uid, user=user, display=screen.display,
                           active=active)

    def activate(self, active):
        self.logind.change(self.identifier, Active=active, State="active" if active else "online")

    def wait_proxy(self, other_than=None):
        """Its process."""
        def listening():
            found = [one for one in processes(self.uid) if one != other_than]
            # What a proxy starts has its name for a moment.
            return (self.directory / "zelproxy.sock").exists() and len(found) == 1 and found
        return wait_until(listening, START_S, "one proxy of " + self.account.pw_name)[0]

    def end(self):
        end_programs(self.directory)
        shutil.rmtree(self.directory)


@pytest.fixture
def logind(short_directory):
    made = MockLogind(short_directory)
    yield made
    made.stop()


@pytest.fixture(scope="module")
def screens():
    made = [Screen(), Screen()]
    yield made
    for one in made:
        one.stop()


@pytest.fixture
def make_session(logind, screens):
    made = []

    def make(user, active=True):
        made.append(Session(logind, f"s{len(made)}", user, screens[len(made)], active))
        return made[-1]

    yield make
    for one in made:
        one.end()


@pytest.fixture
def start_agent(tmp_path, logind):
    """Starts an agent that looks after proxies."""
    made = []

    def start():
        made.append(Agent("linux", tmp_path / "home", "[proxy]\nstart = yes\n",
                          variables=logind.environment))
        made[-1].add_users()
        return made[-1].start()

    yield start
    for one in made:
        one.stop()


# Of Linux: the accounts, sessions and displays of a machine are the test's to make there.


def test_a_session_gets_a_proxy_of_its_user(make_session, start_agent):
    session = make_session(FIRST)
    agent = start_agent()
    process = session.wait_proxy()
    mine = variables(process)
    assert mine["DISPLAY"] == session.screen.display
    assert mine["USER"] == FIRST and mine["HOME"] == session.account.pw_dir
    assert mine["XDG_RUNTIME_DIR"] == str(session.directory)
    assert not any(name.startswith(("ZEL_", "DBUS_SYSTEM")) for name in mine)
    assert f"Uid:\t{session.uid}\t{session.uid}\t" in pathlib.Path(
        f"/proc/{process}/status").read_text()

    assert agent.call("CoreUtilsShowDialog", Message="Hello") == (0, {})
    session.screen.wait_window(DIALOG_TITLE)
    assert agent.stop() == 0
    wait_until(lambda: not processes(session.uid), what="the proxy to end with the agent")
    session.screen.wait_free()


def test_a_proxy_that_was_killed_is_started_again(make_session, start_agent):
    session = make_session(FIRST)
    agent = start_agent()
    process = session.wait_proxy()
    os.kill(process, signal.SIGKILL)
    again = session.wait_proxy(other_than=process)
    assert again != process
    assert agent.call("CoreUtilsIsUserLogged") == (0, {"UserLogged": True, "ScreenSaving": False})


def test_programs_for_the_user_run_as_the_user_and_not_as_the_agent(make_session, start_agent):
    session = make_session(FIRST)
    agent = start_agent()
    assert pathlib.Path(f"/proc/{agent.process.pid}").stat().st_uid == 0
    file = session.directory / "made"
    command = f'/bin/sh -c "cat /proc/self/status >{file}.part; mv {file}.part {file}"'
    assert agent.call("CoreUtilsShellExecuteAsLoggedUser", Command=command) == (0, {})
    wait_until(file.exists, what="the file")
    assert file.stat().st_uid == session.uid
    status = dict(re.findall(r"(?m)^(\w+):\t(.*?) *$", file.read_text()))
    assert status["Uid"].split() == 4 * [str(session.uid)]
    assert status["Gid"].split() == 4 * [str(session.account.pw_gid)]
    assert "0" not in status["Groups"].split()
    assert int(status["CapEff"], 16) == 0


def test_what_needs_the_user_waits_for_the_proxy_to_start(make_session, start_agent, logind):
    agent = start_agent()
    assert agent.call("CoreUtilsIsUserLogged") == (0, {"UserLogged": False})
    session = make_session(FIRST)
    assert agent.call("CoreUtilsShowDialog", Message="Hello") == (0, {})
    session.screen.wait_window(DIALOG_TITLE)
    assert agent.call("CoreUtilsCloseDialog")[0] == 0
    session.screen.wait_free()


def test_the_active_one_of_two_sessions_is_asked(make_session, start_agent):
    first, second = make_session(FIRST), make_session(SECOND, active=False)
    agent = start_agent()
    first.wait_proxy()
    second.wait_proxy()
    assert agent.call("CoreUtilsShowDialog", Message="For the first one") == (0, {})
    first.screen.wait_window(DIALOG_TITLE)
    assert second.screen.windows() == []

    first.activate(False)
    second.activate(True)
    assert agent.call("CoreUtilsShowDialog", Message="For the second one") == (0, {})
    second.screen.wait_window(DIALOG_TITLE)
    first.screen.wait_free()
    assert agent.call("CoreUtilsCloseDialog")[0] == 0
    second.screen.wait_free()


def test_the_proxy_speaks_the_sessions_language(make_session, start_agent):
    session = make_session(FIRST)
    # Any program of the session tells what its environment is like.
    program = subprocess.Popen(
        ["sleep", "600"], user=session.uid, group=session.account.pw_gid, extra_groups=[],
        env={"DISPLAY": session.screen.display, "XDG_SESSION_ID": session.identifier,
             "LANG": "fr_FR.UTF-8", "XDG_SESSION_TYPE": "x11", "LD_PRELOAD": "/nonexistent"})
    try:
        agent = start_agent()
        mine = variables(session.wait_proxy())
        assert mine["LANG"] == "fr_FR.UTF-8" and "LD_PRELOAD" not in mine
        assert agent.call("CoreUtilsShowDialog", Message="Bonjour") == (0, {})
        session.screen.wait_window("Message de votre administrateur")
    finally:
        program.kill()
        program.wait()


IMPOSTOR = """
import os, socket, sys
path, uid = sys.argv[1], int(sys.argv[2])
listener = socket.socket(socket.AF_UNIX)
listener.bind(path)
os.chmod(path, 0o666)
os.setuid(uid)
listener.listen()
print("ready", flush=True)
while True:
    connection, _ = listener.accept()
    print("received", len(connection.recv(65536)), flush=True)
    connection.close()
"""


@ON_LINUX
def test_a_listener_that_the_socket_does_not_belong_to_hears_nothing(desk, short_directory):
    # On Windows the system lets nobody change the account of a program that runs.
    path = short_directory / "impostor"
    impostor = subprocess.Popen(
        [sys.executable, "-c", IMPOSTOR, path, str(pwd.getpwnam(FIRST).pw_uid)],
        stdout=subprocess.PIPE, text=True)
    try:
        assert impostor.stdout.readline() == "ready\n"
        agent = desk.start_agent(pipe=path)
        assert agent.call("CoreUtilsCheckClientAccept") == (0, {"Acknowledge": 0})
        assert agent.call("CoreUtilsLockDesktop", LockMessage="secret")[0] == 1
        assert impostor.stdout.readline() == "received 0\n"
    finally:
        impostor.kill()
        impostor.wait()


def check_that_its_end_frees(agent, screen):
    """Much sooner than 30 seconds after it, as when somebody else had started the proxy."""
    def corner():
        return screen.picture(0, 0, 1, 1)

    free = corner()
    assert agent.call("CoreUtilsLockDesktop", LockMessage="Until the agent stops")[0] == 0
    wait_until(lambda: corner() != free, what="a locked screen")
    assert agent.stop() == 0
    wait_until(lambda: corner() == free, 5, "a free screen")


def test_an_agent_that_stops_frees_the_screen_at_once(make_session, start_agent):
    session = make_session(FIRST)
    agent = start_agent()
    session.wait_proxy()
    check_that_its_end_frees(agent, session.screen)


@pytest.fixture
def agent_of_windows(desk, make_agent):
    """Looks after the proxy of the desk's session."""
    agent = make_agent("[proxy]\nstart = yes\n", variables=desk.environment)
    agent.add_users()
    return agent.start()


@ON_WINDOWS
def test_an_agent_of_windows_that_stops_frees_the_screen_at_once(desk, agent_of_windows):
    check_that_its_end_frees(agent_of_windows, desk.screen)


@ON_WINDOWS
def test_a_session_of_windows_gets_a_proxy(desk, agent_of_windows):
    agent = agent_of_windows
    assert agent.call("CoreUtilsShowDialog", Message="Hello") == (0, {})
    desk.screen.wait_window(DIALOG_TITLE)
    assert agent.call("CoreUtilsIsUserLogged") == (0, {"UserLogged": True, "ScreenSaving": False})
    assert agent.stop() == 0
    desk.screen.wait_free()
