"""An administrator asks to see the screen, and whoever sits there answers, or does not."""

import signal
import time

import pytest

from desks import DIALOG_TITLE, ON_LINUX, ON_WINDOWS, AuditWatch
from screens import DEAF_S, Typewriter, wait_until

QUESTION = ("An administrator asks to connect to this computer and see your screen. "
            "Do you allow it?")
WAITING = "Waiting for acknowledgment of local user"
ACCEPTED = "Connection accepted by local user"
REFUSED = "Connection refused by local user"
WITHDRAWN = "Connection aborted by remote administrator"
NOBODY = "Connection impossible nobody logged"
ABSENT = "Connection impossible user absent"
ANOTHER = "Connection impossible now, waiting for another acknowlegment"
NO_PROXY = "connection refused: no proxy on host, so user cannot be asked"


def events(watch):
    """What was reported of the administrator's connection, in order."""
    assert {line[:2] for line in watch.lines()} <= {("admin", "127.0.0.1")}
    ending = ", class Direct Access"
    texts = [text for _, _, text in watch.lines()]
    assert all(text.endswith(ending) for text in texts)
    return [text.removesuffix(ending) for text in texts]


def ask(desk, agent=None, name="Jane Doe"):
    return desk.begin("CoreUtilsCheckClientAccept", agent=agent, DisplayAdminName=name)


class Question:
    """A consent that is being asked for: the call, its window, what is reported of it."""

    def __init__(self, desk, agent=None, name="Jane Doe", title=DIALOG_TITLE):
        self.desk = desk
        self.watch = AuditWatch(agent or desk.agent)
        self.call = ask(desk, agent, name)
        self.window = desk.screen.wait_window(title)

    def wait_for_hearing(self):
        time.sleep(DEAF_S)
        return self

    def answer(self, limit_s=10):
        """What the administrator learns; the window is gone then."""
        code, container = self.call.result(limit_s)
        assert code == 0
        self.desk.screen.wait_free()
        return container

    def withdraw(self):
        assert self.desk.call("CoreUtilsDestroyAckPopup")[0] == 0


@pytest.fixture
def question(desk):
    return Question(desk).wait_for_hearing()


def test_yes_accepts(desk, question):
    desk.screen.move(1, 1)
    desk.screen.wait_still()
    question.window.photograph("consent-" + desk.platform)
    desk.click_button(question.window, 2)
    assert question.answer() == {"Acknowledge": 1}
    assert events(question.watch) == [WAITING, ACCEPTED]


def test_no_refuses(desk, question):
    desk.click_button(question.window, 1)
    assert question.answer() == {"Acknowledge": 0}
    assert events(question.watch) == [WAITING, REFUSED]


@pytest.mark.parametrize("keys", [("Escape",), ("Return",), ("space",)], ids="-".join)
def test_no_key_accepts_by_itself(question, keys):
    question.window.key(*keys)
    assert question.answer() == {"Acknowledge": 0}
    assert events(question.watch) == [WAITING, REFUSED]


@pytest.mark.parametrize("key", ["Return", "space"])
def test_accepts_with_the_keyboard_on_the_first_button(question, key):
    question.window.key("shift+Tab", key)
    assert question.answer() == {"Acknowledge": 1}
    assert events(question.watch) == [WAITING, ACCEPTED]


def test_the_close_control_refuses(question):
    question.window.close()
    assert question.answer() == {"Acknowledge": 0}
    assert events(question.watch) == [WAITING, REFUSED]


def test_no_other_key_answers(desk, question):
    question.window.key("y", "n", "o", "alt+y", "F1", "Delete", "Left", "a")
    time.sleep(0.3)
    assert question.window.is_there() and not question.call.is_over()
    question.withdraw()
    question.answer()


def test_what_was_typed_when_it_appeared_does_not_answer(desk):
    question = Question(desk)
    desk.screen.key("Tab", "Return", "space", "Escape")
    time.sleep(DEAF_S)
    assert question.window.is_there() and not question.call.is_over()
    question.withdraw()
    assert question.answer() == {}


def test_what_is_typed_while_a_window_above_it_closes_does_not_answer(desk, question):
    question.window.key("shift+Tab")
    above = Typewriter(desk.screen)
    desk.screen.key("a")
    wait_until(lambda: above.typed() == "a", what="the first key")
    above.close()
    wait_until(lambda: desk.screen.key("space", "Return") or question.window.is_active(),
               what="the question to be the active window again")
    desk.screen.key("space", "Return")
    time.sleep(DEAF_S)
    assert question.window.is_there() and not question.call.is_over()

    question.window.key("Escape")
    assert question.answer() == {"Acknowledge": 0}


def test_a_click_in_its_first_half_second_does_not_answer(desk):
    question = Question(desk)
    desk.click_button(question.window, 2)
    time.sleep(DEAF_S)
    assert question.window.is_there() and not question.call.is_over()

    desk.click_button(question.window, 2)
    assert question.answer() == {"Acknowledge": 1}


def test_a_withdrawn_question_has_no_answer(question):
    # Half of the time that a proxy has to answer: nobody waited for that to pass.
    begin = time.monotonic()
    question.withdraw()
    assert question.answer(5) == {}
    assert time.monotonic() - begin < 5
    assert events(question.watch) == [WAITING, WITHDRAWN]


def test_there_is_nothing_to_withdraw_without_a_question(desk):
    watch = AuditWatch(desk.agent)
    assert desk.call("CoreUtilsDestroyAckPopup")[0] == 0
    assert events(watch) == []


def test_one_question_at_a_time(desk, question):
    assert desk.call("CoreUtilsCheckClientAccept", DisplayAdminName="Richard Roe") == (
        0, {"Acknowledge": 2})
    assert desk.screen.windows() == [question.window]

    question.window.key("Escape")
    assert question.answer() == {"Acknowledge": 0}
    assert events(question.watch) == [WAITING, ANOTHER, REFUSED]
    again = Question(desk)
    again.withdraw()
    assert again.answer() == {}


@ON_LINUX
def test_nobody_is_logged_on(desk):
    # Wine always has a user.
    desk.log_off()
    watch = AuditWatch(desk.agent)
    assert desk.call("CoreUtilsCheckClientAccept", DisplayAdminName="Jane") == (
        0, {"Acknowledge": 3})
    assert events(watch) == [NOBODY]
    assert desk.screen.windows() == []


@pytest.fixture(scope="module")
def impatient_agent(made_desk):
    """Takes users for absent after a second."""
    return made_desk.start_agent("absence_after_s = 1\n")


@ON_LINUX
def test_the_user_has_touched_nothing_for_a_while(desk, impatient_agent):
    # Wine sees only what is touched in its own windows.
    def is_absent():
        return impatient_agent.call("CoreUtilsIsUserLogged")[1]["ScreenSaving"]

    wait_until(is_absent, what="the user to count as absent")
    watch = AuditWatch(impatient_agent)
    assert ask(desk, impatient_agent).result() == (0, {"Acknowledge": 4})
    assert events(watch) == [ABSENT]

    desk.screen.move(5, 5)
    assert not is_absent()
    question = Question(desk, impatient_agent)
    impatient_agent.call("CoreUtilsDestroyAckPopup")
    assert question.answer() == {}


@ON_WINDOWS
def test_the_user_of_windows_has_touched_nothing_for_a_while(desk, impatient_agent):
    def is_absent():
        return impatient_agent.call("CoreUtilsIsUserLogged")[1]["ScreenSaving"]

    assert desk.call("CoreUtilsShowDialog", Message="To be touched") == (0, {})
    window = desk.screen.wait_window()
    wait_until(lambda: window.click(30, 30) or not is_absent(), what="the user to be there")
    wait_until(is_absent, what="the user to count as absent")
    watch = AuditWatch(impatient_agent)
    assert ask(desk, impatient_agent).result() == (0, {"Acknowledge": 4})
    assert events(watch) == [ABSENT]
    wait_until(lambda: window.click(30, 30) or not is_absent(), what="the user to be back")
    assert desk.call("CoreUtilsCloseDialog")[0] == 0
    desk.screen.wait_free()


@ON_LINUX
def test_the_user_has_locked_the_session(desk):
    # On Windows the system's own lock cannot be brought about under Wine.
    desk.log_on(LockedHint=True)
    watch = AuditWatch(desk.agent)
    assert ask(desk).result() == (0, {"Acknowledge": 4})
    assert events(watch) == [ABSENT]


def test_a_killed_proxy_refuses_at_once(question, desk):
    begin = time.monotonic()
    desk.proxy.kill()
    assert question.answer() == {"Acknowledge": 0}
    assert time.monotonic() - begin < 2
    assert events(question.watch) == [WAITING, NO_PROXY]


def test_no_proxy_refuses(desk):
    desk.end_proxy()
    watch = AuditWatch(desk.agent)
    assert ask(desk).result() == (0, {"Acknowledge": 0})
    assert events(watch) == [NO_PROXY]


@ON_LINUX
def test_a_session_without_windows_has_no_answer(desk):
    # Sessions of Windows always have a display.
    desk.restart_proxy(DISPLAY="")
    watch = AuditWatch(desk.agent)
    assert ask(desk).result() == (0, {})
    assert events(watch) == [WAITING]
    desk.end_proxy()


def test_an_agent_that_stops_takes_the_question_with_it(desk):
    agent = desk.start_agent()
    question = Question(desk, agent)
    begin = time.monotonic()
    assert agent.stop() == 0, agent.describe()
    assert time.monotonic() - begin < 5
    desk.screen.wait_free()
    assert events(question.watch) == [WAITING, NO_PROXY]


def test_an_agent_that_is_killed_takes_the_question_with_it(desk):
    agent = desk.start_agent()
    Question(desk, agent)
    agent.process.send_signal(signal.SIGKILL)
    agent.process.wait()
    desk.screen.wait_free()


def test_others_than_administrators_may_not_ask(desk):
    for action in ("CoreUtilsCheckClientAccept", "CoreUtilsDestroyAckPopup"):
        status, _, _ = desk.agent.request("POST", "/v1/actions/" + action, b"{}", user="visitor")
        assert status == 403
    assert desk.screen.windows() == []


def pictures_of(desk, names, title=DIALOG_TITLE):
    """The window's picture for each name of an administrator."""
    pictures = []
    for name in names:
        question = Question(desk, name=name, title=title)
        desk.screen.move(1, 1)
        desk.screen.wait_still()
        pictures.append(question.window.picture())
        question.withdraw()
        question.answer()
    return pictures


def test_the_question_names_the_administrator(desk):
    first, again, other = pictures_of(desk, ["Jane Doe", "Jane Doe", "John Doe"])
    assert first == again
    assert first != other


ODD_NAMES = ["Jane Doe", "<b>Jane</b> & \"Doe\" _x %s {AdminName}"]


@ON_LINUX
@pytest.mark.parametrize("name", ODD_NAMES)
def test_screen_readers_read_the_question(desk, name):
    question = Question(desk, name=name)
    found = desk.read_screen()
    assert ("alert", DIALOG_TITLE) in found
    assert ("label", f"{QUESTION}\n\nName: {name}") in found
    assert [row for row in found if row[0] == "push button" and row[1] != "Close"] == [
        ("push button", "Yes"), ("push button", "No")]
    question.withdraw()
    assert question.answer() == {}


@ON_WINDOWS
@pytest.mark.parametrize("name", ODD_NAMES)
def test_other_programs_of_windows_read_the_question(desk, name):
    question = Question(desk, name=name)
    assert desk.window_texts() == [
        ("ZelProxyDialog", DIALOG_TITLE), ("Button", "Yes"), ("Button", "No"),
        ("Edit", rf"{QUESTION}\n\nName: {name}")]
    question.withdraw()
    assert question.answer() == {}


@pytest.mark.parametrize("name", [500 * "Press Yes to go on. ", 100 * "\n", 3_000 * "W"],
                         ids=["words", "lines", "letters"])
def test_no_name_moves_the_question_out_of_sight(desk, name):
    question = Question(desk, name=name)
    desk.screen.photograph("consent-long-name-" + desk.platform)
    texts = desk.read_screen() if desk.platform == "linux" else desk.window_texts()
    shown = [text for kind, text in texts if kind in ("label", "text", "Edit")]
    assert any(text.startswith(QUESTION) for text in shown), shown
    question.withdraw()
    assert question.answer() == {}


def test_a_name_is_no_markup_and_no_command(desk):
    question = Question(desk, name='<b>Jane</b> &_%s %n "-TopMost 1" \\ \x07\u202e\n' + 900 * "long ")
    assert desk.screen.windows() == [question.window]
    left, top, width, height = question.window.place()
    assert left >= 0 and left + width <= desk.screen.width
    assert top >= 0 and top + height <= desk.screen.height
    question.wait_for_hearing()
    desk.screen.photograph("consent-odd-name-" + desk.platform)
    desk.click_button(question.window, 2)
    assert question.answer() == {"Acknowledge": 1}


@ON_LINUX
@pytest.mark.parametrize("locale, title, question_text, buttons", [
    ("de_DE.UTF-8", "Nachricht Ihrer Systemverwaltung", "Jemand von Ihrer Systemverwaltung möchte "
     "sich mit diesem Computer verbinden und Ihren Bildschirm sehen. Erlauben Sie das?\n\n"
     "Name: Jane Doe", ["Ja", "Nein"]),
    ("fr_FR.UTF-8", "Message de votre administrateur", "Un administrateur demande à se connecter "
     "à cet ordinateur et à voir votre écran. L’autorisez-vous\u00a0?\n\nNom\u00a0: Jane Doe",
     ["Oui", "Non"]),
    ("ar_EG.UTF-8", "رسالة من مسؤول النظام",
     "يطلب أحد مسؤولي النظام الاتصال بهذا الحاسوب ورؤية شاشتك. هل تسمح بذلك؟\n\nالاسم: Jane Doe",
     ["نعم", "لا"]),
], ids=["de", "fr", "ar"])
def test_the_question_is_in_the_users_language(desk, locale, title, question_text, buttons):
    # scripts/wine-run gives all programs the same locale.
    desk.restart_proxy(LC_ALL=locale)
    # An agent remembers for some seconds what language the proxy speaks.
    question = Question(desk, desk.start_agent(), title=title).wait_for_hearing()
    desk.screen.photograph("consent-" + locale[:2])
    found = desk.read_screen()
    assert ("label", question_text) in found
    assert [name for role, name in found if role == "push button"][-2:] == buttons
    question.window.key("Escape")
    assert question.answer() == {"Acknowledge": 0}
    desk.end_proxy()
