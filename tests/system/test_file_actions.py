"""The seven file and directory actions, over HTTP and through zelctl, on both platforms."""

import json
import os

import pytest

FILE_NOT_FOUND = 14001
ACCESS_REFUSED = 12


@pytest.fixture(params=["http", "zelctl"])
def call(agent, request):
    return agent.call if request.param == "http" else agent.call_by_zelctl


def test_CoreUtilsCopyFile_copies_content_and_time(agent, call, tmp_path):
    source = tmp_path / "source.bin"
    content = os.urandom(300_000)
    source.write_bytes(content)
    os.utime(source, (1_000_000_000, 1_000_000_000))
    target = tmp_path / "target.bin"

    answer = call("CoreUtilsCopyFile", SourcePath=agent.path(source),
                  DestinationPath=agent.path(target))

    assert answer == (0, {})
    assert target.read_bytes() == content
    assert int(target.stat().st_mtime) == 1_000_000_000
    assert sorted(os.listdir(tmp_path)) == ["source.bin", "target.bin"]


def test_CoreUtilsCopyFile_picks_a_free_name_beside_the_source(agent, call, tmp_path):
    source = tmp_path / "b.txt"
    source.write_text("original")
    (tmp_path / "b(1).txt").write_text("taken")
    path = agent.path(source)

    assert call("CoreUtilsCopyFile", SourcePath=path, DestinationPath=path) == (0, {})

    assert (tmp_path / "b(2).txt").read_text() == "original"
    assert (tmp_path / "b(1).txt").read_text() == "taken"
    assert source.read_text() == "original"


def test_CoreUtilsCopyFile_replaces_an_existing_destination(agent, call, tmp_path):
    source, target = tmp_path / "new", tmp_path / "old"
    source.write_text("new content")
    target.write_text("old content")

    assert call("CoreUtilsCopyFile", SourcePath=agent.path(source),
                DestinationPath=agent.path(target)) == (0, {})

    assert target.read_text() == "new content"


def test_CoreUtilsCopyFile_of_a_missing_source_is_14001(agent, call, tmp_path):
    answer = call("CoreUtilsCopyFile", SourcePath=agent.path(tmp_path / "none"),
                  DestinationPath=agent.path(tmp_path / "target"))
    assert answer == (FILE_NOT_FOUND, {"Result": 0})


def test_CoreUtilsCopyFile_into_a_missing_directory_is_1(agent, call, tmp_path):
    source = tmp_path / "source"
    source.write_text("x")
    answer = call("CoreUtilsCopyFile", SourcePath=agent.path(source),
                  DestinationPath=agent.path(tmp_path / "none" / "target"))
    assert answer == (1, {})


def test_CoreUtilsRenameFile_moves_a_file(agent, call, tmp_path):
    source, target = tmp_path / "ä before.txt", tmp_path / "日本 after.txt"
    source.write_text("moved")

    assert call("CoreUtilsRenameFile", SourcePath=agent.path(source),
                DestinationPath=agent.path(target)) == (0, {})

    assert not source.exists()
    assert target.read_text() == "moved"


def test_CoreUtilsRenameFile_of_a_missing_file_is_14001(agent, call, tmp_path):
    assert call("CoreUtilsRenameFile", SourcePath=agent.path(tmp_path / "a"),
                DestinationPath=agent.path(tmp_path / "b")) == (FILE_NOT_FOUND, {"Result": 0})


def test_CoreUtilsRenameFile_never_overwrites(agent, call, tmp_path):
    (tmp_path / "a").write_text("a")
    (tmp_path / "b").write_text("b")
    assert call("CoreUtilsRenameFile", SourcePath=agent.path(tmp_path / "a"),
                DestinationPath=agent.path(tmp_path / "b")) == (1, {})
    assert (tmp_path / "a").read_text() == "a"
    assert (tmp_path / "b").read_text() == "b"


def test_CoreUtilsDeleteFile_deletes_a_file(agent, call, tmp_path):
    file = tmp_path / "file"
    file.write_text("x")
    assert call("CoreUtilsDeleteFile", Path=agent.path(file)) == (0, {})
    assert not file.exists()


def test_CoreUtilsDeleteFile_of_a_missing_file_is_14001(agent, call, tmp_path):
    assert call("CoreUtilsDeleteFile", Path=agent.path(tmp_path / "none")) == (
        FILE_NOT_FOUND, {"Result": 0})


def test_CoreUtilsGetFileSize_tells_the_size(agent, call, tmp_path):
    file = tmp_path / "file"
    file.write_bytes(b"x" * 12345)
    assert call("CoreUtilsGetFileSize", Path=agent.path(file)) == (0, {"Result": 12345})


def test_CoreUtilsGetFileSize_of_3_GiB_is_negative(agent, call, tmp_path):
    file = tmp_path / "large"
    with open(file, "wb") as stream:
        stream.truncate(3 << 30)
    assert call("CoreUtilsGetFileSize", Path=agent.path(file)) == (0, {"Result": (3 << 30) - (1 << 32)})


def test_CoreUtilsGetFileSize_of_a_missing_file_is_14001(agent, call, tmp_path):
    assert call("CoreUtilsGetFileSize", Path=agent.path(tmp_path / "none")) == (
        FILE_NOT_FOUND, {"Result": 0})


def test_CoreUtilsDirCreate_creates_a_directory_and_accepts_an_existing_one(agent, call, tmp_path):
    directory = tmp_path / "directory"
    assert call("CoreUtilsDirCreate", Path=agent.path(directory)) == (0, {})
    assert directory.is_dir()
    assert call("CoreUtilsDirCreate", Path=agent.path(directory)) == (0, {})


def test_CoreUtilsDirCreate_where_a_file_stands_is_1(agent, call, tmp_path):
    (tmp_path / "file").write_text("x")
    assert call("CoreUtilsDirCreate", Path=agent.path(tmp_path / "file")) == (1, {})
    assert (tmp_path / "file").read_text() == "x"


def test_CoreUtilsDirRename_moves_a_directory_with_its_content(agent, call, tmp_path):
    source, target = tmp_path / "before", tmp_path / "after"
    (source / "inner").mkdir(parents=True)
    (source / "inner/file").write_text("kept")

    assert call("CoreUtilsDirRename", SourcePath=agent.path(source),
                DestinationPath=agent.path(target)) == (0, {})

    assert not source.exists()
    assert (target / "inner/file").read_text() == "kept"


def test_CoreUtilsDirRename_of_a_missing_directory_is_1(agent, call, tmp_path):
    assert call("CoreUtilsDirRename", SourcePath=agent.path(tmp_path / "a"),
                DestinationPath=agent.path(tmp_path / "b")) == (1, {})


def test_CoreUtilsDirRename_onto_itself_tells_whether_a_directory_is_there(agent, call, tmp_path):
    (tmp_path / "file").write_text("x")
    itself = agent.path(tmp_path)
    assert call("CoreUtilsDirRename", SourcePath=itself, DestinationPath=itself) == (0, {})
    file = agent.path(tmp_path / "file")
    assert call("CoreUtilsDirRename", SourcePath=file, DestinationPath=file) == (1, {})
    assert os.listdir(tmp_path) == ["file"]


@pytest.mark.parametrize("recursive", [True, False])
def test_CoreUtilsDirDelete_deletes_everything_whatever_its_flag(agent, call, tmp_path, recursive):
    directory = tmp_path / "directory"
    (directory / "inner/deep").mkdir(parents=True)
    (directory / "inner/file").write_text("x")
    assert call("CoreUtilsDirDelete", Path=agent.path(directory), Recursive=recursive) == (0, {})
    assert not directory.exists()


def test_CoreUtilsDirDelete_of_a_missing_directory_is_0(agent, call, tmp_path):
    assert call("CoreUtilsDirDelete", Path=agent.path(tmp_path / "none")) == (0, {})


def test_CoreUtilsDirDelete_does_not_follow_links(agent, call, tmp_path):
    outside = tmp_path / "outside"
    outside.mkdir()
    (outside / "precious").write_text("x")
    directory = tmp_path / "directory"
    directory.mkdir()
    (directory / "link").symlink_to(outside)
    call("CoreUtilsDirDelete", Path=agent.path(directory))
    assert (outside / "precious").read_text() == "x"


def test_a_user_without_rights_gets_12_from_every_action(agent, call, tmp_path):
    file = tmp_path / "file"
    file.write_text("x")
    two = {"SourcePath": agent.path(file), "DestinationPath": agent.path(tmp_path / "new")}
    directories = {"SourcePath": agent.path(tmp_path), "DestinationPath": agent.path(tmp_path / "n")}
    one = {"Path": agent.path(file)}
    new = {"Path": agent.path(tmp_path / "new")}

    assert call("CoreUtilsCopyFile", user="visitor", **two) == (ACCESS_REFUSED, {"Result": False})
    assert call("CoreUtilsRenameFile", user="visitor", **two) == (ACCESS_REFUSED, {"Result": False})
    assert call("CoreUtilsDeleteFile", user="visitor", **one) == (ACCESS_REFUSED, {"Result": False})
    assert call("CoreUtilsGetFileSize", user="visitor", **one) == (ACCESS_REFUSED, {"Result": 0})
    assert call("CoreUtilsDirCreate", user="visitor", **new) == (ACCESS_REFUSED, {})
    assert call("CoreUtilsDirRename", user="visitor", **directories) == (
        ACCESS_REFUSED, {"Result": False})
    assert call("CoreUtilsDirDelete", user="visitor", Path=agent.path(tmp_path)) == (
        ACCESS_REFUSED, {"Result": False})
    assert os.listdir(tmp_path) == ["file"]
    assert file.read_text() == "x"


def test_nobody_can_claim_to_be_another_console_user(agent, tmp_path):
    file = tmp_path / "file"
    file.write_text("x")
    for claimed in ("admin", ""):
        code, _ = agent.call("CoreUtilsGetFileSize", user="visitor", Path=agent.path(file),
                             DACurrentConsoleUser=claimed)
        assert code == ACCESS_REFUSED
    assert agent.call("CoreUtilsGetFileSize", Path=agent.path(file),
                      DACurrentConsoleUser="visitor") == (0, {"Result": 1})


def test_a_name_that_is_no_unicode_travels_both_ways(make_agent, platform, tmp_path):
    if platform == "windows":
        # A lone surrogate: UTF-16 that is no Unicode. Wine cannot store one on a Unix file system,
        # so what counts here is that the agent answers in order.
        escaped = "\ufdd0d800"
    else:
        escaped = "\ufdd0dcff"
        with open(os.fsencode(tmp_path) + b"/odd\xff", "wb") as stream:
            stream.write(b"12345")
    agent = make_agent()
    agent.add_users()
    agent.start()
    path = agent.path(tmp_path / "odd") + escaped
    code, container = agent.call("CoreUtilsGetFileSize", Path=path)
    expected = (0, {"Result": 5}) if platform == "linux" else (FILE_NOT_FOUND, {"Result": 0})
    assert (code, container) == expected
    if platform == "linux":
        done = agent.zelctl("--json", "stat", os.fsencode(tmp_path) + b"/odd\xff")
        reply = json.loads(done.stdout)
        assert (reply["code"], reply["container"]["FileSize"]) == (0, 5)
    assert agent.stop() == 0


def test_both_separators_name_the_same_file(agent, tmp_path):
    (tmp_path / "inner").mkdir()
    (tmp_path / "inner/file").write_text("1234")
    path = agent.path(tmp_path / "inner/file")
    for form in (path.replace("\\", "/"), path.replace("/", "\\"), path):
        assert agent.call("CoreUtilsGetFileSize", Path=form) == (0, {"Result": 4})


def test_drive_letters_work_on_both_platforms(agent, platform, tmp_path):
    (tmp_path / "file").write_text("1234")
    drive = "Z:" if platform == "windows" else "C:"
    path = drive + str(tmp_path / "file").replace("/", "\\")
    assert agent.call("CoreUtilsGetFileSize", Path=path) == (0, {"Result": 4})
