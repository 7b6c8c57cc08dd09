"""Scripts, beside programs of the same kind that are started as processes."""

import os

from agents import Agent
from measuring import alternate, seconds_of
from report import at_most, row

INVOCATIONS = 100000
RUNS = 100  # of one kind in a row


def spawn(*command):
    def run():
        status = os.waitpid(os.posix_spawn(command[0], command, os.environ), 0)[1]
        assert status == 0
    return run


def repeat(work):
    def run():
        for _ in range(RUNS):
            work()
    return run


def bench_script(build, directory):
    """An empty script through the action beside empty programs of Lua and Python, and a script that
    invokes an action many times."""
    with Agent(build, directory / "home") as agent, agent.connect() as connection:
        scripts = directory / "home/data/ZelCoreUtils"
        (scripts / "empty.mlx").write_text("function main() end\n")
        (scripts / "calls.mlx").write_text(
            "function main()\n"
            f"  for i = 1, {INVOCATIONS} do\n"
            '    assert(action.invoke("CoreUtilsInfosProcessAvailable") == 0)\n'
            "  end\n"
            "end\n")
        empty = connection.caller("CoreUtilsRunScript", {"Name": "empty.mlx"})
        ours, lua, python = (seconds / RUNS for seconds in alternate(
            [repeat(empty), repeat(spawn("/usr/bin/lua5.4", "-e", "")),
             repeat(spawn("/usr/bin/python3", "-c", ""))], 9))
        invoking = seconds_of(connection.caller("CoreUtilsRunScript", {"Name": "calls.mlx"}))
    return [row("empty script, from the request to the reply", ours * 1e6, "µs", "`lua5.4 -e ''`",
                lua * 1e6, at_most(0.2)),
            row("the same", ours * 1e6, "µs", "`python3 -c ''`", python * 1e6),
            row(f"script that invokes an action {INVOCATIONS:,} times", INVOCATIONS / invoking,
                "calls/s")]
