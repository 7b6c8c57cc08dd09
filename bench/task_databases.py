"""The databases that keep a master's tasks, and the master itself."""

import contextlib
import os
import shutil
import sqlite3
import subprocess
import tempfile
import time
from pathlib import Path

from agents import Agent, fleet_home

PROGRAMS = Path("/usr/lib/postgresql/15/bin")
ACCOUNT = "postgres"  # of Debian's package: the server refuses to run as root

# What a client says of a task, and as columns of the database.
TASK = {"ObjectName": "Printer on fire", "_DB_ATTR_DESCRIPTION_": "It burns. " * 20,
        "_DB_ATTR_PRIORITY_": "high", "_DB_ATTR_REQUESTEDBY_": "ann", "Language": "en",
        "UserEmail": "ann@example.org", "UserDomain": "OFFICE", "UserLogin": "ann",
        "GUID": "6f1c0f0e-8a6f-4b1e-9b53-1d2a5c6e7f80"}


class Postgres:
    """A server of the bench's own, durable as it comes, on a socket in a private directory."""

    def __init__(self):
        self.directory = Path(tempfile.mkdtemp(prefix="zelpg"))
        self.process = None

    def __enter__(self):
        if os.getuid() == 0:
            shutil.chown(self.directory, ACCOUNT, ACCOUNT)
        self.run("initdb", "--no-sync", "--auth=trust", "--encoding=UTF8", "--locale=C",
                 "--username", "tasks", "--pgdata", self.directory / "data")
        # What the server does for a statement can be read in its log.
        settings = ["listen_addresses=", "session_preload_libraries=auto_explain"]
        with open(self.directory / "log", "wb") as log:
            self.process = subprocess.Popen(
                self.command("postgres", "-D", self.directory / "data", "-k", self.directory,
                             *[word for setting in settings for word in ("-c", setting)]),
                cwd=self.directory, stdout=log, stderr=log)
        while subprocess.run(self.command("pg_isready", "-q", "-h", self.directory)).returncode:
            assert self.process.poll() is None, self.log()
            time.sleep(0.02)
        return self

    def __exit__(self, *_):
        if self.process:
            self.process.terminate()
            self.process.wait(60)
        shutil.rmtree(self.directory)

    def command(self, name, *arguments):
        other = ["--reuid", ACCOUNT, "--regid", ACCOUNT, "--clear-groups"]
        user = other if os.getuid() == 0 else []
        return ["setpriv", "--pdeathsig", "INT", *user, PROGRAMS / name, *arguments]

    def run(self, name, *arguments):
        done = subprocess.run(self.command(name, *arguments), cwd=self.directory,
                              capture_output=True, text=True)
        assert done.returncode == 0, done.stderr
        return done.stdout

    def log(self):
        return (self.directory / "log").read_text()

    def query(self, database, statement):
        return self.run("psql", "-XqAt", "-v", "ON_ERROR_STOP=1", "-h", self.directory, "-U",
                        "tasks", "-d", database, "-c", statement)

    def connection(self, database):
        self.query("postgres", f"CREATE DATABASE {database}")
        return f"host={self.directory} dbname={database} user=tasks"


class File:
    """SQLite, asked by this program as PostgreSQL is by psql."""

    def __init__(self, path):
        self.path = path

    def query(self, statement):
        with contextlib.closing(sqlite3.connect(self.path)) as connection, connection:
            connection.execute("PRAGMA cache_size = -500000")
            return "\n".join("|".join(map(str, row)) for row in connection.execute(statement))


class Server:
    def __init__(self, server, database):
        self.server, self.database = server, database

    def query(self, statement):
        return self.server.query(self.database, statement).strip()


@contextlib.contextmanager
def master(build, directory, name, database=""):
    """A running agent that keeps tasks: it, and its file where it has one."""
    home = fleet_home(directory, name)
    with open(home / "config/zelagent.ini", "a") as file:
        file.write(f"[master]\nenabled = yes\ndatabase = {database}\nconnections = 8\n")
    with Agent(build, home) as agent:
        assert agent.call("TrnDbTaskCheckRequirements", {})["container"] == {"Result": True}
        yield agent, home / "data/TaskDatabase/tasks.db"
