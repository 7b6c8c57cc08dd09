"""Who is logged on, programs in that person's name, and the command line for all of it."""

import time

import pytest

from desks import DIALOG_TITLE, ON_LINUX, Waiting
from screens import DEAF_S, wait_until


def file_maker(desk, file):
    """A command line that makes a file."""
    if desk.platform == "windows":
        return f'cmd.exe /c echo made >"{desk.agent.path(file)}"'
    return f'/bin/sh -c "echo made >{file}"'


def wait_made(file):
    wait_until(lambda: file.exists() and file.read_text().strip() == "made", 20, "the file")


def test_somebody_is_logged_on(desk):
    assert desk.call("CoreUtilsIsUserLogged") == (0, {"UserLogged": True, "ScreenSaving": False})


def test_a_user_without_a_proxy_does_not_count_as_absent(desk):
    desk.end_proxy()
    assert desk.call("CoreUtilsIsUserLogged") == (0, {"UserLogged": True, "ScreenSaving": False})


@ON_LINUX
def test_nobody_is_logged_on(desk):
    # Wine always has a user.
    desk.log_off()
    assert desk.call("CoreUtilsIsUserLogged") == (0, {"UserLogged": False})


@ON_LINUX
@pytest.mark.parametrize("properties", [
    {"Class": "greeter"}, {"State": "closing"}, {"Class": "manager"}, {"Class": "background"},
], ids=lambda one: "-".join(one.values()))
def test_sessions_that_are_no_persons(desk, properties):
    desk.log_on(**properties)
    assert desk.call("CoreUtilsIsUserLogged") == (0, {"UserLogged": False})


@ON_LINUX
@pytest.mark.parametrize("properties", [
    {"Type": "wayland"}, {"Type": "tty", "Display": ""}, {"Active": False, "State": "online"},
], ids=lambda one: "-".join(str(value) for value in one.values()))
def test_sessions_that_are_persons(desk, properties):
    desk.log_on(**properties)
    code, container = desk.call("CoreUtilsIsUserLogged")
    assert code == 0 and container["UserLogged"] is True


@ON_LINUX
def test_a_session_that_is_locked_counts_as_absent(desk):
    desk.log_on(LockedHint=True)
    assert desk.call("CoreUtilsIsUserLogged") == (0, {"UserLogged": True, "ScreenSaving": True})


def test_starts_a_program_in_the_users_name(desk, tmp_path):
    file = tmp_path / "made"
    assert desk.call("CoreUtilsShellExecuteAsLoggedUser", Command=file_maker(desk, file)) == (0, {})
    wait_made(file)


@ON_LINUX
def test_the_program_has_the_users_environment(desk, tmp_path):
    # Wine's programs do not see its DISPLAY.
    file = tmp_path / "made"
    command = f'/bin/sh -c "echo $DISPLAY >{file}"'
    assert desk.call("CoreUtilsShellExecuteAsLoggedUser", Command=command) == (0, {})
    wait_until(lambda: file.exists() and file.read_text() == desk.screen.display + "\n",
               what="the user's display in the file")


@pytest.mark.parametrize("command", ["", "no-such-program-anywhere --x", '"unbalanced'])
def test_programs_that_do_not_start_are_only_logged(desk, command):
    assert desk.call("CoreUtilsShellExecuteAsLoggedUser", Command=command) == (0, {})


def test_without_a_proxy_no_program_starts(desk, tmp_path):
    desk.end_proxy()
    file = tmp_path / "made"
    assert desk.call("CoreUtilsShellExecuteAsLoggedUser", Command=file_maker(desk, file)) == (0, {})
    time.sleep(0.3)
    assert not file.exists()


# The command line.


def ending(done):
    return done.returncode, done.stdout.decode().replace("\r\n", "\n")


class Zelctl:
    """Runs while the user answers."""

    def __init__(self, desk, *arguments):
        self.future = Waiting.pool.submit(desk.agent.zelctl, *arguments)

    def result(self):
        return ending(self.future.result(20))


def test_zelctl_tells_who_is_there(desk):
    code, text = ending(desk.agent.zelctl("session"))
    assert code == 0 and text


@pytest.mark.parametrize("button, answer", [(2, (0, "Accepted by the user.\n")), (1, (1, ""))],
                         ids=["yes", "no"])
def test_zelctl_asks_for_consent(desk, button, answer):
    asking = Zelctl(desk, "ask", "--name", "Jane Doe")
    window = desk.screen.wait_window(DIALOG_TITLE)
    time.sleep(DEAF_S)
    desk.click_button(window, button)
    assert asking.result() == answer


def test_zelctl_withdraws_what_it_asked(desk):
    asking = Zelctl(desk, "ask")
    desk.screen.wait_window(DIALOG_TITLE)
    assert ending(desk.agent.zelctl("ask", "--withdraw")) == (0, "")
    assert asking.result() == (1, "")
    desk.screen.wait_free()


def test_zelctl_shows_dialogs(desk):
    asking = Zelctl(desk, "dialog", "ask", "Shall the update begin?", "--ok", "Now",
                    "--cancel", "Later", "--title", "Update", "--timeout", "60", "--top")
    window = desk.screen.wait_window("Update")
    time.sleep(DEAF_S)
    desk.click_button(window, 2)
    assert asking.result() == (0, 'The user chose "Now".\n')

    assert ending(desk.agent.zelctl("dialog", "show", "Back in a minute")) == (0, "")
    desk.screen.wait_window(DIALOG_TITLE)
    assert ending(desk.agent.zelctl("dialog", "close")) == (0, "")
    desk.screen.wait_free()


def test_zelctl_locks_and_unlocks(desk):
    assert ending(desk.agent.zelctl("lock", "The machine is being updated.")) == (0, "")
    first = desk.screen.wait_still()
    assert first != desk.screen.empty
    assert ending(desk.agent.zelctl("lock", "--change", "One more minute.")) == (0, "")
    wait_until(lambda: desk.screen.picture() != first, what="the other message")
    assert ending(desk.agent.zelctl("lock", "--restore")) == (0, "")
    assert ending(desk.agent.zelctl("unlock")) == (0, "")
    desk.screen.wait_free()
    assert desk.agent.zelctl("unlock").returncode == 1


def test_zelctl_runs_programs_as_the_user(desk, tmp_path):
    file = tmp_path / "made"
    words = ["cmd.exe", "/c", "copy", "nul", desk.agent.path(file)]
    if desk.platform == "linux":
        words = ["/bin/sh", "-c", f"echo made >{file}"]
    assert ending(desk.agent.zelctl("exec-as-user", words[0], "--", *words[1:]))[0] == 0
    wait_until(file.exists, 20, "the file")
