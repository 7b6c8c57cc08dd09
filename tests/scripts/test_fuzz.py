"""tests/fuzz: every target has seeds, has run, and stands in the table of docs/reliability.md with its figures."""

import importlib.machinery
import importlib.util
import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
FUZZ = ROOT / "tests" / "fuzz"

# A script without the ending of a module.
loader = importlib.machinery.SourceFileLoader("fuzz_run", str(FUZZ / "run"))
run = importlib.util.module_from_spec(importlib.util.spec_from_loader("fuzz_run", loader))
loader.exec_module(run)

TARGETS = run.all_targets()


def table_rows():
    """The rows of the document, by target: reads, minutes, executions, found."""
    rows = {}
    for line in (ROOT / "docs/reliability.md").read_text().splitlines():
        if match := re.fullmatch(r"\| `(fuzz_\w+)` \| (.+) \| (.+) \| (.+) \| (.+) \|", line):
            rows[match[1]] = match.groups()[1:]
    return rows


def test_there_are_targets():
    assert len(TARGETS) > 40


@pytest.mark.parametrize("target", TARGETS)
def test_each_target_is_built(target):
    assert re.search(rf"^zel_add_fuzz\({target}\b", (FUZZ / "CMakeLists.txt").read_text(), re.MULTILINE)


@pytest.mark.parametrize("target", TARGETS)
def test_each_target_has_seeds_that_are_few_and_small(target):
    seeds = list((FUZZ / "corpus" / target).iterdir())
    assert 0 < len(seeds) <= 200
    made = [seed for seed in seeds if run.MADE_NAME.fullmatch(seed.name)]
    assert all(seed.stat().st_size <= run.MOST_BYTES for seed in made)


def test_no_seeds_are_left_of_targets_that_are_gone():
    assert sorted(path.name for path in (FUZZ / "corpus").iterdir()) == TARGETS


def test_the_ledger_has_a_run_of_each_target_and_of_nothing_else():
    ledger = run.read_ledger()
    assert sorted(ledger) == TARGETS
    for minutes, executions, _ in ledger.values():
        assert minutes > 0
        assert executions > 0


def test_the_table_names_each_target_with_the_figures_of_the_ledger():
    rows = table_rows()
    assert sorted(rows) == TARGETS
    for target, (minutes, executions, date) in run.read_ledger().items():
        reads, told_minutes, told_executions, found = rows[target]
        assert (told_minutes, told_executions) == (f"{minutes:.1f}", f"{executions:,}"), target
        assert reads and found
        assert re.fullmatch(r"\d{4}-\d\d-\d\d", date)
