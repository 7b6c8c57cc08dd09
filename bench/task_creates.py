"""Helpdesk tasks opened on a master beside the databases themselves."""

import contextlib
import multiprocessing
import re
import sqlite3
import time

from dispatch import posting
from measuring import SECONDS, medians, wrk
from report import row
from task_databases import TASK, File, Server, master

ROUNDS = 3
CLIENTS = (1, 32)
PEERS = {"SQLite": "`sqlite3` of Python, as many processes", "PostgreSQL": "`pgbench`"}


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
    rate = re.search(r"tps = ([\d.]+)", text)
    assert rate, text
    return float(rate.group(1))


def bench_task_creates(build, directory, server):
    """Tasks opened on a master, beside rows inserted into its database without it."""
    script = posting(directory, TASK)
    pairs = {}
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

        def measure(database, clients):
            agent = one if database == "SQLite" else two
            ours = wrk(f"{agent.url}/v1/actions/TrnDbCreateTask", clients, script)[0]
            peer = (sqlite_rate(peer_file, columns, clients) if database == "SQLite"
                    else pgbench_rate(server, "peer", columns, clients))
            return ours, peer

        for clients in CLIENTS:
            for database in [*PEERS] * ROUNDS:
                pairs.setdefault((database, clients), []).append(measure(database, clients))
        # All of them were kept: none of the rates is one of refusals.
        for agent, database in ((one, File(file)), (two, Server(server, "two"))):
            assert "cannot" not in (agent.home / "log/zelagent.log").read_text()
            assert int(database.query("SELECT count(*) FROM tasks")) > 100
    return [create_row(database, clients, *medians(pairs[database, clients]))
            for database in PEERS for clients in CLIENTS]


def create_row(database, clients, ours, peer):
    plural = "" if clients == 1 else "s"
    return row(f"tasks opened on a master, {database}, {clients} client{plural}", ours, "/s",
               PEERS[database], peer)


def copy_schema(server, source, target):
    dump = server.directory / "schema.sql"
    server.run("pg_dump", "-h", server.directory, "-U", "tasks", "--schema-only", "-f", dump,
               source)
    server.run("psql", "-Xq", "-h", server.directory, "-U", "tasks", "-d", target, "-f", dump)
