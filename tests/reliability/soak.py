#!/usr/bin/python3
"""Drives a device, its relay and its master with many clients for long and looks for what grows.

    tests/reliability/soak.py [--calls N] [--clients N] [--rest SECONDS]

Needs root: it runs in a network of its own. Exits 0 when every answer was right and nothing grew.
"""

import argparse
import collections
import json
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "system")]

import own_network  # noqa: E402
from process_samples import LogFollower, take_sample  # noqa: E402
from soak_flows import WEIGHTS  # noqa: E402
from soak_verdict import judge, table  # noqa: E402
from soak_world import World  # noqa: E402

CLIENTS_PER_PROCESS = 8
END_TIMEOUT_S = 60
# The serious lines that the clients' calls bring about on purpose.
EXPECTED_LINES = {
    "device": [r"refused: (400|403|404|405) ", r"And \d+ more were refused who had not logged in",
               r"/directory/missing/? failed: No such file",
               r"MARLIN_ERROR_RUNTIME: broken.mlx:3: on purpose", r"stack traceback:", r"\\x09",
               r"TrnDbCloseTask on the master: .* is closed already"],
    "relay": [],
    "master": [r"is closed already"],
}


class Clients:
    """Processes of clients at work, all of one round."""

    def __init__(self, world, calls, clients, round_number):
        self._reports = []
        self._threads = []
        self.processes = []
        for first in range(0, clients, CLIENTS_PER_PROCESS):
            numbers = list(range(first, min(clients, first + CLIENTS_PER_PROCESS)))
            process = subprocess.Popen([sys.executable, HERE / "soak_clients.py"],
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
            order = {"world": world, "clients": numbers, "of": clients, "calls": -(-calls // clients),
                     "round": round_number}
            process.stdin.write(json.dumps(order) + "\n")
            process.stdin.flush()
            report = {"calls": 0, "flows": {}, "failures": [], "done": False}
            self._reports.append(report)
            self.processes.append(process)
            thread = threading.Thread(target=self._read, args=(process, report), daemon=True)
            thread.start()
            self._threads.append(thread)

    @staticmethod
    def _read(process, report):
        for line in process.stdout:
            report.update(json.loads(line))

    def calls(self):
        return sum(report["calls"] for report in self._reports)

    def failures(self):
        return [failure for report in self._reports for failure in report["failures"]]

    def flows(self):
        return sum((collections.Counter(report["flows"]) for report in self._reports),
                   collections.Counter())

    def wait(self, seconds):
        """Whether all have ended within that time."""
        deadline = time.monotonic() + seconds
        for thread in self._threads:
            thread.join(max(0, deadline - time.monotonic()))
        return not any(thread.is_alive() for thread in self._threads)

    def end(self):
        for process, report in zip(self.processes, self._reports):
            process.kill()
            if process.wait(END_TIMEOUT_S) != 0 or not report["done"]:
                report["failures"] = report["failures"] + ["a process of clients did not end well"]


class Soak:
    """One run. `samples` are those under load, (calls so far, {agent: Sample}), after the warm-up;
    `rests` those without any, {agent: Sample}, before and after them. Threads that have nothing to do end
    after ten seconds: a shorter `rest_s` does not see that."""

    def __init__(self, directory, calls, clients=32, interval_s=5.0, rest_s=15.0):
        self.calls, self.clients = calls, clients
        self.interval_s, self.rest_s = interval_s, rest_s
        self.world = World(directory)
        self.logs = {name: LogFollower(agent.home / "log", EXPECTED_LINES[name])
                     for name, agent in self.world.agents.items()}
        self.rests, self.samples = [], []
        self.failures, self.flows = [], collections.Counter()
        self.calls_made, self.seconds = 0, 0.0

    def run(self):
        """The problems, sentences; none when all is well."""
        try:
            # A tenth of the calls first, after which everything has been done that is done once.
            self._round(self.calls // 10, 0)
            self.samples.clear()
            self._rest()
            self._round(self.calls - self.calls_made, 1)
            self._rest()
            return judge(self)
        finally:
            self.world.end()

    @staticmethod
    def flow_names():
        return list(WEIGHTS)

    def _sample(self):
        return {name: take_sample(agent.process.pid) for name, agent in self.world.agents.items()}

    def _look(self, clients):
        self.samples.append((self.calls_made + clients.calls(), self._sample()))
        for log in self.logs.values():
            log.look()

    def _round(self, calls, number):
        begin = time.monotonic()
        clients = Clients(self.world.described, calls, self.clients, number)
        try:
            self._look(clients)
            while not clients.wait(self.interval_s):
                self._look(clients)
            self._look(clients)
        finally:
            clients.end()
        self.calls_made += clients.calls()
        self.failures += clients.failures()
        self.flows += clients.flows()
        self.seconds += time.monotonic() - begin

    def _rest(self):
        """What is there when nobody asks for anything: connections and threads take their time to
        go."""
        deadline = time.monotonic() + self.rest_s
        while time.monotonic() < deadline:
            sample = self._sample()
            if self.rests and all(sample[name].handles <= one.handles
                                  and sample[name].threads <= one.threads
                                  for name, one in self.rests[0].items()):
                break
            time.sleep(0.1)
        self.rests.append(self._sample())


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--calls", type=int, default=20_000)
    parser.add_argument("--clients", type=int, default=32)
    parser.add_argument("--interval", type=float, default=5.0, help="seconds between samples")
    options = parser.parse_args()
    own_network.enter()
    with tempfile.TemporaryDirectory(prefix="zelsoak") as directory:
        soak = Soak(directory, options.calls, options.clients, options.interval)
        problems = soak.run()
        print(table(soak))
        for problem in problems:
            print("PROBLEM:", problem)
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
