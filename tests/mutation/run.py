#!/usr/bin/env python3
"""Makes small mistakes in the module's sources, one at a time, and asks whether a contract test notices.

Exits 0 when every mutant that ran was noticed or stands in survivors.txt, 1 when one was not, 2 when
nothing could be found out.
"""

import argparse
import concurrent.futures
import difflib
import json
import os
import pathlib
import queue
import random
import sys
import time

from harness import LIBRARY, WORTH_PRECOMPILING, Harness, HarnessError, digest_of
from mutants import mutants_of
from outcomes import QUICK, Report, State, read_listed
from suites import Suites

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]


def parse_arguments(words):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--list", action="store_true", help="print the mutants' ids and keys, run nothing")
    parser.add_argument("--id", action="append", help="show what this mutant changes, and run it again (more than once: these)")
    parser.add_argument("--file", action="append", help="only mutants of this source (more than once: of these)")
    parser.add_argument("--sample", type=int, help="only so many mutants, spread evenly over the sources")
    parser.add_argument("--seed", type=int, default=0, help="chooses the order, and so the sample (default 0)")
    parser.add_argument("--minutes", type=float, help="begin no mutant after so many minutes")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--quick", action="store_true",
                        help="leave out tests that take long; what survives counts only until the next run without this")
    parser.add_argument("--survivors-again", action="store_true", help="run again what survived before")
    parser.add_argument("--root", type=pathlib.Path, default=ROOT, help="the tree (default: this one)")
    parser.add_argument("--build", type=pathlib.Path, help="its Linux build (default ROOT/build/linux)")
    parser.add_argument("--work", type=pathlib.Path, help="copies and results (default ROOT/build/mutation)")
    parser.add_argument("--survivors", type=pathlib.Path, default=HERE / "survivors.txt")
    arguments = parser.parse_args(words)
    root = arguments.root = arguments.root.resolve()
    arguments.build = (arguments.build or root / os.environ.get("ZEL_BUILD_DIR", "build/linux")).resolve()
    arguments.work = (arguments.work or root / "build" / "mutation").resolve()
    return arguments


def mutated_sources(root):
    return sorted(
        str(path.relative_to(root))
        for pattern in ("module/*.h", "module/*.cpp", "actions/**/*.cpp")
        for path in root.glob(pattern)
        if "platform/windows" not in path.as_posix()
    )


def in_sampling_order(mutants, seed):
    """Every beginning of it is spread evenly over the sources, by their numbers of mutants."""
    by_source, placed = {}, []
    for mutant in mutants:
        by_source.setdefault(mutant.path, []).append(mutant)
    for source, own in sorted(by_source.items()):
        chance = random.Random(f"{seed} {source}")
        chance.shuffle(own)
        offset = chance.random()
        placed += [((place + offset) / len(own), mutant) for place, mutant in enumerate(own)]
    return [mutant for _, mutant in sorted(placed, key=lambda pair: (pair[0], pair[1].id))]


def choose(arguments, mutants):
    if arguments.id:
        return [mutant for mutant in mutants if mutant.id in arguments.id]
    if arguments.file:
        mutants = [mutant for mutant in mutants if mutant.path in arguments.file]
    if arguments.list:
        return mutants
    return in_sampling_order(mutants, arguments.seed)[: arguments.sample]


def show_change(text, mutant):
    lines = difflib.unified_diff(
        text.splitlines(), mutant.apply(text).splitlines(), mutant.path, mutant.id, lineterm="", n=2)
    print("\n".join(lines))


class Trial:
    """Tries mutants, each worker in a directory of its own."""

    def __init__(self, arguments, harness, suites):
        self.harness, self.suites, self.quick = harness, suites, arguments.quick
        self._places = queue.SimpleQueue()
        for number in range(arguments.jobs):
            place = arguments.work / f"worker-{number}"
            place.mkdir(exist_ok=True)
            self._places.put(place)

    def outcome_of(self, mutant):
        """("killed", by what), ("uncompiled", ""), ("identical", at which optimisation) or ("survived", "")."""
        place = self._places.get()
        try:
            return self._try(mutant, place)
        finally:
            self._places.put(place)

    def _try(self, mutant, place):
        text = mutant.apply(self.harness.texts[mutant.path])
        made = self.harness.compile_change(mutant.path, text, place)
        if made is None:
            return "uncompiled", ""
        self.harness.link_library(place / LIBRARY, made)
        suites = self.suites.of(mutant.path)
        killer = self.harness.killed_near(place, suites)
        if not killer:
            # Most mutants are dead by now; only for the others is it worth looking at the code.
            for optimisation in ("-O1", "-O2"):
                if self._has_code_of_original(mutant.path, text, place, optimisation):
                    return "identical", optimisation
            killer = self.harness.killed_quickly(place)
        if not killer and self.quick:
            return "survived", QUICK
        if not killer:
            killer = self.harness.killed_slowly(place, self.suites.foreign_to(mutant.path))
        if not killer:
            return "survived", ""
        self.suites.learn(mutant.path, killer)
        return "killed", killer

    def _has_code_of_original(self, source, text, place, optimisation):
        made = self.harness.compile_change(source, text, place, optimisation)
        digests = {user: digest_of(file) for user, file in made.items()}
        return all(digest == self.harness.original_digest(user, place, optimisation)
                   for user, digest in digests.items())


def run_all(arguments, mutants, state, trial):
    started = time.monotonic()
    limit = started + arguments.minutes * 60 if arguments.minutes else None

    def run_one(mutant):
        if limit and time.monotonic() > limit:
            return
        outcome, detail = trial.outcome_of(mutant)
        state.add(mutant, outcome, detail)
        if outcome == "survived":
            print(f"survived: {mutant.id}\n    {mutant.key}", flush=True)

    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        for _ in pool.map(run_one, mutants):
            pass


def main(words=None):
    arguments = parse_arguments(words)
    texts = {
        source: (arguments.root / source).read_text(encoding="utf-8") for source in mutated_sources(arguments.root)
    }
    every = [mutant for source, text in texts.items() for mutant in mutants_of(source, text)]
    chosen = choose(arguments, every)
    if not chosen:
        print("mutation: no such mutant", file=sys.stderr)
        return 2
    if arguments.list:
        for mutant in chosen:
            print(f"{mutant.id}\t{mutant.key}")
        return 0
    for mutant in chosen if arguments.id else []:
        show_change(texts[mutant.path], mutant)

    harness = Harness(arguments.root, texts, arguments.build, arguments.work)
    state = State(arguments.work / "state.jsonl", texts, digest_of(harness.program))
    again = arguments.survivors_again or bool(arguments.id)
    quick = arguments.quick
    pending = [mutant for mutant in chosen if not state.knows(mutant, again, quick)]
    if pending:
        harness.measure()
        if len(pending) >= WORTH_PRECOMPILING:
            harness.precompile()
        suites = Suites(arguments.root, texts)
        run_all(arguments, pending, state, Trial(arguments, harness, suites))

    report = Report(every, chosen, state, read_listed(arguments.survivors))
    (arguments.work / "report.json").write_text(json.dumps(report.as_data(), indent=1) + "\n", encoding="utf-8")
    print(report.as_text())
    return 1 if report.unlisted else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except HarnessError as error:
        print(f"mutation: {error}", file=sys.stderr)
        sys.exit(2)
