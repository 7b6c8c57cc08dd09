"""An agent of root's does not run where others could change what it runs or read its secrets. Needs
root."""

import os
import shutil
import subprocess

import pytest

from agents import BUILDS, Agent

NOBODY = 65534
UNSAFE = 78
SECRET = "sixteen characters or more"


@pytest.fixture
def agent(tmp_path):
    """A safe home. The directories above it, those of the tests and /tmp, are safe too."""
    made = Agent("linux", tmp_path / "above/home", "[http]\nport = 0\n")
    made.add_users()
    yield made
    made.kill()


def problems(agent):
    """What `zelagent config check` complains of."""
    done = agent.command("config", "check")
    text = done.stdout.decode()
    assert done.returncode == (0 if "no problems found" in text else 1)
    return [line.removeprefix("error: ") for line in text.splitlines() if "no problems" not in line]


def test_a_home_of_roots_below_tmp_is_safe(agent):
    assert problems(agent) == []


@pytest.mark.parametrize("name", ["..", ".", "config", "config/zelagent.ini", "config/users"])
@pytest.mark.parametrize("mode", [0o020, 0o002])
def test_what_others_may_write_is_named(agent, name, mode):
    path = (agent.home / name).resolve()
    path.chmod(path.stat().st_mode & 0o777 | mode)
    (problem,) = problems(agent)
    assert problem == f"{path} can be written by others than root (mode {path.stat().st_mode & 0o7777:04o})"


@pytest.mark.parametrize("name", ["..", ".", "config", "config/zelagent.ini", "data/ZelCoreUtils/a.mlx"])
def test_what_belongs_to_somebody_else_is_named(agent, name):
    path = agent.home / name
    path.parent.mkdir(parents=True, exist_ok=True)
    if name.endswith(".mlx"):
        path.write_text("function main() end\n")
    path = path.resolve()
    os.chown(path, NOBODY, NOBODY)
    assert problems(agent) == [f"{path} belongs to the account {NOBODY}, not to root"]


def test_a_directory_for_everybody_is_no_home_even_where_it_is_sticky(agent):
    agent.home.chmod(0o1777)
    assert f"{agent.home} can be written by others than root (mode 1777)" in problems(agent)


def test_a_link_counts_and_so_does_where_it_leads(agent, tmp_path):
    elsewhere = tmp_path / "elsewhere"
    shutil.move(agent.home / "config", elsewhere / "config")
    link = agent.home / "config"
    link.symlink_to("../../elsewhere/config")
    assert problems(agent) == []

    elsewhere.chmod(0o777)
    assert problems(agent) == [f"{elsewhere} can be written by others than root (mode 0777)"]
    elsewhere.chmod(0o755)
    os.chown(link, NOBODY, NOBODY, follow_symlinks=False)
    assert problems(agent) == [f"{link} belongs to the account {NOBODY}, not to root"]


def test_what_a_link_to_a_directory_leads_to_is_looked_through(agent, tmp_path):
    elsewhere = tmp_path / "elsewhere"
    (elsewhere / "inner").mkdir(parents=True)
    file = elsewhere / "inner/German.ini"
    file.write_text("")
    (agent.home / "config/translations").symlink_to(elsewhere)
    (elsewhere / "back").symlink_to(agent.home / "config")
    assert problems(agent) == []
    file.chmod(0o666)
    assert problems(agent) == [f"{file} can be written by others than root (mode 0666)"]


def test_a_home_is_looked_at_where_the_system_finds_it(agent, tmp_path):
    """What stands before ".." may be a link, so that the text alone names another directory."""
    far = tmp_path / "far/inner"
    far.mkdir(parents=True)
    (tmp_path / "link").symlink_to(far)
    safe = agent.home
    agent.home = tmp_path / "link/../home"
    shutil.copytree(safe, tmp_path / "home")
    shutil.copytree(safe, tmp_path / "far/home")
    assert problems(agent) == []
    (tmp_path / "far/home").chmod(0o777)
    assert problems(agent) == [f"{tmp_path}/far/home can be written by others than root (mode 0777)"]


def test_what_is_missing_in_a_directory_for_everybody_could_be_made_by_anybody(agent, tmp_path):
    shared = tmp_path / "shared"
    (shared / "inner").mkdir(parents=True)
    shared.chmod(0o1777)
    missing = shared / "inner/../ca.pem"
    with open(agent.home / "config/zelagent.ini", "a") as settings:
        settings.write(f"[fleet]\nca = {missing}\n")
    assert f"{shared}/ca.pem is missing, and anybody could make it" in problems(agent)


@pytest.mark.parametrize("command", [("config", "init"), ("user", "add", "ann"), ("user", "password", "admin")],
                         ids=" ".join)
def test_nothing_is_written_into_a_home_that_somebody_else_has_made(agent, tmp_path, command):
    os.chown(agent.home / "config", NOBODY, NOBODY)
    before = sorted((file.name, file.read_bytes()) for file in (agent.home / "config").iterdir())
    password = tmp_path / "password"
    password.write_text("correct horse battery\n")
    options = ["--password-file", str(password)] if command[0] == "user" else []
    done = agent.command(*command, *options)
    assert done.returncode == UNSAFE
    assert f"nothing is written: {agent.home}/config belongs to the account" in done.stderr.decode()
    assert sorted((file.name, file.read_bytes()) for file in (agent.home / "config").iterdir()) == before


def test_settings_that_cannot_be_looked_for_are_not_taken_for_none(agent):
    """As for somebody who may not enter the home, who is told so rather than that all is well."""
    shutil.rmtree(agent.home / "config")
    (agent.home / "config").symlink_to("config")
    assert f"cannot read {agent.home}/config/zelagent.ini" in "\n".join(problems(agent))


def test_settings_that_are_a_directory_are_named(agent):
    file = agent.home / "config/zelagent.ini"
    file.unlink(missing_ok=True)
    file.mkdir()
    assert any(problem.endswith(f"cannot read {file}") for problem in problems(agent))
    done = agent.command("run")
    assert done.returncode == 1
    assert done.stderr.decode() == f"zelagent: {file} cannot be used:\n  cannot read {file}\n"


def test_links_that_lead_in_circles_come_to_an_end(agent):
    link = agent.home / "config/circle"
    link.symlink_to("circle")
    assert problems(agent) == [f"{link} is a link that leads nowhere"]


def test_an_access_list_that_lets_somebody_write_is_seen(agent):
    subprocess.run(["setfacl", "-m", "u:nobody:rwx", agent.home / "config"], check=True)
    (problem,) = problems(agent)
    assert problem.startswith(f"{agent.home / 'config'} can be written by others than root")


@pytest.mark.parametrize("key, section", [("secret_file", "fleet"), ("private_key", "http")])
def test_a_secret_that_others_may_read_is_named_wherever_it_stands(agent, tmp_path, key, section):
    secret = tmp_path / "secret"
    secret.write_text(SECRET)
    secret.chmod(0o600)
    with open(agent.home / "config/zelagent.ini", "a") as settings:
        settings.write(f"[{section}]\n{key} = {secret}\n")
    assert problems(agent) == []
    secret.chmod(0o640)
    assert f"{secret} holds a secret and can be read by others than root" in problems(agent)


@pytest.mark.parametrize("suffix", ["", "-wal", "-shm", "-journal"])
def test_a_masters_database_that_others_may_write_is_named(agent, tmp_path, suffix):
    database = tmp_path / "tasks.db"
    settings = agent.home / "config/zelagent.ini"
    settings.write_text(f"[master]\nenabled = yes\ndatabase = {database}\n")
    file = tmp_path / ("tasks.db" + suffix)
    file.write_text("")
    assert problems(agent) == []
    file.chmod(0o666)
    assert problems(agent) == [f"{file} can be written by others than root (mode 0666)"]
    settings.write_text("[master]\n")
    assert problems(agent) == []


def test_a_masters_own_database_is_looked_at(agent):
    (agent.home / "config/zelagent.ini").write_text("[master]\nenabled = yes\n")
    file = agent.home / "data/TaskDatabase/tasks.db"
    file.parent.mkdir(parents=True)
    file.write_text("")
    assert problems(agent) == []
    file.chmod(0o646)
    assert problems(agent) == [f"{file} can be written by others than root (mode 0646)"]


def test_what_a_database_is_reached_by_is_looked_at(agent, tmp_path):
    secret, authority = tmp_path / "pgpass", tmp_path / "root.pem"
    for file in (secret, authority):
        file.write_text("")
        file.chmod(0o600)
    (agent.home / "config/zelagent.ini").write_text(
        "[master]\nenabled = yes\n"
        f"database = host=db dbname=tasks passfile={secret} sslmode=verify-full sslrootcert='{authority}'\n")
    (agent.home / "config/zelagent.ini").chmod(0o600)
    assert problems(agent) == []
    secret.chmod(0o640)
    authority.chmod(0o620)
    assert problems(agent) == [f"{authority} can be written by others than root (mode 0620)",
                               f"{secret} holds a secret and can be read by others than root"]


@pytest.mark.parametrize("drive", ["", "C:"])
def test_a_script_that_starts_with_the_agent_is_looked_at_wherever_it_stands(agent, tmp_path, drive):
    script = tmp_path / "start.mlx"
    script.write_text("function main() end\n")
    (agent.home / "config/ZelCoreUtils.ini").write_text(f"[Run]\nStart = {drive}{script}\n")
    assert problems(agent) == []
    script.chmod(0o622)
    assert problems(agent) == [f"{script} can be written by others than root (mode 0622)"]


def test_settings_with_a_password_are_a_secret(agent):
    settings = agent.home / "config/zelagent.ini"
    settings.write_text("[master]\ndatabase = host=db dbname=tasks password=pass\n")
    settings.chmod(0o600)
    assert problems(agent) == []
    settings.chmod(0o644)
    assert f"{settings} holds a secret and can be read by others than root" in problems(agent)


def test_a_module_that_others_may_write_is_not_loaded(agent, tmp_path):
    modules = tmp_path / "modules"
    modules.mkdir()
    module = modules / "ZelCoreUtils.so"
    shutil.copy(BUILDS["linux"] / "bin/modules/ZelCoreUtils.so", module)
    module.chmod(0o666)
    done = agent.command("run", "--port", "0", "--modules", str(modules))
    assert done.returncode == UNSAFE
    assert done.stderr.decode() == (
        "zelagent: ordinary users could take over this agent, so it does not start:\n"
        f"  {module} can be written by others than root (mode 0666)\n")
    # Nothing was begun.
    assert not (agent.home / "log/zelagent.log").exists()
