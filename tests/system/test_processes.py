"""CoreUtilsListProcess, CoreUtilsInfosProcessAvailable and CoreUtilsTerminateProcess over HTTP."""

import json
import re
import time

import pytest

FAILURE = 1
UNUSED = "4294967294"
TEXTS = ("ProcessOwner", "ProcessName", "ProcessPath", "ProcessTotalCpu", "ProcessID",
         "ProcessParentID")
NUMBERS = ("ProcessCurrentCpu", "ProcessMemoryVirtual", "ProcessMemoryUsed", "ProcessThreadsCount")
COLUMNS = {**{key: str for key in TEXTS}, **{key: int for key in NUMBERS}}


def without_caller(reply):
    """The reply without what the agent tells the action about the caller: these actions clear
    nothing."""
    code, container = reply
    assert container.pop("DACurrentConsoleUser") == "admin"
    assert container.pop("HttpProtocolRequestInfo")["HttpProtocolRequestUser"] == "admin"
    return code, container


def rows(agent):
    code, container = without_caller(agent.call("CoreUtilsListProcess"))
    assert (code, list(container)) == (0, ["Values"])
    return container["Values"]


def terminate(agent, value):
    """The code of an end of processes, whose parameters travel back."""
    code, container = without_caller(agent.call("CoreUtilsTerminateProcess", ProcessID=value))
    assert container == {"ProcessID": value}
    return code


class Children:
    """Long-running programs that the agent starts; what is left of them is ended."""

    PROGRAMS = {"linux": ("/bin/sleep", "600", "sleep"),
                "windows": (r"C:\windows\system32\ping.exe", "-n 600 127.0.0.1", "ping.exe")}

    def __init__(self, agent):
        self.agent = agent
        self.path, self.parameters, self.name = self.PROGRAMS[agent.platform]
        self.started = set()

    def running(self):
        return {row["ProcessID"]: row for row in rows(self.agent)
                if row["ProcessName"].lower() == self.name}

    def start(self):
        """The new child's row."""
        before = self.running()
        assert self.agent.call("CoreUtilsRunProgram", Path=self.path,
                               Parameters=self.parameters) == (0, {})
        new = [row for identifier, row in self.running().items() if identifier not in before]
        assert len(new) == 1, new
        self.started.add(new[0]["ProcessID"])
        return new[0]

    def start_id(self):
        return self.start()["ProcessID"]

    def end(self):
        left = sorted(self.started & self.running().keys())
        if left:
            self.agent.call("CoreUtilsTerminateProcess", ProcessID=left)


@pytest.fixture
def children(agent):
    made = Children(agent)
    yield made
    made.end()


def test_each_process_has_ten_columns_and_the_agent_is_among_them(agent, children):
    child = children.start()
    listed = rows(agent)
    for row in listed:
        assert {key: type(value) for key, value in row.items()} == COLUMNS
    identifiers = [int(row["ProcessID"]) for row in listed]
    assert identifiers == sorted(set(identifiers))

    # The agent is the parent of what it starts.
    own, = (row for row in listed if row["ProcessID"] == child["ProcessParentID"])
    assert own["ProcessName"].lower().startswith("zelagent")
    assert own["ProcessPath"].endswith(own["ProcessName"])
    assert own["ProcessOwner"] == child["ProcessOwner"] != ""
    assert own["ProcessThreadsCount"] >= 2
    assert own["ProcessMemoryUsed"] > 1000
    assert own["ProcessMemoryVirtual"] > 1000
    assert 0 <= own["ProcessCurrentCpu"] <= 100
    assert re.fullmatch(r"\d+:[0-5]\d:[0-5]\d", own["ProcessTotalCpu"])
    if agent.platform == "linux":
        assert own["ProcessID"] == str(agent.process.pid)


def test_a_list_keeps_what_was_sent(agent):
    code, container = without_caller(
        agent.call("CoreUtilsListProcess", Before="kept", Number=7))
    assert code == 0
    assert list(container) == ["Before", "Number", "Values"]
    assert (container["Before"], container["Number"]) == ("kept", 7)
    assert len(container["Values"]) >= 2


def test_every_column_is_available(agent):
    reply = without_caller(agent.call("CoreUtilsInfosProcessAvailable"))
    assert reply == (0, dict.fromkeys(COLUMNS, True))


def test_one_call_ends_decimal_and_hexadecimal_identifiers(agent, children):
    first, second, spared = (children.start_id() for _ in range(3))
    assert terminate(agent, [first, hex(int(second))]) == 0
    left = children.running()
    assert first not in left and second not in left and spared in left


def test_an_identifier_that_fails_spares_no_other(agent, children):
    first, second = children.start_id(), children.start_id()
    assert terminate(agent, [first, UNUSED, second]) == FAILURE
    assert not {first, second} & children.running().keys()


def test_a_single_text_will_do(agent, children):
    identifier = children.start_id()
    assert terminate(agent, identifier) == 0
    assert identifier not in children.running()
    assert terminate(agent, identifier) == FAILURE


def test_the_agent_ends_neither_itself_nor_what_is_no_identifier(agent, children):
    child = children.start()
    for text in (child["ProcessParentID"], "0", "", "-5", "abc", "99999999999"):
        assert terminate(agent, [text]) == FAILURE, text
    assert agent.process.poll() is None
    assert child["ProcessID"] in children.running()


def test_without_identifiers_nothing_has_to_be_done(agent):
    assert without_caller(agent.call("CoreUtilsTerminateProcess")) == (0, {})


def test_numbers_are_refused(agent, children):
    child = children.start()
    body = json.dumps({"ProcessID": int(child["ProcessID"])}).encode()
    status, _, reply = agent.request("POST", "/v1/actions/CoreUtilsTerminateProcess", body)
    assert (status, json.loads(reply)["error"]["code"]) == (400, "wrong_type")
    assert child["ProcessID"] in children.running()


def test_only_administrators_end_processes(agent, children):
    child = children.start()
    body = json.dumps({"ProcessID": [child["ProcessID"]]}).encode()
    status, _, reply = agent.request("POST", "/v1/actions/CoreUtilsTerminateProcess", body,
                                     user="visitor")
    assert status == 403, reply
    assert child["ProcessID"] in children.running()


@pytest.mark.parametrize("platform", ["linux"], indirect=True)
def test_nobody_waits_for_the_first_process_to_end(agent):
    start = time.monotonic()
    assert terminate(agent, ["1"] * 60) == FAILURE
    assert time.monotonic() - start < 30
