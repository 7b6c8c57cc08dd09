"""The table that scripts/bench makes of what was measured."""

import pathlib
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "bench"))

import report  # noqa: E402 (bench is no package)


def only_line(row):
    return report.table([row]).splitlines()[2]


def test_a_row_beside_a_peer_has_the_ratio_and_the_aim_for_it():
    row = report.row("copy", 136, "ms", "`cp`", 135, report.at_most(1.05))
    assert row.met
    assert only_line(row) == "| copy | 136 ms | `cp`, 135 ms | 1.01 | at most 1.05 |"


def test_a_row_without_a_peer_is_held_against_the_aim_itself():
    row = report.row("idle memory", 12.5, "MiB", aim=report.at_most(12))
    assert only_line(row) == "| idle memory | 12.5 MiB | | | at most 12 MiB, missed |"


def test_a_row_without_an_aim_is_neither_met_nor_missed():
    rows = [report.row("calls", 614000, "/s")]
    assert only_line(rows[0]) == "| calls | 614,000/s | | | |"
    assert report.summary(rows) == "0 aims met, 0 missed"


@pytest.mark.parametrize("aim, met", [
    (report.at_most(0.5), True), (report.below(0.5), False), (report.at_least(0.5), True),
    (report.at_most(0.49), False), (report.below(0.51), True), (report.at_least(0.51), False)])
def test_each_kind_of_aim_has_its_bound(aim, met):
    assert report.row("time", 1, "ms", "peer", 2, aim).met is met


def test_met_and_missed_aims_are_counted():
    rows = [report.row("a", 1, "ms", aim=report.at_most(bound)) for bound in (0, 1, 2)]
    assert report.summary(rows) == "2 aims met, 1 missed"


def test_small_figures_have_three_digits():
    assert [report.quantity(value, "ms") for value in (2.914, 20.49, 1221.6)] == [
        "2.91 ms", "20.5 ms", "1,222 ms"]


def test_a_measurement_replaces_what_stands_between_the_markers():
    document = f"before\n\n{report.BEGIN}\nold\n{report.END}\n\nafter\n"
    expected = f"before\n\n{report.BEGIN}\n\nnew\n\n{report.END}\n\nafter\n"
    assert report.with_measurement(document, "new") == expected
    assert report.with_measurement(expected, "new") == expected


def test_a_document_without_its_markers_is_refused():
    with pytest.raises(ValueError, match="one line"):
        report.with_measurement(f"{report.BEGIN}\nold\n", "new")


def test_the_document_of_the_benches_has_the_markers():
    document = (ROOT / "bench/README.md").read_text(encoding="utf-8")
    assert "| what | agent |" in document
    assert "| what | agent |" not in report.with_measurement(document, "")


@pytest.mark.parametrize("arguments, told", [
    (["nothing"], "no such bench: nothing"), (["--write", "copy"], "--write is for a run of all")])
def test_wrong_arguments_are_told_before_anything_is_built(arguments, told):
    done = subprocess.run([ROOT / "scripts/bench", *arguments], capture_output=True, text=True,
                          timeout=60)
    assert done.returncode == 2
    assert told in done.stderr
    assert "building" not in done.stderr
