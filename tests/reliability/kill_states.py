"""Kills in the midst of what the agent keeps for itself: start-up scripts that run once, and tasks."""

import concurrent.futures
import sqlite3

from helpdesk import NAME, NOTES, REQUESTER
from kill_checks import Caller, Lost
from kill_kinds import AFTER, BEFORE, DURING, Kind
from postgres import PostgresServer

LETTERS = "abcdefgh"


class StartUp(Kind):
    """Kills while scripts of `RunOnce` run, whose lines become comments one after the other."""

    NAME = "start-up"

    def __init__(self, directory, seed):
        super().__init__(directory, seed)
        self.victim = self.make()
        self.ini = self.victim.home / "config/ZelCoreUtils.ini"
        self.letters = directory / "letters"
        scripts = self.victim.home / "data/ZelCoreUtils"
        for letter in LETTERS:
            (scripts / f"{letter}.mlx").write_text(f"""
                function main()
                  local file = assert(io.open("{self.letters}", "ab"))
                  file:write("{letter}")
                  file:close()
                end
                """)
        lines = [f"{letter} = {letter}.mlx\r\n" for letter in LETTERS]
        comments = [f"; {letter}={letter}.mlx\r\n" for letter in LETTERS]
        # What the file may be: the first entries are comments already.
        self.states = ["; kept\n[RunOnce]\n" + "".join(comments[:done] + lines[done:])
                       for done in range(len(LETTERS) + 1)]
        # The comment is inserted before its line is deleted.
        self.between = ["; kept\n[RunOnce]\n" + "".join(comments[:done + 1] + lines[done:])
                        for done in range(len(LETTERS))]

    def prepare(self, number):
        assert self.victim.stop() == 0
        self.ini.write_text(self.states[0], newline="")
        self.letters.write_text("")

    def operate(self):
        try:
            self.victim.start()
        except AssertionError as error:
            raise Lost from error
        return True

    def look(self):
        content = self.ini.read_bytes().decode()
        self.is_between = content in self.between
        self.done = (self.between if self.is_between else self.states).index(content)
        self.run_before = self.letters.read_text()
        # A script during which the agent is killed runs again, the others do not.
        assert self.run_before in ([] if self.is_between else [LETTERS[:self.done]]) + [
            LETTERS[:self.done + 1]]

    def judge(self, answered):
        expected = self.states[-1]
        if self.is_between:
            comment = f"; {LETTERS[self.done]}={LETTERS[self.done]}.mlx\r\n"
            expected = expected.replace(comment, 2 * comment)
        assert self.ini.read_bytes().decode() == expected
        assert self.letters.read_text() == self.run_before + LETTERS[self.done:]
        assert not answered or self.done == len(LETTERS)
        return AFTER if answered else DURING if self.run_before else BEFORE


class Tasks(Kind):
    """Callers open tasks with a first note, add a second one and close some."""

    NAME = "tasks"
    CALLERS = 3
    TASKS_OF_EACH = 8

    def __init__(self, directory, seed):
        super().__init__(directory, seed)
        self.victim = self.make(name="master", master={"enabled": "yes", "max_listed": 10000,
                                                       "database": self.make_database()})
        self.kept = {}

    def make_database(self):
        return ""

    def prepare(self, number):
        self.requester = f"round-{number}"
        self.ledger = {}  # of each task whose opening was answered: its notes and whether it is closed
        self.asked = {}   # of each task that was asked for: the notes it may have

    def _ask(self, action, **parameters):
        code, container = self.caller.call(action, **{REQUESTER: self.requester, **parameters})
        assert (code, container["Result"]) == (0, True), container
        return container

    def _work(self, worker):
        try:
            for number in range(self.TASKS_OF_EACH):
                name = f"{self.requester} {worker} {number}"
                notes = [f"first of {name} ", f"second of {name} "]
                self.asked[name] = notes
                task = self._ask("TrnDbCreateTask", ObjectName=name, **{NOTES: notes[0]})["ObjectId"]
                self.ledger[name] = {"notes": 1, "closed": False}
                self._ask("TrnDbTaskAddNote", ObjectId=task, **{NOTES: notes[1]})
                self.ledger[name]["notes"] = 2
                if number % 2 == 0:
                    self._ask("TrnDbCloseTask", ObjectId=task)
                    self.ledger[name]["closed"] = True
        except Lost:
            return False
        return True

    def operate(self):
        with concurrent.futures.ThreadPoolExecutor(self.CALLERS) as pool:
            return all(list(pool.map(self._work, range(self.CALLERS))))

    def judge(self, answered):
        code, container = Caller(self.victim).call("TrnDbTaskGetList", **{REQUESTER: self.requester})
        assert code == 0
        rows = container.get("Values", [])
        found = {row[NAME]: row for row in rows}
        assert len(found) == len(rows) and set(self.ledger) <= set(found) <= set(self.asked)
        for name, row in found.items():
            notes = [note["Text"] for note in row.get(NOTES, [])]
            known = self.ledger.get(name, {"notes": 1, "closed": False})
            # The first note comes with the task or not at all.
            assert notes in (self.asked[name][:1], self.asked[name]) and len(notes) >= known["notes"]
            assert not known["closed"] or "ClosedTime" in row
            self.kept[name] = len(notes)
        return AFTER if answered else DURING if found else BEFORE

    def finish(self):
        assert self.victim.stop() == 0
        assert self._stored() == self.kept
        self.victim.start()

    def _stored(self):
        """{name: how many notes} of all tasks in the database."""
        file = self.victim.home / "data/TaskDatabase/tasks.db"
        with sqlite3.connect(f"file:{file}?mode=ro", uri=True) as database:
            assert database.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
            return dict(database.execute(QUERY))


QUERY = """SELECT tasks.name, count(notes.id) FROM tasks LEFT JOIN notes ON notes.task_id = tasks.id
           GROUP BY tasks.name"""


class TasksInPostgres(Tasks):
    NAME = "tasks-postgresql"

    def make_database(self):
        self.server = PostgresServer().start()
        self.database = self.server.new_database()
        return self.server.connection(self.database)

    def _stored(self):
        rows = (line.rsplit("|", 1) for line in
                self.server.query(self.database, QUERY).splitlines())
        return {name: int(notes) for name, notes in rows}

    def end(self):
        super().end()
        self.server.remove()
