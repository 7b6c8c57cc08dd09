"""Paths that name nothing, or nothing that this platform can hold: every action refuses them with a
code of its own and changes nothing, and the agent goes on serving."""

import pytest

SUCCESS, FAILURE, ACCESS_REFUSED, FILE_NOT_FOUND = 0, 1, 12, 14001

# None of these names a file on any platform.
NAMELESS = {"empty": "", "NUL": "a\0b"}
# These are ordinary names on Linux and none on Windows.
NOT_ON_WINDOWS = ["ends in a dot.", "ends in a blank ", "CON", "nul.txt", "COM1", "CLOCK$", "a:b", "w?ld*"]


@pytest.fixture
def tree(tmp_path):
    """A directory with a file, and a function that tells whether it is as it was."""
    directory = tmp_path / "tree"
    directory.mkdir()
    (directory / "file").write_text("content")

    def is_unchanged():
        entries = sorted(path.relative_to(directory) for path in directory.rglob("*"))
        return [str(entry) for entry in entries] == ["file"] and (
            directory / "file").read_text() == "content"

    directory_and_check = directory, is_unchanged
    return directory_and_check


def call_everything(agent, directory, odd):
    """{what was called: code} of each action with the odd path in each of its places."""
    file, sub = agent.path(directory / "file"), agent.path(directory)
    return {
        "copy from": agent.call("CoreUtilsCopyFile", SourcePath=odd, DestinationPath=file)[0],
        "copy to": agent.call("CoreUtilsCopyFile", SourcePath=file, DestinationPath=odd)[0],
        "rename from": agent.call("CoreUtilsRenameFile", SourcePath=odd,
                                  DestinationPath=sub + "/new")[0],
        "rename to": agent.call("CoreUtilsRenameFile", SourcePath=file, DestinationPath=odd)[0],
        "delete": agent.call("CoreUtilsDeleteFile", Path=odd)[0],
        "size": agent.call("CoreUtilsGetFileSize", Path=odd)[0],
        "create directory": agent.call("CoreUtilsDirCreate", Path=odd)[0],
        "rename directory from": agent.call("CoreUtilsDirRename", SourcePath=odd,
                                            DestinationPath=sub + "/new")[0],
        "rename directory to": agent.call("CoreUtilsDirRename", SourcePath=sub,
                                          DestinationPath=odd)[0],
        "delete directory": agent.call("CoreUtilsDirDelete", Path=odd)[0],
    }


@pytest.mark.parametrize("what", NAMELESS)
def test_what_names_nothing_is_refused_by_every_action(agent, tree, what):
    directory, is_unchanged = tree
    codes = call_everything(agent, directory, NAMELESS[what])
    for place in ("copy from", "rename from", "delete", "size"):
        assert codes[place] == FILE_NOT_FOUND, (place, codes)
    for place in ("copy to", "rename to", "create directory", "rename directory from",
                  "rename directory to", "delete directory"):
        assert codes[place] == ACCESS_REFUSED, (place, codes)
    assert is_unchanged()


@pytest.mark.parametrize("what", ["32000 characters", "a drive that is not there"])
def test_what_the_system_does_not_take_is_refused_by_every_action(agent, tree, what):
    directory, is_unchanged = tree
    long_name = agent.path(directory / ("x" * 32000))
    odd = long_name if what == "32000 characters" else "Q:\\x"
    codes = call_everything(agent, directory, odd)
    for place in ("copy from", "rename from", "delete", "size"):
        assert codes[place] == FILE_NOT_FOUND, (place, codes)
    for place in ("copy to", "rename to", "create directory", "rename directory from",
                  "rename directory to"):
        assert codes[place] in (FAILURE, ACCESS_REFUSED), (place, codes)
    assert is_unchanged()


@pytest.mark.parametrize("name", NOT_ON_WINDOWS)
def test_names_that_windows_does_not_hold_are_refused_there_and_ordinary_on_linux(
        agent, platform, tree, name):
    directory, is_unchanged = tree
    odd = agent.path(directory) + ("\\" if platform == "windows" else "/") + name
    file = agent.path(directory / "file")

    if platform == "windows":
        assert call_everything(agent, directory, odd)["copy to"] in (FAILURE, ACCESS_REFUSED)
        assert is_unchanged()
        return
    assert agent.call("CoreUtilsCopyFile", SourcePath=file, DestinationPath=odd) == (SUCCESS, {})
    assert (directory / name).read_text() == "content"
    assert agent.call("CoreUtilsDeleteFile", Path=odd) == (SUCCESS, {})
    assert is_unchanged()


def test_the_reason_of_a_refusal_stands_in_the_log(agent, tree):
    directory, _ = tree
    file = agent.path(directory / "file")
    assert agent.call("CoreUtilsCopyFile", SourcePath=file, DestinationPath="a\0b")[0] != SUCCESS
    assert "the path holds a NUL character" in agent.log()


def test_a_directory_is_no_destination_for_a_file(agent, tree):
    directory, is_unchanged = tree
    code, _ = agent.call("CoreUtilsCopyFile", SourcePath=agent.path(directory / "file"),
                         DestinationPath=agent.path(directory))
    assert code == FAILURE
    assert is_unchanged()
