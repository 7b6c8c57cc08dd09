#!/usr/bin/python3
"""Some of the clients of the soak, in a process of their own: soak.py starts it.

Reads from standard input, as one line of JSON, what they work on, which clients they are and how many calls
each is to make. Writes a line of JSON every half second, and the last one when all have made them:
{"calls": N, "actions": {NAME: N}, "failures": [TEXT, ...], "done": BOOL}.
"""

import collections
import json
import random
import sys
import threading
import traceback

from soak_client import Client, tls_context
from soak_flows import Flows, flows_of

REPORT_INTERVAL_S = 0.5
MAX_FAILURES = 20


class Worker(threading.Thread):
    def __init__(self, world, number, clients, calls, round_number):
        super().__init__(daemon=True)
        self.client = Client(number, world["agents"], tls_context(world["ca"]))
        self.failures = []
        self.flows_run = collections.Counter()
        self._calls = calls
        self._names, self._weights, self._first = flows_of(number, clients)
        self._world = world
        # The same order each time, another one for each client.
        self._random = random.Random(1000 * round_number + number)
        self._name = f"{round_number}-{number}"

    def run(self):
        flows = Flows(self.client, self._world, self._random, self._name)
        while self.client.calls < self._calls and len(self.failures) < MAX_FAILURES:
            name = self._next()
            self.flows_run[name] += 1
            try:
                getattr(flows, name)()
            except Exception as error:
                where = traceback.extract_tb(error.__traceback__)
                line = next(one.lineno for one in reversed(where) if "soak_" in one.filename)
                self.failures.append(f"client {self._name}, {name}, line {line}: "
                                     f"{type(error).__name__} {error}")
        self.client.close()

    def _next(self):
        return self._first.pop() if self._first else self._random.choices(self._names,
                                                                          self._weights)[0]


def main():
    order = json.loads(sys.stdin.readline())
    workers = [Worker(order["world"], number, order["of"], order["calls"], order["round"])
               for number in order["clients"]]

    def report(is_done):
        flows = sum((worker.flows_run for worker in workers), collections.Counter())
        print(json.dumps({"calls": sum(worker.client.calls for worker in workers),
                          "flows": flows if is_done else {},
                          "failures": [one for worker in workers for one in worker.failures],
                          "done": is_done}), flush=True)

    for worker in workers:
        worker.start()
    for worker in workers:
        while worker.is_alive():
            worker.join(REPORT_INTERVAL_S)
            report(False)
    report(True)


if __name__ == "__main__":
    main()
