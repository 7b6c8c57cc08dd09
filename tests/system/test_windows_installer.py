"""The installer for Windows, in a Wine prefix of its own."""

import pathlib
import re
import shutil
import socket
import subprocess
import time
import urllib.request

import pytest

from agents import BUILDS, ROOT, agent_path, clean_environment, program
from screens import Screen, wait_until

WINE_RUN = str(ROOT / "scripts/wine-run")
VERSION, NEWER = "1.2.3", "1.10.0"
PROGRAMS = r"C:\Program Files\ZelAgent"
SERVICE = r"HKLM\System\CurrentControlSet\Services\zelagent"
ENTRY = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\ZelAgent"
ENVIRONMENT = r"HKLM\System\CurrentControlSet\Control\Session Manager\Environment"
BAD_VALUE, NEWER_INSTALLED, FILES_FAILED, SERVICE_FAILED = 2, 4, 5, 6
PASSWORD = "correct horse battery"


def wait_for(condition, seconds=30):
    for _ in range(seconds * 20):
        found = condition()
        if found:
            return found
        time.sleep(0.05)
    raise AssertionError("it did not come")


@pytest.fixture(scope="module")
def installers(tmp_path_factory):
    """Installers by their versions."""
    directory = tmp_path_factory.mktemp("installers")
    environment = clean_environment(ZEL_WINDOWS_BUILD=BUILDS["windows"],
                                    ZEL_INSTALLER_COMPRESSION="zlib")

    def build(version):
        done = subprocess.run([ROOT / "packaging/windows/build", version, directory],
                              env=environment, capture_output=True, text=True, check=True)
        return pathlib.Path(done.stdout.strip())

    return {version: build(version) for version in (VERSION, NEWER)}


class Machine:
    """A Windows machine on which nothing of ours is installed at first."""

    def __init__(self, directory, installers):
        self.directory = directory
        self.prefix = directory / "prefix"
        self.installers = installers
        # The libraries have to come from the installation.
        self.environment = clean_environment(ZEL_WINEPREFIX=self.prefix,
                                             ZEL_WINDOWS_DEPS="/nonexistent")
        self.environment.pop("DISPLAY", None)
        self.programs = self.prefix / "drive_c/Program Files/ZelAgent"
        self.home = self.prefix / "drive_c/ProgramData/ZelAgent"
        self.log = directory / "installer.log"
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.url = f"http://127.0.0.1:{self.port}"
        assert self.run("reg", "add", r"HKCU\Software\Wine", "/v", "Version", "/d", "win10",
                        "/f").returncode == 0

    def run(self, *command, **variables):
        return subprocess.run([WINE_RUN, *map(str, command)],
                              env={**self.environment, **variables}, timeout=120,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True)

    def file(self, name, content):
        path = self.directory / name
        path.write_text(content)
        return agent_path("windows", path)

    def install(self, *options, version=VERSION):
        self.log.unlink(missing_ok=True)
        return self.run(self.installers[version], "/S", "/LOG=" + agent_path("windows", self.log),
                        *options).returncode

    def settings(self):
        """The options of an agent that can be asked something."""
        return [f"/PORT={self.port}", "/ADMINUSER=admin",
                "/ADMINPASSWORDFILE=" + self.file("password", PASSWORD + "\n")]

    def what_was_said(self):
        return self.log.read_text(errors="replace") if self.log.exists() else ""

    def registry(self, key, value):
        done = self.run("reg", "query", key, "/v", value)
        found = re.search(r"REG_\w+ +(.*)", done.stdout)
        return found.group(1).strip() if done.returncode == 0 else None

    def answers(self):
        try:
            with urllib.request.urlopen(self.url + "/v1/health", timeout=30) as reply:
                return reply.read() == b'{"status":"ok"}'
        except OSError:
            return False

    def processes(self):
        """The agent's programs that run on this machine."""
        found = []
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                line = (process / "cmdline").read_bytes()
                ours = f"WINEPREFIX={self.prefix}\0".encode() in (process / "environ").read_bytes()
            except OSError:
                continue
            if ours and re.search(rb"zel(agent|proxy|ctl)\.exe", line):
                found.append(line)
        return found

    def restart(self, **variables):
        """With other variables for all that starts by itself."""
        subprocess.run([WINE_RUN, "--stop"], env=self.environment, timeout=60, check=True)
        self.environment.pop("DISPLAY", None)
        self.environment.update(variables)

    def uninstall(self, *options):
        """The uninstaller goes on in a copy of itself, which nobody can wait for."""
        self.run(PROGRAMS + r"\uninstall.exe", "/S", *options)
        wait_for(lambda: not self.programs.exists() and self.registry(ENTRY, "DisplayName") is None)

    def what_is_left(self):
        traces = {"service": self.registry(SERVICE, "ImagePath"),
                  "entry": self.registry(ENTRY, "DisplayName"),
                  "processes": self.processes(),
                  "programs": list(self.programs.parent.glob("ZelAgent*"))}
        if "ZelAgent" in self.registry(ENVIRONMENT, "Path"):
            traces["path"] = True
        return {name: value for name, value in traces.items() if value}


@pytest.fixture(scope="module")
def made_machine(tmp_path_factory, installers):
    made = Machine(tmp_path_factory.mktemp("machine"), installers)
    yield made
    subprocess.run([WINE_RUN, "--stop"], env=made.environment, timeout=60, check=True)
    shutil.rmtree(made.prefix)


@pytest.fixture
def machine(made_machine):
    yield made_machine
    if made_machine.programs.exists():
        made_machine.uninstall("/PURGE")
    shutil.rmtree(made_machine.home, ignore_errors=True)
    assert made_machine.what_is_left() == {}


def zelctl(machine, platform, *arguments):
    file = machine.directory / "password"
    variables = {"ZEL_AGENT": machine.url, "ZEL_USER": "admin",
                 "ZEL_PASSWORD_FILE": agent_path(platform, file)}
    if platform == "windows":
        return machine.run(PROGRAMS + r"\zelctl.exe", *arguments, **variables)
    return subprocess.run([*program("linux", "zelctl"), *arguments], capture_output=True, text=True,
                          env={**machine.environment, **variables}, timeout=60)


def test_what_cannot_be_used_is_refused_and_nothing_is_installed(machine):
    short = machine.file("short", "short")
    for options, reason in ((["/MATSER=m"], "/MATSER is not known"),
                            (["/FLEETSECRETFILE=C:\\nowhere"], "there is no file"),
                            (["/ADMINUSER=admin"], "needs /ADMINPASSWORDFILE"),
                            (["/FLEETSECRETFILE=" + short], "16 characters"),
                            (["/PORT=65536"], "port"),
                            (["/NAME=two words"], "name"),
                            (["/MASTER=a/b"], "master"),
                            (["/ADMINUSER=admin", "/ADMINPASSWORDFILE=" + short], "characters")):
        assert machine.install(*options) == BAD_VALUE, (options, machine.what_was_said())
        assert reason in machine.what_was_said(), options
        assert machine.what_is_left() == {}, options
        assert not machine.home.exists(), options


def test_an_agent_that_does_not_start_leaves_nothing_behind(machine):
    with socket.create_server(("127.0.0.1", machine.port)):
        assert machine.install(*machine.settings()) == SERVICE_FAILED
    assert "Agent stops" in pathlib.Path(str(machine.log) + ".agent").read_text()
    assert machine.what_is_left() == {}
    assert not machine.home.exists()


def test_a_home_that_somebody_else_has_made_first_is_left_alone(machine):
    config = machine.home / "config"
    config.mkdir(parents=True)
    config.chmod(0o777)
    secret = machine.file("secret", "the secret of the whole fleet\n")
    assert machine.install("/FLEETSECRETFILE=" + secret) == SERVICE_FAILED
    assert r"ProgramData\ZelAgent\config can be changed by" in machine.what_was_said()
    assert machine.what_is_left() == {}
    assert list(config.iterdir()) == []


def test_a_directory_for_the_new_files_that_somebody_else_keeps_is_not_used(machine):
    stage = machine.programs.with_suffix(".new")
    stage.mkdir()
    # What is mounted cannot be removed, as a directory in which somebody has a file open.
    subprocess.run(["mount", "-t", "tmpfs", "none", stage], check=True)
    try:
        assert machine.install(*machine.settings()) == FILES_FAILED
        assert r"ZelAgent.new cannot be made for administrators alone" in machine.what_was_said()
        assert list(stage.iterdir()) == []
    finally:
        subprocess.run(["umount", stage], check=True)
        stage.rmdir()
    assert not machine.home.exists()


def test_a_silent_installation_serves_and_is_removed_but_for_its_home(machine):
    secret = machine.file("secret", "the secret of the whole fleet\n")
    status = machine.install("/NAME=pc-1", "/MASTER=master.example.net", "/FLEETSECRETFILE=" + secret,
                             *machine.settings())
    assert status == 0, machine.what_was_said()
    config = (machine.home / "config/zelagent.ini").read_text()
    assert "name = pc-1\n" in config and f"port = {machine.port}\n" in config
    assert "address = https://master.example.net:7460\n" in config
    assert (machine.home / "config/fleet.secret").read_text() == "the secret of the whole fleet\n"
    for private in (machine.home, machine.home / "config", machine.home / "config/fleet.secret"):
        assert private.stat().st_mode & 0o007 == 0
    assert (machine.programs / "NOTICE.txt").exists()
    assert machine.registry(ENTRY, "DisplayVersion") == VERSION
    assert machine.registry(SERVICE, "Start") == "0x2"
    assert machine.registry(ENVIRONMENT, "Path").endswith(";" + PROGRAMS)

    for platform in ("windows", "linux"):
        listed = zelctl(machine, platform, "ls", r"C:\Program Files\ZelAgent\licences")
        assert listed.returncode == 0, listed.stderr
        assert "ZelAgent.txt" in listed.stdout
    home = {str(file.relative_to(machine.home)) for file in machine.home.rglob("*")}

    machine.uninstall()
    assert machine.what_is_left() == {}
    assert home <= {str(file.relative_to(machine.home)) for file in machine.home.rglob("*")}

    # What was kept is found again, and then goes too.
    assert machine.install("/NAME=pc-2") == 0, machine.what_was_said()
    assert machine.answers()
    assert (machine.home / "config/zelagent.ini").read_text() == config
    machine.uninstall("/PURGE")
    wait_for(lambda: not machine.home.exists())


def test_an_upgrade_keeps_what_it_finds_and_is_taken_back_when_it_fails(machine):
    installed_version = lambda: re.search(r"version=(\S+)",
                                          (machine.programs / "installed.ini").read_text()).group(1)
    assert machine.install(*machine.settings()) == 0, machine.what_was_said()
    file = machine.home / "config/zelagent.ini"
    config = file.read_text() + "# a line of the administrator's\n"
    file.write_text(config)
    (machine.home / "data/kept").write_text("kept")
    (machine.programs / "modules/Other.dll").write_bytes(b"no module")

    # The agent of the new version does not start, and neither would the old one.
    file.write_text("[http]\nport = none\n")
    assert machine.install(version=NEWER) == SERVICE_FAILED
    assert installed_version() == VERSION
    assert machine.registry(ENTRY, "DisplayVersion") == VERSION
    assert not list(machine.programs.parent.glob("ZelAgent.*"))
    file.write_text(config)
    started = machine.run(PROGRAMS + r"\zelagent.exe", "service", "start")
    assert started.returncode == 0, started.stderr
    assert machine.answers()

    # The power goes off between the two renames.
    assert machine.run(PROGRAMS + r"\zelagent.exe", "service", "stop").returncode == 0
    shutil.copytree(machine.programs, machine.programs.with_suffix(".new"))
    machine.programs.rename(machine.programs.with_suffix(".old"))
    assert machine.install(version=NEWER) == 0, machine.what_was_said()
    assert machine.answers()
    assert installed_version() == NEWER
    assert machine.registry(ENTRY, "DisplayVersion") == NEWER
    assert file.read_text() == config
    assert (machine.home / "data/kept").read_text() == "kept"
    assert (machine.programs / "modules/Other.dll").read_bytes() == b"no module"
    assert not list(machine.programs.parent.glob("ZelAgent.*"))
    assert zelctl(machine, "linux", "volumes").returncode == 0

    assert machine.install() == NEWER_INSTALLED
    assert installed_version() == NEWER and machine.answers()
    assert machine.install("/DOWNGRADE") == 0, machine.what_was_said()
    assert installed_version() == VERSION and machine.answers()
    (machine.programs / "modules/Other.dll").unlink()


@pytest.fixture
def screen(machine):
    made = Screen(1024, 768)
    machine.restart(DISPLAY=made.display)
    yield made
    machine.restart()
    made.stop()


def type_text(window, text):
    names = {".": "period", "-": "minus", ":": "shift+semicolon"}
    window.key(*(names.get(letter, letter) for letter in text))


def test_a_person_is_asked_for_the_settings_and_gets_a_proxy(machine, screen):
    installer = subprocess.Popen([WINE_RUN, machine.installers[VERSION], f"/PORT={machine.port}"],
                                 env=machine.environment, stdin=subprocess.DEVNULL)
    window = wait_until(lambda: next((one for one in screen.windows()
                                      if one.title().startswith("ZelAgent 1.2.3 Setup")), None),
                        60, "the installer's window")

    def turn_page(key):
        before = screen.wait_still(window.place())
        window.key(key)
        wait_until(lambda: not screen.picture(*window.place()).is_like(before), what="the next page")
        screen.wait_still(window.place())

    turn_page("alt+n")
    turn_page("alt+n")
    screen.photograph("installer-settings")
    window.key("alt+m")
    type_text(window, "master.example.net")
    # A secret that is too short is not taken: the page stays, behind a message.
    window.key("alt+f")
    type_text(window, "tooshort")
    window.key("alt+i")
    message = wait_until(lambda: next((one for one in screen.windows() if one != window), None),
                         what="the message")
    message.key("Return")
    wait_until(lambda: not message.is_there(), what="the message to go")
    window.key("alt+f")
    type_text(window, "the-secret-of-the-whole-fleet")
    window.key("alt+i")
    wait_for(lambda: machine.registry(ENTRY, "DisplayVersion") == VERSION, 60)
    screen.wait_still(window.place())
    screen.photograph("installer-finish")
    window.key("alt+f")
    assert installer.wait(60) == 0

    config = (machine.home / "config/zelagent.ini").read_text()
    assert "address = https://master.example.net:7460\n" in config
    secret = (machine.home / "config/fleet.secret").read_text()
    assert secret.endswith("the-secret-of-the-whole-fleet")
    assert machine.answers()
    wait_for(lambda: any(b"zelproxy.exe" in line for line in machine.processes()), 60)
