"""Starts a real agent, asks it over HTTP and through zelctl, and stops it."""

import base64
import http.client
import json
import os
import pathlib
import re
import shutil
import signal
import ssl
import subprocess
import threading
import urllib.parse

import called_actions

ROOT = pathlib.Path(__file__).resolve().parents[2]
# The places themselves: the tree may be another account's, with a link to a build of root's.
BUILDS = {
    "linux": pathlib.Path(os.environ.get("ZEL_LINUX_BUILD", ROOT / "build/linux")).resolve(),
    "windows": pathlib.Path(os.environ.get("ZEL_WINDOWS_BUILD", ROOT / "build/windows")).resolve(),
}
START_TIMEOUT_S = 60
STOP_TIMEOUT_S = 30
REPLY_TIMEOUT_S = 60
READY = "zelagent ready: "

PASSWORDS = {"admin": "correct horse battery", "visitor": "just looking around"}
ROLES = {"admin": "administrator", "visitor": "operator"}


def program(platform, name):
    """The command line that starts a program of the build."""
    suffix = ".exe" if platform == "windows" else ""
    path = BUILDS[platform] / "bin" / (name + suffix)
    assert path.exists(), f"{path} is not built"
    return [str(ROOT / "scripts/wine-run"), str(path)] if platform == "windows" else [str(path)]


def agent_path(platform, path):
    """A path of this machine as programs of the platform take it."""
    return "Z:" + str(path).replace("/", "\\") if platform == "windows" else str(path)


# What the agent writes into the container of a console user's call. It comes back from actions that
# leave their container as it is.
OF_THE_CALLER = {"DACurrentConsoleUser", "HttpProtocolRequestInfo"}

# Nothing that a test starts may power off the machine that the tests run on, or log anybody off.
NO_SYSTEM_BUS = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent/bus"}


def clean_environment(**more):
    environment = {k: v for k, v in os.environ.items()
                   if k not in ("ZEL_HOME", "ZEL_AGENT", "ZEL_USER", "ZEL_PASSWORD_FILE", "ZEL_CA")}
    environment.update(NO_SYSTEM_BUS)
    environment.update({k: str(v) for k, v in more.items()})
    return environment


def basic(user, password):
    return "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()


class Agent:
    """One agent with a home of its own. Use `start` and `stop`, or the fixtures. `account`: the
    number of the one that it runs under, where that is not the tests' own."""

    def __init__(self, platform, home, config="", modules=None, variables=None, account=None):
        self.platform = platform
        self.home = pathlib.Path(home)
        self.modules = modules
        self.variables = variables or {}
        self.account = account
        self.url = None
        self.port = 0
        self.process = None
        self.tls = None
        self.output = []
        (self.home / "config").mkdir(parents=True, exist_ok=True)
        if config:
            (self.home / "config/zelagent.ini").write_text(config)

    def path(self, path):
        return agent_path(self.platform, path)

    def environment(self):
        return clean_environment(ZEL_HOME=self.path(self.home), **self.variables)

    def command(self, *arguments, password=None):
        """Runs `zelagent ARGUMENT...` on this agent's home."""
        arguments = list(arguments)
        if password is not None:
            file = self.home / "new-password"
            file.write_text(password + "\n")
            file.chmod(0o600)
            arguments += ["--password-file", self.path(file)]
        return subprocess.run(program(self.platform, "zelagent") + arguments,
                              env=self.environment(), stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=START_TIMEOUT_S)

    def add_user(self, login, password, role):
        done = self.command("user", "add", login, "--role", role, password=password)
        assert done.returncode == 0, done.stderr.decode()

    def add_users(self):
        for login, password in PASSWORDS.items():
            self.add_user(login, password, ROLES[login])

    def start(self):
        self._keep_out_of_sessions()
        arguments = ["run", "--port", str(self.port)]
        if self.modules:
            arguments += ["--modules", self.path(self.modules)]
        self.process = subprocess.Popen(
            program(self.platform, "zelagent") + arguments, env=self.environment(),
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            user=self.account, group=self.account,
            extra_groups=None if self.account is None else [])
        self.errors = []
        self.url = None
        ready = threading.Event()
        threading.Thread(target=self._read_output, args=(ready,), daemon=True).start()
        threading.Thread(target=self._read_errors, daemon=True).start()
        if not ready.wait(START_TIMEOUT_S) or not self.url:
            self.kill()
            raise AssertionError("the agent did not start: " + self.describe())
        return self

    def _keep_out_of_sessions(self):
        """No proxy in the session of whoever runs the tests, unless the test decides about that."""
        file = self.home / "config/zelagent.ini"
        config = file.read_bytes() if file.exists() else b""
        if not re.search(rb"(?m)^start *=", config):
            file.write_bytes(config + b"\n[proxy]\nstart = no\n")

    def _read_output(self, ready):
        for line in self.process.stdout:
            text = line.decode("utf-8", "replace").rstrip("\r\n")
            self.output.append(text)
            if text.startswith(READY):
                self.url = text[len(READY):]
                ready.set()
        ready.set()

    def _read_errors(self):
        for line in self.process.stderr:
            self.errors.append(line.decode("utf-8", "replace").rstrip("\r\n"))

    def log(self):
        file = self.home / "log/zelagent.log"
        return file.read_text(errors="replace") if file.exists() else ""

    def describe(self):
        return "\n".join(self.output + self.errors + self.log().splitlines()[-30:])

    def stop(self):
        """Asks the agent to end; its exit status. Under Wine SIGINT is what arrives as Ctrl-C."""
        self.process.send_signal(
            signal.SIGINT if self.platform == "windows" else signal.SIGTERM)
        try:
            return self.process.wait(STOP_TIMEOUT_S)
        finally:
            self.kill()

    def kill(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    def resident_bytes(self):
        return self._memory("VmRSS:")

    def peak_bytes(self):
        """The most memory that was resident since the start."""
        return self._memory("VmHWM:")

    def _memory(self, name):
        for line in pathlib.Path(f"/proc/{self.process.pid}/status").read_text().splitlines():
            if line.startswith(name):
                return int(line.split()[1]) * 1024
        raise AssertionError("no " + name)

    def address(self):
        parts = urllib.parse.urlsplit(self.url)
        return parts.hostname, parts.port

    def connect(self, timeout=REPLY_TIMEOUT_S):
        host, port = self.address()
        if self.url.startswith("https:"):
            return http.client.HTTPSConnection(host, port, timeout=timeout, context=self.tls)
        return http.client.HTTPConnection(host, port, timeout=timeout)

    def request(self, method, target, body=None, headers=None, user="admin", password=None):
        """(status, headers, body) of one request; `user` None sends no credentials."""
        all_headers = {}
        if user is not None:
            all_headers["Authorization"] = basic(user, password or PASSWORDS[user])
        if body is not None:
            all_headers["Content-Type"] = "application/json"
        all_headers.update(headers or {})
        connection = self.connect()
        try:
            connection.request(method, target, body=body, headers=all_headers)
            reply = connection.getresponse()
            return reply.status, reply.headers, reply.read()
        finally:
            connection.close()

    def call(self, action, user="admin", password=None, **parameters):
        """(code, container) of an action called over HTTP."""
        called_actions.note(self.platform, action)
        status, _, body = self.request("POST", "/v1/actions/" + action,
                                       json.dumps(parameters).encode(), user=user,
                                       password=password)
        assert status == 200, (status, body)
        reply = json.loads(body)
        assert list(reply) == ["code", "container"]
        return reply["code"], reply["container"]

    def zelctl(self, *arguments, user="admin", password=None, url=None, ca=None):
        """Runs zelctl against this agent: a finished process."""
        file = self.home / f"password-of-{user}"
        file.write_text((password or PASSWORDS[user]) + "\n")
        environment = clean_environment(ZEL_AGENT=url or self.url, ZEL_USER=user,
                                        ZEL_PASSWORD_FILE=self.path(file))
        if ca:
            environment["ZEL_CA"] = self.path(ca)
        return subprocess.run(program(self.platform, "zelctl") + list(arguments), env=environment,
                              stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=REPLY_TIMEOUT_S)

    def call_by_zelctl(self, action, user="admin", **parameters):
        """(code, container) of an action called through zelctl."""
        called_actions.note(self.platform, action)
        arguments = [f"{key}={value}" if isinstance(value, str) else f"{key}:={json.dumps(value)}"
                     for key, value in parameters.items()]
        done = self.zelctl("--json", "call", action, *arguments, user=user)
        assert done.returncode in (0, 1), done.stderr.decode()
        reply = json.loads(done.stdout)
        assert done.returncode == (0 if reply["code"] == 0 else 1)
        return reply["code"], reply["container"]


def without_caller(container):
    return {key: value for key, value in container.items() if key not in OF_THE_CALLER}


def copy_modules(platform, target):
    """A modules directory with the agent's own modules, those of a master and the tests' one."""
    (target / "master").mkdir(parents=True)
    suffix = ".dll" if platform == "windows" else ".so"
    for source, below in (("modules", "."), ("modules/master", "master"), ("test_modules", ".")):
        for module in (BUILDS[platform] / "bin" / source).glob("*" + suffix):
            shutil.copy(module, target / below)
    return target


def tls_context(ca):
    return ssl.create_default_context(cafile=str(ca))
