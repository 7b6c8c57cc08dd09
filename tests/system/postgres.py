"""A PostgreSQL server of the tests' own, on a socket in a private directory."""

import itertools
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

PROGRAMS = pathlib.Path("/usr/lib/postgresql/15/bin")
ACCOUNT = "postgres"  # of Debian's package; the server refuses to run as root
USER = "tasks"
START_TIMEOUT_S = 30
STOP_TIMEOUT_S = 30


class PostgresServer:
    """Use `start`, `stop` or `crash`; `remove` in any case."""

    def __init__(self, settings=()):
        # Not below the tests' own directories, which other accounts may not enter; and the path of
        # a socket has to be short.
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="zelpg"))
        self.data = self.directory / "data"
        self.process = None
        self._settings = [word for setting in settings for word in ("-c", setting)]
        self._names = (f"tasks{number}" for number in itertools.count(1))
        if os.getuid() == 0:
            shutil.chown(self.directory, ACCOUNT, ACCOUNT)
        self._run("initdb", "--no-sync", "--auth=trust", "--encoding=UTF8", "--locale=C",
                  "--username", USER, "--pgdata", self.data)

    def _command(self, name, *arguments):
        """As another account when the tests run as root; what is left behind ends with the tests."""
        other = ["--reuid", ACCOUNT, "--regid", ACCOUNT, "--clear-groups"]
        user = other if os.getuid() == 0 else []
        return ["setpriv", "--pdeathsig", "QUIT", *user, PROGRAMS / name, *arguments]

    def _run(self, name, *arguments):
        done = subprocess.run(self._command(name, *arguments), cwd=self.directory,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True)
        assert done.returncode == 0, done.stderr
        return done.stdout

    def log(self):
        return (self.directory / "log").read_text(errors="replace")

    def start(self):
        with open(self.directory / "log", "ab") as log:
            self.process = subprocess.Popen(
                self._command("postgres", "-D", self.data, "-k", self.directory,
                              "-c", "listen_addresses=", "-c", "max_connections=60",
                              *self._settings),
                cwd=self.directory, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        deadline = time.monotonic() + START_TIMEOUT_S
        while subprocess.run(self._command("pg_isready", "-q", "-h", self.directory)).returncode:
            assert self.process.poll() is None and time.monotonic() < deadline, self.log()
            time.sleep(0.02)
        return self

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def _end(self, number):
        if self.is_running():
            self.process.send_signal(number)
            self.process.wait(STOP_TIMEOUT_S)

    def stop(self):
        """Sends the clients away."""
        self._end(signal.SIGINT)

    def crash(self):
        """Ends at once, so that the next start has to recover what was committed."""
        self._end(signal.SIGQUIT)

    def remove(self):
        self.crash()
        shutil.rmtree(self.directory)

    def query(self, database, statement):
        """What psql prints: a line for each row, with "|" between the columns."""
        return self._run("psql", "-XqAt", "-v", "ON_ERROR_STOP=1", "-h", self.directory, "-U", USER,
                         "-d", database, "-c", statement)

    def dump(self, database):
        return self._run("pg_dump", "-h", self.directory, "-U", USER, database)

    def new_database(self):
        """Its name; it is empty."""
        name = next(self._names)
        self.query("postgres", f"CREATE DATABASE {name} TEMPLATE template0")
        return name

    def connection(self, database):
        """What an agent's `[master] database` takes."""
        return f"host={self.directory} dbname={database} user={USER}"
