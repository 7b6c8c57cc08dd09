#!/usr/bin/python3
"""Measures helpdesk tasks on a master beside the databases themselves, in one run.

Usage: task_bench.py BUILD_DIRECTORY
"""

import contextlib
import http.client
import json
import multiprocessing
import os
import re
import shutil
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from bench import (SECONDS, Agent, authorization, fleet_home, medians, report_absolute, seconds_of,
                   wrk)

ROUNDS = 3
CLIENTS = (1, 32)
TASKS = int(os.environ.get("ZEL_BENCH_TASKS", "1000000"))
SEEDS = 1000
REQUESTERS, PRIORITIES = 250, ("low", "normal", "high", "urgent")
LIST_TURNS = 21
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
    home = fleet_home(directory, name, False, False)
    with open(home / "config/zelagent.ini", "a") as file:
        file.write(f"[master]\nenabled = yes\ndatabase = {database}\nconnections = 8\n")
    with Agent(build, home) as agent:
        assert agent.call("TrnDbTaskCheckRequirements", {})["container"] == {"Result": True}
        yield agent, home / "data/TaskDatabase/tasks.db"


# Creates.

def posting(directory, parameters):
    """A script for wrk that opens one task after the other."""
    script = directory / "create.lua"
    script.write_text(f"""
wrk.method = "POST"
wrk.body = {json.dumps(json.dumps(parameters))}
wrk.headers["Content-Type"] = "application/json"
wrk.headers["Authorization"] = "{authorization()}"
""")
    return script


def inserted_columns(file):
    """The columns of a row that the master wrote, and their values: what the peers insert."""
    with contextlib.closing(sqlite3.connect(file)) as connection:
        cursor = connection.execute("SELECT * FROM tasks WHERE id = 1")
        row = dict(zip([column[0] for column in cursor.description], cursor.fetchone()))
    del row["id"]
    return row


def insert_for(seconds, file, columns, begin, counted):
    """One client of SQLite alone: a durable INSERT after the other."""
    connection = sqlite3.connect(file, timeout=60, isolation_level=None)
    assert connection.execute("PRAGMA journal_mode = WAL").fetchone() == ("wal",)
    connection.execute("PRAGMA synchronous = FULL")
    statement = (f"INSERT INTO tasks ({', '.join(columns)}) "
                 f"VALUES ({', '.join('?' * len(columns))})")
    values, count = list(columns.values()), 0
    begin.wait()
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        connection.execute("BEGIN IMMEDIATE")
        connection.execute(statement, values)
        connection.execute("COMMIT")
        count += 1
    connection.close()
    with counted.get_lock():
        counted.value += count


def sqlite_rate(file, columns, clients):
    # Else the last client would remove the log, and the next ones would wait for its growth.
    with contextlib.closing(sqlite3.connect(file)) as kept_open:
        kept_open.execute("SELECT count(*) FROM schema_version").fetchall()
        return sqlite_clients_rate(file, columns, clients)


def sqlite_clients_rate(file, columns, clients):
    context = multiprocessing.get_context("fork")
    begin, counted = context.Barrier(clients), context.Value("q", 0)
    workers = [context.Process(target=insert_for, args=(SECONDS, file, columns, begin, counted))
               for _ in range(clients)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
        assert worker.exitcode == 0
    return counted.value / SECONDS


def pgbench_rate(server, database, columns, clients):
    def literal(value):
        return str(value) if isinstance(value, int) else "'" + value.replace("'", "''") + "'"

    script = server.directory / "insert.sql"
    script.write_text(f"INSERT INTO tasks ({', '.join(columns)}) "
                      f"VALUES ({', '.join(map(literal, columns.values()))});\n")
    script.chmod(0o644)
    text = server.run("pgbench", "-n", "-f", script, "-c", str(clients), "-j", str(min(clients, 2)),
                      "-T", str(SECONDS), "-M", "prepared", "-h", server.directory, "-U", "tasks",
                      database)
    return float(re.search(r"tps = ([\d.]+)", text).group(1))


def report_creates(what, clients, ours, peer, peer_name):
    print(f"creates, {what}, {clients} clients: {ours:,.0f}/s, {peer_name} {peer:,.0f}/s, "
          f"ratio {ours / peer:.2f}", flush=True)


def bench_creates(build, directory, server):
    script = posting(directory, TASK)
    with master(build, directory, "one") as (one, file), \
            master(build, directory, "two", server.connection("two")) as (two, _):
        for agent in (one, two):
            answer = agent.call("TrnDbCreateTask", TASK)
            assert answer["container"]["Result"] is True, answer
        columns = inserted_columns(file)
        # The peers insert into tables of their own, with the same indexes.
        peer_file = directory / "peer.db"
        with contextlib.closing(sqlite3.connect(file)) as kept, \
                contextlib.closing(sqlite3.connect(peer_file)) as peer:
            kept.backup(peer)
        server.query("postgres", "CREATE DATABASE peer")
        copy_schema(server, "two", "peer")

        for clients in CLIENTS:
            pairs = {"SQLite": [], "PostgreSQL": []}
            for _ in range(ROUNDS):
                pairs["SQLite"].append((
                    wrk(f"{one.url}/v1/actions/TrnDbCreateTask", clients, script)[0],
                    sqlite_rate(peer_file, columns, clients)))
                pairs["PostgreSQL"].append((
                    wrk(f"{two.url}/v1/actions/TrnDbCreateTask", clients, script)[0],
                    pgbench_rate(server, "peer", columns, clients)))
            report_creates("SQLite", clients, *medians(pairs["SQLite"]), "sqlite3 of Python")
            report_creates("PostgreSQL", clients, *medians(pairs["PostgreSQL"]), "pgbench")
        # All of them were kept: none of the rates is one of refusals.
        for agent, database in ((one, File(file)), (two, Server(server, "two"))):
            assert "cannot" not in (agent.home / "log/zelagent.log").read_text()
            assert int(database.query("SELECT count(*) FROM tasks")) > 100


def copy_schema(server, source, target):
    dump = server.directory / "schema.sql"
    server.run("pg_dump", "-h", server.directory, "-U", "tasks", "--schema-only", "-f", dump,
               source)
    server.run("psql", "-Xq", "-h", server.directory, "-U", "tasks", "-d", target, "-f", dump)


# Lists.

LISTS = {
    "no filter": {},
    "open": {"_DB_ATTR_STATUS_": "open"},
    "one of 4 priorities": {"_DB_ATTR_PRIORITY_": "urgent"},
    "one of 250 requesters": {"_DB_ATTR_REQUESTEDBY_": "user8"},
    "one of 250 requesters, open": {"_DB_ATTR_REQUESTEDBY_": "user8", "_DB_ATTR_STATUS_": "open"},
    "requester, priority and closed": {
        "_DB_ATTR_REQUESTEDBY_": "user8", "_DB_ATTR_PRIORITY_": "high",
        "_DB_ATTR_STATUS_": "closed"},
    "a requester of one task": {"_DB_ATTR_REQUESTEDBY_": "rare"},
    "a requester of none": {"_DB_ATTR_REQUESTEDBY_": "nobody", "_DB_ATTR_STATUS_": "open"},
}
PLANNED = "one of 250 requesters"


def fill(agent, database, series):
    """The tasks, each with a note: the master writes a thousand, the database copies them. How many
    there are."""
    def call(action, **parameters):
        answer = agent.call(action, parameters)
        assert answer["container"]["Result"] is True, answer

    for number in range(SEEDS):
        call("TrnDbCreateTask", **{**TASK, "_DB_ATTR_REQUESTEDBY_": f"user{number % REQUESTERS}",
                                   "_DB_ATTR_PRIORITY_": PRIORITIES[number // REQUESTERS],
                                   "_DB_ATTR_NOTES_": "A note."})
        if number % 3:
            call("TrnDbCloseTask", ObjectId=number + 1)
    columns = ("state, created_ms, changed_ms, closed_ms, text_bytes, requester_key, priority_key, "
               "device_key, name, priority, requester, language, user_email, user_domain, "
               "user_login, device_guid, agent, console_user, description")
    copies = TASKS // SEEDS - 1
    database.query(f"INSERT INTO tasks ({columns}) SELECT {columns} FROM ({series % copies}) "
                   "AS copies CROSS JOIN tasks")
    database.query("INSERT INTO notes (task_id, created_ms, text_bytes, author, text) "
                   f"SELECT id, created_ms, 12, requester, 'A note.' FROM tasks WHERE id > {SEEDS}")
    call("TrnDbCreateTask", **{**TASK, "_DB_ATTR_REQUESTEDBY_": "rare"})
    return int(database.query("SELECT count(*) FROM tasks"))


def list_times(agent):
    """{list: median seconds of a whole request}, rows included."""
    host, port = re.search(r"//([^:]+):(\d+)", agent.url).groups()
    times = {}
    connection = http.client.HTTPConnection(host, int(port), timeout=600)
    for name, filters in LISTS.items():
        body = json.dumps(filters)

        def run():
            connection.request("POST", "/v1/actions/TrnDbTaskGetList", body, {
                "Content-Type": "application/json", "Authorization": authorization()})
            return connection.getresponse().read()

        rows = json.loads(run())["container"].get("Values", [])
        expected = {"a requester of one task": 1, "a requester of none": 0}.get(name, 200)
        assert len(rows) == expected or TASKS < 1000000, (name, len(rows))
        times[name] = statistics.median(seconds_of(run) for _ in range(LIST_TURNS))
    connection.close()
    return times


def report_lists(what, count, times):
    for name, seconds in times.items():
        print(f"list out of {count:,} tasks, {what}, {name}: {seconds * 1e3:.1f} ms")
    return report_absolute(f"the slowest of these, {what}", max(times.values()) * 1e3, "ms", 20)


def bench_lists(build, directory, server):
    results, plans = [], []
    with master(build, directory, "file") as (agent, path):
        file = File(path)
        count = fill(agent, file, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
                                  "WHERE i < %d) SELECT i FROM n")
        results.append(report_lists("SQLite", count, list_times(agent)))
        plans.append(("SQLite", sqlite_plan(file)))
    with master(build, directory, "served", server.connection("served")) as (agent, _):
        served = Server(server, "served")
        count = fill(agent, served, "SELECT generate_series(1, %d)")
        served.query("ANALYZE")
        results.append(report_lists("PostgreSQL", count, list_times(agent)))
        plans.append(("PostgreSQL", postgres_plans(agent, server)))
    for what, plan in plans:
        print(f"the plan of {what} for {PLANNED}:\n{plan.rstrip()}")
    return results


def sqlite_plan(file):
    """Of the query that agent/task_database/store_list.cpp makes of the filter `PLANNED`."""
    def of_state(state):
        return (f"SELECT id FROM tasks WHERE state = '{state}' AND requester_key = 8 "
                "AND requester = 'user8'")

    return file.query(f"EXPLAIN QUERY PLAN SELECT id FROM ({of_state('open')} UNION ALL "
                      f"{of_state('closed')}) AS listed ORDER BY id DESC LIMIT 200")


def postgres_plans(agent, server):
    """What the server did for the list, as its log tells."""
    def explain(setting):
        server.query("postgres", f"ALTER SYSTEM SET auto_explain.log_min_duration = {setting}")
        server.query("postgres", "SELECT pg_reload_conf()")

    explain(0)
    before = len(server.log())
    # Its connections take the setting before their next statement.
    deadline = time.monotonic() + 30
    while "Query Text" not in server.log()[before:] and time.monotonic() < deadline:
        agent.call("TrnDbTaskGetList", LISTS[PLANNED])
    explain(-1)
    lines = [line.replace("\t", "  ")[:140] for line in server.log()[before:].splitlines()]
    return "\n".join(line for line in lines if line.startswith("  "))


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    build = sys.argv[1]
    directory = Path(tempfile.mkdtemp(prefix="zel_bench_", dir=os.environ.get("ZEL_BENCH_DIR")))
    try:
        with Postgres() as server:
            bench_creates(build, directory, server)
            results = bench_lists(build, directory, server)
    finally:
        shutil.rmtree(directory)
    missed = results.count(False)
    print(f"{len(results) - missed} aims met, {missed} missed")


if __name__ == "__main__":
    main()
