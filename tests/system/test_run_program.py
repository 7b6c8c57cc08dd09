"""CoreUtilsRunProgram: programs in the agent's context, and in the user's by way of zelproxy."""

import os
import pathlib
import resource
import subprocess
import time

import pytest

from agents import program
from proxy import make_agent_with

FAILURE = 1
ACCESS_REFUSED = 12
WAIT_S = 30
SHELL = {"linux": "/bin/sh", "windows": r"C:\windows\system32\cmd.exe"}


def script(agent, linux, windows):
    """Parameters of the shell that run one of two scripts."""
    return f'-c "{linux}"' if agent.platform == "linux" else f"/c {windows}"


def eventually(what, message):
    """The first true value of `what`, which a program that was started brings about."""
    deadline = time.monotonic() + WAIT_S
    while time.monotonic() < deadline:
        if value := what():
            return value
        time.sleep(0.02)
    raise AssertionError(message)


def content(file):
    """The text of a file that a program leaves, when it holds a whole line."""
    return eventually(lambda: file.exists() and file.read_text().endswith("\n") and
                      file.read_text(), f"{file} did not appear").strip()


def test_a_program_runs_and_leaves_a_file(agent, short_directory):
    file = short_directory / "left behind"
    code, container = agent.call(
        "CoreUtilsRunProgram", Path=SHELL[agent.platform],
        Parameters=script(agent, f"echo ran > '{file}'", f'echo ran> "{agent.path(file)}"'))
    assert (code, container) == (0, {})
    assert content(file) == "ran"


def test_a_program_finds_the_directory_bin_of_the_agents_home(agent, short_directory):
    file = short_directory / "variable"
    code, _ = agent.call(
        "CoreUtilsRunProgram", Path=SHELL[agent.platform],
        Parameters=script(agent, f"echo $QOVA_AGENT > '{file}'", f'echo %QOVA_AGENT%> "{agent.path(file)}"'))
    assert code == 0
    assert content(file) == agent.path(agent.home / "bin")


@pytest.mark.parametrize("platform", ["linux"], indirect=True)
def test_a_program_has_the_umask_and_the_limit_that_the_agent_was_started_with(make_agent, short_directory):
    agent = make_agent()
    agent.add_users()
    few = 300
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)
    mask = os.umask(0o027)
    resource.setrlimit(resource.RLIMIT_NOFILE, (few, limit[1]))
    try:
        agent.start()
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, limit)
        os.umask(mask)
    file = short_directory / "state"
    code, _ = agent.call("CoreUtilsRunProgram", Path="/bin/sh",
                         Parameters=f'-c "umask > {file}.new; ulimit -Sn >> {file}.new; mv {file}.new {file}"')
    assert code == 0, agent.describe()
    assert content(file).split() == ["0027", str(few)]
    assert resource.prlimit(agent.process.pid, resource.RLIMIT_NOFILE)[0] == limit[1]
    assert (agent.home / "data").stat().st_mode & 0o077 == 0


def test_a_missing_program_answers_1(agent, short_directory):
    code, container = agent.call("CoreUtilsRunProgram", Path=agent.path(short_directory / "missing.exe"))
    assert (code, container) == (FAILURE, {})
    assert "missing.exe" in agent.log()


def test_who_may_not_write_the_program_may_not_run_it(agent, short_directory):
    file = short_directory / "file"
    code, _ = agent.call(
        "CoreUtilsRunProgram", user="visitor", Path=SHELL[agent.platform],
        Parameters=script(agent, f"echo ran > {file}", f"echo ran> {agent.path(file)}"))
    assert code == ACCESS_REFUSED
    assert not file.exists()


def test_the_proxy_runs_it_in_its_own_environment(make_agent, make_proxy, short_directory):
    proxy = make_proxy(ZEL_TEST_VARIABLE="from-the-session")
    agent = make_agent_with(make_agent, proxy.pipe)
    file = short_directory / "file"

    # cmd leaves the name of a variable that is not set as it stands.
    unset = {"linux": "=", "windows": "=%ZEL_TEST_VARIABLE%"}[agent.platform]
    for in_session, expected in ((True, "=from-the-session"), (False, unset)):
        file.unlink(missing_ok=True)
        code, container = agent.call(
            "CoreUtilsRunProgram", Path=SHELL[agent.platform], ProgramContext=in_session,
            Parameters=script(agent, f"echo =$ZEL_TEST_VARIABLE > {file}",
                              f"echo =%ZEL_TEST_VARIABLE%> {agent.path(file)}"))
        assert (code, container) == (0, {}), agent.describe()
        assert content(file) == expected

    code, container = agent.call("CoreUtilsRunProgram", ProgramContext=True,
                                 Path=agent.path(short_directory / "missing.exe"))
    assert (code, container) == (FAILURE, {})
    assert agent.stop() == 0
    assert proxy.stop() == 0
    assert agent.platform == "windows" or not pathlib.Path(proxy.pipe).exists()


def test_without_a_proxy_nothing_runs_in_the_users_session(platform, make_agent, short_directory):
    pipe = {"linux": str(short_directory / "none"), "windows": r"\\.\pipe\zel-no-such-proxy"}[platform]
    agent = make_agent_with(make_agent, pipe)
    code, container = agent.call("CoreUtilsRunProgram", Path=SHELL[agent.platform],
                                 Parameters="-c true", ProgramContext=True)
    assert (code, container) == (FAILURE, {})
    assert "cannot be asked" in agent.log()
    assert agent.stop() == 0


def test_there_is_one_proxy_at_a_place(platform, make_proxy):
    proxy = make_proxy()
    second = subprocess.run(program(platform, "zelproxy") + ["--pipe", proxy.pipe],
                            stdin=subprocess.DEVNULL, capture_output=True, timeout=WAIT_S)
    assert second.returncode == 1
    assert b"a proxy is running already" in second.stderr
    assert proxy.process.poll() is None


def test_the_proxy_tells_its_version(platform):
    done = subprocess.run(program(platform, "zelproxy") + ["--version"], stdin=subprocess.DEVNULL,
                          capture_output=True, timeout=WAIT_S)
    assert (done.returncode, done.stdout.split()[0]) == (0, b"zelproxy")


def test_a_proxy_that_was_killed_gives_way_to_the_next(make_proxy, platform, short_directory):
    first = make_proxy()
    first.kill()
    second = subprocess.Popen(program(platform, "zelproxy") + ["--pipe", first.pipe],
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    try:
        assert second.stdout.readline().decode().strip() == "zelproxy ready: " + first.pipe
    finally:
        second.kill()
        second.wait()


@pytest.mark.parametrize("platform", ["linux"], indirect=True)
def test_the_proxy_ends_when_its_socket_has_gone(make_proxy, short_directory):
    """As at the end of a session; it looks from time to time."""
    proxy = make_proxy()
    for file in short_directory.iterdir():
        file.unlink()
    assert proxy.process.wait(WAIT_S) == 0
    assert b"was removed or replaced" in proxy.process.stderr.read()


ASK = """
import socket, sys
document = b'<message kind="request" name="session" id="1"/>'
with socket.socket(socket.AF_UNIX) as client:
    client.connect(sys.argv[1])
    try:
        client.sendall(len(document).to_bytes(4, "big") + document)
        answer = client.recv(65536)
    except (BrokenPipeError, ConnectionResetError):
        answer = b""
sys.exit(0 if b"userName" in answer else 3 if not answer else 4)
"""


@pytest.mark.parametrize("platform", ["linux"], indirect=True)
def test_the_proxy_turns_other_users_away(make_proxy, short_directory):
    """Even where they could reach the socket. Needs root."""
    proxy = make_proxy()
    assert os.stat(proxy.pipe).st_mode & 0o777 == 0o600
    short_directory.chmod(0o755)
    os.chmod(proxy.pipe, 0o666)

    def ask(**options):
        return subprocess.run(["/usr/bin/python3", "-c", ASK, proxy.pipe], timeout=WAIT_S,
                              cwd="/", **options).returncode

    assert ask() == 0
    assert ask(user=65534, group=65534, extra_groups=[]) == 3
    assert ask() == 0
    proxy.stop()
    assert b"turned away: user 65534" in proxy.process.stderr.read()


@pytest.mark.parametrize("platform", ["linux"], indirect=True)
def test_programs_inherit_nothing_and_stay_no_zombies(agent, short_directory):
    file = short_directory / "file"
    fifo = short_directory / "fifo"
    os.mkfifo(fifo)
    code, _ = agent.call("CoreUtilsRunProgram", Path="/bin/sh",
                         Parameters=f'-c "echo $$ > {file}; read line < {fifo}"')
    assert code == 0
    process = int(content(file))
    handles = {entry.name: os.readlink(entry) for entry in pathlib.Path(
        f"/proc/{process}/fd").iterdir() if not os.readlink(entry) == str(fifo)}
    assert set(handles.values()) == {"/dev/null"}, handles
    assert os.getsid(process) == process
    status = pathlib.Path(f"/proc/{process}/status").read_text()
    assert f"PPid:\t{agent.process.pid}\n" in status
    assert "SigBlk:\t0000000000000000\n" in status

    fifo.write_text("go\n")
    eventually(lambda: not pathlib.Path(f"/proc/{process}").exists(), "a zombie is left")
