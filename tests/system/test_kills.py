"""A short run of the kills: tests/reliability/kills.py is the long one."""

import sys

import pytest

from agents import ROOT

sys.path.append(str(ROOT / "tests/reliability"))

from kills import run_kind  # noqa: E402

KILLS = {"write": 4, "zelctl": 3, "upload-receiver": 5, "upload-sender": 4, "extract": 4,
         "script-edit": 2, "start-up": 4, "tasks": 4}


@pytest.mark.parametrize("kind", KILLS)
def test_what_was_acknowledged_outlives_a_kill_and_nothing_partial_stands(kind, tmp_path):
    # `run_kind` raises whatever did not hold.
    figures = run_kind(kind, KILLS[kind], 7, tmp_path / "agents")
    assert figures["kills"] == KILLS[kind]
    # Only archives are unpacked into files that have a name from the start.
    assert kind == "extract" or figures["left"] == 0
