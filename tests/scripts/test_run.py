"""scripts/run: an agent for one command, and one that stays."""

import os
import pathlib
import re
import signal
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCRIPT = ROOT / "scripts" / "run"
# The builds are there when these tests run; without them, the first one makes what it needs.
TIMEOUT_S = 1200


def run(*arguments):
    done = subprocess.run([SCRIPT, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=TIMEOUT_S)
    return done.returncode, done.stdout, done.stderr


def test_a_task_can_be_opened_and_listed_with_nothing_set_up():
    status, output, errors = run("tasks", "add", "Printer on fire", "--priority", "high")
    assert (status, output) == (0, "The task is open.\n"), errors
    # Each run has an agent of its own.
    status, output, errors = run("tasks", "list")
    assert (status, output) == (0, ""), errors
    assert "there are no tasks" in errors


@pytest.fixture
def serving(tmp_path):
    """An agent that stays: its home and its URL."""
    environment = {**os.environ, "ZEL_HOME": str(tmp_path), "ZEL_PORT": "0"}
    process = subprocess.Popen([SCRIPT], env=environment, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    try:
        line = process.stdout.readline()
        ready = re.match(r"zelagent ready: (\S+) \(user admin, password in (\S+)\)", line)
        assert ready, line
        yield tmp_path, ready[1]
    finally:
        process.send_signal(signal.SIGTERM)
        process.wait(TIMEOUT_S)


def test_the_agent_that_stays_keeps_tasks(serving):
    home, url = serving

    def zelctl(*arguments):
        environment = {**os.environ, "ZEL_AGENT": url, "ZEL_USER": "admin",
                       "ZEL_PASSWORD_FILE": str(home / "admin-password")}
        return subprocess.run([ROOT / "build/linux/bin/zelctl", *arguments], env=environment,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              check=True, timeout=60).stdout

    zelctl("tasks", "add", "Printer on fire", "--priority", "high")
    [head, row] = zelctl("tasks", "list").splitlines()
    assert head.split()[0] == "ID"
    assert row.split()[1:3] == ["open", "high"] and row.endswith("admin      Printer on fire")
