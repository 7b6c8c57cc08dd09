"""What the machine is, and whether anything else kept it busy."""

import os
import time
from pathlib import Path

SAMPLE_SECONDS = 1
QUIET = 0.1  # of the cores' time that others may take between the benches


def busy_share():
    """The share of all cores' time that was worked in the next moment: by others, for a bench calls
    this while it does nothing."""
    before = _times()
    time.sleep(SAMPLE_SECONDS)
    spent = [after - at for at, after in zip(before, _times())]
    idle = spent[3] + spent[4]  # waiting for the disk included
    return 1 - idle / max(sum(spent), 1)


def _times():
    # user, nice, system, idle, iowait, irq, softirq, steal; what follows is contained in these.
    return [int(word) for word in Path("/proc/stat").read_text().splitlines()[0].split()[1:9]]


def load():
    return f"{os.getloadavg()[0]:.2f}"


def system():
    for line in Path("/etc/os-release").read_text().splitlines():
        name, _, value = line.partition("=")
        if name == "PRETTY_NAME":
            return value.strip('"')
    return os.uname().sysname
