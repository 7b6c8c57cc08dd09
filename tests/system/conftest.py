"""Fixtures: agents of both platforms."""

import signal
import subprocess

import pytest

from agents import Agent

PLATFORMS = ("linux", "windows")

# Where the tests themselves run in the background, SIGINT is ignored, and what they start would
# inherit that: Ctrl-C is tested nevertheless.
signal.signal(signal.SIGINT, signal.default_int_handler)


@pytest.fixture(scope="session", params=PLATFORMS)
def platform(request):
    return request.param


@pytest.fixture(scope="session")
def agent(platform, tmp_path_factory):
    """A running agent with the users admin (administrator) and visitor (no rights)."""
    started = Agent(platform, tmp_path_factory.mktemp("home-" + platform))
    started.add_users()
    started.start()
    yield started
    status = started.stop()
    assert status == 0, started.describe()


@pytest.fixture
def make_agent(platform, tmp_path):
    """Makes agents that the test configures, starts and stops; what still runs is killed."""
    made = []

    def make(config="", platform=platform, **options):
        made.append(Agent(platform, tmp_path / f"home{len(made)}", config, **options))
        return made[-1]

    yield make
    for one in made:
        one.kill()


@pytest.fixture
def small_disk(tmp_path):
    """A file system of 1 MiB, mounted in a directory of its own. Needs root."""
    disk = tmp_path / "mounts/small"
    disk.mkdir(parents=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "none", disk], check=True)
    yield disk
    subprocess.run(["umount", disk], check=True)
