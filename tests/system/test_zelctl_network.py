"""zelctl's verbs over the network: ping, check smb, check http, wake, domains and servers."""

import http.server
import json
import os
import pty
import random
import socket
import subprocess
import termios
import threading
import time

import pytest

from agents import REPLY_TIMEOUT_S, clean_environment, program

STEP_FAILED = "(CoreUtilsCheckSMBShare: code 20: an SMB connection step failed)"


def run(agent, *arguments, **options):
    done = agent.zelctl(*arguments, **options)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


class Server:
    """An HTTP server on a port of its own that keeps the requests it got: (target, body)."""

    def __init__(self, answer):
        """`answer` makes (status, body) of a target."""
        self.requests = []
        outer = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_GET(self):
                length = int(self.headers.get("Content-Length", 0))
                outer.requests.append((self.path, self.rfile.read(length).decode()))
                status, body = answer(self.path)
                self.send_response(status)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            do_POST = do_GET

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.url = f"http://127.0.0.1:{self.server.server_port}"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def close(self):
        self.server.shutdown()
        self.server.server_close()


@pytest.fixture
def serve():
    """Starts servers; those that a test has started end with it."""
    started = []

    def start(answer):
        started.append(Server(answer))
        return started[-1]

    yield start
    for one in started:
        one.close()


@pytest.fixture
def stand_in(serve):
    """Something that answers zelctl as an agent does, always with this reply."""

    def start(code, **container):
        body = json.dumps({"code": code, "container": container}).encode()
        return serve(lambda _: (200, body))

    return start


def echoes(terminal):
    return bool(termios.tcgetattr(terminal)[3] & termios.ECHO)


def wait_for(condition, seconds=30):
    for _ in range(seconds * 20):
        if condition():
            return
        time.sleep(0.05)
    raise AssertionError("it did not come")


@pytest.fixture
def unused_address():
    """An address of this machine where nobody listens."""
    return f"127.{random.randint(64, 254)}.{random.randint(1, 254)}.{random.randint(1, 254)}"


def test_ping_tells_that_a_host_answers(agent):
    assert run(agent, "ping", "127.0.0.1") == (0, "127.0.0.1 answers.\n", "")
    assert run(agent, "--json", "ping", "127.0.0.1") == (
        0, '{"code":0,"container":{"Result":true}}\n', "")


def test_ping_of_an_unknown_host_is_status_1(agent):
    assert run(agent, "ping", "nosuchhost.invalid") == (
        1, "", "zelctl: nosuchhost.invalid does not answer; the agent's log says why\n")
    assert run(agent, "ping", "--json", "nosuchhost.invalid") == (
        1, '{"code":0,"container":{"Result":false}}\n',
        "zelctl: nosuchhost.invalid does not answer; the agent's log says why\n")


def test_check_smb_tells_that_nobody_serves_files(agent, unused_address):
    for path in (rf"\\{unused_address}\public", f"//{unused_address}/public",
                 f"{unused_address}/public"):
        assert run(agent, "check", "smb", path) == (
            1, "", f"zelctl: {unused_address} offers no usable file service on port 139; "
                   f"the agent's log says why {STEP_FAILED}\n")


def test_check_smb_prints_the_reply_with_json(agent, unused_address):
    status, output, _ = run(agent, "--json", "check", "smb", unused_address + "/public/sub")
    assert status == 1
    assert json.loads(output) == {
        "code": 20, "container": {"TargetHost": unused_address, "TargetShare": "public\\sub",
                                  "ConnectionResult": 1}}


def test_check_smb_tells_an_unknown_host_and_a_path_that_is_none(agent):
    assert run(agent, "check", "smb", "nosuchhost.invalid/public") == (
        1, "", "zelctl: no IPv4 address of nosuchhost.invalid was found; the agent's log "
               "says why (CoreUtilsCheckSMBShare: code 1: failure)\n")
    for path in ("public", "/host/share", "host/", ""):
        assert run(agent, "check", "smb", path) == (
            1, "", rf"zelctl: {path} has not the form \\host\share (CoreUtilsCheckSMBShare: "
                   "code 13: missing or malformed parameter)\n")


def test_check_smb_takes_the_password_from_a_file(agent, stand_in, tmp_path):
    other = stand_in(20, TargetHost="filer", TargetShare="public", ConnectionResult=2)
    file = tmp_path / "share password"
    file.write_text("tr\u00e9s secret\nnot this\n")
    assert run(agent, "check", "smb", "filer/public", "--share-user", r"EXAMPLE\ann",
               "--share-password-file", agent.path(file), url=other.url) == (
        1, "", "zelctl: logging in to filer as EXAMPLE\\ann failed; the agent's log says why "
               f"{STEP_FAILED}\n")
    (target, body), = other.requests
    assert target == "/v1/actions/CoreUtilsCheckSMBShare"
    assert json.loads(body) == {"SmbPathShare": r"filer\public", "SmbUser": r"EXAMPLE\ann",
                                "SmbPassword": "tr\u00e9s secret"}


def test_check_smb_asks_nobody_without_a_password(agent, stand_in, tmp_path):
    other = stand_in(0)
    missing = agent.path(tmp_path / "none")
    for arguments, complaint in (
            (["--share-user", "ann"], "name a file that holds it with --share-password-file"),
            (["--share-user", "ann", "--share-password-file", missing], "cannot be opened"),
            (["--share-password-file", missing], "--share-user")):
        status, output, errors = run(agent, "check", "smb", "filer/public", *arguments,
                                     url=other.url)
        assert (status, output, complaint in errors) == (2, "", True), errors
    assert other.requests == []


def test_check_smb_asks_for_the_password_on_a_terminal_and_does_not_show_it(
        stand_in, tmp_path):
    other = stand_in(0, TargetHost="filer", TargetShare="public", ConnectionResult=0)
    file = tmp_path / "password"
    file.write_text("correct horse battery\n")
    here, there = pty.openpty()
    zelctl = subprocess.Popen(
        program("linux", "zelctl") + ["check", "smb", "filer/public", "--share-user", "ann"],
        stdin=there, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        env=clean_environment(ZEL_AGENT=other.url, ZEL_USER="admin", ZEL_PASSWORD_FILE=file))
    try:
        question = b"Password of ann for the share: "
        assert zelctl.stderr.read(len(question)) == question
        # What is typed before the echo is off would be shown.
        wait_for(lambda: not echoes(there))
        os.write(here, b"secret\n")
        output, errors = zelctl.communicate(timeout=REPLY_TIMEOUT_S)
        shown = os.read(here, 100)
    finally:
        zelctl.kill()
        zelctl.wait()
        os.close(here)
        os.close(there)
    assert (zelctl.returncode, output, errors) == (
        0, b"The share public of filer can be opened.\n", b"")
    assert shown == b"\r\n"
    assert json.loads(other.requests[0][1])["SmbPassword"] == "secret"


def test_check_http_tells_whether_a_url_can_be_fetched(agent, serve):
    site = serve(lambda target: (404 if target == "/missing" else 200, b"some text"))
    good, bad = site.url + "/page?key=1", site.url + "/missing"
    assert run(agent, "check", "http", good) == (0, "The URL can be fetched.\n", "")
    complaint = "zelctl: the URL cannot be fetched; the agent's log says why\n"
    assert run(agent, "check", "http", bad) == (1, "", complaint)
    status, output, errors = run(agent, "--json", "check", "http", bad)
    assert (status, errors) == (1, complaint)
    reply = json.loads(output)
    assert (reply["code"], reply["container"]["HTTPCheckUrlResult"]) == (0, 0)
    assert reply["container"]["HTTPCheckURL"] == bad
    assert [target for target, _ in site.requests] == ["/page?key=1", "/missing", "/missing"]


def test_check_http_needs_somebody_who_answers(agent, unused_address):
    assert run(agent, "check", "http", f"http://{unused_address}:9/") == (
        1, "", "zelctl: the URL cannot be fetched; the agent's log says why\n")


def test_wake_sends_the_packet_to_the_broadcast_address(agent, unused_address):
    network = unused_address.rpartition(".")[0]
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as listener:
        listener.settimeout(REPLY_TIMEOUT_S)
        listener.bind((network + ".255", 7))
        for mask in ("/24", "255.255.255.0"):
            status, output, errors = run(agent, "wake", "00:1b:2C:3d:4e:5f",
                                         "--address", unused_address, "--mask", mask)
            assert (status, errors) == (0, "")
            assert output.startswith(f"The packet for {network}.255 was handed over")
            assert "Nothing tells whether the computer wakes up." in output
            assert listener.recv(2000) == b"\xff" * 6 + bytes.fromhex("001b2c3d4e5f") * 16


def test_wake_takes_no_command_line_that_makes_no_sense(agent):
    for arguments, complaint in (
            (["00:1b", "--address", "10.0.0.5", "--mask", "/24"], "'00:1b' is no MAC address"),
            (["001b2c3d4e5f", "--address", "host", "--mask", "/24"], "'host' is no IPv4 address"),
            (["001b2c3d4e5f", "--address", "10.0.0.5", "--mask", "255.0.255.0"],
             "'255.0.255.0' is no network mask"),
            (["001b2c3d4e5f", "--address", "10.0.0.5"], "--mask is required")):
        status, output, errors = run(agent, "wake", *arguments)
        assert (status, output, complaint in errors) == (2, "", True), errors


def test_domains_and_servers_print_one_name_on_a_line(agent, stand_in):
    other = stand_in(0, Values=["FILER", "B\u00dcRO"])
    for arguments in (["domains"], ["servers"], ["servers", "ACME"]):
        assert run(agent, *arguments, url=other.url) == (0, "FILER\nB\u00dcRO\n", "")
    assert [(target.rpartition("/")[2], json.loads(body)) for target, body in other.requests] == [
        ("CoreUtilsListDomains", {}), ("CoreUtilsListServers", {}),
        ("CoreUtilsListServers", {"DomainName": "ACME"})]


def test_domains_and_servers_explain_code_1(agent, stand_in):
    other = stand_in(1)
    assert run(agent, "domains", url=other.url) == (
        1, "", "zelctl: no browser of the network answered; the agent's log says why "
               "(CoreUtilsListDomains: code 1: failure)\n")
    assert run(agent, "--json", "servers", "ACME", url=other.url) == (
        1, '{"code": 1, "container": {}}\n',
        "zelctl: no browser of the network answered, or none knows the domain ACME; the agent's "
        "log says why (CoreUtilsListServers: code 1: failure)\n")


def test_an_unknown_domain_is_code_1_of_the_agent_itself(agent):
    # A name that no domain can have is looked for nowhere.
    assert run(agent, "--json", "servers", "no.domain")[:2] == (
        1, '{"code":1,"container":{}}\n')


def test_a_password_is_no_argument(agent):
    status, _, errors = run(agent, "check", "smb", "filer/public", "--share-user", "ann",
                            "--share-password", "secret")
    assert (status, "--share-password" in errors) == (2, True)
