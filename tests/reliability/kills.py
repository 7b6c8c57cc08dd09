#!/usr/bin/python3
"""Kills real agents (SIGKILL) in the midst of their work, starts them again and looks what is left.

    tests/reliability/kills.py [--count 1000] [--seed 1] [--kind NAME]... [--keep]

The moment of each kill is drawn over the measured time of the operation, so that some kills come before
anything has happened, most in its midst, some after its answer. Needs the Linux build and root. Ends with
status 0 when all that was promised held after every kill."""

import argparse
import pathlib
import random
import shutil
import signal
import statistics
import sys
import tempfile
import threading
import time
from collections import Counter

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "system")]

import own_network  # noqa: E402
from kill_checks import Lost, Witness  # noqa: E402
from kill_kinds import Extract, ScriptEdit, UploadReceiver, UploadSender, Write, Zelctl  # noqa: E402
from kill_states import StartUp, Tasks, TasksInPostgres  # noqa: E402

KINDS = {kind.NAME: kind for kind in (Write, Zelctl, UploadReceiver, UploadSender, Extract, ScriptEdit,
                                      StartUp, Tasks, TasksInPostgres)}
TRIALS = 3
# Of the time that the operation takes, to hit what happens at its very end, too.
LATEST_KILL = 1.15
OPERATION_TIMEOUT_S = 60
# "takes": the operation undisturbed; "start": the slowest start after a kill until it is healthy; "torn":
# last lines of audit trails without their end; "left": temporary files that stayed.
HEADER = ("kind", "kills", "before", "during", "after", "takes ms", "start ms", "torn", "left")
SUMS = ("kills", "before", "during", "after", "torn", "left")


class Operation(threading.Thread):
    """A round's operation on a thread of its own, so that it can be killed."""

    def __init__(self, kind):
        super().__init__(daemon=True)
        self.kind, self.is_answered, self.error = kind, False, None
        self.start()

    def run(self):
        try:
            self.is_answered = self.kind.operate()
        except Lost:
            pass
        except BaseException as error:  # told where it can fail the run
            self.error = error

    def end(self):
        self.join(OPERATION_TIMEOUT_S)
        assert not self.is_alive(), "the operation does not end"
        if self.error:
            raise self.error
        return self.is_answered


class Run:
    """The kills of one kind."""

    def __init__(self, kind, seed):
        self.kind = kind
        self.random = random.Random(seed)
        self.number = 0
        self.verdicts = Counter()
        self.witnesses = {}
        self.duration = statistics.median(self._trial() for _ in range(TRIALS))

    def _begin(self):
        self.number += 1
        self.kind.begin(self.number)

    def _trial(self):
        self._begin()
        began = time.monotonic()
        assert self.kind.operate()
        taken = time.monotonic() - began
        self.kind.look()
        assert self.kind.judge(True) == "after"
        return taken

    def kill(self):
        self._begin()
        victim = self.kind.victim
        witness = self.witnesses.setdefault(victim, None) or Witness(victim)
        self.witnesses[victim] = witness
        process = victim.process if victim.process.poll() is None else None

        operation = Operation(self.kind)
        time.sleep(self.random.uniform(0, LATEST_KILL * self.duration))
        while process is None:  # the operation starts the agent
            process = victim.process if victim.process.poll() is None else None
            if not operation.is_alive():
                break
        if process:
            process.send_signal(signal.SIGKILL)
            process.wait()
        is_answered = operation.end()

        self.kind.look()
        witness.start_again()
        witness.check(self.kind.answered())
        self.verdicts[self.kind.judge(is_answered)] += 1

    def row(self):
        slowest = max((one.slowest_start_s for one in self.witnesses.values()), default=0)
        torn = sum(one.torn_lines for one in self.witnesses.values())
        return dict(zip(HEADER, (
            self.kind.NAME, sum(self.verdicts.values()), self.verdicts["before"],
            self.verdicts["during"], self.verdicts["after"], round(self.duration * 1000),
            round(slowest * 1000), torn, self.kind.leftovers)))


def run_kind(name, count, seed, directory):
    """{column: figure} of `count` kills; raises what did not hold."""
    directory.mkdir(parents=True)
    kind = KINDS[name](directory, seed)
    run = None
    try:
        run = Run(kind, seed)
        for _ in range(count):
            run.kill()
        kind.finish()
        kind.end()
    except BaseException:
        print(f"{name}, seed {seed}, kill {run.number - TRIALS if run else 0}:", file=sys.stderr)
        for agent in kind.agents:
            print(agent.describe(), file=sys.stderr)
        raise
    finally:
        for agent in kind.agents:
            agent.kill()
    return run.row()


def print_row(values):
    print("| " + " | ".join(map(str, values)) + " |", flush=True)


def share(count, kinds):
    """{name: its kills}."""
    return {name: count // len(kinds) + (place < count % len(kinds))
            for place, name in enumerate(kinds)}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=1000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--kind", action="append", choices=KINDS)
    parser.add_argument("--keep", action="store_true", help="keep the agents' homes")
    options = parser.parse_args()
    own_network.enter()
    directory = pathlib.Path(tempfile.mkdtemp(prefix="zelkills"))
    began = time.monotonic()
    print_row(HEADER)
    print_row(["---"] * len(HEADER))
    rows = []
    for name, count in share(options.count, options.kind or list(KINDS)).items():
        rows.append(run_kind(name, count, options.seed, directory / name))
        print_row(rows[-1].values())
    print_row(["all", *(sum(row[column] for row in rows) if column in SUMS else ""
                        for column in HEADER[1:])])
    print(f"{time.monotonic() - began:.0f} s; after every kill everything held")
    if not options.keep:
        shutil.rmtree(directory)


if __name__ == "__main__":
    main()
