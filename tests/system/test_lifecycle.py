"""Starting, configuring and stopping an agent; its users and its audit log."""

import json
import re
import time

import pytest

from agents import PASSWORDS, ROLES, Agent, copy_modules


def test_the_ready_line_is_all_that_a_start_prints_and_the_stop_is_clean(make_agent):
    agent = make_agent().start()
    assert re.fullmatch(r"http://127\.0\.0\.1:\d+", agent.url)
    assert agent.stop() == 0
    assert agent.output == ["zelagent ready: " + agent.url]


def test_the_log_tells_of_the_module_from_start_to_stop(make_agent):
    agent = make_agent().start()
    assert agent.stop() == 0
    log = agent.log()
    texts = ["Module Register starting", "Module Initialise starting", "Module config file is",
             "Module Activate starting", "Module Cleanup starting", "Module Unregister starting"]
    positions = [log.find(text) for text in texts]
    assert -1 not in positions and positions == sorted(positions), log
    assert (agent.home / "data/ZelCoreUtils").is_dir()


def test_two_agents_cannot_share_a_home(make_agent, platform):
    agent = make_agent().start()
    second = Agent(platform, agent.home)
    done = second.command("run", "--port", "0")
    assert done.returncode == 1
    assert done.stderr
    assert agent.stop() == 0


def test_config_check_names_unknown_keys_and_bad_values_with_their_lines(make_agent):
    agent = make_agent("[http]\nport = many\nprot = 1\n[nonsense]\nx = 1\n")
    done = agent.command("config", "check")
    text = (done.stdout + done.stderr).decode()
    assert done.returncode == 1
    for expected in ("line 2", "many", "line 3", '"prot"', "line 4", "nonsense"):
        assert expected in text, text


def test_config_check_accepts_a_good_file(make_agent):
    done = make_agent("[http]\nport = 0\n[log]\nlevel = trace\n").command("config", "check")
    assert done.returncode == 0, (done.stdout + done.stderr).decode()


def test_an_agent_does_not_start_with_a_bad_value(make_agent):
    done = make_agent("[http]\nport = many\n").command("run", "--port", "0")
    assert done.returncode == 1
    assert b"port" in done.stderr


def can_ask(agent, login, password):
    status, _, _ = agent.request("GET", "/v1/actions", user=login, password=password)
    assert status in (200, 401)
    return status == 200


def wait_until(condition):
    # The agent looks at its users' file a few times in a second; refused attempts are slowed down.
    end = time.monotonic() + 20
    while time.monotonic() < end:
        if condition():
            return True
    return False


def test_users_come_change_and_go_without_a_restart(make_agent):
    agent = make_agent()
    agent.add_users()
    agent.start()
    assert can_ask(agent, "admin", PASSWORDS["admin"])
    assert not can_ask(agent, "newcomer", "first password")

    agent.add_user("newcomer", "first password", "operator")
    assert wait_until(lambda: can_ask(agent, "newcomer", "first password"))

    done = agent.command("user", "password", "newcomer", password="second password")
    assert done.returncode == 0, done.stderr
    assert wait_until(lambda: can_ask(agent, "newcomer", "second password"))
    assert wait_until(lambda: not can_ask(agent, "newcomer", "first password"))

    done = agent.command("user", "remove", "newcomer")
    assert done.returncode == 0, done.stderr
    assert wait_until(lambda: not can_ask(agent, "newcomer", "second password"))
    assert can_ask(agent, "admin", PASSWORDS["admin"])

    listed = agent.command("user", "list").stdout.decode()
    assert "admin" in listed and "visitor" in listed and "newcomer" not in listed
    assert agent.stop() == 0


def test_users_cannot_be_added_twice_or_removed_when_missing(make_agent):
    agent = make_agent()
    agent.add_users()
    again = agent.command("user", "add", "admin", "--role", ROLES["admin"], password="other words")
    assert again.returncode == 1 and b"admin" in again.stderr
    missing = agent.command("user", "remove", "nobody")
    assert missing.returncode == 1 and b"nobody" in missing.stderr


def test_passwords_are_not_kept_in_clear(make_agent):
    agent = make_agent()
    agent.add_users()
    users = (agent.home / "config/users").read_text()
    assert "admin" in users
    assert not any(password in users for password in PASSWORDS.values())


def test_privacy_rules_decide_for_a_user(make_agent, tmp_path):
    probe = make_agent()
    open_to_all, closed = tmp_path / "open", tmp_path / "closed"
    for directory in (open_to_all, closed):
        directory.mkdir()
        (directory / "file").write_text("x")
    rule = probe.path(open_to_all / "**")
    agent = make_agent(f"[privacy]\nrule1 = visitor, {rule}, read\n")
    agent.add_users()
    agent.start()

    def size(path):
        return agent.call("CoreUtilsGetFileSize", user="visitor", Path=path)[0]

    assert size(agent.path(open_to_all / "file")) == 0
    assert size(agent.path(closed / "file")) == 12
    assert size(agent.path(open_to_all) + "/../closed/file") == 12
    (open_to_all / "link").symlink_to(closed)
    assert size(agent.path(open_to_all / "link/file")) == 12
    assert agent.call("CoreUtilsDeleteFile", user="visitor",
                      Path=agent.path(open_to_all / "file"))[0] == 12
    assert agent.stop() == 0


def audit_lines(agent):
    return [json.loads(line) for line in
            (agent.home / "log/audit.jsonl").read_text().splitlines()]


def test_every_remote_invocation_is_audited_and_the_chain_verifies(make_agent, tmp_path):
    agent = make_agent()
    agent.add_users()
    agent.start()
    agent.call("CoreUtilsGetFileSize", user="visitor", Path=agent.path(tmp_path / "none"))
    agent.call("CoreUtilsDirCreate", Path=agent.path(tmp_path / "made"))
    assert agent.stop() == 0

    file = agent.home / "log/audit.jsonl"
    calls = [line for line in audit_lines(agent) if "CoreUtils" in line["text"]]
    assert [(line["user"], line["address"]) for line in calls] == [
        ("visitor", "127.0.0.1"), ("admin", "127.0.0.1")]
    assert "14001" in calls[0]["text"] and "CoreUtilsGetFileSize" in calls[0]["text"]

    verified = agent.zelctl("audit", "verify", agent.path(file))
    assert verified.returncode == 0, verified.stderr

    # The chain goes on after a restart.
    agent.start()
    agent.call("CoreUtilsDirCreate", Path=agent.path(tmp_path / "made2"))
    assert agent.stop() == 0
    assert agent.zelctl("audit", "verify", agent.path(file)).returncode == 0

    forged = file.read_text().replace("visitor", "admin", 1)
    file.write_text(forged)
    refused = agent.zelctl("audit", "verify", agent.path(file))
    assert refused.returncode == 1
    assert b"line" in refused.stderr


def test_a_module_that_cannot_be_loaded_is_named_and_the_agent_goes_on(
        make_agent, platform, tmp_path):
    modules = copy_modules(platform, tmp_path / "modules")
    broken = modules / ("broken.dll" if platform == "windows" else "broken.so")
    broken.write_text("this is no module")
    agent = make_agent(modules=modules)
    agent.add_users()
    agent.start()
    assert agent.call("CoreUtilsGetFileSize", Path=agent.path(broken))[0] == 0
    assert agent.stop() == 0
    assert any("broken" in line for line in agent.errors), agent.describe()


@pytest.mark.parametrize("platform", ["linux"])
def test_an_agent_without_libcurl_refuses_urls_each_time_and_goes_on(
        make_agent, monkeypatch, tmp_path):
    libraries = tmp_path / "libraries"
    libraries.mkdir()
    (libraries / "libcurl.so.4").write_text("this is no library")
    monkeypatch.setenv("LD_LIBRARY_PATH", str(libraries))
    agent = make_agent()
    agent.add_users()
    agent.start()
    for _ in range(3):
        code, _ = agent.call("CoreUtilsCopyFile", SourcePath="http://127.0.0.1:1/file",
                             DestinationPath=agent.path(tmp_path / "copy"))
        assert code == 14001
    assert agent.stop() == 0
    assert agent.log().count("libcurl is missing") == 3, agent.log()


@pytest.mark.parametrize("platform", ["linux"], indirect=True)
def test_a_checked_password_leaves_no_memory_behind(make_agent):
    # Each call's password is checked, which takes 16 MiB for a moment. What an agent that has nothing to
    # do gives back later is not waited for.
    agent = make_agent("[http]\ncredential_memory_ms = 0\n")
    agent.add_users()
    agent.start()
    before = agent.resident_bytes()
    for _ in range(3):
        agent.call("CoreUtilsGetFileSize", Path="/etc/hostname")
        assert agent.resident_bytes() - before < 8 << 20
    assert agent.peak_bytes() - before > 12 << 20
