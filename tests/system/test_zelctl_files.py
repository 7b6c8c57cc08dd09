"""zelctl's verbs that look at files, directories and drives."""

import hashlib
import json
import os
import re
import time

NOON = 1700049600  # 2023-11-15 12:00 UTC


def run(agent, *arguments, **options):
    done = agent.zelctl(*arguments, **options)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def names(output):
    return [line.split("  ")[-1] for line in output.splitlines()]


def fill(directory, sizes):
    """Files of the given sizes, each a day older than the one before."""
    for age, (name, size) in enumerate(sizes.items()):
        (directory / name).write_bytes(b"x" * size)
        os.utime(directory / name, (NOON - 86400 * age,) * 2)


def test_ls_shows_mode_size_local_time_and_name(agent, platform, tmp_path):
    fill(tmp_path, {"file.txt": 1536})
    (tmp_path / "file.txt").chmod(0o640)
    (tmp_path / "sub").mkdir()
    status, output, errors = run(agent, "ls", agent.path(tmp_path))
    assert (status, errors) == (0, "")
    directory, file = output.splitlines()
    assert re.fullmatch(r"d[rwx-]{9}        -  \d{4}-\d\d-\d\d \d\d:\d\d  sub/", directory)
    mode = "-rw-r-----" if platform == "linux" else "-rw-rw-rw-"
    local = time.strftime("%Y-%m-%d %H:%M", time.localtime(NOON))
    assert file == f"{mode}  1.5 KiB  {local}  file.txt"


def test_ls_sorts_by_each_column_in_both_directions(agent, tmp_path):
    fill(tmp_path, {"b": 20, "a": 10, "c": 30})
    order = lambda *flags: "".join(names(run(agent, "ls", agent.path(tmp_path), *flags)[1]))
    assert order() == "abc"
    assert order("--reverse") == "cba"
    assert order("--sort", "size") == "cba"
    assert order("--sort", "size", "-r") == "abc"
    assert order("--sort", "modified") == "bac"
    assert order("--sort", "modified", "-r") == "cab"
    assert order("--sort", "mode") == "abc"


def test_ls_leaves_hidden_entries_out_unless_asked(agent, tmp_path):
    # Wine gives names that start with a dot the attribute by which Windows hides.
    fill(tmp_path, {".hidden": 1, "file": 1})
    assert names(run(agent, "ls", agent.path(tmp_path))[1]) == ["file"]
    for flag in ("-a", "--hidden"):
        assert names(run(agent, "ls", agent.path(tmp_path), flag)[1]) == [".hidden", "file"]


def test_ls_with_names_alone_knows_the_dot(agent, tmp_path):
    fill(tmp_path, {".hidden": 1, "file": 1})
    (tmp_path / "sub").mkdir()
    assert run(agent, "ls", "--names", agent.path(tmp_path))[1] == "sub/\nfile\n"
    assert run(agent, "ls", "--names", "-a", agent.path(tmp_path))[1] == "sub/\n.hidden\nfile\n"
    assert run(agent, "ls", "--names", "--sort", "size", agent.path(tmp_path))[0] == 2


def test_ls_counts_limit_and_offset_in_entries_shown(agent, tmp_path):
    # More hidden ones than a page has to spare.
    for i in range(300):
        (tmp_path / f".{i:03}").touch()
    fill(tmp_path, {name: 1 for name in "abcdef"})
    path = agent.path(tmp_path)
    assert run(agent, "ls", "--names", "--offset", "1", "--limit", "2", path)[1] == (
        "b\nc\n2 of 306 entries (hidden ones counted)\n")
    assert run(agent, "ls", "--names", "--offset", "5", "--limit", "9", path)[1] == (
        "f\n1 of 306 entries (hidden ones counted)\n")
    assert run(agent, "ls", "--names", "--offset", "4", path)[1] == "e\nf\n"
    assert run(agent, "ls", "--names", "-a", "--limit", "2", path)[1] == (
        ".000\n.001\n2 of 306 entries\n")
    assert run(agent, "ls", "--limit", "0", path)[0] == 2


def test_ls_writes_out_what_a_hostile_name_would_do_to_the_terminal(agent, platform, tmp_path):
    # Wine has no files with control characters in their names; the mark turns the writing around.
    name, shown = ("\u202egnp.exe", "\\u202egnp.exe")
    if platform == "linux":
        name, shown = ("\x1b[2J\n" + name, "\\x1b[2J\\n" + shown)
    (tmp_path / name).touch()
    assert names(run(agent, "ls", agent.path(tmp_path))[1]) == [shown]


def test_ls_shows_times_after_2038(agent, tmp_path):
    (tmp_path / "late").touch()
    os.utime(tmp_path / "late", (4000000000,) * 2)
    local = time.strftime("%Y-%m-%d %H:%M", time.localtime(4000000000))
    assert local in run(agent, "ls", agent.path(tmp_path))[1]


def test_ls_of_an_empty_directory_prints_nothing(agent, tmp_path):
    assert run(agent, "ls", agent.path(tmp_path)) == (0, "", "")


def test_ls_of_what_is_no_directory_explains(agent, tmp_path):
    (tmp_path / "file").write_text("x")
    for name in ("none", "file"):
        status, output, errors = run(agent, "ls", agent.path(tmp_path / name))
        assert (status, output) == (1, "")
        assert "cannot be opened: it is no directory, does not exist" in errors
        assert "CoreUtilsGetDirList: code 1" in errors


def test_ls_with_json_prints_one_page_as_it_came(agent, tmp_path):
    fill(tmp_path, {name: 1 for name in "abc"})
    output = run(agent, "--json", "ls", agent.path(tmp_path), "--offset", "1", "--limit", "1")[1]
    container = json.loads(output)["container"]
    assert [row["Name"] for row in container["Values"]] == ["b"]
    assert container["Total"] == 3


def test_md5_prints_digest_and_name(agent, tmp_path):
    (tmp_path / "file").write_bytes(b"\x00abc")
    path = agent.path(tmp_path / "file")
    digest = hashlib.md5(b"\x00abc").hexdigest()
    assert run(agent, "md5", path) == (0, f"{digest}  {path}\n", "")
    missing = agent.path(tmp_path / "none")
    assert run(agent, "md5", missing) == (1, "", f"zelctl: {missing}: cannot be read\n")


def test_stat_tells_what_a_file_is(agent, tmp_path):
    (tmp_path / "file").write_bytes(b"text\n" * 1000)
    path = agent.path(tmp_path / "file")
    digest = hashlib.md5(b"text\n" * 1000).hexdigest()
    assert run(agent, "stat", path) == (
        0, f"Path: {path}\nSize: 5,000 bytes (4.9 KiB)\nMD5: {digest}\nText: yes\n", "")


def test_stat_shows_sizes_of_2_gib_and_more(agent, tmp_path):
    with open(tmp_path / "file", "wb") as stream:
        stream.truncate((2 << 30) + 1)
    output = run(agent, "stat", agent.path(tmp_path / "file"))[1]
    assert output.splitlines()[1] == "Size: 2,147,483,649 bytes (2.0 GiB)"


def test_stat_tells_a_directory_and_what_is_missing(agent, tmp_path):
    (tmp_path / "sub").mkdir()
    fill(tmp_path / "sub", {"a": 1, ".b": 1})
    path = agent.path(tmp_path / "sub")
    assert run(agent, "stat", path) == (0, f"Path: {path}\nType: directory\nEntries: 2\n", "")
    status, _, errors = run(agent, "stat", agent.path(tmp_path / "none"))
    assert (status, "CoreUtilsGetFileInformation: code 14001" in errors) == (1, True)


def test_volumes_lists_the_drives_that_the_agent_names(agent):
    rows = json.loads(run(agent, "--json", "volumes")[1])["container"].get("Values", [])
    status, output, _ = run(agent, "volumes")
    lines = output.splitlines()
    assert status == 0
    assert [line.split()[0] for line in lines] == (["NAME"] if rows else []) + [
        row["Name"] for row in rows]
