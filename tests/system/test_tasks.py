"""Helpdesk tasks: devices on both platforms, their master on both databases."""

import json
import re
import socket
import time
import uuid

import pytest

from agents import Agent
from fleet import Authority
from helpdesk import (DESCRIPTION, MASTER_NOT_INVOKED, MAX_LINE, MAX_TEXT, NAME, NOTES, PRIORITY,
                      REQUESTER, STATUS, add_note, ask, check, close, create, names, newest, tasks)
from uploads import new_log

ACTIONS = ["TrnDbCreateTask", "TrnDbCloseTask", "TrnDbTaskAddNote", "TrnDbTaskGetList",
           "TrnDbTaskCheckRequirements"]
UUID4 = r"[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"
SURROGATE = "\ufdd0d800"  # how a lone surrogate travels
BYTE = "\ufdd0dcff"       # and the byte 0xFF

ODD_TEXTS = [
    "O'Brien said \"it's\" `broken`",
    "x'); DROP TABLE tasks; --",
    "<script>alert(1)</script> &amp; <b>",
    "\U0001f5a8\ufe0f on \U0001f525 \U0001f468\u200d\U0001f469\u200d\U0001f467",
    "\u0645\u0631\u062d\u0628\u0627 \u65e5\u672c\u8a9e e\u0301 \u00e9 \u200b \ufeff",
    " blanks \t at both ends ",
    "lines\nand\r\nreturns\x01\x1b\x7f",
    "100% _like_ \\escapes\\ :named $1 ? %s {0}",
    "\ufdd0fdd0",
    "NULL",
]


@pytest.fixture(scope="module")
def master(helpdesk, database):
    return helpdesk.master(database)


@pytest.fixture(scope="module")
def device(helpdesk, database, platform):
    return helpdesk.device(platform, database)


@pytest.fixture(scope="module")
def linux_device(helpdesk, database):
    return helpdesk.device("linux", database)


@pytest.fixture
def ann():
    """A requester whom no other test knows."""
    return "ann-" + uuid.uuid4().hex


def rows_of(device, requester, **filters):
    return tasks(device, **{REQUESTER: requester, **filters})


# From beginning to end.

def test_a_task_is_opened_annotated_and_closed(device, ann):
    before = int(time.time() * 1000)
    code, container = device.call("CoreUtilsCreateTask", _DB_ATTR_NAME_="Printer",
                                  _DB_ATTR_DESCRIPTION_="It burns.", _DB_ATTR_PRIORITY_="high",
                                  _DB_ATTR_REQUESTEDBY_=ann, _DB_ATTR_NOTES_="Since today.",
                                  Language="fr", UserEmail="ann@example.org", UserDomain="OFFICE",
                                  UserLogin="ann")
    assert (code, container["Result"]) == (0, True)

    code, container = device.call("CoreUtilsTaskGetList", _DB_ATTR_REQUESTEDBY_=ann)
    [row] = container["Values"]
    times = {key: row.pop(key) for key in ("CreatedTime", "ChangedTime")}
    number, guid, [note] = row.pop("ObjectId"), row.pop("GUID"), row.pop(NOTES)
    assert code == 0
    assert number >= 1 and re.fullmatch(UUID4, guid)
    assert row == {NAME: "Printer", DESCRIPTION: "It burns.", PRIORITY: "high", REQUESTER: ann,
                   STATUS: "open", "Language": "fr", "UserEmail": "ann@example.org",
                   "UserDomain": "OFFICE", "UserLogin": "ann", "Agent": "device",
                   "ConsoleUser": "admin"}
    assert times["CreatedTime"] == times["ChangedTime"] == note.pop("CreatedTime")
    assert before <= times["CreatedTime"] <= int(time.time() * 1000)
    assert note == {"Author": ann, "Text": "Since today."}

    code, container = device.call("CoreUtilsTaskAddNote", ObjectId=number,
                                  _DB_ATTR_REQUESTEDBY_=ann, _DB_ATTR_NOTES_="Still.")
    assert (code, container["Result"]) == (0, True)
    noted = newest(device, ann)
    assert [(note["Author"], note["Text"]) for note in noted[NOTES]] == [
        (ann, "Since today."), (ann, "Still.")]
    assert noted["ChangedTime"] == noted[NOTES][1]["CreatedTime"] >= times["CreatedTime"]

    code, container = device.call("CoreUtilsCloseTask", ObjectId=number, _DB_ATTR_REQUESTEDBY_=ann)
    assert (code, container["Result"]) == (0, True)
    closed = newest(device, ann)
    assert (closed[STATUS], closed["ObjectId"]) == ("closed", number)
    assert closed["ClosedTime"] == closed["ChangedTime"] >= noted["ChangedTime"]


def test_a_master_that_keeps_tasks_says_so(device):
    code, container = device.call("CoreUtilsCheckTask")
    assert (code, container["Result"], container["ErrorCode"]) == (0, True, 0)


def test_tasks_of_all_devices_are_in_one_list(helpdesk, database, ann):
    for platform in ("linux", "windows"):
        assert create(helpdesk.device(platform, database), "from " + platform, ann)
    for platform in ("linux", "windows"):
        rows = rows_of(helpdesk.device(platform, database), ann)
        assert names(rows) == ["from windows", "from linux"]
        assert len({row["GUID"] for row in rows}) == 2


# Lists.

def test_filters_narrow_a_list_down(device, ann):
    bob = ann + "-bob"
    for requester in (ann, bob):
        for priority in ("high", "low"):
            for state in ("open", "closed"):
                name = f"{requester} {priority} {state}"
                assert create(device, name, requester, **{PRIORITY: priority})
                if state == "closed":
                    assert close(device, newest(device, requester)["ObjectId"])

    for requester in (ann, bob):
        for priority in ("", "high", "low", "HIGH", "hig"):
            for state in ("", "open", "closed", "Open", "done"):
                expected = [f"{requester} {one} {other}" for one in ("low", "high")
                            for other in ("closed", "open")
                            if priority in ("", one) and state in ("", other)]
                filters = {PRIORITY: priority, STATUS: state}
                assert names(rows_of(device, requester, **filters)) == expected, filters
    for nobody in (ann[:-1], ann + " ", ann.upper(), "%", "' OR '1'='1"):
        assert rows_of(device, nobody) == [], nobody


def test_without_filters_everything_is_listed_the_newest_first(device, ann):
    for number in range(3):
        assert create(device, f"task {number}", ann)
    rows = tasks(device)
    assert names(rows[:3]) == ["task 2", "task 1", "task 0"]
    numbers = [row["ObjectId"] for row in rows]
    assert numbers == sorted(set(numbers), reverse=True)


def test_a_list_without_tasks_has_no_values_and_keeps_the_filters(device, ann):
    code, container = device.call("CoreUtilsTaskGetList", **{REQUESTER: ann, STATUS: "open"})
    assert (code, container[REQUESTER], container[STATUS]) == (0, ann, "open")
    assert not {"Values", "Error", "Result", "GUID"} & set(container)


def test_a_list_has_no_more_tasks_than_the_master_allows(fleet, ann):
    master = fleet.make_master(master={"max_listed": "3"})
    for number in range(5):
        assert ask(master, "TrnDbCreateTask", ObjectName=f"task {number}")[1]["Result"]
    assert names(ask(master, "TrnDbTaskGetList")[1]["Values"]) == ["task 4", "task 3", "task 2"]
    assert master.stop() == 0


def test_visibility_device_hides_the_tasks_of_other_devices(fleet, ann):
    master = fleet.make_master(master={"visibility": "device"})
    devices = [fleet.make_device("linux", master, name=name) for name in ("one", "two")]
    for device in devices:
        assert create(device, "of " + device.name, ann, user="visitor")
    for device in devices:
        for filters in ({}, {REQUESTER: ann}, {STATUS: "open"}):
            assert names(tasks(device, user="visitor", **filters)) == ["of " + device.name]
        assert names(tasks(device, user="admin")) == ["of two", "of one"]
    for flags in ({}, {"FromHCHL": True}, {"FromHCHL": False}):
        assert "Values" not in ask(master, "TrnDbTaskGetList", **flags)[1]
    assert [agent.stop() for agent in [*devices, master]] == [0, 0, 0]


# Texts.

def test_texts_come_back_as_they_were(device, ann):
    for text in ODD_TEXTS:
        requester = ann + text
        more = {DESCRIPTION: text, PRIORITY: text, NOTES: text, "Language": text,
                "UserEmail": text, "UserDomain": text, "UserLogin": text}
        assert create(device, text, requester, **more), text
        [row] = rows_of(device, requester, **{PRIORITY: text})
        assert {key: row[key] for key in (NAME, *more) if key != NOTES} == {
            NAME: text, **{key: text for key in more if key != NOTES}}
        assert add_note(device, row["ObjectId"], text, requester)
        notes = newest(device, requester)[NOTES]
        assert [(note["Author"], note["Text"]) for note in notes] == [(requester, text)] * 2


def test_the_longest_texts_come_back_whole(device, ann):
    text = ("0123456789abcdef" * 4095 + "\U0001f525" * 4) * 16
    assert len(text.encode()) == MAX_TEXT
    name, requester = "n" * (MAX_LINE - 2) + "\u00e9", ann.ljust(MAX_LINE, ".")
    assert create(device, name, requester, **{DESCRIPTION: text, NOTES: text[::-1]})
    row = newest(device, requester)
    assert (row[NAME], row[DESCRIPTION] == text) == (name, True)
    assert add_note(device, row["ObjectId"], text, requester)
    assert [note["Text"] for note in newest(device, requester)[NOTES]] == [text[::-1], text]


def test_bad_texts_are_refused_and_named(linux_device, ann):
    keys = {NAME: "ObjectName"}
    good = {NAME: "good", DESCRIPTION: "", PRIORITY: "", REQUESTER: ann, NOTES: "", "Language": "",
            "UserEmail": "", "UserDomain": "", "UserLogin": ""}
    for key in good:
        limit = MAX_TEXT if key in (DESCRIPTION, NOTES) else MAX_LINE
        for text in ("a\0b", SURROGATE, BYTE, "x" * (limit + 1), "\u00e9" * (limit // 2) + "x"):
            (_, container), log = new_log(
                linux_device,
                lambda: linux_device.call("CoreUtilsCreateTask", **{**good, key: text}))
            assert container["Result"] is False, (key, text[:10])
            assert keys.get(key, key) in log, (key, text[:10], log[:2000])
            assert len(log) < 4000
    assert rows_of(linux_device, ann) == []


def test_a_task_needs_a_name(linux_device, ann):
    for name in ("", " ", " \t\r\n "):
        assert create(linux_device, name, ann) is False, repr(name)
    assert linux_device.call("CoreUtilsCreateTask", **{REQUESTER: ann})[1]["Result"] is False
    assert rows_of(linux_device, ann) == []


def test_bad_notes_and_filters_are_refused(linux_device, ann):
    assert create(linux_device, "name", ann)
    number = newest(linux_device, ann)["ObjectId"]
    for text in ("", "a\0b", SURROGATE, "x" * (MAX_TEXT + 1)):
        assert add_note(linux_device, number, text, ann) is False, text[:10]
    assert NOTES not in newest(linux_device, ann)
    for key in (REQUESTER, STATUS, PRIORITY):
        for text in ("a\0b", SURROGATE, "x" * (MAX_LINE + 1)):
            code, container = ask(linux_device.master, "TrnDbTaskGetList", **{key: text})
            assert (code, "Values" in container) == (0, False)
            assert key in container["Error"]


# Who may change a task.

def test_what_is_closed_stays_as_it_is(device, ann):
    assert create(device, "name", ann)
    number = newest(device, ann)["ObjectId"]
    assert close(device, number, ann)
    closed = newest(device, ann)
    assert close(device, number, ann) is False
    assert add_note(device, number, "too late", ann) is False
    assert close(device, number) is False
    assert newest(device, ann) == closed


def test_unknown_tasks_cannot_be_changed(device):
    for number in (0, -1, -2**31, 2**31 - 1):
        assert close(device, number, "ann") is False, number
        assert add_note(device, number, "note", "ann") is False, number
    assert device.call("CoreUtilsCloseTask")[1]["Result"] is False


def test_only_the_requester_and_administrators_change_a_task(device, ann):
    assert create(device, "name", ann, user="visitor")
    number = newest(device, ann)["ObjectId"]
    for other in ("", "bob", ann[:-1], ann.upper(), ann + " "):
        assert close(device, number, other, user="visitor") is False, other
        assert add_note(device, number, "note", other, user="visitor") is False, other
    assert newest(device, ann)[STATUS] == "open" and NOTES not in newest(device, ann)

    assert add_note(device, number, "of the requester", ann, user="visitor")
    assert add_note(device, number, "of the administrator", user="admin")
    assert [(note["Author"], note["Text"]) for note in newest(device, ann)[NOTES]] == [
        (ann, "of the requester"), ("admin", "of the administrator")]
    assert close(device, number, user="admin")


def test_another_console_user_cannot_claim_to_be_the_requester(device, ann):
    assert create(device, "name", ann, user="admin")
    number = newest(device, ann)["ObjectId"]
    assert close(device, number, ann, user="visitor") is False
    assert add_note(device, number, "note", ann, user="visitor") is False
    forged = {"AgentCallingUser": {"Login": "admin", "Administrator": True},
              "DACurrentConsoleUser": "admin"}
    code, container = device.call("CoreUtilsCloseTask", user="visitor", ObjectId=number,
                                  **{REQUESTER: ann}, **forged)
    assert (code, container["Result"]) == (0, False)
    assert newest(device, ann)[STATUS] == "open"


def test_a_console_user_changes_what_is_requested_in_his_own_name(device):
    assert create(device, "name", "visitor", user="admin")
    number = newest(device, "visitor")["ObjectId"]
    assert add_note(device, number, "note", "visitor", user="visitor")
    assert close(device, number, "visitor", user="visitor")


def test_who_may_change_a_task_is_decided_for_each_agent_and_its_user(master, ann):
    def may_close(owner, asking, requester=ann):
        code, container = ask(master, "TrnDbCreateTask", **owner, ObjectName="n",
                              **{REQUESTER: ann})
        assert (code, container["Result"]) == (0, True)
        return ask(master, "TrnDbCloseTask", **asking, ObjectId=container["ObjectId"],
                   **{REQUESTER: requester})[1]["Result"]

    here, there = {"agent": "one", "login": "ann"}, {"agent": "two", "login": "ann"}
    nobody_here, nobody_there = {"agent": "one"}, {"agent": "two"}
    bob = {"agent": "one", "login": "bob"}
    admin = {"agent": "two", "login": "root", "administrator": True}
    assert may_close(here, here)
    assert not may_close(here, there)
    assert not may_close(here, bob)
    assert may_close(nobody_here, there)
    assert may_close(here, nobody_there)
    assert may_close(here, admin, "")
    assert not may_close(here, here, "")
    assert not may_close(nobody_here, nobody_here, "")
    assert may_close(here, {"agent": "two", "login": ann})


def test_the_task_of_another_one_and_none_are_refused_in_the_same_words(master, ann):
    number = ask(master, "TrnDbCreateTask", ObjectName="n", **{REQUESTER: ann})[1]["ObjectId"]

    def refusal(action, number, **asking):
        code, container = ask(master, action, ObjectId=number, **asking, **{NOTES: "note"})
        assert (code, container.pop("Result")) == (0, False)
        assert list(container) == ["Error"] and container["Error"]
        return container["Error"].replace(str(number), "N")

    for action in ("TrnDbCloseTask", "TrnDbTaskAddNote"):
        assert refusal(action, number) == refusal(action, 2**31 - 1)
        administrator = {"login": "root", "administrator": True}
        assert refusal(action, 2**31 - 1, **administrator)


def test_console_users_that_are_no_administrators_get_nothing_from_the_master_itself(
        master, linux_device, ann):
    for agent in (master, linux_device):
        for action in ACTIONS:
            body = json.dumps({"ObjectName": "name", REQUESTER: ann}).encode()
            status, _, reply = agent.request("POST", "/v1/actions/" + action, body, user="visitor")
            if agent is master:
                assert (status, json.loads(reply)["error"]["code"]) == (
                    403, "administrators_only")
            else:
                assert status == 404
    assert rows_of(linux_device, ann) == []
    assert master.call("TrnDbTaskGetList", **{REQUESTER: ann}) == (0, {})


# Identity and secrets.

def test_a_device_keeps_its_identity(fleet, helpdesk, platform, ann):
    device = fleet.make_device(platform, helpdesk.master())
    assert create(device, "before", ann)
    code, container = device.call("IdentityGetGUID", Some="parameter")
    assert (code, list(container)) == (0, ["GUID"])
    assert device.stop() == 0
    device.start()
    assert create(device, "after", ann)
    rows = rows_of(device, ann)
    assert names(rows) == ["after", "before"]
    assert {row["GUID"] for row in rows} == {container["GUID"]}
    assert re.fullmatch(UUID4, container["GUID"])
    assert container["GUID"] in (device.home / "data/identity").read_text()
    if platform == "linux":
        assert (device.home / "data/identity").stat().st_mode & 0o077 == 0
    assert device.stop() == 0


def files_with(directory, text):
    found = []
    for file in directory.rglob("*"):
        content = file.read_bytes() if file.is_file() else b""
        if any(text.encode(form) in content for form in ("utf-8", "utf-16-le")):
            found.append(str(file))
    return found


def test_a_password_is_kept_nowhere(helpdesk, device, master, database, ann):
    password = "pw-" + uuid.uuid4().hex
    assert create(device, "marked-" + password[:8], ann, UserLogin="ann", UserPass=password)
    assert create(device, "", ann, UserPass=password) is False
    code, container = ask(master, "TrnDbCreateTask", ObjectName="direct", UserPass=password,
                          **{REQUESTER: ann})
    assert (code, sorted(container)) == (0, ["ObjectId", "Result"])
    rows = rows_of(device, ann)
    assert len(rows) == 2 and password not in json.dumps(rows)
    for agent in (device, master):
        assert files_with(agent.home, password) == []
    # The search would find it.
    kept = "marked-" + password[:8]
    if database == "postgresql":
        dump = helpdesk.postgres.dump(master.database)
        assert kept in dump and password not in dump + helpdesk.postgres.log()
    else:
        assert files_with(master.home, kept) != []


# How devices reach the master.

@pytest.mark.parametrize("mode, platform", [
    ("ssl", "linux"), ("pac", "linux"), ("ssl and pac", "linux"), ("ssl ext", "linux"),
    ("ssl", "windows"), ("pac", "windows"), ("ssl and pac", "windows")])
def test_a_device_reaches_its_master_in_each_way(helpdesk, ann, mode, platform):
    device = helpdesk.device(platform, mode=mode)
    assert check(device) == (0, True)
    assert create(device, "name", ann, user="visitor", **{DESCRIPTION: "d" * MAX_TEXT})
    row = newest(device, ann)
    assert (row["Agent"], row["ConsoleUser"]) == ("device", "visitor")
    assert close(device, row["ObjectId"], ann, user="visitor")


def refused_log(device):
    """What the device logs about its master, which does nothing of all it is asked."""
    before = len(device.log())
    assert check(device) == (MASTER_NOT_INVOKED, False)
    assert create(device, "name", "ann") is False
    assert add_note(device, 1, "note", "ann") is False
    assert close(device, 1, "ann") is False
    assert tasks(device) == []
    log = device.log()[before:]
    for action in ACTIONS:
        assert f"Action {action} on the master: " in log, log
    return log


def test_without_a_master_nothing_is_done(agent):
    assert "no master is configured ([master] address)" in refused_log(agent)


def test_a_master_that_does_not_answer_is_given_up(fleet, platform):
    with socket.create_server(("127.0.0.1", 0)) as silent:
        address = "http://127.0.0.1:%d" % silent.getsockname()[1]
        device = fleet.make(platform, "device", master={"address": address, "timeout_ms": "700"})
        start = time.monotonic()
        assert check(device) == (MASTER_NOT_INVOKED, False)
        assert 0.6 < time.monotonic() - start < 10
        assert "Action TrnDbTaskCheckRequirements on the master: " in device.log()
    # Nobody is there any more.
    assert "the master is not reachable" in refused_log(device)
    assert device.stop() == 0


def test_another_fleet_secret_is_refused(fleet, helpdesk, platform):
    device = fleet.make(platform, "device", secret="the secret of another fleet",
                        master={"address": helpdesk.master().url})
    assert "the connection was refused" in refused_log(device)
    assert device.stop() == 0


def test_a_master_with_a_certificate_of_another_authority_is_refused(
        fleet, helpdesk, platform, tmp_path):
    stranger = Authority(tmp_path / "stranger")
    device = fleet.make(platform, "device", "ssl", trusted=stranger,
                        master={"address": helpdesk.master(mode="ssl").url})
    log = refused_log(device)
    assert "the connection was refused" in log and "certificate" in log
    assert device.stop() == 0


def test_an_agent_that_is_no_master_keeps_no_tasks(fleet):
    relay = fleet.make("linux", "relay")
    device = fleet.make("linux", "device", master={"address": relay.url})
    assert "the master has no such action" in refused_log(device)
    assert [device.stop(), relay.stop()] == [0, 0]


def test_a_master_without_an_address_is_its_own(fleet, ann):
    agent = fleet.make("linux", "alone", master={"enabled": "yes"})
    assert check(agent) == (0, True)
    assert create(agent, "name", ann, user="visitor")
    row = newest(agent, ann)
    assert (row["Agent"], row["ConsoleUser"]) == ("alone", "visitor")
    assert re.fullmatch(UUID4, row["GUID"])
    assert close(agent, row["ObjectId"], "bob", user="visitor") is False
    assert add_note(agent, row["ObjectId"], "note", user="admin")
    assert close(agent, row["ObjectId"], ann, user="visitor")
    assert (agent.home / "data/TaskDatabase/tasks.db").exists()
    assert agent.stop() == 0
    agent.start()
    assert [(row[NAME], row[STATUS]) for row in rows_of(agent, ann)] == [("name", "closed")]
    assert agent.stop() == 0


def test_a_master_runs_on_linux_alone(tmp_path):
    agent = Agent("windows", tmp_path, "[master]\nenabled = yes\n")
    done = agent.command("run", "--port", "0")
    assert done.returncode == 1
    assert b"this agent cannot be a master ([master] enabled = yes)" in done.stderr


# The command line.

def zelctl(device, *arguments, user="admin", **options):
    done = device.zelctl("tasks", *arguments, user=user, **options)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def test_zelctl_opens_lists_annotates_and_closes_tasks(helpdesk, platform, ann):
    device = helpdesk.device(platform)
    assert zelctl(device, "check") == (0, "The master keeps tasks.\n", "")
    for name, priority in (("Printer on fire", "high"), ("No toner \u00fc", "low")):
        status, _, errors = zelctl(device, "add", name, "--priority", priority, "--requested-by",
                                   ann, "--description", "In <room> 'five'", "--email",
                                   "ann@example.org", "--note", "first note")
        assert (status, errors) == (0, "")

    status, output, errors = zelctl(device, "list", "--requested-by", ann)
    lines = output.splitlines()
    assert (status, errors, len(lines)) == (0, "", 3)
    assert lines[0].split() == ["ID", "STATUS", "PRIORITY", "CREATED", "REQUESTER", "NAME"]
    assert lines[1].endswith("No toner \u00fc") and lines[2].endswith("Printer on fire")
    number = lines[2].split()[0]

    assert zelctl(device, "note", number, "second note", "--requested-by", ann)[0] == 0
    status, output, _ = zelctl(device, "list", "--requested-by", ann, "--priority", "high",
                               "--long")
    assert status == 0
    for expected in ("Printer on fire", "In <room> 'five'", "ann@example.org", "first note",
                     "second note", ann):
        assert expected in output, output
    assert "toner" not in output

    assert zelctl(device, "close", number, "--requested-by", ann)[0] == 0
    arguments = ["list", "--requested-by", ann, "--status"]
    assert "Printer" in zelctl(device, *arguments, "closed")[1]
    assert "Printer" not in zelctl(device, *arguments, "open")[1]
    done = device.zelctl("--json", "tasks", *arguments, "closed")
    assert [row[NAME] for row in json.loads(done.stdout)["container"]["Values"]] == [
        "Printer on fire"]


def test_zelctl_opens_tasks_for_its_own_user(helpdesk, platform):
    device = helpdesk.device(platform)
    name = uuid.uuid4().hex
    assert zelctl(device, "add", name, user="visitor")[0] == 0
    row = next(row for row in rows_of(device, "visitor") if row[NAME] == name)
    assert (row[REQUESTER], row["ConsoleUser"]) == ("visitor", "visitor")
    assert zelctl(device, "note", str(row["ObjectId"]), "note", user="visitor")[0] == 0
    assert zelctl(device, "close", str(row["ObjectId"]), user="visitor")[0] == 0


def test_zelctl_says_when_nothing_was_done(helpdesk, agent, platform, ann):
    device = helpdesk.device(platform)
    number = str(2**31 - 1)
    for arguments in (["close", number], ["note", number, "text"], ["add", "  "]):
        status, output, errors = zelctl(device, *arguments)
        assert (status, output) == (1, ""), arguments
        assert "the master refused" in errors, errors
    for arguments in (["close", number], ["note", number, "text"], ["add", "name"], ["list"],
                      ["check"]):
        status, output, errors = zelctl(agent, *arguments)
        assert (status, output) == (1, ""), arguments
        assert "could not be asked" in errors, errors
    status, output, errors = zelctl(device, "list", "--requested-by", ann)
    assert (status, output, "no such tasks" in errors) == (0, "", True)
    for arguments in ([], ["close"], ["close", "0"], ["close", "x"], ["list", "--status", "lost"]):
        assert zelctl(device, *arguments)[0] == 2, arguments
