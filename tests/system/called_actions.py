#!/usr/bin/python3
"""Which actions the system tests call on which platform. As a program, behind a whole run: names
each action of the registry that was not called on both, and fails when there is one.

usage: called_actions.py DIRECTORY
"""

import os
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
# The directory for what each process of a run has called; without it nothing is kept.
VARIABLE = "ZEL_CALLED_ACTIONS"

_called = set()


def note(platform, action):
    _called.add((platform, action))


def save():
    """At the end of a process that ran tests."""
    directory = os.environ.get(VARIABLE)
    if not directory or not _called:
        return
    lines = sorted(f"{platform} {action}\n" for platform, action in _called)
    (pathlib.Path(directory) / f"{os.getpid()}.txt").write_text("".join(lines))


def registered():
    """The names of the actions, in the order of the registry."""
    rows = (ROOT / "module/registry.cpp").read_text()
    return list(dict.fromkeys(re.findall(r'\{"(CoreUtils\w+)', rows)))


def missing(directory):
    """A sentence for each action that a platform's agent was not asked for."""
    lines = [line for file in pathlib.Path(directory).glob("*.txt")
             for line in file.read_text().splitlines()]
    called = {tuple(line.split()) for line in lines}
    return [f"{action} was not called on {platform}: add a test with agent.call(\"{action}\", ...)"
            for action in registered() for platform in ("linux", "windows")
            if (platform, action) not in called]


def main(arguments):
    if len(arguments) != 1 or not pathlib.Path(arguments[0]).is_dir():
        print(__doc__.strip(), file=sys.stderr)
        return 2
    sentences = missing(arguments[0])
    print("\n".join(sentences) or f"all {len(registered())} actions were called on both platforms")
    return 1 if sentences else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
