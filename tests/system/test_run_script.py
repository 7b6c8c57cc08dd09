"""scripts/run: the way to try the agent out."""

import json
import os
import pathlib
import re
import signal
import subprocess

import pytest

from agents import ROOT, agent_path, clean_environment

RUN = str(ROOT / "scripts/run")
TIMEOUT_S = 900


@pytest.fixture
def flags(platform):
    return ["--windows"] if platform == "windows" else []


def run(*arguments, cwd="/", tmp=None):
    environment = clean_environment(**({"TMPDIR": tmp} if tmp else {}))
    return subprocess.run([RUN, *arguments], cwd=cwd, stdin=subprocess.DEVNULL,
                          capture_output=True, timeout=TIMEOUT_S, env=environment)


def test_it_prints_the_reply_alone_and_leaves_nothing_behind(flags, platform, tmp_path):
    (tmp_path / "file").write_text("12345")
    temporary = tmp_path / "tmp"
    temporary.mkdir()
    path = agent_path(platform, tmp_path / "file")

    done = run(*flags, "--json", "call", "CoreUtilsGetFileSize", "Path=" + path, tmp=temporary)

    assert done.returncode == 0, done.stderr.decode()
    assert done.stdout == b'{"code":0,"container":{"Result":5}}\n'
    assert os.listdir(temporary) == []


def test_it_exits_with_the_status_of_zelctl(flags, platform, tmp_path):
    missing = agent_path(platform, tmp_path / "none")
    done = run(*flags, "cp", missing, missing)
    assert (done.returncode, b"code 14001" in done.stderr) == (1, True)
    assert run(*flags, "cp").returncode == 2


def test_copying_a_file_onto_itself_makes_a_numbered_one(flags, platform, tmp_path):
    (tmp_path / "hostname").write_text("x")
    path = agent_path(platform, tmp_path / "hostname")
    assert run(*flags, "cp", path, path, cwd=tmp_path).returncode == 0
    assert (tmp_path / "hostname(1)").read_text() == "x"


def test_it_does_nothing_twice_when_all_is_built(tmp_path):
    (tmp_path / "file").write_text("12345")
    arguments = ["stat", str(tmp_path / "file")]
    assert run(*arguments).returncode == 0
    again = run(*arguments)
    assert again.returncode == 0
    assert again.stderr == b"", "no set-up, no configuration, no compiler"


@pytest.mark.parametrize("how", [signal.SIGINT, signal.SIGTERM, signal.SIGKILL])
def test_a_served_agent_ends_with_the_script(flags, platform, tmp_path, how):
    home = tmp_path / "home"
    environment = clean_environment(ZEL_HOME=home, ZEL_PORT=0)
    process = subprocess.Popen([RUN, *flags], cwd="/", env=environment, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, start_new_session=True)
    line = process.stdout.readline().decode()
    ready = re.fullmatch(
        r"zelagent ready: (http://127\.0\.0\.1:\d+) \(user admin, password in (.+)\)\n", line)
    assert ready, line
    password_file = pathlib.Path(ready[2])
    assert password_file.is_relative_to(home)
    assert password_file.stat().st_mode & 0o777 == 0o600

    asked = subprocess.run(
        [str(ROOT / "build/linux/bin/zelctl"), "--json", "actions"], stdin=subprocess.DEVNULL,
        capture_output=True, timeout=60,
        env=clean_environment(ZEL_AGENT=ready[1], ZEL_USER="admin",
                              ZEL_PASSWORD_FILE=password_file))
    assert asked.returncode == 0, asked.stderr
    assert len(json.loads(asked.stdout)) >= 7

    process.send_signal(how)
    process.wait(60)
    # Its output ends when the agent has ended: nobody is left behind.
    assert process.stdout.read() == b""
    refused = subprocess.run(
        [str(ROOT / "build/linux/bin/zelctl"), "--agent", ready[1], "health"],
        stdin=subprocess.DEVNULL, capture_output=True, timeout=60, env=clean_environment())
    assert refused.returncode == 3


def test_an_agent_that_does_not_start_is_explained(tmp_path):
    home = tmp_path / "home"
    (home / "config").mkdir(parents=True)
    (home / "config/zelagent.ini").write_text("[http]\nmax_connections = none\n")
    done = subprocess.run([RUN], env=clean_environment(ZEL_HOME=home, ZEL_PORT=0), cwd="/",
                          stdin=subprocess.DEVNULL, capture_output=True, timeout=TIMEOUT_S)
    assert done.returncode == 3
    assert b"max_connections" in done.stderr and b"did not start" in done.stderr
    assert done.stdout == b""
