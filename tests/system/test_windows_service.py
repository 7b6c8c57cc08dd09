"""The Windows build as a service, in a Wine prefix of its own."""

import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import time
import urllib.request

import pytest

from agents import BUILDS, PASSWORDS, ROOT, basic, clean_environment
from desks import DIALOG_TITLE
from screens import Screen, wait_until

WINE_RUN = str(ROOT / "scripts/wine-run")
NET = r"C:\windows\system32\net.exe"


@pytest.fixture
def machine(tmp_path):
    """A function that runs a Windows program on a machine that nobody else uses."""
    environment = clean_environment(ZEL_WINEPREFIX=tmp_path / "prefix")

    def run(*command, **variables):
        return subprocess.run([WINE_RUN, *map(str, command)], env={**environment, **variables},
                              timeout=120, stdin=subprocess.DEVNULL, capture_output=True)

    # As a service the agent wants none but administrators to change what is above it, and anybody
    # may write where tests keep their files: drive C: has nothing of that above it.
    assert run("cmd", "/c", "exit").returncode == 0
    run.prefix = tmp_path / "prefix"
    run.drive = run.prefix / "drive_c"
    run.environment = environment
    yield run
    subprocess.run([WINE_RUN, "--stop"], env=environment, timeout=60, check=True)


@pytest.fixture
def installation(machine):
    """The programs with every library beside them, as an installation has them."""
    directory = machine.drive / "installed"
    directory.mkdir()
    bin_directory = BUILDS["windows"] / "bin"
    libraries = subprocess.run([ROOT / "scripts/windows-deps"], capture_output=True, text=True,
                               check=True).stdout.splitlines()[-1]
    for source, pattern in ((bin_directory, "zelagent.exe"), (bin_directory, "zelproxy.exe"),
                            (bin_directory, "zelagent.mlx"), (bin_directory, "*.dll"),
                            (ROOT / libraries / "bin", "*.dll")):
        for file in source.glob(pattern):
            shutil.copy(file, directory)
    shutil.copytree(bin_directory / "modules", directory / "modules")
    return directory


def wait_for(condition, seconds=30):
    for _ in range(seconds * 20):
        found = condition()
        if found:
            return found
        time.sleep(0.05)
    raise AssertionError("it did not come")


def test_the_service_is_installed_started_stopped_and_removed(machine, installation):
    home = machine.drive / "home"
    zelagent = r"C:\installed\zelagent.exe"
    log = home / "log/zelagent.log"
    where = r"C:\home"
    (home / "config").mkdir(parents=True)
    (home / "config/zelagent.ini").write_text("[proxy]\nstart = no\n")

    installed = machine(zelagent, "service", "install", "--home", where, "--port", "0")
    assert installed.returncode == 0, installed.stderr
    started = machine(NET, "start", "zelagent")
    assert started.returncode == 0, started.stdout
    url = wait_for(lambda: log.exists() and re.search(r"Serving at (\S+)", log.read_text())).group(1)
    with urllib.request.urlopen(url + "/v1/health", timeout=30) as reply:
        assert reply.read() == b'{"status":"ok"}'

    stopped = machine(NET, "stop", "zelagent")
    assert stopped.returncode == 0, stopped.stdout
    wait_for(lambda: "Agent stops" in log.read_text())
    assert "Module Unregister starting" in log.read_text()

    # Nothing starts where others could have written.
    for directory in (home / "config", installation / "modules"):
        directory.chmod(0o777)
        refused = machine(zelagent, "service", "start")
        assert refused.returncode == 1
        assert b"ordinary users could take it over" in refused.stderr, directory
        directory.chmod(0o755)
    assert machine(zelagent, "service", "start").returncode == 0
    assert machine(zelagent, "service", "stop").returncode == 0
    assert machine(zelagent, "service", "stop").returncode == 0

    removed = machine(zelagent, "service", "remove")
    assert removed.returncode == 0, removed.stderr
    assert machine(NET, "start", "zelagent").returncode != 0


@pytest.fixture
def screen(machine):
    """That of the machine, which has had none so far."""
    subprocess.run([WINE_RUN, "--stop"], env=machine.environment, timeout=60, check=True)
    made = Screen()
    machine.environment["DISPLAY"] = made.display
    yield made
    made.stop()


def proxies(machine):
    """Numbers of the proxies that run on the machine."""
    found = []
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            ours = f"WINEPREFIX={machine.prefix}\0".encode() in (process / "environ").read_bytes()
            if ours and b"zelproxy.exe" in (process / "cmdline").read_bytes():
                found.append(int(process.name))
    return found


def wait_only_proxy(machine):
    """Its number. While Wine starts a program there are several of that name."""
    return wait_for(lambda: len(found := proxies(machine)) == 1 and found)[0]


def call(url, action, **parameters):
    """(code, container)"""
    request = urllib.request.Request(
        url + "/v1/actions/" + action, json.dumps(parameters).encode(),
        {"Authorization": basic("admin", PASSWORDS["admin"]), "Content-Type": "application/json"})
    with urllib.request.urlopen(request, timeout=60) as reply:
        answer = json.load(reply)
    return answer["code"], answer["container"]


def test_the_service_has_a_proxy_show_dialogs_and_starts_it_again(machine, installation, screen):
    home = machine.drive / "home"
    zelagent = r"C:\installed\zelagent.exe"
    (home / "config").mkdir(parents=True)
    (home / "password").write_text(PASSWORDS["admin"] + "\n")
    added = machine(zelagent, "user", "add", "admin", "--role", "administrator", "--password-file",
                    r"C:\home\password", ZEL_HOME=r"C:\home")
    assert added.returncode == 0, added.stderr
    assert machine(zelagent, "service", "install", "--home", r"C:\home", "--port",
                   "0").returncode == 0
    assert machine(zelagent, "service", "start").returncode == 0
    log = home / "log/zelagent.log"
    url = wait_for(lambda: re.search(r"Serving at (\S+)", log.read_text())).group(1)

    wait_for(lambda: proxies(machine))
    assert call(url, "CoreUtilsShowDialog", Message="Hello") == (0, {})
    window = screen.wait_window(DIALOG_TITLE)
    first = wait_only_proxy(machine)
    os.kill(first, signal.SIGKILL)
    wait_until(lambda: not window.is_there(), what="the dialog to go with its proxy")

    wait_for(lambda: set(proxies(machine)) - {first})
    assert call(url, "CoreUtilsShowDialog", Message="Hello again") == (0, {})
    screen.wait_window(DIALOG_TITLE)
    assert wait_only_proxy(machine) != first

    assert machine(zelagent, "service", "stop").returncode == 0
    screen.wait_free()
    wait_for(lambda: not proxies(machine))
    assert machine(zelagent, "service", "remove").returncode == 0
