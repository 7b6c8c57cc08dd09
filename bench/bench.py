#!/usr/bin/python3
"""Measures the agent beside its peers, in one run, and prints ratios.

Usage: bench.py BUILD_DIRECTORY [dispatch|copy|start|listing|digest|read|ps|script|transfer|pack|extract]...
"""

import base64
import contextlib
import itertools
import http.client
import json
import os
import random
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request
from pathlib import Path

SECONDS = int(os.environ.get("ZEL_BENCH_SECONDS", "3"))
ROUNDS = 5
COPY_BYTES = int(os.environ.get("ZEL_BENCH_COPY_BYTES", str(1 << 29)))
LISTED_FILES = int(os.environ.get("ZEL_BENCH_LISTED_FILES", "100000"))
DIGEST_BYTES = int(os.environ.get("ZEL_BENCH_DIGEST_BYTES", str(1 << 30)))
READ_BYTES = 10 << 20
TRANSFER_BYTES = int(os.environ.get("ZEL_BENCH_TRANSFER_BYTES", str(1 << 30)))
LISTED_PROCESSES = 300
ARCHIVED_FILES = int(os.environ.get("ZEL_BENCH_ARCHIVED_FILES", "20000"))
ARCHIVED_BYTES = 15 << 10  # of each file, on average
PASSWORD = "bench-password"


class Agent:
    """A running agent with a console user, in a home of its own."""

    def __init__(self, build, home):
        self.build, self.home = Path(build), Path(home)
        subprocess.run([self.build / "bin/zelagent", "user", "add", "admin", "--role",
                        "administrator", "--home", self.home],
                       input=PASSWORD + "\n", text=True, check=True, stdout=subprocess.DEVNULL)
        self.process, self.url, self.received = None, None, bytearray()

    def __enter__(self):
        self.process = subprocess.Popen(
            [self.build / "bin/zelagent", "run", "--home", self.home, "--port", "0"],
            stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        self.url = re.search(r"ready: (\S+)", line).group(1)
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(30)

    def call(self, action, parameters):
        request = urllib.request.Request(
            f"{self.url}/v1/actions/{action}", json.dumps(parameters).encode(),
            {"Content-Type": "application/json", "Authorization": authorization()})
        with urllib.request.urlopen(request, timeout=600) as reply:
            return json.load(reply)

    def receive(self, action, parameters):
        """The reply as it comes, without a look at its JSON: the agent's time and the transport's,
        not this program's."""
        body = json.dumps(parameters).encode()
        host, port = re.search(r"//([^:]+):(\d+)", self.url).groups()
        with socket.create_connection((host, int(port)), 600) as connection:
            connection.sendall(
                f"POST /v1/actions/{action} HTTP/1.1\r\nHost: {host}:{port}\r\n"
                f"Content-Type: application/json\r\nAuthorization: {authorization()}\r\n"
                f"Content-Length: {len(body)}\r\n\r\n".encode() + body)
            reply = bytearray()
            while b"\r\n\r\n" not in reply:
                reply += connection.recv(65536)
            head, _, content = reply.partition(b"\r\n\r\n")
            size = int(re.search(rb"Content-Length: (\d+)", head).group(1))
            # One buffer for all replies: fetching memory for each would be this program's cost.
            if len(self.received) < size:
                self.received = bytearray(size)
            view, end = memoryview(self.received)[:size], len(content)
            view[:end] = content
            while end < size:
                count = connection.recv_into(view[end:])
                assert count, "the agent closed the connection"
                end += count
        assert view[:10] == b'{"code":0,', bytes(view[:200])
        return view

    def resident_bytes(self):
        status = Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+) kB", status).group(1)) * 1024


def authorization():
    return "Basic " + base64.b64encode(f"admin:{PASSWORD}".encode()).decode()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


@contextlib.contextmanager
def nginx(directory):
    """nginx serving a one-line JSON file from memory-cached disk."""
    port = free_port()
    root = directory / "www"
    root.mkdir()
    (root / "answer.json").write_text('{"code":0,"container":{"Result":12}}\n')
    config = directory / "nginx.conf"
    config.write_text(f"""
daemon off; user root; worker_processes auto; pid {directory}/nginx.pid;
error_log {directory}/error.log;
events {{ worker_connections 1024; }}
http {{
  access_log {directory}/access.log; sendfile on; tcp_nodelay on; keepalive_requests 100000000;
  default_type application/json;
  client_body_temp_path {directory}/body; proxy_temp_path {directory}/proxy;
  fastcgi_temp_path {directory}/fastcgi; uwsgi_temp_path {directory}/uwsgi;
  scgi_temp_path {directory}/scgi;
  server {{ listen 127.0.0.1:{port}; root {root}; }}
}}
""")
    server = subprocess.Popen(["nginx", "-c", config, "-p", directory],
                              stderr=subprocess.DEVNULL)
    try:
        for _ in range(200):
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), 1):
                break
            time.sleep(0.02)
        yield f"http://127.0.0.1:{port}/answer.json"
    finally:
        server.terminate()
        server.wait(30)


def wrk(url, connections, script=None):
    """(requests per second, median latency in microseconds) of one run."""
    command = ["wrk", "-t1", f"-c{connections}", f"-d{SECONDS}s", "--latency"]
    if script:
        command += ["-s", script]
    text = subprocess.run(command + [url], capture_output=True, text=True, check=True).stdout
    refused = re.search(r"Non-2xx.*: (\d+)", text) or re.search(r"Socket errors: (.*)", text)
    if refused:
        sys.exit(f"{url}: {refused.group(0)}")
    value, unit = re.search(r"50%\s+([\d.]+)(us|ms|s)", text).groups()
    scale = {"us": 1, "ms": 1e3, "s": 1e6}[unit]
    return float(re.search(r"Requests/sec:\s+([\d.]+)", text).group(1)), float(value) * scale


def medians(pairs):
    return tuple(statistics.median(values) for values in zip(*pairs))


def report(what, ours, peer, unit, aim, better):
    """`better` says whether a smaller or a larger ratio is good; True when the aim is met."""
    ratio = ours / peer
    met = ratio <= aim if better == "smaller" else ratio >= aim
    sign = "<=" if better == "smaller" else ">="
    print(f"{what}: {ours:,.1f} {unit}, peer {peer:,.1f} {unit}, ratio {ratio:.2f} "
          f"(aim {sign} {aim}): {'met' if met else 'MISSED'}", flush=True)
    return met


def report_absolute(what, ours, unit, aim):
    print(f"{what}: {ours:,.1f} {unit} (aim <= {aim}): {'met' if ours <= aim else 'MISSED'}",
          flush=True)
    return ours <= aim


def bench_dispatch(build, directory):
    """A trivial action through the HTTP protocol beside nginx serving a static JSON file."""
    target = directory / "measured"
    target.write_text("twelve bytes")
    script = directory / "post.lua"
    script.write_text(f"""
wrk.method = "POST"
wrk.body = '{{"Path":"{target}"}}'
wrk.headers["Content-Type"] = "application/json"
wrk.headers["Authorization"] = "{authorization()}"
""")
    results = []
    with nginx(directory) as peer_url, Agent(build, directory / "home") as agent:
        url = f"{agent.url}/v1/actions/CoreUtilsGetFileSize"
        assert agent.call("CoreUtilsGetFileSize", {"Path": str(target)})["container"] == {
            "Result": 12}
        # Alternating, medians: the machine's own moods reach both alike.
        alone = [(wrk(url, 1, script)[1], wrk(peer_url, 1)[1]) for _ in range(ROUNDS)]
        results.append(report("dispatch, 1 connection, latency", *medians(alone), "us", 1.5,
                              "smaller"))
        many = [(wrk(url, 32, script)[0], wrk(peer_url, 32)[0]) for _ in range(ROUNDS)]
        results.append(report("dispatch, 32 connections, rate", *medians(many), "/s", 0.5,
                              "larger"))
    return results


def bench_copy(build, directory):
    """A file copy through the action beside cp, alternating, medians."""
    source = directory / "source"
    with open(source, "wb") as file:
        block = os.urandom(1 << 20)
        for _ in range(COPY_BYTES >> 20):
            file.write(block)
    destination = directory / "destination"
    ours, peer = [], []

    def timed(work):
        destination.unlink(missing_ok=True)
        os.sync()
        start = time.perf_counter()
        work()
        seconds = time.perf_counter() - start
        assert destination.stat().st_size == source.stat().st_size
        return seconds

    with Agent(build, directory / "home") as agent:
        def copy():
            reply = agent.call("CoreUtilsCopyFile", {"SourcePath": str(source),
                                                     "DestinationPath": str(destination)})
            assert reply["code"] == 0, reply
        timed(copy)
        def copy_with_cp():
            subprocess.run(["cp", "-p", source, destination], check=True)

        for i in range(9):
            # Neither always comes first.
            for times, work in ((peer, copy_with_cp), (ours, copy))[::1 if i % 2 else -1]:
                times.append(timed(work))
    return [report(f"copy of {COPY_BYTES >> 20} MiB", statistics.median(ours) * 1e3,
                   statistics.median(peer) * 1e3, "ms", 1.05, "smaller")]


def bench_start(build, directory):
    """From exec to the first answer, and memory when idle."""
    starts, resident = [], []
    for i in range(7):
        agent = Agent(build, directory / f"home{i}")
        start = time.perf_counter()
        with agent:
            urllib.request.urlopen(f"{agent.url}/v1/health", timeout=10).read()
            starts.append(time.perf_counter() - start)
            agent.call("CoreUtilsGetFileSize", {"Path": "/etc/hostname"})
            time.sleep(1.5)
            resident.append(agent.resident_bytes())
    return [report_absolute("start to first answer", statistics.median(starts) * 1e3, "ms", 100),
            report_absolute("idle memory", statistics.median(resident) / (1 << 20), "MiB", 12)]


def seconds_of(work):
    start = time.perf_counter()
    work()
    return time.perf_counter() - start


def alternate(works, rounds, prepare=lambda: None):
    """The median time in seconds of each, in turns, each having run once unmeasured; `prepare` goes
    before each, unmeasured."""
    for work in works:
        work()
    times = [[] for _ in works]
    for i in range(rounds):
        # None always comes first.
        for index in list(range(len(works)))[::1 if i % 2 else -1]:
            prepare()
            times[index].append(seconds_of(works[index]))
    return [statistics.median(list_) for list_ in times]


def bench_listing(build, directory):
    """A directory of 100,000 files with all columns beside sftp's and another agent's listing."""
    listed = directory / "listed"
    listed.mkdir()
    for i in range(LISTED_FILES):
        (listed / f"file-{i * 7919 % LISTED_FILES:06}.txt").write_bytes(b"x" * (i % 1000))
    every = {"Path": str(listed), "SortAttr": "_COLNAME_SIZE_", "SortOrder": "Desc"}
    page = {"Path": str(listed), "Count": 100}

    def run_sftp():
        done = subprocess.run(["sftp", "-D", "/usr/lib/openssh/sftp-server", "-b", "-"],
                              input=f"ls -l {listed}\n".encode(), capture_output=True, check=True)
        assert done.stdout.count(b"\n") > LISTED_FILES

    def run_zabbix():
        # One item of the agent in test mode, which ends with it.
        config = directory / "zabbix.conf"
        config.write_text(f"Hostname=bench\nTimeout=30\nLogType=console\n"
                          f"ControlSocket={directory}/control\nServer=127.0.0.1\n")
        done = subprocess.run(["zabbix_agent2", "-c", config, "-t", f"vfs.dir.get[{listed}]"],
                              capture_output=True)
        assert done.stdout.count(b'"basename"') >= LISTED_FILES, (done.stdout[:200], done.stderr)

    results = []
    with Agent(build, directory / "home") as agent:
        agent.call("CoreUtilsGetFileSize", {"Path": "/etc/hostname"})
        time.sleep(1.5)
        idle = agent.resident_bytes()

        def run_ours():
            agent.receive("CoreUtilsGetDirList", every)


        listed_rows = bytes(agent.receive("CoreUtilsGetDirList", every)).count(b'"Name"')
        assert listed_rows == LISTED_FILES
        ours, sftp, zabbix, first = alternate(
            [run_ours, run_sftp, run_zabbix, lambda: agent.receive("CoreUtilsGetDirList", page)], 5)
        time.sleep(2)
        after = agent.resident_bytes()
    what = f"listing of {LISTED_FILES:,} files by size"
    results.append(report(f"{what}, beside sftp", ours * 1e3, sftp * 1e3, "ms", 0.5, "smaller"))
    results.append(report(f"{what}, beside zabbix-agent2", ours * 1e3, zabbix * 1e3, "ms", 0.5,
                          "smaller"))
    results.append(report("first page of 100 by name, beside sftp's listing", first * 1e3,
                          sftp * 1e3, "ms", 0.5, "smaller"))
    results.append(report("resident memory after the listings beside before", after / (1 << 20),
                          idle / (1 << 20), "MiB", 1.5, "smaller"))
    return results


def bench_digest(build, directory):
    """The MD5 digest of 1 GiB beside openssl's."""
    file = directory / "digested"
    with open(file, "wb") as output:
        for _ in range(DIGEST_BYTES >> 20):
            output.write(os.urandom(1 << 20))
    with Agent(build, directory / "home") as agent:
        def run_openssl():
            return subprocess.run(["openssl", "md5", "-r", file], capture_output=True, text=True,
                                  check=True).stdout.split()[0]

        def run_ours():
            return agent.call("CoreUtilsFileMD5", {"FilePath": str(file)})["container"][
                "FileChecksum"]

        assert run_ours() == run_openssl()
        ours, peer = alternate([run_ours, run_openssl], 5)
    return [report(f"MD5 of {DIGEST_BYTES >> 20} MiB", ours * 1e3, peer * 1e3, "ms", 1.02,
                   "smaller")]


def bench_read(build, directory):
    """A text of 10 MiB as Base64 beside base64(1)."""
    file = directory / "text"
    line = "The quick brown fox jumps over the lazy dog, 0123456789.\n"
    file.write_text((line * (READ_BYTES // len(line) + 1))[:READ_BYTES])
    with Agent(build, directory / "home") as agent:
        def run_ours():
            return agent.receive("CoreUtilsReadFile", {"Path": str(file), "Length": READ_BYTES})

        def run_base64():
            return subprocess.run(["base64", "-w0", file], stdout=subprocess.PIPE,
                                  check=True).stdout

        assert run_base64() in bytes(run_ours())
        ours, peer = alternate(
            [run_ours, lambda: subprocess.run(["base64", file], stdout=subprocess.DEVNULL,
                                              check=True)], 15)
    return [report(f"read of {READ_BYTES >> 20} MiB of text", ours * 1e3, peer * 1e3, "ms", 2,
                   "smaller")]


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
    with enough_processes(), Agent(build, directory / "home") as agent:
        connection = http.client.HTTPConnection(agent.url.removeprefix("http://"))

        def run_ours():
            connection.request("POST", "/v1/actions/CoreUtilsListProcess", b"{}", {
                "Content-Type": "application/json", "Authorization": authorization()})
            return connection.getresponse().read()

        def run_ps():
            return subprocess.run(
                ["ps", "-eo", "user,comm,exe,cputime,pcpu,pid,vsz,rss,ppid,nlwp"],
                stdout=subprocess.PIPE, check=True).stdout

        assert run_ours().count(b'"ProcessID"') >= LISTED_PROCESSES
        assert run_ps().count(b"\n") > LISTED_PROCESSES
        ours, peer = alternate([run_ours, run_ps], 101)
        connection.close()
    return [report(f"list of over {LISTED_PROCESSES} processes", ours * 1e3, peer * 1e3, "ms", 1,
                   "smaller")]


def raw_call(connection, url, action, parameters):
    """One call over an open connection, with as little of this program's own time as can be."""
    body = json.dumps(parameters).encode()
    request = (f"POST /v1/actions/{action} HTTP/1.1\r\nHost: {url.removeprefix('http://')}\r\n"
               f"Content-Type: application/json\r\nAuthorization: {authorization()}\r\n"
               f"Content-Length: {len(body)}\r\n\r\n").encode() + body

    def call():
        connection.sendall(request)
        reply = connection.recv(65536)
        assert b'"code":0,' in reply, reply

    return call


def spawn(*command):
    def run():
        status = os.waitpid(os.posix_spawn(command[0], command, os.environ), 0)[1]
        assert status == 0
    return run


def bench_script(build, directory):
    """An empty script through the action beside empty programs of Lua and Python as processes, and
    a script that invokes an action many times."""
    calls = 100000
    runs = 100  # of one kind in a row
    with Agent(build, directory / "home") as agent:
        scripts = directory / "home/data/ZelCoreUtils"
        (scripts / "empty.mlx").write_text("function main() end\n")
        (scripts / "calls.mlx").write_text(
            "function main()\n"
            f"  for i = 1, {calls} do\n"
            '    assert(action.invoke("CoreUtilsInfosProcessAvailable") == 0)\n'
            "  end\n"
            "end\n")
        host, port = agent.url.removeprefix("http://").split(":")
        with socket.create_connection((host, int(port)), 600) as connection:
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

            def run(name):
                return raw_call(connection, agent.url, "CoreUtilsRunScript", {"Name": name})

            def repeat(work):
                return lambda: [work() for _ in range(runs)]

            ours, lua, python = (seconds / runs for seconds in alternate(
                [repeat(run("empty.mlx")), repeat(spawn("/usr/bin/lua5.4", "-e", "")),
                 repeat(spawn("/usr/bin/python3", "-c", ""))], 9))
            invoking = seconds_of(run("calls.mlx"))
    print(f"empty program of python3: {python * 1e3:.1f} ms")
    print(f"script that invokes an action {calls} times: {calls / invoking:,.0f} calls/s")
    return [report("empty script", ours * 1e6, lua * 1e6, "us", 0.2, "smaller")]


def fill_tree(directory):
    """Files in 200 directories: two in three of text, the others of what cannot be compressed."""
    source = random.Random(1)
    words = ["".join(source.choices("abcdefghijklmnopqrstuvwxyz", k=source.randint(2, 10)))
             for _ in range(3000)]
    tree = directory / "tree"
    for i in range(ARCHIVED_FILES):
        path = tree / f"part{i % 20}/directory{i % 200}/file{i}.txt"
        path.parent.mkdir(parents=True, exist_ok=True)
        size = int(source.expovariate(1 / ARCHIVED_BYTES)) + 1
        if i % 3 == 0:
            path.write_bytes(source.randbytes(size))
        else:
            picked = (words[int(source.paretovariate(0.5)) % 3000] for _ in range(size // 4 + 1))
            path.write_text(" ".join(picked)[:size])
    return tree


def bench_pack(build, directory):
    """Packing a tree beside zip and 7z: time, and the size of what comes out."""
    tree = fill_tree(directory)

    def pack(name, *command):
        def run():
            (directory / name).unlink(missing_ok=True)
            subprocess.run(command, cwd=tree, check=True, stdout=subprocess.DEVNULL)
        return run

    seconds = alternate(
        [pack("ours.zip", Path(build).resolve() / "bin/archive_bench", "pack", ".", "../ours.zip"),
         pack("zip.zip", "zip", "-6", "-q", "-r", "../zip.zip", "."),
         pack("7z.zip", "7z", "a", "-tzip", "-mx=5", "../7z.zip", ".")], 3)
    sizes = [(directory / name).stat().st_size for name in ("ours.zip", "zip.zip", "7z.zip")]
    faster = 1 if seconds[1] < seconds[2] else 2
    peer = ("", "zip -6", "7z -mx=5")[faster]
    return [report(f"packing, beside {peer}", seconds[0] * 1e3, seconds[faster] * 1e3, "ms", 0.5,
                   "smaller"),
            report(f"size, beside {peer}", sizes[0] / 1e6, sizes[faster] / 1e6, "MB", 1, "smaller")]


def bench_extract(build, directory):
    """Unpacking the same archive beside unzip, bsdtar and 7z."""
    tree, out = fill_tree(directory), directory / "out"
    subprocess.run(["zip", "-6", "-q", "-r", "../a.zip", "."], cwd=tree, check=True)

    # Each turn has a directory of its own: nothing is replaced, and nothing deleted meanwhile.
    turns = iter(range(1000))

    def into_new(make):
        def run():
            target = out / str(next(turns))
            target.mkdir(parents=True)
            subprocess.run(make(target), cwd=directory, check=True, stdout=subprocess.DEVNULL)
        return run

    names = ["unzip", "bsdtar", "7z"]
    seconds = alternate(
        [into_new(lambda to: (Path(build).resolve() / "bin/archive_bench", "extract", "a.zip", to)),
         into_new(lambda to: ("unzip", "-q", "a.zip", "-d", to)),
         into_new(lambda to: ("bsdtar", "-xf", "a.zip", "-C", to)),
         into_new(lambda to: ("7z", "x", f"-o{to}", "a.zip"))], 5)
    return [report(f"unpacking, beside {name}", seconds[0] * 1e3, peer * 1e3, "ms", 1, "smaller")
            for name, peer in zip(names, seconds[1:])]


def make_certificates(directory):
    """An authority (ca.pem) and what it signed for the loopback address (own.pem, own.key)."""
    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], cwd=directory, check=True, stderr=subprocess.DEVNULL)

    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
    openssl("req", "-x509", *key, "-keyout", "ca.key", "-out", "ca.pem", "-subj", "/CN=Bench",
            "-addext", "basicConstraints=critical,CA:TRUE")
    openssl("req", *key, "-keyout", "own.key", "-out", "own.csr", "-subj", "/CN=agent")
    (directory / "names").write_text("subjectAltName=IP:127.0.0.1\n")
    openssl("x509", "-req", "-in", "own.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
            "-CAcreateserial", "-out", "own.pem", "-extfile", "names")


def fleet_home(directory, name, is_tls, is_relay, parent_port=None):
    """The home of an agent of a fleet, with the relay at `parent_port` when it is none itself."""
    home = directory / name
    (home / "config").mkdir(parents=True)
    secret = home / "config/secret"
    secret.write_text("the secret of this bench")
    secret.chmod(0o600)
    lines = ["[agent]", f"name = {name}", "[fleet]", "secret_file = secret"]
    if is_tls:
        lines += [f"ca = {directory}/ca.pem", "[security]", "ssl = send"]
    if is_tls and is_relay:
        lines += ["[http]", "tls = yes", f"certificate = {directory}/own.pem",
                  f"private_key = {directory}/own.key"]
    if parent_port:
        lines += ["[relay]", f"parent = 127.0.0.1:{parent_port}"]
    (home / "config/zelagent.ini").write_text("\n".join(lines) + "\n")
    return home


@contextlib.contextmanager
def nginx_store(directory):
    """nginx that stores what is sent with PUT: its URLs, plain and over TLS."""
    root = directory / "store"
    root.mkdir()
    plain, tls = free_port(), free_port()
    config = directory / "store.conf"
    config.write_text(f"""
daemon off; user root; worker_processes auto; pid {directory}/nginx.pid;
error_log {directory}/error.log;
events {{ worker_connections 64; }}
http {{
  access_log off; client_body_temp_path {directory}/body; proxy_temp_path {directory}/proxy;
  fastcgi_temp_path {directory}/fastcgi; uwsgi_temp_path {directory}/uwsgi;
  scgi_temp_path {directory}/scgi;
  server {{
    listen 127.0.0.1:{plain}; listen 127.0.0.1:{tls} ssl; root {root}; client_max_body_size 0;
    ssl_certificate {directory}/own.pem; ssl_certificate_key {directory}/own.key;
    location / {{ dav_methods PUT; }}
  }}
}}
""")
    server = subprocess.Popen(["nginx", "-c", config, "-p", directory], stderr=subprocess.DEVNULL)
    try:
        for _ in range(200):
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", tls), 1):
                break
            time.sleep(0.02)
        yield f"http://127.0.0.1:{plain}", f"https://127.0.0.1:{tls}"
    finally:
        server.terminate()
        server.wait(30)


def bench_transfer_over(build, directory, is_tls, url):
    what = "upload over TLS" if is_tls else "upload"
    received = directory / f"received-{is_tls}"
    received.mkdir()
    with contextlib.ExitStack() as running:
        relay = running.enter_context(
            Agent(build, fleet_home(directory, f"relay-{is_tls}", is_tls, True)))
        port = relay.url.rsplit(":", 1)[1].rstrip("/")
        sender = running.enter_context(
            Agent(build, fleet_home(directory, f"sender-{is_tls}", is_tls, False, port)))

        # A file of its own for each: deleting the one before would count in.
        numbers = itertools.count()

        def run_ours():
            destination = received / f"sent{next(numbers)}"
            answer = sender.call("CoreUtilsCopyFileToRelay",
                                 {"SourcePath": str(directory / "sent"),
                                  "DestinationPath": str(destination)})
            assert answer["code"] == 0, answer
            assert destination.stat().st_size == TRANSFER_BYTES

        def run_curl():
            subprocess.run(["curl", "-fsS", "--cacert", directory / "ca.pem", "-T",
                            directory / "sent", f"{url}/sent{is_tls}{next(numbers)}"], check=True)

        before = [agent.resident_bytes() for agent in (sender, relay)]
        ours, peer = alternate([run_ours, run_curl], 5, os.sync)
        growth = max(agent.resident_bytes() - at for agent, at in zip((sender, relay), before))
    return [report(f"{what} of {TRANSFER_BYTES >> 20} MiB", ours * 1e3, peer * 1e3, "ms", 0.5,
                   "smaller"),
            report_absolute(f"{what}, growth of the larger agent", growth / (1 << 20), "MiB", 32)]


def bench_transfer(build, directory):
    """A file from agent to agent beside one from curl to nginx."""
    make_certificates(directory)
    with open(directory / "sent", "wb") as output:
        for _ in range(TRANSFER_BYTES >> 20):
            output.write(os.urandom(1 << 20))
    with nginx_store(directory) as (plain, tls):
        return (bench_transfer_over(build, directory, False, plain)
                + bench_transfer_over(build, directory, True, tls))


BENCHES = {"dispatch": bench_dispatch, "copy": bench_copy, "start": bench_start,
           "listing": bench_listing, "digest": bench_digest, "read": bench_read, "ps": bench_ps,
           "script": bench_script, "transfer": bench_transfer, "pack": bench_pack, "extract": bench_extract}


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    build, names = sys.argv[1], sys.argv[2:] or list(BENCHES)
    results = []
    for name in names:
        directory = Path(tempfile.mkdtemp(prefix="zel_bench_", dir=os.environ.get("ZEL_BENCH_DIR")))
        try:
            results += BENCHES[name](build, directory)
        finally:
            shutil.rmtree(directory)
    missed = results.count(False)
    print(f"{len(results) - missed} aims met, {missed} missed")


if __name__ == "__main__":
    main()
