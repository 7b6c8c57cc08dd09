"""What a call costs before its action does anything, and what an agent takes that does nothing."""

import json
import statistics
import time
import urllib.request

from agents import Agent, authorization
from measuring import medians, wrk
from nginx_server import free_port, nginx
from report import at_least, at_most, row

ROUNDS = 5
STARTS = 7
CONTENT = "twelve bytes"


def posting(directory, parameters):
    """A script for wrk that makes one call after the other."""
    script = directory / "post.lua"
    script.write_text(f"""
wrk.method = "POST"
wrk.body = {json.dumps(json.dumps(parameters))}
wrk.headers["Content-Type"] = "application/json"
wrk.headers["Authorization"] = "{authorization()}"
""")
    return script


def bench_dispatch(build, directory):
    """A trivial action through the HTTP protocol beside nginx serving a static JSON file."""
    target, root, port = directory / "measured", directory / "www", free_port()
    target.write_text(CONTENT)
    root.mkdir()
    (root / "answer.json").write_text('{"code":0,"container":{"Result":12}}\n')
    script = posting(directory, {"Path": str(target)})
    settings = (f"access_log {directory}/access.log; sendfile on; tcp_nodelay on; "
                "keepalive_requests 100000000; default_type application/json; "
                f"server {{ listen 127.0.0.1:{port}; root {root}; }}")
    with nginx(directory, port, settings), Agent(build, directory / "home") as agent:
        url, peer_url = (f"{agent.url}/v1/actions/CoreUtilsGetFileSize",
                         f"http://127.0.0.1:{port}/answer.json")
        answer = agent.call("CoreUtilsGetFileSize", {"Path": str(target)})
        assert answer["container"] == {"Result": len(CONTENT)}, answer
        # Alternating, medians: the machine's own moods reach both alike.
        alone = [(wrk(url, 1, script)[1], wrk(peer_url, 1)[1]) for _ in range(ROUNDS)]
        many = [(wrk(url, 32, script)[0], wrk(peer_url, 32)[0]) for _ in range(ROUNDS)]
    latency, peer_latency = medians(alone)
    rate, peer_rate = medians(many)
    return [row("trivial action over one connection, median latency", latency, "µs", "nginx",
                peer_latency, at_most(1.5)),
            row("trivial action over 32 connections, rate", rate, "/s", "nginx", peer_rate,
                at_least(0.5))]


def bench_start(build, directory):
    """From exec to the first answer, and memory when idle."""
    starts, resident = [], []
    for i in range(STARTS):
        agent = Agent(build, directory / f"home{i}")
        start = time.perf_counter()
        with agent:
            urllib.request.urlopen(f"{agent.url}/v1/health", timeout=10).read()
            starts.append(time.perf_counter() - start)
            agent.call("CoreUtilsGetFileSize", {"Path": "/etc/hostname"})
            time.sleep(1.5)  # the agent gives memory back when it has been idle for a second
            resident.append(agent.resident_bytes())
    return [row("from start to the first answer", statistics.median(starts) * 1e3, "ms",
                aim=at_most(100)),
            row("idle memory after one call", statistics.median(resident) / (1 << 20), "MiB",
                aim=at_most(12))]
