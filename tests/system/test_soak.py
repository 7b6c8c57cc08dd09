"""A short run of the soak: tests/reliability/soak.py is the long one."""

import sys

from agents import ROOT

sys.path.append(str(ROOT / "tests/reliability"))

from soak import Soak  # noqa: E402
from soak_verdict import table  # noqa: E402

CALLS = 5_000


def test_many_calls_are_answered_rightly_and_leave_nothing_behind(tmp_path):
    soak = Soak(tmp_path, CALLS, interval_s=0.25, rest_s=2)
    problems = soak.run()
    assert problems == [], table(soak)
