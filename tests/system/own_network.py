"""The network of the tests: a namespace of their own."""

import ctypes
import subprocess

CLONE_NEWNET = 0x40000000  # sched.h


def enter():
    """Leaves the machine's network for one that has only a loopback device, for this process and
    all that it starts: fixed ports are free there, and what tests send goes nowhere else. Needs
    root, and that no other thread runs yet."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "no network namespace of the tests' own can be had")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
