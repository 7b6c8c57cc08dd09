"""CoreUtilsGetDirList: what it says of real directories, on both platforms."""

import os
import threading

import pytest

FAILURE = 1


def listing(agent, path, **parameters):
    """(rows, container) of a listing that succeeds."""
    code, container = agent.call("CoreUtilsGetDirList", Path=agent.path(path), **parameters)
    assert code == 0, (code, container)
    rows = container.get("Values", [])
    return rows if isinstance(rows, list) else [rows], container


def names(rows):
    return [row["Name"] for row in rows]


@pytest.fixture
def mixed(tmp_path):
    """Directories and files that every column puts in another order."""
    directory = tmp_path / "mixed"
    directory.mkdir()
    (directory / "z directory").mkdir()
    (directory / "a directory").mkdir()
    for name, size, time in (("a.txt", 3, 300), ("b.txt", 1, 200), ("c.txt", 2, 400)):
        file = directory / name
        file.write_text("x" * size)
        os.utime(file, (time, time))
    for name in ("a directory", "z directory"):
        os.utime(directory / name, (100, 100))
    return directory


DIRECTORIES = ["a directory", "z directory"]


def test_kinds_sizes_and_times_are_told(agent, mixed):
    rows, container = listing(agent, mixed)
    found = {row["Name"]: row for row in rows}
    assert sorted(found) == ["a directory", "a.txt", "b.txt", "c.txt", "z directory"]
    assert [row["IsDirectory"] for row in rows] == [True, True, False, False, False]
    assert [found[name]["Size"] for name in ("a.txt", "b.txt", "c.txt")] == [3, 1, 2]
    assert [found[name]["ModifyDate"] for name in ("a.txt", "b.txt", "c.txt")] == [300, 200, 400]
    assert found["a directory"]["Size"] == 0
    assert found["a directory"]["Mode"] & 0o170000 == 0o040000
    assert found["a.txt"]["Mode"] & 0o170000 == 0o100000
    assert "Total" not in container


def test_the_mode_is_the_files_own(agent, platform, tmp_path):
    file = tmp_path / "file"
    file.write_text("x")
    file.chmod(0o640)
    (row,), _ = listing(agent, tmp_path)
    assert row["Mode"] == (0o100640 if platform == "linux" else 0o100666)


def test_text_is_told_from_what_is_none(agent, tmp_path):
    (tmp_path / "text").write_bytes("Grüße\r\n\t".encode())
    (tmp_path / "empty").write_bytes(b"")
    (tmp_path / "late").write_bytes(b"x" * 4096 + b"\0")
    (tmp_path / "binary").write_bytes(b"x" * 4095 + b"\0")
    rows, _ = listing(agent, tmp_path)
    assert {row["Name"]: row["IsText"] for row in rows} == {
        "text": True, "empty": True, "late": True, "binary": False}


def test_hidden_entries_are_marked_on_linux(make_agent, tmp_path):
    directory = tmp_path / "listed"
    (directory / ".sub").mkdir(parents=True)
    (directory / ".file").write_text("x")
    (directory / "file").write_text("x")
    agent = make_agent(platform="linux")
    agent.add_users()
    agent.start()
    rows, _ = listing(agent, directory)
    assert {row["Name"]: row["IsHidden"] for row in rows} == {
        ".sub": True, ".file": True, "file": False}
    assert agent.stop() == 0


@pytest.mark.parametrize("attribute,expected", [
    ("_COLNAME_NAME_", ["a.txt", "b.txt", "c.txt"]),
    ("_COLNAME_SIZE_", ["b.txt", "c.txt", "a.txt"]),
    ("_COLNAME_MODIFIED_", ["b.txt", "a.txt", "c.txt"]),
    ("_COLNAME_ACCESS_", ["a.txt", "b.txt", "c.txt"]),
])
def test_every_column_sorts_in_both_directions(agent, platform, mixed, attribute, expected):
    # Read-only is all that Windows knows of permissions: 0444 goes before 0666.
    for name, mode in (("a.txt", 0o444), ("b.txt", 0o644), ("c.txt", 0o666)):
        (mixed / name).chmod(mode)
    rows, _ = listing(agent, mixed, SortAttr=attribute, SortOrder="Asc")
    assert names(rows) == DIRECTORIES + expected
    rows, _ = listing(agent, mixed, SortAttr=attribute, SortOrder="Desc")
    assert names(rows) == DIRECTORIES[::-1] + expected[::-1]


def test_pages_make_up_the_whole(agent, mixed):
    whole, _ = listing(agent, mixed)
    pages = []
    for offset in range(0, 6, 2):
        rows, container = listing(agent, mixed, Offset=offset, Count=2)
        assert container["Total"] == 5
        pages += rows
    assert pages == whole
    rows, container = listing(agent, mixed, Offset=5, Count=2)
    assert (rows, container["Total"]) == ([], 5)


def test_without_details_only_names_and_kinds_are_told(agent, mixed):
    rows, _ = listing(agent, mixed, Parameters=False)
    assert rows[0] == {"Name": "a directory", "IsDirectory": True}
    assert rows[-1] == {"Name": "c.txt", "IsDirectory": False}


def test_directories_of_no_and_one_entry(agent, tmp_path):
    directory = tmp_path / "listed"
    directory.mkdir()
    rows, _ = listing(agent, directory)
    assert rows == []
    (directory / "only").write_text("x")
    rows, _ = listing(agent, directory)
    assert names(rows) == ["only"]


def test_20000_entries_are_listed_in_order(agent, tmp_path):
    expected = [f"entry {i:05}" for i in range(20_000)]
    for name in expected:
        (tmp_path / name).touch()
    rows, _ = listing(agent, tmp_path)
    assert names(rows) == expected
    rows, container = listing(agent, tmp_path, Offset=19_990, Count=100)
    assert (names(rows), container["Total"]) == (expected[19_990:], 20_000)


def test_names_in_any_script(agent, tmp_path):
    expected = sorted(["Grüße", "日本語", "Ελληνικά", "русский", "עברית", "हिन्दी", "🦀", "a b"],
                      key=str.encode)
    for name in expected:
        (tmp_path / name).write_text("12345")
    rows, _ = listing(agent, tmp_path)
    assert names(rows) == expected
    assert [row["Size"] for row in rows] == [5] * len(expected)


def test_names_that_are_no_unicode_lead_to_their_files(make_agent, tmp_path):
    directory = tmp_path / "listed"
    directory.mkdir()
    with open(os.fsencode(directory) + b"/odd\xff", "wb") as stream:
        stream.write(b"12345")
    agent = make_agent(platform="linux")
    agent.add_users()
    agent.start()
    (row,), _ = listing(agent, directory)
    assert row["Size"] == 5
    path = agent.path(directory) + "/" + row["Name"]
    assert agent.call("CoreUtilsGetFileSize", Path=path) == (0, {"Result": 5})
    assert agent.stop() == 0


def test_what_is_no_directory_is_1(agent, tmp_path):
    (tmp_path / "file").write_text("x")
    for path in ("file", "missing", "missing/below"):
        code, _ = agent.call("CoreUtilsGetDirList", Path=agent.path(tmp_path / path))
        assert code == FAILURE, path


def test_a_directory_that_changes_meanwhile_is_listed_all_the_same(agent, tmp_path):
    directory = tmp_path / "listed"
    directory.mkdir()
    stays = [f"stays {i:03}" for i in range(200)]
    for name in stays:
        (directory / name).write_text("12345")
    stop = threading.Event()

    def change():
        while not stop.is_set():
            (directory / "comes").write_text("x")
            (directory / "comes").rename(directory / "goes")
            (directory / "goes").unlink()

    changing = threading.Thread(target=change)
    changing.start()
    try:
        for _ in range(30):
            rows, _ = listing(agent, directory)
            found = {row["Name"]: row for row in rows}
            assert all(found[name]["Size"] == 5 for name in stays)
            assert set(found) - set(stays) <= {"comes", "goes"}
            assert len(found) == len(rows)
    finally:
        stop.set()
        changing.join()
