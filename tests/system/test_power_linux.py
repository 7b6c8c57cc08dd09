"""CoreUtilsExitOperatingSystem and `zelctl power`, asked of a stand-in for systemd-logind. No test
here, or anywhere, may know the machine's own bus."""

import os
import pty
import subprocess

import pytest

from agents import NO_SYSTEM_BUS, REPLY_TIMEOUT_S, clean_environment, program
from mock_logind import MOCK, NAME, ROOT, MockLogind

FAILURE = 1
MANAGER = NAME + ".Manager"
METHODS = ("PowerOff", "Reboot", "TerminateSession")

pytestmark = pytest.mark.parametrize("platform", ["linux"], indirect=True)


@pytest.fixture
def logind(short_directory):
    mock = MockLogind(short_directory)
    yield mock
    mock.stop()


@pytest.fixture
def agent(make_agent, logind):
    made = make_agent(variables=logind.environment)
    made.add_users()
    return made.start()


def asked(logind):
    """What logind was asked for, with the arguments."""
    calls = {}
    for method in METHODS:
        made = logind.bus.call_blocking(NAME, ROOT, MOCK, "GetMethodCalls", "s", (method,))
        if made:
            calls[method] = [list(arguments) for _, arguments in made]
    return calls


def refuse(logind, method, error):
    code = f'raise dbus.exceptions.DBusException("not for you", name="{error}")'
    signature = "s" if method == "TerminateSession" else "b"
    logind.bus.call_blocking(NAME, ROOT, MOCK, "AddMethod", "sssss",
                             (MANAGER, method, signature, "", code))


def end_system(agent, how=None):
    parameters = {} if how is None else {"HowToExit": how}
    code, container = agent.call("CoreUtilsExitOperatingSystem", **parameters)
    # The action writes nothing: what comes back is what was sent, and what the agent added to it.
    assert container | parameters == container
    assert set(container) <= {"HowToExit", "DACurrentConsoleUser", "HttpProtocolRequestInfo"}
    return code


def test_the_machine_is_powered_off_and_restarted(agent, logind):
    assert end_system(agent, "POWEROFF") == 0
    assert asked(logind) == {"PowerOff": [[False]]}
    assert end_system(agent, "REBOOT") == 0
    assert asked(logind) == {"PowerOff": [[False]], "Reboot": [[False]]}
    # The agent ends with the system, not by itself.
    assert agent.call("CoreUtilsGetFileSystems")[0] == 0
    assert agent.stop() == 0


def test_the_session_at_the_screen_is_ended(agent, logind):
    logind.add_session("c1", display=":0", active=False)
    logind.add_session("c2", display=":1")
    assert end_system(agent) == 0
    assert asked(logind) == {"TerminateSession": [["c2"]]}


@pytest.mark.parametrize("how", ["", "poweroff", "Reboot", "POWEROFF "])
def test_any_other_word_logs_off(agent, logind, how):
    logind.add_session("c7", display=":0")
    assert end_system(agent, how) == 0
    assert asked(logind) == {"TerminateSession": [["c7"]]}


def test_nobody_is_logged_off_where_nobody_is_logged_on(agent, logind):
    assert end_system(agent) == FAILURE
    assert asked(logind) == {}
    assert "nobody is logged on" in agent.log()


def test_a_refusal_answers_1_and_stands_in_the_log(agent, logind):
    logind.add_session("c1", display=":0")
    for method in METHODS:
        refuse(logind, method, "org.freedesktop.DBus.Error.AccessDenied")
    for how in ("POWEROFF", "REBOOT", ""):
        assert end_system(agent, how) == FAILURE
    for method in METHODS:
        assert f"{method}: not for you" in agent.log()


def test_without_a_bus_or_logind_nothing_ends(make_agent, logind):
    for variables in (NO_SYSTEM_BUS, logind.environment):
        agent = make_agent(variables=variables)
        agent.add_users()
        agent.start()
        logind.processes[1].terminate()
        logind.processes[1].wait()
        for how in ("POWEROFF", "REBOOT", ""):
            assert end_system(agent, how) == FAILURE
        assert "systemd-logind does not end" in agent.log()
        assert agent.stop() == 0


def test_zelctl_asks_nothing_with_yes(agent, logind):
    logind.add_session("c1", display=":0")
    for verb in ("off", "reboot", "logoff"):
        done = agent.zelctl("power", verb, "--yes")
        assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"")
    assert asked(logind) == {"PowerOff": [[False]], "Reboot": [[False]],
                             "TerminateSession": [["c1"]]}


def test_zelctl_sends_nothing_without_terminal_and_yes(agent, logind):
    done = agent.zelctl("power", "off")
    assert (done.returncode, b"--yes" in done.stderr) == (2, True)
    assert asked(logind) == {}


def at_terminal(agent, answer):
    """Runs `zelctl power off` with a terminal as standard input that says `answer`."""
    file = agent.home / "password"
    file.write_text("correct horse battery\n")
    here, there = pty.openpty()
    os.write(here, answer)
    try:
        return subprocess.run(
            program("linux", "zelctl") + ["power", "off"], stdin=there, capture_output=True,
            timeout=REPLY_TIMEOUT_S,
            env=clean_environment(ZEL_AGENT=agent.url, ZEL_USER="admin", ZEL_PASSWORD_FILE=file))
    finally:
        os.close(here)
        os.close(there)


def test_zelctl_asks_on_a_terminal(agent, logind):
    host = agent.url.removeprefix("http://")
    for answer in (b"\n", b"n\n", b"\x04"):
        done = at_terminal(agent, answer)
        assert done.returncode == 1
        assert done.stderr.decode() == f"Power off {host}? [y/N] zelctl: nothing was done\n"
    assert asked(logind) == {}
    done = at_terminal(agent, b"y\n")
    assert (done.returncode, done.stderr.decode()) == (0, f"Power off {host}? [y/N] ")
    assert asked(logind) == {"PowerOff": [[False]]}
