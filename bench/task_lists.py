"""Lists out of a million helpdesk tasks on a master."""

import os
import statistics
import sys
import time

from measuring import seconds_of
from report import at_most, row
from task_databases import TASK, File, Server, master

TASKS = int(os.environ.get("ZEL_BENCH_TASKS", "1000000"))
SEEDS = 1000
REQUESTERS, PRIORITIES = 250, ("low", "normal", "high", "urgent")
LIST_TURNS = 21

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
    times = {}
    with agent.connect() as connection:
        for name, filters in LISTS.items():
            rows = connection.call("TrnDbTaskGetList", **filters)["container"].get("Values", [])
            expected = {"a requester of one task": 1, "a requester of none": 0}.get(name, 200)
            assert len(rows) == expected or TASKS < 1000000, (name, len(rows))
            run = connection.caller("TrnDbTaskGetList", filters)
            times[name] = statistics.median(seconds_of(run) for _ in range(LIST_TURNS))
    return times


def tell(what, times, plan):
    """What the table has no room for."""
    for name, seconds in times.items():
        print(f"  list, {what}, {name}: {seconds * 1e3:.1f} ms", file=sys.stderr)
    print(f"  the plan for {PLANNED}:\n{plan.rstrip()}", file=sys.stderr)


def bench_task_lists(build, directory, server):
    """The slowest of several lists out of a million tasks."""
    with master(build, directory, "file") as (agent, path):
        file = File(path)
        count = fill(agent, file, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
                                  "WHERE i < %d) SELECT i FROM n")
        in_file = list_times(agent)
        tell("SQLite", in_file, sqlite_plan(file))
    with master(build, directory, "served", server.connection("served")) as (agent, _):
        served = Server(server, "served")
        fill(agent, served, "SELECT generate_series(1, %d)")
        served.query("ANALYZE")
        in_server = list_times(agent)
        tell("PostgreSQL", in_server, postgres_plans(agent, server))
    return [row(f"slowest of {len(LISTS)} lists out of {count:,} tasks, SQLite",
                max(in_file.values()) * 1e3, "ms", aim=at_most(20)),
            row("the same, PostgreSQL", max(in_server.values()) * 1e3, "ms", aim=at_most(20))]


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
