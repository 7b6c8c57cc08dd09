#!/usr/bin/python3
"""Measures the agent beside its peers in one run and prints the table of bench/README.md.

The benches that are named, or all. What goes on is told on stderr, the table is printed on stdout. A
missed aim is a result; the status is 1 when a bench could not be run.
"""

import argparse
import datetime
import os
import shutil
import sys
import tempfile
import time
import traceback
from pathlib import Path

import archives
import contents
import dispatch
import listings
import machine
import probes
import report
import scripts
import task_creates
import task_lists
import transfers
from task_databases import Postgres

README = Path(__file__).with_name("README.md")


def bench_tasks(build, directory):
    with Postgres() as server:
        return (task_creates.bench_task_creates(build, directory, server)
                + task_lists.bench_task_lists(build, directory, server))


# In the order of the table.
BENCHES = {
    "dispatch": dispatch.bench_dispatch, "copy": contents.bench_copy, "start": dispatch.bench_start,
    "rows": listings.bench_rows, "listing": listings.bench_listing,
    "digest": contents.bench_digest, "read": contents.bench_read, "ps": listings.bench_ps,
    "script": scripts.bench_script, "transfer": transfers.bench_transfer,
    "pack": archives.bench_pack, "extract": archives.bench_extract, "tasks": bench_tasks,
    "network": probes.bench_network,
}


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__)
    parser.add_argument("--write", action="store_true",
                        help="replace the table in bench/README.md by this run's")
    parser.add_argument("--build", help=argparse.SUPPRESS)
    parser.add_argument("benches", nargs="*", metavar="BENCH",
                        help=f"there are: {', '.join(BENCHES)}")
    options = parser.parse_args()
    unknown = [name for name in options.benches if name not in BENCHES]
    if unknown:
        parser.error(f"no such bench: {unknown[0]}; there are: {', '.join(BENCHES)}")
    if options.write and options.benches:
        parser.error("--write is for a run of all benches")
    return options


def say(text):
    print(f"bench: {text}", file=sys.stderr, flush=True)


def run_one(name, build):
    """Its rows, or None when it could not be run."""
    directory = Path(tempfile.mkdtemp(prefix="zel_bench_", dir=os.environ.get("ZEL_BENCH_DIR")))
    start = time.monotonic()
    try:
        rows = BENCHES[name](build, directory)
    except Exception:  # the others are worth running
        traceback.print_exc()
        say(f"{name} could not be run")
        return None
    finally:
        shutil.rmtree(directory)
    for one in rows:
        say(f"{name}: {report.line(one)}")
    say(f"{name} took {time.monotonic() - start:.0f} s")
    return rows


class Run:
    """What a run found, and how the machine was meanwhile."""

    def __init__(self):
        self.began, self.load = datetime.datetime.now(), machine.load()
        self.rows, self.failed, self.busy = [], [], []

    def add(self, name, build):
        self.busy.append(machine.busy_share())
        rows = run_one(name, build)
        if rows is None:
            self.failed.append(name)
        self.rows += rows or []

    def conditions(self):
        minutes = (datetime.datetime.now() - self.began).total_seconds() / 60
        return (f"Measured on {self.began:%Y-%m-%d} in one run of {minutes:.1f} minutes, "
                f"{os.cpu_count()} cores, {machine.system()}, optimised build. Load average "
                f"{self.load} at the start, {machine.load()} at the end.")

    def warning(self):
        if max(self.busy) <= machine.QUIET:
            return ""
        return (f"**Not a quiet machine**: other programs took up to {max(self.busy):.0%} of its "
                "cores between the benches.")

    def text(self):
        failed = f"Could not be run: {', '.join(self.failed)}." if self.failed else ""
        parts = [self.conditions(), self.warning(), report.table(self.rows),
                 f"{report.summary(self.rows)}.", failed]
        return "\n\n".join(part for part in parts if part)


def main():
    options = arguments()
    if not options.build:
        return 0  # scripts/bench asks whether these are arguments before it builds anything
    if options.write:
        report.with_measurement(README.read_text(), "")  # fails now rather than after the run
    run = Run()
    for name in options.benches or BENCHES:
        run.add(name, options.build)
    run.busy.append(machine.busy_share())
    print(run.text())
    if run.failed:
        return 1
    if options.write:
        README.write_text(report.with_measurement(README.read_text(), run.text()))
    return 0


if __name__ == "__main__":
    sys.exit(main())
