"""The master's databases fail, and the master is killed: what was promised is kept."""

import contextlib
import http.client
import json
import sqlite3
import subprocess
import threading
import time

import pytest

from fleet import fleet_login
from helpdesk import DESCRIPTION, NAME, add_note, ask, check, close, create, names, tasks
from postgres import PostgresServer

CLIENTS = 24
CREATES = 1000
BEFORE_THE_FAULT = 300
AFTER_THE_FAULT = 50  # creates that must succeed when all is well again
WAIT_S = 30
FAILED = 1


@pytest.fixture(scope="module")
def mortal_postgres():
    server = PostgresServer(["fsync=off"])
    try:
        yield server
    finally:
        server.remove()


@pytest.fixture
def own_postgres(mortal_postgres):
    """A running server that the test may end."""
    if not mortal_postgres.is_running():
        mortal_postgres.start()
    return mortal_postgres


@pytest.fixture
def make_faulty(fleet):
    """Makes a master whose database will fail; ends it."""
    made = []

    def make(database="", **master):
        made.append(fleet.make_master(database=database, master=master))
        return made[-1]

    yield make
    for master in made:
        master.kill()


def own_file(master):
    return master.home / "data/TaskDatabase/tasks.db"


def listed(master):
    code, container = ask(master, "TrnDbTaskGetList")
    assert code == 0, container
    return container.get("Values", [])


class Crowd:
    """Clients that open tasks as fast as they can, each with a name of its own, whatever happens to
    the master meanwhile."""

    def __init__(self, master):
        self.master = master
        self.acknowledged = {}  # name: ObjectId
        self.refused, self.lost = set(), set()
        self._numbers = iter(range(CREATES))
        self._lock = threading.Lock()
        self._changed = threading.Condition(self._lock)
        self._may_ask = threading.Event()
        self._may_ask.set()
        self._threads = [threading.Thread(target=self._run, daemon=True) for _ in range(CLIENTS)]
        for thread in self._threads:
            thread.start()

    def pause(self):
        """What was begun goes on."""
        self._may_ask.clear()

    def go_on(self):
        self._may_ask.set()

    def wait(self, condition):
        with self._changed:
            assert self._changed.wait_for(condition, WAIT_S), self.describe()

    def join(self):
        for thread in self._threads:
            thread.join(WAIT_S)
        assert not any(thread.is_alive() for thread in self._threads), self.describe()

    def end(self):
        """Opens no more tasks."""
        with self._lock:
            self._numbers = iter(())
        self.go_on()
        self.join()

    def describe(self):
        return (f"{len(self.acknowledged)} acknowledged, {len(self.refused)} refused, "
                f"{len(self.lost)} lost; {self.master.describe()}")

    def _run(self):
        connection = None
        while self._may_ask.wait(WAIT_S):
            with self._lock:
                number = next(self._numbers, None)
            if number is None:
                break
            name = f"task {number}"
            try:
                connection = connection or self.master.connect(WAIT_S)
                answer = self._create(connection, name)
            except (OSError, http.client.HTTPException):
                connection, answer = None, None
            self._note(name, answer)
        if connection:
            connection.close()

    @staticmethod
    def _create(connection, name):
        connection.request("POST", "/v1/actions/TrnDbCreateTask", json.dumps({"ObjectName": name}),
                           {"Content-Type": "application/json",
                            "Authorization": fleet_login("tester")})
        reply = connection.getresponse()
        body = json.loads(reply.read())
        assert reply.status == 200, body
        return body["code"], body["container"]

    def _note(self, name, answer):
        with self._changed:
            if answer is None:
                self.lost.add(name)
            elif answer[1]["Result"]:
                assert answer[0] == 0
                self.acknowledged[name] = answer[1]["ObjectId"]
            else:
                assert answer[0] == FAILED and answer[1]["Error"], answer
                self.refused.add(name)
            self._changed.notify_all()

    def check(self, rows):
        """Everything that was acknowledged is there, as it was; nothing is there twice."""
        kept = {row[NAME]: row["ObjectId"] for row in rows}
        assert len(kept) == len(rows) == len({row["ObjectId"] for row in rows})
        assert self.acknowledged.items() <= kept.items()
        # Of the others, nobody was told that they are there or are not, or that they are not.
        assert kept.keys() - self.acknowledged.keys() <= self.lost | self.refused
        assert sum(map(len, (self.acknowledged, self.refused, self.lost))) == CREATES


@pytest.mark.parametrize("kind", ["sqlite", "postgresql"])
def test_a_master_that_is_killed_has_kept_what_it_acknowledged(kind, make_faulty, postgres):
    database = postgres.new_database() if kind == "postgresql" else None
    master = make_faulty(postgres.connection(database) if database else "")
    crowd = Crowd(master)
    crowd.wait(lambda: len(crowd.acknowledged) >= BEFORE_THE_FAULT)
    crowd.pause()
    master.kill()
    # Clients that had asked find the connection cut; the others have not begun.
    acknowledged = len(crowd.acknowledged)
    master.start()
    crowd.go_on()
    crowd.join()
    assert len(crowd.acknowledged) >= acknowledged + AFTER_THE_FAULT
    assert crowd.lost and not crowd.refused, crowd.describe()
    crowd.check(listed(master))
    assert master.stop() == 0


def test_a_master_that_is_killed_again_and_again_keeps_its_database_whole(make_faulty):
    master = make_faulty()
    acknowledged = set()
    for _ in range(3):
        crowd = Crowd(master)
        crowd.wait(lambda: len(crowd.acknowledged) >= 30)
        crowd.pause()
        master.kill()
        crowd.end()
        acknowledged |= {(number, name) for name, number in crowd.acknowledged.items()}
        with contextlib.closing(sqlite3.connect(own_file(master))) as connection:
            assert connection.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
        master.start()
        rows = [(row["ObjectId"], row[NAME]) for row in listed(master)]
        assert acknowledged <= set(rows) and len(rows) == len(set(rows))


def test_postgresql_may_go_and_come_back(own_postgres, make_faulty, fleet):
    database = own_postgres.new_database()
    master = make_faulty(own_postgres.connection(database))
    device = fleet.make_device("linux", master)
    crowd = Crowd(master)
    crowd.wait(lambda: len(crowd.acknowledged) >= BEFORE_THE_FAULT)
    own_postgres.crash()
    crowd.wait(lambda: len(crowd.refused) >= CLIENTS)
    crowd.pause()

    assert create(device, "meanwhile") is False
    assert check(device) == (0, False)
    assert tasks(device) == []
    code, container = ask(master, "TrnDbCreateTask", ObjectName="meanwhile")
    assert (code, sorted(container), container["Result"]) == (FAILED, ["Error", "Result"], False)
    assert container["Error"] in master.log()

    acknowledged = len(crowd.acknowledged)
    own_postgres.start()
    crowd.go_on()
    crowd.join()
    assert len(crowd.acknowledged) >= acknowledged + AFTER_THE_FAULT, crowd.describe()
    assert not crowd.lost
    crowd.check(listed(master))
    assert check(device) == (0, True) and create(device, "afterwards")

    # A stop that is no crash, with the connections idle.
    own_postgres.stop()
    assert create(device, "meanwhile") is False
    own_postgres.start()
    assert create(device, "at once")
    assert names(tasks(device)[:2]) == ["at once", "afterwards"]
    assert [device.stop(), master.stop()] == [0, 0]


def test_a_master_starts_before_its_postgresql(own_postgres, make_faulty):
    database = own_postgres.new_database()
    own_postgres.stop()
    try:
        master = make_faulty(own_postgres.connection(database))
        assert ask(master, "TrnDbCreateTask", ObjectName="early")[0] == FAILED
        code, container = ask(master, "TrnDbTaskCheckRequirements")
        assert (code, container["Result"]) == (0, False) and container["Error"]
    finally:
        own_postgres.start()
    assert ask(master, "TrnDbCreateTask", ObjectName="late")[1]["Result"] is True
    assert names(listed(master)) == ["late"]
    assert master.stop() == 0


def test_a_locked_file_is_waited_for_no_longer_than_half_of_an_invocation(make_faulty):
    master = make_faulty(timeout_ms="1000")
    assert ask(master, "TrnDbCreateTask", ObjectName="before")[0] == 0
    with contextlib.closing(sqlite3.connect(own_file(master), isolation_level=None)) as other:
        other.execute("BEGIN EXCLUSIVE")
        start = time.monotonic()
        code, container = ask(master, "TrnDbCreateTask", ObjectName="meanwhile")
        assert (code, container["Result"]) == (FAILED, False)
        assert 0.4 < time.monotonic() - start < 10
        assert "locked" in container["Error"] and container["Error"] in master.log()
        # Whoever only reads sees what was there before.
        assert names(listed(master)) == ["before"]

        # A start does not wait for it either.
        assert master.stop() == 0
        master.start()
        assert "The task database cannot be used: " in master.log()
        other.execute("ROLLBACK")
    assert ask(master, "TrnDbCreateTask", ObjectName="after")[1]["Result"] is True
    assert names(listed(master)) == ["after", "before"]
    assert master.stop() == 0


def test_a_lock_that_goes_in_time_is_not_noticed(make_faulty):
    master = make_faulty()
    assert ask(master, "TrnDbCreateTask", ObjectName="before")[0] == 0
    answers = []
    with contextlib.closing(sqlite3.connect(own_file(master), isolation_level=None)) as other:
        other.execute("BEGIN EXCLUSIVE")
        thread = threading.Thread(target=lambda: answers.append(
            ask(master, "TrnDbCreateTask", ObjectName="meanwhile")))
        thread.start()
        thread.join(0.3)
        assert answers == []
        other.execute("ROLLBACK")
        thread.join(WAIT_S)
    assert answers[0][1]["Result"] is True
    assert master.stop() == 0


@pytest.fixture
def own_mount(tmp_path):
    """A directory that can be made read-only: root may write wherever modes alone forbid it."""
    directory = tmp_path / "mounted"
    directory.mkdir()
    subprocess.run(["mount", "--bind", directory, directory], check=True)

    def remount(mode):
        subprocess.run(["mount", "-o", f"remount,bind,{mode}", directory], check=True)

    yield directory, remount
    subprocess.run(["umount", directory], check=True)


def test_a_file_that_may_not_be_written_refuses_and_keeps_its_tasks(make_faulty, own_mount):
    directory, remount = own_mount
    master = make_faulty(str(directory / "tasks.db"))
    assert ask(master, "TrnDbCreateTask", ObjectName="before")[1]["Result"] is True
    assert master.stop() == 0
    remount("ro")
    master.start()
    for action, code_then in (("TrnDbCreateTask", FAILED), ("TrnDbTaskCheckRequirements", 0)):
        code, container = ask(master, action, ObjectName="meanwhile")
        assert (code, container["Result"]) == (code_then, False), action
        assert container["Error"] and container["Error"] in master.log(), action
    remount("rw")
    assert ask(master, "TrnDbTaskCheckRequirements") == (0, {"Result": True})
    assert ask(master, "TrnDbCreateTask", ObjectName="after")[1]["Result"] is True
    assert names(listed(master)) == ["after", "before"]
    assert master.stop() == 0


def test_a_full_disk_refuses_and_keeps_its_tasks(make_faulty, small_disk):
    master = make_faulty(str(small_disk / "tasks.db"))
    kept = []
    for number in range(100):
        code, container = ask(master, "TrnDbCreateTask", ObjectName=f"task {number}",
                              **{DESCRIPTION: "d" * 100_000})
        if not container["Result"]:
            break
        kept.append(f"task {number}")
    assert (code, len(kept) >= 1) == (FAILED, True), container
    assert "no space" in container["Error"] and container["Error"] in master.log()
    assert names(listed(master)) == kept[::-1]

    subprocess.run(["mount", "-o", "remount,size=8m", small_disk], check=True)
    assert ask(master, "TrnDbCreateTask", ObjectName="after")[1]["Result"] is True
    assert names(listed(master)) == ["after", *kept[::-1]]
    assert master.stop() == 0


class File:
    """A database of SQLite, looked at from outside."""

    def __init__(self, directory):
        self.path = directory / "tasks.db"
        self.name = str(self.path)

    def change(self, statement):
        with contextlib.closing(sqlite3.connect(self.path)) as connection, connection:
            connection.execute(statement)

    def dump(self):
        with contextlib.closing(sqlite3.connect(self.path)) as connection:
            return "\n".join(connection.iterdump())


class Served:
    """A database of PostgreSQL, looked at from outside."""

    def __init__(self, server):
        self.server, self.database = server, server.new_database()
        self.name = server.connection(self.database)

    def change(self, statement):
        self.server.query(self.database, statement)

    def dump(self):
        # Some lines have a key of their own in each dump.
        lines = self.server.dump(self.database).splitlines()
        keys = ("\\restrict", "\\unrestrict")
        return "\n".join(line for line in lines if not line.startswith(keys))


@pytest.mark.parametrize("kind", ["sqlite", "postgresql"])
def test_the_database_of_a_newer_program_is_left_alone(
        kind, make_faulty, fleet, postgres, tmp_path):
    database = Served(postgres) if kind == "postgresql" else File(tmp_path)
    older = make_faulty(database.name)
    number = ask(older, "TrnDbCreateTask", ObjectName="before")[1]["ObjectId"]
    assert older.stop() == 0
    database.change("UPDATE schema_version SET version = version + 1")
    content = database.dump()
    assert "before" in content

    master = make_faulty(database.name)
    device = fleet.make_device("linux", master)
    assert create(device, "meanwhile", "ann") is False
    assert add_note(device, number, "note", "ann") is False
    assert close(device, number, "ann") is False
    assert tasks(device) == []
    assert check(device) == (0, False)
    assert "schema version" in master.log() and "schema version" in device.log()
    # Everything else works.
    assert master.call("CoreUtilsGetFileSize", Path="/etc/hostname")[0] == 0
    assert [device.stop(), master.stop()] == [0, 0]
    assert database.dump() == content
