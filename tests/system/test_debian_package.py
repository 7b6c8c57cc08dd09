"""The Debian package on a machine with systemd: installed, upgraded, removed, purged."""

import os
import pathlib
import re
import shutil
import stat
import subprocess

import pytest

from agents import BUILDS, ROOT
from debian_machine import DebianMachine

PASSWORD = "correct horse battery"
START_TIMEOUT_S = 30
UNSAFE = "78"


@pytest.fixture(scope="session")
def package(tmp_path_factory):
    directory = tmp_path_factory.mktemp("packages")
    done = subprocess.run([ROOT / "packaging/debian/build", "1.2.3", directory], check=True,
                          capture_output=True, text=True,
                          env={**os.environ, "ZEL_LINUX_BUILD": str(BUILDS["linux"])})
    return pathlib.Path(done.stdout.strip())


@pytest.fixture(scope="session")
def newer_package(package, tmp_path_factory):
    """The same with a higher version, and other settings shipped with it."""
    directory = tmp_path_factory.mktemp("newer")
    tree = directory / "tree"
    subprocess.run(["dpkg-deb", "-R", package, tree], check=True)
    control = tree / "DEBIAN/control"
    control.write_text(control.read_text().replace("Version: 1.2.3", "Version: 1.3.0"))
    with open(tree / "etc/zelagent/zelagent.ini", "a") as settings:
        settings.write("# of the newer version\n")
    file = directory / "zelagent_1.3.0.deb"
    subprocess.run(["dpkg-deb", "--root-owner-group", "-Znone", "-b", tree, file], check=True,
                   capture_output=True)
    return file


@pytest.fixture(scope="session")
def debian():
    done = subprocess.run([ROOT / "scripts/debian-root"], check=True, capture_output=True, text=True)
    return pathlib.Path(done.stdout.strip())


@pytest.fixture
def files(debian, tmp_path):
    """The files of a machine that is not booted."""
    machine = DebianMachine(debian, tmp_path).mount()
    yield machine
    machine.remove()


@pytest.fixture
def machine(files):
    return files.boot()


@pytest.fixture
def installed(machine, package):
    """A machine with the package and a console user, as docs/install.md says."""
    machine.install(package)
    machine.write("/root/password", PASSWORD + "\n")
    machine.run("zelagent", "user", "add", "admin", "--role", "administrator",
                "--password-file", "/root/password")
    wait_until_it_serves(machine)
    return machine


def zelctl(machine, *arguments, check=True):
    return machine.run("zelctl", "--user", "admin", "--password-file", "/root/password", *arguments,
                       check=check)


def wait_until_it_serves(machine):
    machine.wait_for(lambda: zelctl(machine, "health", check=False).returncode == 0, START_TIMEOUT_S,
                     "the agent does not answer")


def main_process(machine):
    return int(machine.output("systemctl", "show", "-P", "MainPID", "zelagent"))


def state(machine):
    return machine.output("systemctl", "show", "-P", "ActiveState", "zelagent")


def test_an_installed_agent_runs_as_a_service_and_answers_zelctl(installed):
    assert installed.output("systemctl", "is-enabled", "zelagent") == "enabled"
    assert state(installed) == "active"
    digest = zelctl(installed, "md5", "/etc/debian_version").stdout
    assert digest.split() == installed.output("md5sum", "/etc/debian_version").split()
    # The module of actions and the functions for scripts are found beside the program.
    installed.write("/root/hello.mlx", "function main() io.open('/root/hello', 'w'):write(_VERSION) end\n")
    zelctl(installed, "script", "/root/hello.mlx")
    assert installed.path("/root/hello").read_text() == "Lua 5.4"
    installed.run("systemd-analyze", "verify", "--man=no", "zelagent.service")
    assert installed.output("zelagent", "config", "check").endswith("no problems found")


def test_what_is_installed_is_roots_and_nobody_else_writes_to_it(installed):
    listed = [line for line in installed.output("dpkg", "-L", "zelagent").splitlines() if line != "/."]
    assert len(listed) > 40
    for name in listed:
        status = installed.path(name).lstat()
        assert (status.st_uid, status.st_gid) == (0, 0), name
        assert stat.S_ISLNK(status.st_mode) or not status.st_mode & 0o022, name

    modes = {name: oct(installed.path(name).lstat().st_mode & 0o7777) for name in (
        "/etc/zelagent", "/etc/zelagent/zelagent.ini", "/etc/zelagent/users", "/var/lib/zelagent",
        "/var/lib/zelagent/data", "/var/lib/zelagent/data/identity", "/var/log/zelagent",
        "/var/log/zelagent/audit.jsonl", "/usr/lib/zelagent/zelagent")}
    directory, private, program = "0o700", "0o600", "0o755"
    assert list(modes.values()) == [directory, private, private, directory, directory, private,
                                    directory, private, program], modes


def test_the_home_has_links_to_where_the_system_keeps_settings_and_logs(installed):
    links = {name: os.readlink(installed.path(name)) for name in (
        "/var/lib/zelagent/config", "/var/lib/zelagent/log", "/usr/sbin/zelagent", "/usr/bin/zelctl")}
    assert links == {"/var/lib/zelagent/config": "/etc/zelagent",
                     "/var/lib/zelagent/log": "../../log/zelagent",
                     "/usr/sbin/zelagent": "../lib/zelagent/zelagent",
                     "/usr/bin/zelctl": "../lib/zelagent/zelctl"}
    # Nobody stores files there through an alias.
    for place in ("/etc/zelagent", "/var/log/zelagent", "/var/lib/zelagent/config/translations"):
        refused = zelctl(installed, "call", "HttpProtocolAddAlias", "AliasName=a",
                         "AliasPath=" + place, check=False)
        assert refused.returncode == 1 and "own directory" in refused.stdout + refused.stderr, place


def test_an_upgrade_keeps_settings_users_and_identity_and_restarts_the_agent(installed, newer_package):
    settings = installed.path("/etc/zelagent/zelagent.ini")
    settings.write_text(settings.read_text() + "[agent]\nname = pc-1\n")
    kept = [settings, installed.path("/etc/zelagent/users"),
            installed.path("/var/lib/zelagent/data/identity")]
    before = [file.read_bytes() for file in kept]
    first = main_process(installed)

    installed.install(newer_package)
    wait_until_it_serves(installed)
    assert installed.output("dpkg-query", "-W", "-f", "${Version} ${Status}", "zelagent") == (
        "1.3.0 install ok installed")
    assert [file.read_bytes() for file in kept] == before
    assert oct(settings.stat().st_mode & 0o7777) == "0o600"
    assert main_process(installed) not in (0, first)
    assert zelctl(installed, "stat", "/etc/hostname").returncode == 0


def test_programs_that_the_agent_started_survive_its_restart(installed):
    zelctl(installed, "run", "/bin/sleep", "--", "1000")
    installed.wait_for(lambda: installed.processes_of(".*/sleep"), START_TIMEOUT_S,
                       "no program was started")
    program = installed.processes_of(".*/sleep")
    first = main_process(installed)
    installed.run("systemctl", "restart", "zelagent")
    wait_until_it_serves(installed)
    assert main_process(installed) not in (0, first)
    assert installed.processes_of(".*/sleep") == program


def test_a_killed_agent_is_started_again(installed):
    first = main_process(installed)
    installed.run("sh", "-c", f"kill -KILL {first}")
    installed.wait_for(lambda: main_process(installed) not in (0, first), START_TIMEOUT_S,
                       "the agent stays away")
    wait_until_it_serves(installed)


def test_restarts_are_never_too_many(installed):
    for _ in range(6):
        installed.run("systemctl", "restart", "zelagent")
    wait_until_it_serves(installed)


def test_a_removal_ends_proxies_that_outlived_an_upgrade_and_none_of_a_system_around(installed, newer_package):
    # A program that runs without a desktop takes the place of the proxy.
    proxy = "/usr/lib/zelagent/zelproxy"
    start = 'nohup "$@" >/dev/null 2>&1 & until [ "$(cat /proc/$!/comm)" = zelproxy ]; do :; done; echo $!'
    installed.run("cp", "--remove-destination", "/bin/sleep", proxy)
    old = installed.output("sh", "-c", start, "sh", proxy, "1000")
    installed.install(newer_package)
    installed.run("cp", "--remove-destination", "/bin/sleep", proxy)
    new = installed.output("sh", "-c", start, "sh", proxy, "1000")
    assert installed.output("readlink", f"/proc/{old}/exe") == proxy + " (deleted)"
    gone = lambda process: installed.run("test", "-e", f"/proc/{process}", check=False).returncode == 1

    # The package is removed from a system that stands in a directory of this one.
    installed.run("sh", "-c", "for d in usr proc dev; do mkdir -p /inner/$d; mount --bind /$d /inner/$d; done; "
                  "ln -s usr/bin usr/lib usr/lib64 /inner; cp /var/lib/dpkg/info/zelagent.prerm /inner/prerm")
    installed.run("chroot", "/inner", "/bin/sh", "/prerm", "remove")
    assert not gone(old) and not gone(new)

    installed.run("dpkg", "--remove", "zelagent")
    for process in (old, new):
        installed.wait_for(lambda: gone(process), START_TIMEOUT_S, "a proxy runs on")


@pytest.mark.parametrize("spoil, complaint", [
    (("chmod", "o+w", "/etc/zelagent"), "/etc/zelagent can be written by others than root (mode 0702)"),
    (("chown", "-h", "nobody", "/var/lib/zelagent/log"), "/var/lib/zelagent/log belongs to the account"),
    (("chmod", "g+w", "/usr/lib/zelagent/modules/ZelCoreUtils.so"), "modules/ZelCoreUtils.so can be"),
    (("chmod", "o+r", "/etc/zelagent/users"), "/var/lib/zelagent/config/users holds a secret"),
], ids=["settings", "a link", "a module", "the users"])
def test_a_service_that_others_could_take_over_does_not_start(installed, spoil, complaint):
    installed.run(*spoil)
    installed.run("systemctl", "restart", "zelagent", check=False)
    installed.wait_for(lambda: state(installed) == "failed", START_TIMEOUT_S, "it runs")
    assert installed.output("systemctl", "show", "-P", "ExecMainStatus", "zelagent") == UNSAFE
    assert installed.output("systemctl", "show", "-P", "NRestarts", "zelagent") == "0"
    installed.run("journalctl", "--sync")
    assert complaint in installed.output("journalctl", "--unit", "zelagent", "--output", "cat")
    checked = installed.run("zelagent", "config", "check", check=False)
    assert checked.returncode == 1 and complaint in checked.stdout


def test_removal_ends_the_agent_and_keeps_what_it_knows_until_the_purge(installed):
    installed.run("dpkg", "--remove", "zelagent")
    assert installed.processes_of("/usr/lib/zelagent/.*") == []
    assert not installed.path("/usr/lib/zelagent").exists()
    assert installed.path("/etc/zelagent/zelagent.ini").exists()
    assert installed.path("/etc/zelagent/users").exists()
    assert installed.path("/var/lib/zelagent/data/identity").exists()

    installed.run("dpkg", "--purge", "zelagent")
    for below in ("etc", "usr", "var"):
        left = [str(path) for path in installed.path(below).rglob("*") if "zelagent" in str(path)
                and "/dpkg/" not in str(path)]
        assert left == []
    assert installed.run("dpkg-query", "-W", "zelagent", check=False).returncode == 1


def test_the_package_installs_upgrades_and_goes_where_no_systemd_runs(files, package, newer_package):
    files.install(package)
    files.install(newer_package)
    assert files.processes_of("/usr/lib/zelagent/.*") == []
    files.run("dpkg", "--purge", "zelagent")
    assert not files.path("/etc/zelagent").exists()
    assert not files.path("/var/lib/zelagent").exists()


def test_the_installation_warns_of_directories_where_the_package_has_links(files, package, newer_package):
    for name in ("config", "log"):
        files.path(f"/var/lib/zelagent/{name}").mkdir(parents=True)
    warning = "zelagent: warning: /var/lib/zelagent/{} is a directory where the package has a link, so the agent " \
              "uses it and not {}."
    for printed in (files.install(package), files.install(newer_package)):
        assert warning.format("config", "/etc/zelagent") in printed
        assert warning.format("log", "/var/log/zelagent") in printed

    for name, place in (("config", "/etc/zelagent"), ("log", "../../log/zelagent")):
        files.path(f"/var/lib/zelagent/{name}").rmdir()
        files.path(f"/var/lib/zelagent/{name}").symlink_to(place)
    assert "zelagent: warning" not in files.install(package)


def test_a_purge_empties_what_is_mounted_and_removes_the_rest(files, package):
    files.install(package)
    mounted = files.path("/var/lib/zelagent")
    subprocess.run(["mount", "-t", "tmpfs", "none", mounted], check=True)
    try:
        (mounted / "data").mkdir()
        files.run("dpkg", "--purge", "zelagent")
        assert list(mounted.iterdir()) == []
    finally:
        subprocess.run(["umount", mounted], check=True)
    assert not files.path("/etc/zelagent").exists()
    assert not files.path("/var/log/zelagent").exists()


def test_debians_own_checks_find_nothing(package):
    done = subprocess.run(["lintian", "--allow-root", "--fail-on", "error,warning", "--tag-display-limit",
                           "0", package], capture_output=True, text=True)
    assert (done.returncode, done.stdout) == (0, ""), done.stdout + done.stderr


def test_programs_come_without_symbols_and_look_for_libraries_beside_themselves(package, tmp_path):
    subprocess.run(["dpkg-deb", "-x", package, tmp_path], check=True)
    programs = tmp_path / "usr/lib/zelagent"
    for name in ("zelagent", "zelctl", "zelproxy", "zelbrowse", "zelagent.mlx", "libZel.so",
                 "modules/ZelCoreUtils.so", "modules/master/TaskDatabase.so"):
        told = subprocess.run(["readelf", "-SdW", programs / name], check=True, capture_output=True,
                              text=True).stdout
        assert ".symtab" not in told and ".debug_line" not in told, name
        runpath = re.search(r"runpath: \[(.*)\]", told).group(1)
        assert all(re.fullmatch(r"\$ORIGIN(/\.\.)*/?", place) for place in runpath.split(":")), name
    assert shutil.which("zelctl", path=tmp_path / "usr/bin")


def test_symbols_for_debuggers_are_in_a_package_of_their_own(package, tmp_path):
    symbols = package.with_name(package.name.replace("zelagent_", "zelagent-dbgsym_"))
    for file in (package, symbols):
        subprocess.run(["dpkg-deb", "-x", file, tmp_path], check=True)
    for name in ("zelagent", "libZelCore.so", "modules/ZelCoreUtils.so"):
        notes = subprocess.run(["readelf", "--notes", tmp_path / "usr/lib/zelagent" / name], check=True,
                               capture_output=True, text=True).stdout
        build = re.search(r"Build ID: ([0-9a-f]+)", notes).group(1)
        told = subprocess.run(
            ["readelf", "-SW", tmp_path / f"usr/lib/debug/.build-id/{build[:2]}/{build[2:]}.debug"],
            check=True, capture_output=True, text=True).stdout
        assert ".symtab" in told and ".debug_line" in told, name
