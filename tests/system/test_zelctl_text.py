"""zelctl's verbs over the text in files: cat, put and edit."""

import json
import subprocess

import pytest

from agents import REPLY_TIMEOUT_S, clean_environment, program

MARK = b"\xef\xbb\xbf"


@pytest.fixture
def ctl(agent, platform, tmp_path):
    """Runs zelctl with more of its surroundings: (status, output, errors), output as bytes."""
    password = agent.home / "password-of-admin"

    def run(*arguments, stdin=b"", **environment):
        agent.zelctl("health")  # writes the password
        more = dict(ZEL_AGENT=agent.url, ZEL_USER="admin", ZEL_PASSWORD_FILE=agent.path(password))
        done = subprocess.run(program(platform, "zelctl") + list(arguments),
                              env=clean_environment(**more, **environment), input=stdin,
                              capture_output=True, timeout=REPLY_TIMEOUT_S)
        return done.returncode, done.stdout, done.stderr.decode()

    return run


@pytest.fixture
def editor(platform, tmp_path):
    """Makes an editor of commands for each platform; its file is the first argument."""

    def make(posix, windows):
        script = tmp_path / ("editor.sh" if platform == "linux" else "editor.bat")
        if platform == "linux":
            script.write_text("#!/bin/sh\n" + posix + "\n")
            return f"sh {script}"
        script.write_text("@echo off\r\n" + windows + "\r\n")
        return "cmd /c Z:" + str(script).replace("/", "\\")

    return make


def test_cat_prints_text_unchanged(agent, ctl, tmp_path):
    text = "größe\r\n\tend\nwithout a line end".encode()
    for content in (text, MARK + text, b"", MARK):
        (tmp_path / "file").write_bytes(content)
        expected = content.removeprefix(MARK)
        assert ctl("cat", agent.path(tmp_path / "file")) == (0, expected, "")


def test_cat_explains_what_it_cannot_print(agent, ctl, tmp_path):
    (tmp_path / "wide").write_bytes(b"\xff\xfea\0")
    status, output, errors = ctl("cat", agent.path(tmp_path / "wide"))
    assert (status, output, "UTF-16 or UTF-32" in errors) == (1, b"", True)
    status, _, errors = ctl("cat", agent.path(tmp_path / "none"))
    assert (status, "code 14001: the named file does not exist" in errors) == (1, True)
    status, _, errors = ctl("cat", agent.path(tmp_path))
    assert (status, "is a directory" in errors) == (1, True)


def test_put_writes_a_file_and_standard_input(agent, ctl, tmp_path):
    remote = tmp_path / "remote"
    for content in ("größe\r\n".encode(), b"", b"a\nb"):
        (tmp_path / "local").write_bytes(MARK + content)
        assert ctl("put", agent.path(tmp_path / "local"), agent.path(remote)) == (0, b"", "")
        assert remote.read_bytes() == MARK + content
        assert ctl("put", "-", agent.path(remote), stdin=content + b"\r\n\x1a") == (0, b"", "")
        assert remote.read_bytes() == MARK + content + b"\r\n\x1a"


def test_put_refuses_what_is_no_utf8_before_anything_is_sent(agent, ctl, tmp_path):
    (tmp_path / "local").write_bytes(b"caf\xe9")
    status, _, errors = ctl("put", agent.path(tmp_path / "local"), agent.path(tmp_path / "remote"))
    assert (status, "is not UTF-8 text; nothing was sent" in errors) == (2, True)
    assert ctl("put", "-", agent.path(tmp_path / "remote"), stdin=b"\xff")[0] == 2
    status, _, errors = ctl("put", agent.path(tmp_path / "none"), agent.path(tmp_path / "remote"))
    assert (status, "cannot be read" in errors) == (2, True)
    assert not (tmp_path / "remote").exists()


def test_put_of_more_than_the_agent_takes_tells_its_message(agent, ctl, tmp_path):
    status, _, errors = ctl("put", "-", agent.path(tmp_path / "remote"), stdin=b"x" * (13 << 20))
    assert (status, "413" in errors) == (2, True), errors
    assert not (tmp_path / "remote").exists()


def test_edit_writes_what_the_editor_changed(agent, ctl, editor, tmp_path):
    file = tmp_path / "file.conf"
    file.write_bytes(b"first\n")
    command = editor("test $(stat -c %a \"$1\") = 600 || exit 9; echo second >>\"$1\"; "
                     "echo \"$1\" >" + str(tmp_path / "seen"),
                     "echo second>>%1\r\necho %1>Z:" + str(tmp_path / "seen").replace("/", "\\"))
    assert ctl("edit", agent.path(file), EDITOR="false", VISUAL=command) == (0, b"", "")
    changed = file.read_bytes().removeprefix(MARK).replace(b"\r", b"")
    assert changed == b"first\nsecond\n"
    # The same extension, and nothing is left of the file that was edited.
    seen = (tmp_path / "seen").read_text().strip().strip('"')
    assert seen.endswith(".conf")
    assert ctl("--json", "md5", seen)[0] == 1


def test_edit_without_a_change_writes_nothing(agent, ctl, editor, tmp_path):
    file = tmp_path / "file"
    file.write_bytes(b"text\r\n")
    status = ctl("edit", agent.path(file), EDITOR=editor("true", "exit /b 0"))
    assert status == (0, b"not changed\n", "")
    assert file.read_bytes() == b"text\r\n"


def test_edit_of_a_new_file_starts_empty(agent, ctl, editor, tmp_path):
    file = tmp_path / "new"
    nothing = editor("test ! -s \"$1\"", "exit /b 0")
    assert ctl("edit", agent.path(file), EDITOR=nothing) == (0, b"not changed\n", "")
    assert not file.exists()
    command = editor("echo new >\"$1\"", "echo new>%1")
    assert ctl("edit", agent.path(file), EDITOR=command)[0] == 0
    assert file.read_bytes().removeprefix(MARK).replace(b"\r", b"") == b"new\n"


def kept(errors):
    """The local path that a message names."""
    return errors.strip().split("the edited text is kept in ")[1]


def test_edit_refuses_to_overwrite_what_changed_meanwhile(agent, ctl, editor, tmp_path):
    file = tmp_path / "file"
    file.write_bytes(b"before")
    other = "Z:" + str(file).replace("/", "\\")
    command = editor(f"echo mine >\"$1\"; printf theirs >{file}",
                     f"echo mine>%1\r\necho theirs>{other}")
    status, _, errors = ctl("edit", agent.path(file), EDITOR=command)
    assert (status, "was changed by someone else meanwhile" in errors) == (1, True)
    assert file.read_bytes().strip() == b"theirs"
    # The text of the user is where the message says.
    assert ctl("cat", kept(errors))[1].strip() == b"mine"
    assert ctl("rm", kept(errors))[0] == 0


def test_edit_keeps_the_text_that_could_not_be_written(agent, ctl, editor, tmp_path):
    file = tmp_path / "none/file"
    status, _, errors = ctl("edit", agent.path(file), EDITOR=editor("echo mine >\"$1\"",
                                                                   "echo mine>%1"))
    assert (status, "CoreUtilsWriteFile: code 1" in errors) == (1, True)
    assert ctl("cat", kept(errors))[1].strip() == b"mine"
    assert ctl("rm", kept(errors))[0] == 0


def test_edit_tells_when_the_editor_fails(agent, ctl, editor, tmp_path):
    (tmp_path / "file").write_bytes(b"text")
    status, _, errors = ctl("edit", agent.path(tmp_path / "file"),
                            EDITOR=editor("exit 3", "exit 3"))
    assert (status, "ended with status 3; nothing was written" in errors) == (2, True)
    assert "is kept in" not in errors


def test_text_verbs_print_the_deciding_reply_with_json(agent, ctl, tmp_path):
    (tmp_path / "file").write_bytes(b"abc")
    path = agent.path(tmp_path / "file")
    assert ctl("--json", "cat", path)[1] == b'{"code":0,"container":{"Result":"YWJj"}}\n'
    reply = json.loads(ctl("--json", "put", "-", path, stdin=b"x")[1])
    assert reply == {"code": 0, "container": {}}
