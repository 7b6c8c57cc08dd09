"""What the samples of a soak say."""

import statistics
import subprocess

from agents import program
from soak_world import AUDIT_ROTATE_BYTES, KEPT_FILES, ROTATE_BYTES

MIB = 1 << 20
TENTHS = 10
# Memory moves with what happens to run at once (an unpacked archive, 32 uploads): a leak of 100 bytes
# a call would be 80 MiB in the measured part of a million calls.
MEMORY_TOLERANCE_BYTES = 4 * MIB
LEAST_CALLS_FOR_MEMORY = 100_000
# What the master keeps of connections to its database, up to eight with three files each, it opens when it
# needs them.
HANDLES_AT_REST = {"device": 0, "relay": 0, "master": 24}
IDLE_THREADS_END_S = 11
MAX_PROBLEMS = 20


def tenths(soak):
    """The measured part in ten parts of equally many calls: a list of samples for each."""
    first, last = soak.samples[0][0], soak.samples[-1][0]
    parts = [[] for _ in range(TENTHS)]
    for sample in soak.samples:
        position = (sample[0] - first) * TENTHS // max(1, last - first)
        parts[min(TENTHS - 1, position)].append(sample)
    return parts


def median_of(part, agent, figure):
    return statistics.median(getattr(sample[agent], figure) for _, sample in part)


def judge(soak):
    """The problems, sentences."""
    problems = soak.failures[:MAX_PROBLEMS]
    if soak.calls_made < soak.calls:
        problems.append(f"only {soak.calls_made} of {soak.calls} calls were made")
    missing = set(soak.flow_names()) - set(soak.flows)
    if missing:
        problems.append(f"never done: {sorted(missing)}")
    for name in soak.world.agents:
        problems += growth(soak, name) + judge_log(soak, name) + judge_audit(soak, name)
    if soak.world.proxy.is_locked() or soak.world.proxy.open_dialogs() > 1:
        problems.append("the proxy still holds a lock or dialogs")
    return problems


def growth(soak, name):
    return growth_at_rest(soak, name) + growth_under_load(soak, name)


def growth_at_rest(soak, name):
    sees_threads_end = soak.rest_s > IDLE_THREADS_END_S
    tolerances = {"handles": HANDLES_AT_REST[name],
                  "threads": 0 if sees_threads_end else soak.clients}
    problems = []
    for figure, tolerance in tolerances.items():
        before, after = (getattr(rest[name], figure) for rest in soak.rests)
        if after > before + tolerance:
            problems.append(f"{name} at rest: {before} {figure} before, {after} after")
    return problems


def growth_under_load(soak, name):
    """What is under way at a moment differs: one handle and one thread for each client."""
    tolerances = {"handles": soak.clients, "threads": soak.clients}
    if soak.calls >= LEAST_CALLS_FOR_MEMORY:
        tolerances["memory_bytes"] = MEMORY_TOLERANCE_BYTES
    parts, problems = [part for part in tenths(soak) if part], []
    for figure, tolerance in tolerances.items():
        first, last = (median_of(part, name, figure) for part in (parts[0], parts[-1]))
        if last > first + tolerance:
            problems.append(f"{name} under load: {figure} {first:.0f} in the first tenth, {last:.0f} in "
                            f"the last")
    return problems


def judge_log(soak, name):
    log, problems = soak.logs[name], []
    log.look()
    for line in log.unexpected[:MAX_PROBLEMS]:
        problems.append(f"{name} logs: {line}")
    files = sorted((soak.world.agents[name].home / "log").glob("zelagent*.log"))
    sizes = [file.stat().st_size for file in files]
    if len(files) > KEPT_FILES + 1 or max(sizes) > ROTATE_BYTES:
        problems.append(f"the log of {name} is not rotated: {sizes}")
    return problems


def audit_sizes(soak, name):
    files = (soak.world.agents[name].home / "log").glob("audit*.jsonl")
    return [file.stat().st_size for file in files]


def judge_audit(soak, name):
    file = soak.world.agents[name].home / "log/audit.jsonl"
    done = subprocess.run(program("linux", "zelctl") + ["audit", "verify", file],
                          capture_output=True, text=True)
    if done.returncode != 0:
        return [f"the audit trail of {name}: {done.stdout}{done.stderr}"]
    sizes = audit_sizes(soak, name)
    if max(sizes) > AUDIT_ROTATE_BYTES or (name == "device" and len(sizes) < 2):
        return [f"the audit trail of {name} is not rotated: {sizes}"]
    return []


def table(soak):
    """The samples by tenths, and what else there is to tell."""
    lines = [f"{soak.calls_made} calls of {soak.clients} clients in {soak.seconds:.0f} s",
             "", "| tenth | calls/s | agent | memory MiB | handles | threads | CPU ms/call |",
             "|---|---|---|---|---|---|---|"]
    for number, part in enumerate(tenths(soak), 1):
        if len(part) < 2:
            continue
        (calls, begin), (more_calls, end) = part[0], part[-1]
        made = max(1, more_calls - calls)
        for name in soak.world.agents:
            seconds = end[name].time_s - begin[name].time_s
            cpu = end[name].cpu_s - begin[name].cpu_s
            lines.append(f"| {number} | {made / seconds:.0f} | {name} "
                         f"| {median_of(part, name, 'memory_bytes') / MIB:.1f} "
                         f"| {median_of(part, name, 'handles'):.0f} "
                         f"| {median_of(part, name, 'threads'):.0f} | {1000 * cpu / made:.2f} |")
    lines.append("")
    for name in soak.world.agents:
        before, after = soak.rests[0][name], soak.rests[1][name]
        audit = audit_sizes(soak, name)
        lines.append(f"{name} at rest, before and after: {before.handles} and {after.handles} handles, "
                     f"{before.threads} and {after.threads} threads, "
                     f"{before.memory_bytes / MIB:.1f} and {after.memory_bytes / MIB:.1f} MiB; "
                     f"{soak.logs[name].lines} log lines, {len(soak.logs[name].files_seen)} files; "
                     f"audit trail {sum(audit) / MIB:.1f} MiB in {len(audit)} files")
    lines.append("done: " + ", ".join(f"{name} {count}" for name, count in soak.flows.most_common()))
    return "\n".join(lines)
