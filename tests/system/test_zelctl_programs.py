"""zelctl's verbs over programs, scripts and processes: run, script, ps and kill."""

import json
import re
import signal
import subprocess
import time

import pytest

from agents import REPLY_TIMEOUT_S, clean_environment, program

SHELLS = {"linux": "/bin/sh", "windows": r"C:\windows\system32\cmd.exe"}


def run(agent, *arguments, **options):
    done = agent.zelctl(*arguments, **options)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def wait_for(condition, seconds=30):
    for _ in range(seconds * 20):
        found = condition()
        if found:
            return found
        time.sleep(0.05)
    raise AssertionError("it did not come")


def lua_path(agent, path):
    """A path as a text of a script."""
    return json.dumps(agent.path(path).replace("\\", "/"))


def copies(agent):
    """Local scripts that are on the agent's machine."""
    return list((agent.home / "data/ZelCoreUtils").glob("zelctl-*"))


@pytest.fixture
def local_script(agent, tmp_path):
    """Makes a script here: (path, how zelctl is told of it)."""

    def make(text, name="job.mlx"):
        data = text if isinstance(text, bytes) else text.encode()
        (tmp_path / name).write_bytes(data)
        return agent.path(tmp_path / name)

    return make


def test_run_starts_a_program_with_its_arguments(agent, platform, tmp_path):
    source, target = tmp_path / "from here", tmp_path / "to there"
    source.write_text("x")
    paths = agent.path(source), agent.path(target)
    arguments = {"linux": ["-c", 'cp "$0" "$1"', *paths],
                 "windows": ["/c", "copy", *paths]}[platform]
    assert run(agent, "run", SHELLS[platform], "--", *arguments) == (0, "", "")
    wait_for(target.exists)


def test_run_passes_odd_arguments_unchanged(agent, platform, tmp_path):
    if platform == "windows":
        # cmd takes its line apart by rules of its own, so that only a path can be looked at.
        target = tmp_path / "a [b] {} \u65e5"
        mkdir = ["/c", "mkdir", agent.path(target)]
        assert run(agent, "run", SHELLS[platform], "--", *mkdir)[0] == 0
        wait_for(target.exists)
        return
    odd = ["", "[a,b]", "{}", "--", "-x", "--json", "run", 'say "hi"', "a\\", "b c\\", '\\"', "\t",
           "\u65e5\u672c", "$HOME", "*"]
    target = tmp_path / "arguments"
    script = 'o=$1.new; t=$1; shift; printf "%s\\0" "$@" > "$o"; mv "$o" "$t"'
    assert run(agent, "run", "/bin/sh", "--", "-c", script, "sh", str(target), *odd)[0] == 0
    wait_for(target.exists)
    assert target.read_bytes().decode().split("\0")[:-1] == odd


def test_run_tells_what_it_cannot_start(agent, tmp_path):
    status, output, errors = run(agent, "run", agent.path(tmp_path / "none"))
    assert (status, output, errors) == (1, "", "zelctl: CoreUtilsRunProgram: code 1: failure\n")
    status, _, errors = run(agent, "run", 'a"b')
    assert (status, "double quote" in errors) == (2, True)
    assert run(agent, "run")[0] == 2
    assert run(agent, "run", "--", "/bin/true")[0] == 2


def test_run_with_json_prints_the_reply(agent, platform):
    exit_at_once = {"linux": ["-c", "exit"], "windows": ["/c", "exit"]}[platform]
    assert run(agent, "--json", "run", SHELLS[platform], "--", *exit_at_once)[1] == (
        '{"code":0,"container":{}}\n')


def test_script_runs_a_local_file_with_parameters_and_removes_the_copy(
        agent, local_script, tmp_path):
    answer = tmp_path / "answer"
    file = local_script(f"""#!/usr/bin/lua
        function main()
          local out = assert(io.open({lua_path(agent, answer)}, "wb"))
          out:write(ParamsContainer:get_string("Text"), " ", ParamsContainer:get("Count") + 1)
          out:close()
        end
        """)
    assert run(agent, "script", "--local", file, "--param", "Text=gr\u00f6\u00dfe",
               "--param", "Count:=41") == (0, "", "")
    assert answer.read_text() == "gr\u00f6\u00dfe 42"
    assert copies(agent) == []


def test_script_tells_file_and_line_of_an_error(agent, local_script):
    broken = local_script("function main()\n\n  x = = 1\nend\n", "broken.mlx")
    status, output, errors = run(agent, "script", "--local", broken)
    assert (status, output) == (1, "")
    assert errors.startswith(f"{broken}:3: ")
    assert "zelctl" not in errors.removeprefix(broken) and errors.count(":3:") == 1

    failing = local_script("function main()\n  error('no luck')\nend\n", "failing.mlx")
    assert run(agent, "script", "--local", failing) == (1, "", f"{failing}:2: no luck\n")
    assert copies(agent) == []


def test_script_runs_what_is_on_the_agents_machine(agent, tmp_path):
    directory = agent.home / "data/ZelCoreUtils"
    directory.mkdir(parents=True, exist_ok=True)
    ran = tmp_path / "ran"
    (directory / "named.mlx").write_text(
        f'function main()\n  io.open({lua_path(agent, ran)}, "w"):close()\n  error("later")\nend')
    assert run(agent, "script", "named.mlx", "--compile-only") == (0, "", "")
    assert not ran.exists()
    assert run(agent, "script", "named.mlx") == (1, "", "named.mlx:3: later\n")
    assert ran.exists()
    status, output, _ = run(agent, "--json", "script", "named.mlx")
    reply = json.loads(output)
    assert (status, reply["code"], reply["container"]["ErrorLine"]) == (1, 1, 3)


def test_script_tells_what_it_cannot_run(agent, local_script, tmp_path):
    status, _, errors = run(agent, "script", "none.mlx")
    assert (status, "none.mlx: could not be run: there is no such script" in errors) == (1, True)
    status, _, errors = run(agent, "script", "--local", local_script(b"caf\xe9"))
    assert (status, "is not UTF-8 text" in errors) == (2, True)
    missing = agent.path(tmp_path / "none")
    status, _, errors = run(agent, "script", "--local", missing)
    assert (status, "cannot be read" in errors) == (2, True)
    assert run(agent, "script")[0] == 2
    assert run(agent, "script", "a.mlx", "--local", missing)[0] == 2
    assert run(agent, "script", "a.mlx", "--param", "nonsense")[0] == 2
    assert copies(agent) == []


def test_an_interrupted_script_leaves_no_copy(agent, platform, local_script, tmp_path):
    started, stop = tmp_path / "started", tmp_path / "stop"
    file = local_script(f"""
        function main()
          io.open({lua_path(agent, started)}, "w"):close()
          repeat local found = io.open({lua_path(agent, stop)}) until found
          found:close()
        end
        """)
    agent.zelctl("health")  # writes the password
    environment = clean_environment(ZEL_AGENT=agent.url, ZEL_USER="admin",
                                    ZEL_PASSWORD_FILE=agent.path(agent.home / "password-of-admin"))
    zelctl = subprocess.Popen(program(platform, "zelctl") + ["script", "--local", file],
                              env=environment, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
    try:
        wait_for(started.exists)
        assert len(copies(agent)) == 1
        zelctl.send_signal(signal.SIGINT)
        errors = zelctl.communicate(timeout=REPLY_TIMEOUT_S)[1].decode()
    finally:
        stop.touch()
        zelctl.kill()
        zelctl.wait()
    assert (zelctl.returncode, "interrupted" in errors) == (1, True), errors
    assert copies(agent) == []


def table(output):
    """The IDs and names of a table of processes. Names may start with and hold blanks."""
    header, *lines = output.splitlines()
    assert header.split() == [
        "PID", "PARENT", "OWNER", "CPU%", "TIME", "MEMORY", "THREADS", "NAME"]
    name_at = header.index("NAME")
    return [{"PID": line.split()[0], "NAME": line[name_at:]} for line in lines]


def test_ps_lists_what_the_agent_lists(agent):
    status, output, errors = run(agent, "ps")
    assert (status, errors) == (0, "")
    rows = table(output)
    ids = [int(row["PID"]) for row in rows]
    assert ids == sorted(ids)
    assert any("zelagent" in row["NAME"] for row in rows)
    listed = json.loads(run(agent, "--json", "ps", "nothing has this name")[1])
    assert {"ProcessID", "ProcessName"} <= set(listed["container"]["Values"][0])


def test_ps_shows_the_agent_itself(agent, platform):
    assert run(agent, "ps", "no process has this name") == (0, "", "")
    rows = table(run(agent, "ps", "ZELAGENT*")[1])
    assert rows and all(row["NAME"].lower().startswith("zelagent") for row in rows)
    if platform == "linux":
        identifier = str(agent.process.pid)
        assert identifier in [row["PID"] for row in table(run(agent, "ps", identifier)[1])]
        assert "/zelagent" in run(agent, "ps", "--path", "zelagent")[1]


def test_ps_sorts_and_limits(agent):
    by_memory = run(agent, "ps", "--sort", "memory", "--limit", "2")[1]
    assert len(table(by_memory)) == 2
    assert len(table(run(agent, "ps", "--limit", "1", "--tree")[1])) == 1
    ids = [int(row["PID"]) for row in table(run(agent, "ps", "--sort", "id", "-r")[1])]
    assert ids == sorted(ids, reverse=True)
    assert run(agent, "ps", "--sort", "colour")[0] == 2
    assert run(agent, "ps", "--limit", "0")[0] == 2


def test_ps_shows_a_tree(agent, platform):
    rows = table(run(agent, "ps", "--tree")[1])
    assert not rows[0]["NAME"].startswith(" ")
    if platform == "linux":
        # The agent stands below the process that started it.
        names = {row["PID"]: row["NAME"] for row in rows}
        assert re.match(r"(  )+zelagent", names[str(agent.process.pid)])


def own_ids(agent):
    rows = json.loads(run(agent, "--json", "ps")[1])["container"]["Values"]
    return {row["ProcessID"] for row in rows if "zelagent" in row["ProcessName"].lower()}


def test_kill_ends_a_process(agent, platform, make_agent):
    before = own_ids(agent)
    victim = make_agent()
    victim.add_users()
    victim.start()
    new = own_ids(agent) - before
    identifier = str(victim.process.pid) if platform == "linux" else new.pop()
    assert run(agent, "kill", hex(int(identifier))) == (0, "", "")
    victim.process.wait(timeout=REPLY_TIMEOUT_S)
    assert identifier not in own_ids(agent)


def test_kill_tells_what_could_not_be_ended(agent):
    status, output, errors = run(agent, "kill", "4294967294")
    assert (status, output) == (1, "")
    assert errors == ("zelctl: the process 4294967294 could not be ended "
                      "(CoreUtilsTerminateProcess: code 1: failure)\n")
    status, _, errors = run(agent, "kill", "4294967294", "0xFFFFFFFD")
    assert (status, "at least one of the processes could not be ended" in errors) == (1, True)


def test_kill_refuses_what_is_no_id_before_it_ends_anything(agent):
    for wrong in ("0", "-1", "zelagent", "08", "4294967296", "1.5", ""):
        status, output, errors = run(agent, "kill", "--", "4294967294", wrong)
        assert (status, output) == (2, "")
        assert f"'{wrong}' is no process ID" in errors
    assert run(agent, "kill")[0] == 2


def test_scripts_and_kill_are_for_administrators(agent):
    for arguments in (("script", "a.mlx"), ("kill", "4294967294")):
        status, _, errors = run(agent, *arguments, user="visitor")
        assert (status, "administrators" in errors) == (3, True)
