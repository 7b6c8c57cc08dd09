"""A full disk below the agent's own files: the log, the audit trail and what runs at the start."""

import json
import re
import shutil

import pytest

from agents import Agent
from test_exhaustion import call_on
from test_startup_scripts import INI, INI_AFTERWARDS

KIB = 1024
# Of a line that did not fit, a piece may stand before the next one.
WHOLE_LINE = re.compile(r".*\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\d+\] (error|warning|print|"
                        r"trace|detail) \[[^]]*\] .+")


@pytest.fixture
def small_home(tmp_path, small_disk, fleet):
    """Makes an agent one of whose directories is on the small disk."""
    made = []

    def make(directory, config=""):
        agent = Agent("linux", tmp_path / "home", config)
        made.append(agent)
        shutil.copy2(fleet.users, agent.home / "config/users")
        (agent.home / directory).mkdir(parents=True, exist_ok=True)
        for entry in (agent.home / directory).iterdir():
            shutil.move(entry, small_disk / entry.name)
        (agent.home / directory).rmdir()
        (agent.home / directory).symlink_to(small_disk)
        small_disk.chmod(0o700)
        return agent

    yield make
    for agent in made:
        agent.kill()


def fill(disk):
    with open(disk / "filler", "wb", buffering=0) as filler:
        try:
            while True:
                filler.write(bytes(4 * KIB))
        except OSError:
            pass


def free(disk):
    (disk / "filler").unlink()


def call(agent, count=1):
    """Actions that succeed, each of which leaves a line in the audit trail and some in the log."""
    connection = agent.connect()
    for _ in range(count):
        assert call_on(connection, "CoreUtilsGetFileSize", Path="/etc/hostname")[0] == 0
    connection.close()


def trail(agent):
    return [json.loads(line) for line in (agent.home / "log/audit.jsonl").read_text().splitlines()]


def check_verified(agent):
    done = agent.zelctl("audit", "verify", str(agent.home / "log/audit.jsonl"))
    assert done.returncode == 0, done.stderr.decode()


def check_log(agent):
    """Every line of the log is whole."""
    for file in (agent.home / "log").glob("zelagent*.log"):
        bad = [line for line in file.read_text().splitlines() if not WHOLE_LINE.fullmatch(line)]
        assert bad == [], file


def test_a_full_disk_below_log_and_audit_trail_stops_no_action(small_home, small_disk):
    agent = small_home("log", "[log]\nlevel = detail\n")
    agent.start()
    call(agent)
    fill(small_disk)
    calls = 40
    call(agent, calls)
    # What stands at the end of a file's last block found room.
    written = len(trail(agent)) - 1
    assert written < calls
    assert [line for line in agent.errors if "the log cannot be written" in line] == agent.errors
    assert len(agent.errors) == 1
    check_verified(agent)

    free(small_disk)
    call(agent)
    lines = trail(agent)
    assert lines[-1]["lost"] == calls - written
    assert len(lines) == 1 + written + 1
    check_verified(agent)
    call(agent)
    assert "CoreUtilsGetFileSize returned 0" in agent.log().splitlines()[-1]
    check_log(agent)
    assert agent.stop() == 0


def test_a_log_that_is_renamed_on_a_full_disk_goes_on(small_home, small_disk):
    agent = small_home("log", "[log]\nlevel = detail\nrotate_bytes = 4096\nkept_files = 2\n")
    agent.start()
    # The log has some room left, less than it takes until it is renamed.
    (small_disk / "spare").write_bytes(bytes(4 * KIB))
    fill(small_disk)
    (small_disk / "spare").unlink()
    call(agent, 100)
    assert (agent.home / "log/zelagent.1.log").exists()
    free(small_disk)
    call(agent, 100)
    assert "CoreUtilsGetFileSize returned 0" in agent.log().splitlines()[-1]
    check_log(agent)
    check_verified(agent)
    assert agent.stop() == 0


def test_what_runs_once_stays_in_the_file_while_the_disk_is_full(small_home, small_disk, tmp_path):
    agent = small_home("config")
    letters = tmp_path / "letters"
    scripts = agent.home / "data/ZelCoreUtils"
    scripts.mkdir(parents=True)
    for letter in "abc":
        (scripts / f"{letter}.mlx").write_text(
            f'function main() local f = assert(io.open({json.dumps(str(letters))}, "ab"))\n'
            f'f:write("{letter.upper()}") f:close() end')
    # No room for its copy in the file's own last block.
    content = INI.encode() + b"; filler\n" * 1000
    ini = agent.home / "config/ZelCoreUtils.ini"
    ini.write_bytes(content)
    # What else an agent makes in its configuration is there when the disk gets full.
    agent.start()
    assert agent.stop() == 0
    letters.unlink()
    ini.write_bytes(content)
    fill(small_disk)
    before = len(agent.log())
    agent.start()
    # What is to follow A waits until A can be marked as done.
    assert letters.read_text() == "AC"
    log = agent.log()[before:]
    refused = [line for line in log.splitlines() if "ZelCoreUtils.ini failed" in line]
    assert len(refused) == 1 and "No space left" in refused[0], log
    assert ini.read_bytes() == content
    assert [path.name for path in small_disk.iterdir() if ".zel-" in path.name] == []
    assert agent.stop() == 0

    free(small_disk)
    agent.start()
    assert letters.read_text() == "ACABC"
    assert ini.read_bytes() == INI_AFTERWARDS.encode() + b"; filler\n" * 1000
    assert agent.stop() == 0
