"""What a running program takes of the machine, and what it writes into its log."""

import dataclasses
import os
import pathlib
import re
import time

TICKS_PER_S = os.sysconf("SC_CLK_TCK")
PAGE_BYTES = os.sysconf("SC_PAGE_SIZE")
SERIOUS = re.compile(r"^\S+ \S+ \[\d+\] (error|warning) ")


@dataclasses.dataclass
class Sample:
    time_s: float
    memory_bytes: int
    handles: int
    threads: int
    cpu_s: float


def take_sample(process_id):
    process = pathlib.Path("/proc") / str(process_id)
    # The name may hold blanks; what follows it does not.
    fields = (process / "stat").read_text().rpartition(")")[2].split()
    return Sample(time_s=time.monotonic(),
                  memory_bytes=int((process / "statm").read_text().split()[1]) * PAGE_BYTES,
                  handles=len(os.listdir(process / "fd")),
                  threads=int(fields[17]),
                  cpu_s=(int(fields[11]) + int(fields[12])) / TICKS_PER_S)


class LogFollower:
    """Reads an agent's log across its rotations: look often enough that no file goes unread."""

    def __init__(self, directory, expected):
        """`expected`: regular expressions of the serious lines that have to be there."""
        self._directory = pathlib.Path(directory)
        self._expected = [re.compile(pattern) for pattern in expected]
        self._read = {}
        self.lines = 0
        self.unexpected = []
        self.files_seen = set()

    def look(self):
        for file in self._directory.glob("zelagent*.log"):
            try:
                with file.open("rb") as stream:
                    self._take(stream)
            except FileNotFoundError:
                pass  # the oldest one, which went in this moment

    def _take(self, stream):
        inode = os.fstat(stream.fileno()).st_ino
        self.files_seen.add(inode)
        stream.seek(self._read.get(inode, 0))
        text = stream.read()
        whole = text[:text.rfind(b"\n") + 1]
        self._read[inode] = self._read.get(inode, 0) + len(whole)
        for line in whole.decode(errors="replace").splitlines():
            self.lines += 1
            if SERIOUS.match(line) and not any(one.search(line) for one in self._expected):
                self.unexpected.append(line)
