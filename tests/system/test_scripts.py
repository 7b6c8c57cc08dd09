"""CoreUtilsRunScript: scripts that the agent runs."""

import concurrent.futures
import http.client
import itertools
import json
import threading
import time

import pytest

from proxy import make_agent_with

PAIRS = list(itertools.product(("linux", "windows"), repeat=2))


def scripts_of(agent):
    """Where scripts without a directory are looked for."""
    return agent.home / "data/ZelCoreUtils"


def lua_path(agent, path):
    """A path as a text of a script."""
    return json.dumps(agent.path(path).replace("\\", "/"))


def write_script(agent, name, text):
    scripts_of(agent).mkdir(parents=True, exist_ok=True)
    data = text if isinstance(text, bytes) else text.encode()
    (scripts_of(agent) / name).write_bytes(data)
    return name


def run(agent, name, text, **parameters):
    """(code, container) of a script."""
    return agent.call("CoreUtilsRunScript", Name=write_script(agent, name, text), **parameters)


def call_and_ignore(agent, name):
    """For a call that the agent's end may cut off."""
    try:
        agent.call("CoreUtilsRunScript", Name=name)
    except (OSError, http.client.HTTPException, AssertionError):
        pass


def error_of(agent, name, text):
    """(first line and second line of ErrorText, ErrorLine) of a script that fails."""
    code, container = run(agent, name, text)
    assert code == 1
    assert sorted(container) == ["ErrorLine", "ErrorText"]
    return container["ErrorText"].split("\r\n"), container["ErrorLine"]


def test_a_script_finds_its_parameters_and_calls_actions(agent, tmp_path):
    (tmp_path / "measured").write_text("12345")
    answer = tmp_path / "answer"
    code, container = run(agent, "measure.mlx", f"""
        function main()
          local file = ParamsContainer:get_string("File")
          local code, result = action.invoke("CoreUtilsGetFileSize", {{Path = file}})
          local out = assert(io.open({lua_path(agent, answer)}, "wb"))
          out:write(code, " ", result.Result, " ", tostring(ParamsContainer:get("Deep"):get("Flag")))
          out:close()
        end
        """, Params={"File": agent.path(tmp_path / "measured"), "Deep": {"Flag": True}})
    assert code == 0, container
    assert answer.read_text() == "0 5 true"
    # Nothing is answered, and nothing taken away.
    assert container["Name"] == "measure.mlx" and "ErrorText" not in container


def test_scripts_that_run_at_once_keep_their_own_parameters(agent, tmp_path):
    callers, runs = 8, 20
    write_script(agent, "own.mlx", """
        function main()
          local out = assert(io.open(ParamsContainer:get_string("File"), "wb"))
          out:write(ParamsContainer:get_string("Text"))
          out:close()
        end
        """)
    for caller in range(callers):
        write_script(agent, f"broken{caller}.mlx", "\n" * caller + "x = = 1")

    def call(caller):
        for number in range(runs):
            file = tmp_path / f"{caller}-{number}"
            params = {"File": agent.path(file), "Text": f"{number} of {caller}"}
            is_broken = number % 4 == 3
            code, container = agent.call(
                "CoreUtilsRunScript", Name=f"broken{caller}.mlx" if is_broken else "own.mlx", Params=params)
            if is_broken:
                assert (code, container["ErrorLine"]) == (1, caller + 1)
                assert f"broken{caller}.mlx:" in container["ErrorText"]
            else:
                assert (code, container["Params"]) == (0, params)
                assert file.read_text() == params["Text"]

    with concurrent.futures.ThreadPoolExecutor(callers) as pool:
        list(pool.map(call, range(callers)))
    assert len(list(tmp_path.iterdir())) == callers * runs * 3 // 4


def test_a_script_finds_the_directory_bin_of_the_agents_home(agent, tmp_path):
    answer = tmp_path / "answer"
    code, container = run(agent, "variable.mlx", f"""
        function main()
          local out = assert(io.open({lua_path(agent, answer)}, "wb"))
          out:write(os.getenv("QOVA_AGENT"))
          out:close()
        end
        """)
    assert code == 0, container
    assert answer.read_text() == agent.path(agent.home / "bin")


def test_a_script_is_found_by_a_full_path_too(agent, tmp_path):
    done = tmp_path / "done"
    (tmp_path / "job.mlx").write_text(
        f'function main() io.open({lua_path(agent, done)}, "w"):close() end')
    assert agent.call("CoreUtilsRunScript", Name=agent.path(tmp_path / "job.mlx"))[0] == 0
    assert done.exists()


def test_a_script_below_the_data_directory_is_named_with_its_extension(agent):
    (scripts_of(agent) / "sub").mkdir(parents=True, exist_ok=True)
    write_script(agent, "sub/inner.mlx", "function main() end")
    assert agent.call("CoreUtilsRunScript", Name="sub/inner.mlx")[0] == 0
    assert agent.call("CoreUtilsRunScript", Name="sub/inner")[0] == 1
    assert "does not exist." in agent.log()


def test_a_missing_script_and_a_directory_answer_no_keys(agent):
    (scripts_of(agent) / "directory.mlx").mkdir(parents=True, exist_ok=True)
    for name in ("none.mlx", "directory.mlx", ""):
        code, container = agent.call("CoreUtilsRunScript", Name=name)
        assert code == 1
        assert not {"ErrorText", "ErrorLine"} & set(container)
        assert container["Name"] == name


def test_a_script_that_does_not_compile_names_its_line(agent):
    lines, line = error_of(agent, "broken.mlx", "function main()\n\n  x = = 1\nend\n")
    assert line == 3
    assert lines[0] == "Fatal parse or run time error MARLIN_ERROR_SYNTAX line 3"
    assert not lines[1].startswith(" ") and "broken.mlx:3: " in lines[1]


def test_a_script_that_fails_names_its_line(agent):
    lines, line = error_of(agent, "fails.mlx", "function main()\n  error('no luck')\nend\n")
    assert line == 2
    assert lines[0] == "Fatal parse or run time error MARLIN_ERROR_RUNTIME line 2"
    # The two formats differ by this blank.
    assert lines[1].startswith(" ") and lines[1].endswith("fails.mlx:2: no luck")
    assert "Running " in agent.log() and "stack traceback" in agent.log()


def test_compile_only_runs_nothing(agent, tmp_path):
    ran = tmp_path / "ran"
    text = f'io.open({lua_path(agent, ran)}, "w"):close()\nfunction main() end'
    code, container = run(agent, "checked.mlx", text, CompileOnly=True)
    assert (code, container["CompileOnly"]) == (0, True)
    assert not ran.exists()
    code, container = run(agent, "checked.mlx", "end", CompileOnly=True)
    assert (code, container["ErrorLine"]) == (1, 1)


@pytest.mark.parametrize("text, name", [
    ("x = 1", "MARLIN_ERROR_NO_PROCEDURE"),
    (b"\x1bLua\x54\x00", "MARLIN_ERROR_NOT_TEXT"),
    ("function main() os.exit(false) end", "MARLIN_ERROR_EXIT"),
    ("function main() action.invoke(1, 2, 3, 4) end", "MARLIN_ERROR_RUNTIME"),
    ("function main() local t = {} while true do t[#t + 1] = ('x'):rep(2^20) .. #t end end",
     "MARLIN_ERROR_MEMORY"),
    ("function main() return main() + 1 end", "MARLIN_ERROR_RUNTIME"),
])
def test_what_goes_wrong_has_a_name(agent, text, name):
    lines, _ = error_of(agent, "wrong.mlx", text)
    assert name in lines[0]


def test_byte_order_marks_and_either_line_end_are_fine(agent):
    for data in (b"\xef\xbb\xbffunction main()\r\nend\r\n", b"function main()\nend",
                 b"#!/usr/bin/lua\nfunction main()\nend"):
        assert run(agent, "plain.mlx", data)[0] == 0, data


def test_a_runaway_script_ends(make_agent):
    agent = make_agent()
    (agent.home / "config/marlin.ini").write_text("[limits]\ninstructions = 20000000\n")
    agent.add_users()
    agent.start()
    for body in ("while true do end", "while true do pcall(function() while true do end end) end",
                 "coroutine.wrap(function() while true do end end)()"):
        lines, line = error_of(agent, "runaway.mlx", f"function main()\n  {body}\nend")
        assert "MARLIN_ERROR_INSTRUCTIONS" in lines[0], body
        assert line == 2
    assert agent.stop() == 0


def test_the_agent_stops_while_a_script_runs_for_ever(make_agent, tmp_path):
    agent = make_agent()
    agent.add_users()
    agent.start()
    started = tmp_path / "started"
    write_script(agent, "endless.mlx", f"""
        function main()
          io.open({lua_path(agent, started)}, "w"):close()
          while true do pcall(function() while true do end end) end
        end
        """)
    caller = threading.Thread(target=call_and_ignore, args=(agent, "endless.mlx"))
    caller.start()
    deadline = time.monotonic() + 30
    while not started.exists() and time.monotonic() < deadline:
        time.sleep(0.02)
    assert started.exists()
    assert agent.stop() == 0
    caller.join()
    assert "MARLIN_ERROR_INTERRUPTED" in agent.log() or "interrupted" in agent.log()


def test_a_ring_of_agents_ends(make_member, platform, tmp_path):
    first, second = make_member(platform), make_member(platform)
    rounds = tmp_path / "rounds"
    rounds.write_text("")
    text = f"""
        function main()
          local out = io.open({lua_path(first, rounds)}, "a") out:write("x") out:close()
          local here, there = ParamsContainer:get_string("Here"), ParamsContainer:get_string("There")
          local code = action.invoke("CoreUtilsRunScript",
            {{Name = "ring.mlx", Params = {{Here = there, There = here}}}}, there)
          if code ~= 0 then error(string.format("%#x", code)) end
        end
        """
    write_script(second, "ring.mlx", text)
    code, container = run(first, "ring.mlx", text,
                          Params={"Here": first.url, "There": second.url})
    assert code == 1
    assert len(rounds.read_text()) == 17
    assert "too often" in first.log() + second.log()
    assert first.stop() == 0 and second.stop() == 0


def test_a_script_that_runs_itself_ends_with_a_clear_error(agent, tmp_path):
    depth = tmp_path / "depth"
    depth.write_text("")
    code, _ = run(agent, "nested.mlx", f"""
        function main()
          local out = io.open({lua_path(agent, depth)}, "a") out:write("x") out:close()
          local code, result = action.invoke("CoreUtilsRunScript", {{Name = "nested.mlx"}})
          if code ~= 0 then
            log.print("nested: %s", result.ErrorText)
            error("stopped")
          end
        end
        """)
    assert code == 1
    assert 2 <= len(depth.read_text()) <= 64
    assert "MARLIN_ERROR_DEPTH" in agent.log()


def test_a_script_reaches_the_users_session(make_agent, make_proxy, short_directory):
    proxy = make_proxy()
    agent = make_agent_with(make_agent, proxy.pipe)
    answer, ran = short_directory / "answer", short_directory / "ran"
    command = {"linux": f"/bin/touch {ran}",
               "windows": f"C:\\windows\\system32\\cmd.exe /c echo x> {agent.path(ran)}"}
    code, container = run(agent, "session.mlx", f"""
        function main()
          assert(session.connected())
          local info = assert(session.info())
          assert(session.run({json.dumps(command[agent.platform])}))
          local started, why = session.run("no-such-program-anywhere")
          assert(not started and #why > 0)
          local out = io.open({lua_path(agent, answer)}, "wb")
          out:write(info.platform, " ", info.user)
          out:close()
        end
        """)
    assert code == 0, container
    assert answer.read_text().split()[0] == agent.platform
    assert len(answer.read_text().split()) == 2
    deadline = time.monotonic() + 30
    while not ran.exists() and time.monotonic() < deadline:
        time.sleep(0.02)
    assert ran.exists()

    assert proxy.stop() == 0
    code, container = run(agent, "alone.mlx",
                          "function main() assert(not session.connected()) end")
    assert code == 0, container
    assert agent.stop() == 0


def test_scripts_are_for_administrators(agent):
    write_script(agent, "harmless.mlx", "function main() end")
    status, _, body = agent.request("POST", "/v1/actions/CoreUtilsRunScript",
                                    b'{"Name":"harmless.mlx"}', user="visitor")
    assert status == 403
    assert json.loads(body)["error"]["code"] == "administrators_only"


@pytest.mark.parametrize("caller_platform, target_platform", PAIRS)
def test_a_script_invokes_an_action_on_another_agent(
        make_member, tmp_path, caller_platform, target_platform):
    caller, target = make_member(caller_platform), make_member(target_platform)
    (tmp_path / "far").write_text("1234567")
    answer = tmp_path / "answer"
    code, container = run(caller, "far.mlx", f"""
        function main()
          local code, result = action.invoke("CoreUtilsGetFileSize",
            {{Path = ParamsContainer:get_string("Path")}}, ParamsContainer:get_string("Agent"))
          local out = io.open({lua_path(caller, answer)}, "wb")
          out:write(code, " ", result.Result)
          out:close()
        end
        """, Params={"Path": target.path(tmp_path / "far"), "Agent": target.url})
    assert code == 0, container
    assert answer.read_text() == "0 7"
    assert caller.stop() == 0 and target.stop() == 0
