"""How the benches measure, and how long."""

import os
import re
import statistics
import subprocess
import time

SECONDS = int(os.environ.get("ZEL_BENCH_SECONDS", "3"))  # of one turn of what is measured by rate


def seconds_of(work):
    start = time.perf_counter()
    work()
    return time.perf_counter() - start


def alternate(works, rounds, prepare=lambda: None):
    """The median time in seconds of each, in turns, each having run once unmeasured; `prepare` goes
    before each, unmeasured."""
    for work in works:
        prepare()
        work()
    times = [[] for _ in works]
    for i in range(rounds):
        # None always comes first.
        for index in list(range(len(works)))[::1 if i % 2 else -1]:
            prepare()
            times[index].append(seconds_of(works[index]))
    return [statistics.median(list_) for list_ in times]


def medians(pairs):
    return tuple(statistics.median(values) for values in zip(*pairs))


def wrk(url, connections, script=None):
    """(requests per second, median latency in microseconds) of one run."""
    command = ["wrk", "-t1", f"-c{connections}", f"-d{SECONDS}s", "--latency"]
    if script:
        command += ["-s", script]
    text = subprocess.run(command + [url], capture_output=True, text=True, check=True).stdout
    refused = re.search(r"Non-2xx.*: (\d+)", text) or re.search(r"Socket errors: (.*)", text)
    if refused:
        raise RuntimeError(f"{url}: {refused.group(0)}")
    value, unit = re.search(r"50%\s+([\d.]+)(us|ms|s)", text).groups()
    scale = {"us": 1, "ms": 1e3, "s": 1e6}[unit]
    return float(re.search(r"Requests/sec:\s+([\d.]+)", text).group(1)), float(value) * scale


def size_text(size):
    return f"{size >> 30} GiB" if size % (1 << 30) == 0 else f"{size >> 20} MiB"


def fill_with_noise(path, size):
    """A file that cannot be compressed."""
    with open(path, "wb") as output:
        for _ in range(size >> 20):
            output.write(os.urandom(1 << 20))
