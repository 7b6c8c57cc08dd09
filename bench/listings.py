"""Lists of many rows: in memory, of a directory, of the processes."""

import contextlib
import json
import os
import subprocess
import time

from agents import Agent
from measuring import alternate
from report import at_most, below, row

LISTED_FILES = int(os.environ.get("ZEL_BENCH_LISTED_FILES", "100000"))
LISTED_PROCESSES = 300


def bench_rows(build, _):
    """A listing in a container beside the same in another library's objects, as container_bench
    makes them."""
    done = subprocess.run([f"{build}/bin/container_bench", "--benchmark_repetitions=5",
                           "--benchmark_min_time=0.2",
                           "--benchmark_report_aggregates_only=true", "--benchmark_format=json"],
                          capture_output=True, text=True, check=True)
    ours, peer = (made for made in json.loads(done.stdout)["benchmarks"]
                  if made["aggregate_name"] == "median")
    assert ours["run_name"].endswith("ZelContainer") and ours["time_unit"] == "ms", ours
    assert peer["run_name"].endswith("BoostJson") and peer["time_unit"] == "ms", peer
    return [row("listing of 100,000 rows in memory, for each row", ours["bytes_per_row"], "bytes",
                "Boost.JSON", peer["bytes_per_row"]),
            row("the same, time to make it", ours["real_time"], "ms", "Boost.JSON",
                peer["real_time"])]


def fill_directory(listed):
    listed.mkdir()
    for i in range(LISTED_FILES):
        (listed / f"file-{i * 7919 % LISTED_FILES:06}.txt").write_bytes(b"x" * (i % 1000))


def sftp(listed):
    def run():
        done = subprocess.run(["sftp", "-D", "/usr/lib/openssh/sftp-server", "-b", "-"],
                              input=f"ls -l {listed}\n".encode(), capture_output=True, check=True)
        assert done.stdout.count(b"\n") > LISTED_FILES
    return run


def zabbix(directory, listed):
    """One item of the agent in test mode, which ends with it."""
    config = directory / "zabbix.conf"
    config.write_text(f"Hostname=bench\nTimeout=30\nLogType=console\n"
                      f"ControlSocket={directory}/control\nServer=127.0.0.1\n")

    def run():
        done = subprocess.run(["zabbix_agent2", "-c", config, "-t", f"vfs.dir.get[{listed}]"],
                              capture_output=True)
        assert done.stdout.count(b'"basename"') >= LISTED_FILES, (done.stdout[:200], done.stderr)
    return run


def bench_listing(build, directory):
    """A directory with all columns beside sftp's and another agent's listing."""
    listed = directory / "listed"
    fill_directory(listed)
    every = {"Path": str(listed), "SortAttr": "_COLNAME_SIZE_", "SortOrder": "Desc"}
    page = {"Path": str(listed), "Count": 100}
    with Agent(build, directory / "home") as agent:
        agent.call("CoreUtilsGetFileSize", {"Path": "/etc/hostname"})
        time.sleep(1.5)
        idle = agent.resident_bytes()
        with agent.connect() as connection:
            run_every = connection.caller("CoreUtilsGetDirList", every)
            assert bytes(run_every()).count(b'"Name"') == LISTED_FILES
            ours, by_sftp, by_zabbix, first = alternate(
                [run_every, sftp(listed), zabbix(directory, listed),
                 connection.caller("CoreUtilsGetDirList", page)], 5)
        time.sleep(2)
        after = agent.resident_bytes()
    return [row(f"{LISTED_FILES:,} files with all columns, by size, whole reply", ours * 1e3, "ms",
                "`sftp` `ls -l`", by_sftp * 1e3, at_most(0.5)),
            row("the same", ours * 1e3, "ms", "zabbix-agent2 `vfs.dir.get`", by_zabbix * 1e3,
                at_most(0.5)),
            row("first page of 100 of them, by name", first * 1e3, "ms", "`sftp` `ls -l`",
                by_sftp * 1e3, at_most(0.5)),
            row("memory two seconds after these listings", after / (1 << 20), "MiB", "before them",
                idle / (1 << 20), at_most(1.1))]


@contextlib.contextmanager
def enough_processes():
    """As many processes as are to be listed, and some more: others may end meanwhile."""
    running = sum(name.isdecimal() for name in os.listdir("/proc"))
    started = [subprocess.Popen(["sleep", "600"]) for _ in range(LISTED_PROCESSES + 50 - running)]
    try:
        yield
    finally:
        for process in started:
            process.kill()
            process.wait()


def bench_ps(build, directory):
    """The list of the processes beside ps with the same columns."""
    def run_ps():
        return subprocess.run(["ps", "-eo", "user,comm,exe,cputime,pcpu,pid,vsz,rss,ppid,nlwp"],
                              stdout=subprocess.PIPE, check=True).stdout

    with enough_processes(), Agent(build, directory / "home") as agent, \
            agent.connect() as connection:
        run_ours = connection.caller("CoreUtilsListProcess", {})
        assert bytes(run_ours()).count(b'"ProcessID"') >= LISTED_PROCESSES
        assert run_ps().count(b"\n") > LISTED_PROCESSES
        ours, peer = alternate([run_ours, run_ps], 101)
    return [row(f"list of over {LISTED_PROCESSES} processes", ours * 1e3, "ms",
                "`ps -eo` with its columns", peer * 1e3, below(1))]
