"""The network of the tests: a namespace of their own, one for each process that runs some of them."""

import ctypes
import os
import pathlib
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
CLONE_NEWNET = 0x40000000  # sched.h


def enter():
    """Leaves the machine's network for one that has only a loopback device, for this process and
    all that it starts: fixed ports are free there, and what tests send goes nowhere else. Needs
    root, and that no other thread runs yet."""
    # The sockets of Windows programs are made by Wine's server, which therefore has to start in
    # here, and outlives its programs.
    worker = os.environ.get("PYTEST_XDIST_WORKER", "")
    prefix = ROOT / ("build/wineprefix-system" + (f"-{worker}" if worker else ""))
    os.environ.setdefault("ZEL_WINEPREFIX", str(prefix))
    stop_wine()
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "no network namespace of the tests' own can be had")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


def stop_wine():
    """Nothing to be done, and no failure, where Wine is not installed."""
    subprocess.run([ROOT / "scripts/wine-run", "--stop"], capture_output=True, check=False)
