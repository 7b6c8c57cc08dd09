"""An agent that gets no more threads: clear errors, no spinning, no end, and service afterwards."""

import http.client
import os
import pathlib
import resource
import shutil
import subprocess
import tempfile

import pytest

import agents
from agents import Agent
from fleet import SECRET
from test_exhaustion import HEADERS, MOST_LOAD, load_of
from uploads import Alias, new_log, wait_for

# The limit does not hold for root, and counts all threads of an account: nobody else has this one.
ACCOUNT = 2_000_000 + os.getpid()
TRIES = 5
CALLS = 20
NO_PASSWORD_THREAD = "No password can be checked, for lack of a thread: "
NO_ACTION_THREAD = "No further action thread: "
NO_UPLOAD_THREAD = "No thread for an upload: "


class Bounded(Agent):
    """An agent under an account of its own, whose threads can be counted and limited."""

    def start(self):
        subprocess.run(["chown", "-R", f"{ACCOUNT}:{ACCOUNT}", self.home], check=True)
        return super().start()

    def threads(self):
        return len(os.listdir(f"/proc/{self.process.pid}/task"))

    def limit_threads(self, most):
        # As that account: root may not everywhere set limits of others.
        subprocess.run(["prlimit", f"--pid={self.process.pid}", f"--nproc={most}:"],
                       user=ACCOUNT, group=ACCOUNT, extra_groups=[], check=True)

    def allow_no_more_threads(self):
        self.limit_threads(self.threads())

    def allow_threads(self):
        self.limit_threads(resource.getrlimit(resource.RLIMIT_NPROC)[1])


@pytest.fixture(scope="module")
def everybodys_build():
    """The agent's programs where any account reaches them, wherever the build stands."""
    directory = pathlib.Path(tempfile.gettempdir()) / f"zel-everybody-{os.getpid()}"
    shutil.copytree(agents.BUILDS["linux"] / "bin", directory / "bin",
                    ignore=shutil.ignore_patterns("*_tests", "*_bench", "zelctl", "zelproxy"))
    yield directory
    shutil.rmtree(directory)


@pytest.fixture
def bounded(everybodys_build, fleet, short_directory, monkeypatch):
    short_directory.chmod(0o755)
    monkeypatch.setitem(agents.BUILDS, "linux", everybodys_build)
    agent = Bounded("linux", short_directory / "home",
                    "[agent]\nname = relay\n[fleet]\nsecret_file = secret\n"
                    "[proxy]\nstart = no\n", account=ACCOUNT)
    shutil.copy2(fleet.users, agent.home / "config/users")
    (agent.home / "config/secret").write_text(SECRET)
    (agent.home / "config/secret").chmod(0o600)
    agent.start()
    yield agent
    agent.kill()


def is_healthy(agent):
    return agent.request("GET", "/v1/health", user=None)[0] == 200


def check_refused(agent, ask, line):
    """Every request is refused with this line in the log, once; the agent rests and is well."""
    before = len(agent.log())
    for _ in range(TRIES):
        status, headers, body = ask()
        assert (status, b'"at_capacity"' in body) == (503, True), body
        assert headers["Retry-After"] == "1"
    assert agent.log()[before:].count(line) == 1, agent.log()
    assert line + "Resource temporarily unavailable" in agent.log()
    assert load_of(agent) < MOST_LOAD
    assert is_healthy(agent)


def test_without_a_thread_for_passwords_callers_are_refused_and_admitted_later(bounded):
    assert is_healthy(bounded)
    bounded.allow_no_more_threads()
    check_refused(bounded, lambda: bounded.request("GET", "/v1/actions"), NO_PASSWORD_THREAD)

    bounded.allow_threads()
    # With the same credentials from the same address: no check that nobody makes is waited for.
    assert bounded.request("GET", "/v1/actions")[0] == 200
    assert bounded.call("CoreUtilsGetFileSize", Path="/etc/hostname")[0] == 0
    assert bounded.stop() == 0


def test_without_a_thread_for_actions_they_are_refused_and_run_later(bounded):
    # The password is known from now on, and no action has run yet.
    assert bounded.request("GET", "/v1/actions")[0] == 200
    bounded.allow_no_more_threads()
    check_refused(bounded, lambda: bounded.request(
        "POST", "/v1/actions/CoreUtilsGetFileSize", b'{"Path": "/etc/hostname"}'), NO_ACTION_THREAD)

    bounded.allow_threads()
    assert bounded.call("CoreUtilsGetFileSize", Path="/etc/hostname")[0] == 0
    assert bounded.stop() == 0


def begin_call(agent):
    connection = http.client.HTTPConnection(*agent.address(), timeout=agents.REPLY_TIMEOUT_S)
    connection.request("POST", "/v1/actions/CoreUtilsGetFileSize", '{"Path": "/etc/hostname"}',
                       HEADERS)
    return connection


def status_of(connection):
    reply = connection.getresponse()
    reply.read()
    connection.close()
    return reply.status


def test_threads_that_there_are_do_the_work_of_those_that_cannot_be_made(bounded):
    assert bounded.call("CoreUtilsGetFileSize", Path="/etc/hostname")[0] == 0
    bounded.allow_no_more_threads()
    begun = [begin_call(bounded) for _ in range(CALLS)]
    assert [status_of(connection) for connection in begun] == [200] * CALLS
    assert bounded.stop() == 0


def test_without_a_thread_programs_and_names_fail_clearly(bounded, short_directory):
    left = short_directory / "home/data/left"
    program = {"Path": "/bin/sh", "Parameters": f"-c \"echo ran > '{left}'\""}
    ping = {"PingAddr": "nobody.invalid"}
    assert bounded.call("CoreUtilsGetFileSize", Path="/etc/hostname")[0] == 0
    bounded.allow_no_more_threads()
    answer, log = new_log(bounded, lambda: bounded.call("CoreUtilsRunProgram", **program))
    assert answer == (1, {})
    assert "Resource temporarily unavailable" in log, log
    answer, log = new_log(bounded, lambda: bounded.call("CoreUtilsPingICMP", **ping))
    assert answer == (0, {"Result": False})
    assert "Resource temporarily unavailable" in log, log
    assert not left.exists()

    bounded.allow_threads()
    assert bounded.call("CoreUtilsRunProgram", **program) == (0, {})
    wait_for(lambda: left.exists() and left.read_text() == "ran\n")
    assert bounded.stop() == 0


def test_without_a_thread_for_an_upload_it_is_refused_and_stored_later(bounded):
    alias = Alias(bounded, bounded.home / "data")
    bounded.allow_no_more_threads()
    answers, log = new_log(bounded, lambda: [alias.put("/drop/file") for _ in range(TRIES)])
    assert answers == [503] * TRIES
    assert log.count(NO_UPLOAD_THREAD + "Resource temporarily unavailable") == 1, log
    assert not (bounded.home / "data/file").exists()

    bounded.allow_threads()
    assert alias.put("/drop/file") == 201
    assert (bounded.home / "data/file").read_bytes() == b"content"
    alias.delete()
    assert bounded.stop() == 0


def test_an_agent_that_gets_no_thread_at_all_does_not_start_and_says_why(bounded):
    assert bounded.stop() == 0
    done = subprocess.run(["prlimit", "--nproc=1", *agents.program("linux", "zelagent"), "run"],
                          env=bounded.environment(), user=ACCOUNT, group=ACCOUNT, extra_groups=[],
                          capture_output=True, text=True, timeout=agents.START_TIMEOUT_S)
    assert (done.returncode, done.stdout) == (1, "")
    assert "thread: Resource temporarily unavailable" in done.stderr
    # It has left nothing that keeps the next one from starting.
    bounded.start()
    assert is_healthy(bounded)
    assert bounded.stop() == 0
