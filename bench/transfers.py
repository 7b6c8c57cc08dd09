"""A file from agent to agent beside one from curl to nginx, plain and over TLS."""

import contextlib
import itertools
import os
import subprocess

from agents import Agent, fleet_home
from measuring import alternate, fill_with_noise, size_text
from nginx_server import free_port, nginx
from report import at_most, row

TRANSFER_BYTES = int(os.environ.get("ZEL_BENCH_TRANSFER_BYTES", str(1 << 30)))


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


@contextlib.contextmanager
def nginx_store(directory):
    """nginx that stores what is sent with PUT: its URLs, plain and over TLS."""
    root, plain, tls = directory / "store", free_port(), free_port()
    root.mkdir()
    settings = f"""access_log off;
  server {{
    listen 127.0.0.1:{plain}; listen 127.0.0.1:{tls} ssl; root {root}; client_max_body_size 0;
    ssl_certificate {directory}/own.pem; ssl_certificate_key {directory}/own.key;
    location / {{ dav_methods PUT; }}
  }}"""
    with nginx(directory, tls, settings):
        yield f"http://127.0.0.1:{plain}", f"https://127.0.0.1:{tls}"


def measure(build, directory, is_tls, url):
    """(the agents' seconds, the peer's, the bytes that the larger agent gained)."""
    received = directory / f"received-{is_tls}"
    received.mkdir()
    with contextlib.ExitStack() as running:
        relay = running.enter_context(
            Agent(build, fleet_home(directory, f"relay-{is_tls}", is_tls, True)))
        port = relay.url.rsplit(":", 1)[1]
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
        for agent in (sender, relay):
            agent.forget_peak()
        ours, peer = alternate([run_ours, run_curl], 5, os.sync)
        growth = max(agent.peak_bytes() - at for agent, at in zip((sender, relay), before))
    return ours, peer, growth


def bench_transfer(build, directory):
    make_certificates(directory)
    fill_with_noise(directory / "sent", TRANSFER_BYTES)
    rows = []
    with nginx_store(directory) as urls:
        for is_tls, url in zip((False, True), urls):
            ours, peer, growth = measure(build, directory, is_tls, url)
            over = " over TLS" if is_tls else ""
            rows += [row(f"upload of {size_text(TRANSFER_BYTES)} from agent to agent{over}",
                         ours * 1e3, "ms", "`curl -T` to nginx", peer * 1e3, at_most(0.5)),
                     row("memory that the larger agent gains by it", growth / (1 << 20), "MiB",
                         aim=at_most(32))]
    return rows
