"""Which actions were called on which platform, and which were not."""

import subprocess
import sys

from test_check_includes import ROOT

SCRIPT = ROOT / "tests/system/called_actions.py"
sys.path.insert(0, str(SCRIPT.parent))

from called_actions import registered  # noqa: E402


def check(directory):
    return subprocess.run([SCRIPT, directory], capture_output=True, text=True)


def write(file, platform, actions):
    file.write_text("".join(f"{platform} {action}\n" for action in actions))


def test_all_actions_of_the_registry_are_known():
    assert len(registered()) == 47


def test_actions_that_several_processes_called_count(tmp_path):
    half = len(registered()) // 2
    write(tmp_path / "1.txt", "linux", registered()[:half])
    write(tmp_path / "2.txt", "linux", registered()[half:])
    write(tmp_path / "3.txt", "windows", registered())
    done = check(tmp_path)
    assert (done.returncode, done.stderr) == (0, "")


def test_what_was_called_on_one_platform_alone_is_named(tmp_path):
    write(tmp_path / "1.txt", "linux", registered())
    write(tmp_path / "2.txt", "windows", registered()[1:])
    done = check(tmp_path)
    assert done.returncode == 1
    assert done.stdout.startswith(registered()[0] + " was not called on windows: ")
    assert done.stdout.count("\n") == 1


def test_a_run_that_noted_nothing_fails(tmp_path):
    assert check(tmp_path).returncode == 1
