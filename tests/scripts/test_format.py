"""scripts/format: which files it looks at."""

import pathlib
import shutil
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
UNFORMATTED = "int   Answer( ) {return 42;}\n"


@pytest.fixture
def tree(tmp_path):
    """A repository with the script in it, whose build directory git ignores."""
    (tmp_path / "scripts").mkdir()
    shutil.copy(ROOT / "scripts/format", tmp_path / "scripts")
    shutil.copy(ROOT / ".clang-format", tmp_path)
    (tmp_path / ".gitignore").write_text("/build/\n")
    (tmp_path / "build").mkdir()
    subprocess.run(["git", "init", "-q", tmp_path], check=True, timeout=60)
    return tmp_path


def is_formatted(tree):
    done = subprocess.run([tree / "scripts/format", "--check"], capture_output=True, timeout=60)
    return done.returncode == 0


def test_files_that_git_does_not_know_yet_are_formatted(tree):
    (tree / "new.cpp").write_text(UNFORMATTED)
    assert not is_formatted(tree)
    subprocess.run([tree / "scripts/format"], check=True, timeout=60)
    assert is_formatted(tree)
    assert (tree / "new.cpp").read_text() != UNFORMATTED


def test_files_that_git_ignores_stay_as_they_are(tree):
    (tree / "build/made.cpp").write_text(UNFORMATTED)
    assert is_formatted(tree)
