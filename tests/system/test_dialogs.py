"""Messages in front of the logged-on user."""

import re
import time

import pytest

from desks import DIALOG_TITLE
from screens import DEAF_S, plain_image, wait_until

RED = (255, 0, 0)
RED_ON_SCREEN = (0, 0, 255)  # blue first
ODD_TEXTS = {
    "quotes": 'a "quoted" text, 100 % of it, %s %n \\ back\\slash \\" and \'',
    "option": 'x" -TopMost 1',
    "options": '" -InformationPopupTimeOut 1 -n "other" -TopMost 1 -ImagePath "',
    "markup": "<b>no markup</b> &amp; &mnemonic _mnemonic </span>",
    "hebrew": "שלום \u200fabc\u200e",
}


CANNOT_CLOSE_PREVIOUS = "Cannot reach the proxy to close the previous dialog box !"
CANNOT_CLOSE = "Cannot reach the proxy to close the dialog box !"
CANNOT_SHOW = "Cannot display the message box !"


def errors_of(desk, action, **parameters):
    """What the module says of a call in the agent's log; the call answers as if all were well."""
    before = len(desk.agent.log())
    code, _ = desk.call(action, **parameters)
    assert code == 0
    return re.findall(r"Cannot .* box !", desk.agent.log()[before:])


class Dialog:
    """One that waits for the user."""

    def __init__(self, desk, title=DIALOG_TITLE, **parameters):
        self.desk = desk
        if title != DIALOG_TITLE:
            parameters["Title"] = title
        self.call = desk.begin("CoreUtilsAdvanceDialog", **parameters)
        self.window = desk.screen.wait_window(title)
        time.sleep(DEAF_S)

    def result(self, limit_s=10):
        """What the caller learns; the window is gone then."""
        code, container = self.call.result(limit_s)
        assert code == 0 and list(container) == ["Result"]
        wait_until(lambda: not self.window.is_there(), what="the window to go")
        return container["Result"]

    def escape(self):
        self.window.key("Escape")
        return self.result()


BOTH = {"Message": "Shall the update begin now?", "ButtonOK": "Now", "ButtonCancel": "Later"}


def test_the_first_of_two_buttons(desk):
    dialog = Dialog(desk, **BOTH)
    desk.screen.move(1, 1)
    desk.screen.wait_still()
    dialog.window.photograph("dialog-" + desk.platform)
    desk.click_button(dialog.window, 2)
    assert dialog.result() == 1
    desk.screen.wait_free()


def test_the_second_of_two_buttons(desk):
    dialog = Dialog(desk, **BOTH)
    desk.click_button(dialog.window, 1)
    assert dialog.result() == 0


@pytest.mark.parametrize("labels", [{"ButtonOK": "Fine"}, {"ButtonCancel": "Oh no"}, {}],
                         ids=["ok", "cancel", "none"])
def test_the_only_button(desk, labels):
    dialog = Dialog(desk, Message="The update is done.", **labels)
    desk.click_button(dialog.window)
    assert dialog.result() == 1


@pytest.mark.parametrize("labels, result", [(BOTH, 0), ({"ButtonOK": "Fine"}, 1), ({}, 1)],
                         ids=["two", "one", "none"])
def test_the_close_control_is_the_last_button(desk, labels, result):
    dialog = Dialog(desk, **({"Message": "Closed soon"} | labels))
    dialog.window.close()
    assert dialog.result() == result


def test_escape_is_the_last_button(desk):
    assert Dialog(desk, **BOTH).escape() == 0


def test_a_time_out_ends_it(desk):
    begin = time.monotonic()
    dialog = Dialog(desk, TimeOut=2, **BOTH)
    assert dialog.result() == 2
    assert 1.9 < time.monotonic() - begin < 5
    desk.screen.wait_free()


def seconds_left(desk):
    """What the dialog on the screen says."""
    found = [re.fullmatch(r"Closes in (\d+):(\d\d)", text) for text in desk.texts()]
    minutes, seconds = next(one for one in found if one).groups()
    return 60 * int(minutes) + int(seconds)


def test_shows_how_much_time_is_left(desk):
    begin = time.monotonic()
    dialog = Dialog(desk, TimeOut=65, **BOTH)
    appeared = time.monotonic() - DEAF_S
    desk.screen.photograph("dialog-time-left-" + desk.platform)

    def read():
        # What is shown may be old by the second that it stands for, and by what a busy machine takes.
        most = 65 - (time.monotonic() - appeared) + 2.5
        left = seconds_left(desk)
        assert 65 - (time.monotonic() - begin) <= left <= most
        return left

    first = read()
    wait_until(lambda: read() <= first - 2, what="two seconds to pass")
    assert dialog.escape() == 0


@pytest.mark.parametrize("seconds", [0, 4294967295])
def test_dialogs_that_stay(desk, seconds):
    dialog = Dialog(desk, TimeOut=seconds, **BOTH)
    assert not dialog.call.is_over()
    desk.click_button(dialog.window, 2)
    assert dialog.result() == 1


def test_title_and_message_are_shown(desk):
    pictures = []
    for message in ("One message", "Another text"):
        dialog = Dialog(desk, title="Maintenance at 5 o'clock", Message=message)
        pictures.append(dialog.window.picture())
        assert dialog.escape() == 1
    assert pictures[0] != pictures[1]


def test_an_image_is_shown(desk, tmp_path):
    image = plain_image(tmp_path / "an image.png", 100, 80, RED)
    dialog = Dialog(desk, title="With image", Path=desk.agent.path(image), Message="Look at that")
    desk.screen.photograph("dialog-image-" + desk.platform)
    picture = dialog.window.picture()
    shown = picture.share_of(RED_ON_SCREEN) * picture.width * picture.height
    assert abs(shown - 100 * 80) < 100
    assert dialog.escape() == 1


def test_a_large_image_is_shown_smaller(desk, tmp_path):
    image = plain_image(tmp_path / "image.png", 3200, 2400, RED)
    dialog = Dialog(desk, Path=desk.agent.path(image), Message="Look at that")
    picture = dialog.window.picture()
    shown = picture.share_of(RED_ON_SCREEN) * picture.width * picture.height
    assert abs(shown - 320 * 240) < 2000
    assert dialog.escape() == 1


def broken_images(directory):
    whole = plain_image(directory / "whole.png", 50, 50, RED).read_bytes()
    yield directory / "nowhere.png"
    yield directory
    for name, content in (("empty", b""), ("text", b"no image at all\n"), ("cut", whole[:60]),
                          ("large", whole + bytes(17 << 20))):
        file = directory / (name + ".png")
        file.write_bytes(content)
        yield file
    yield plain_image(directory / "wide.png", 8193, 1, RED)


def test_an_image_of_too_many_pixels_is_left_out(desk, tmp_path):
    image = plain_image(tmp_path / "image.png", 8000, 4001, RED)
    assert image.stat().st_size < 1 << 20
    dialog = Dialog(desk, Path=desk.agent.path(image), Message="Look at that")
    assert dialog.window.picture().share_of(RED_ON_SCREEN) == 0
    assert dialog.escape() == 1


def test_what_is_no_image_is_left_out(desk, tmp_path):
    paths = list(broken_images(tmp_path))
    calls = [desk.begin("CoreUtilsAdvanceDialog", Message="No image", ButtonOK="Fine",
                        Path=desk.agent.path(path)) for path in paths]
    wait_until(lambda: len(desk.screen.windows(DIALOG_TITLE)) == len(paths), what="all dialogs")
    assert desk.screen.wait_still().share_of(RED_ON_SCREEN) == 0
    desk.end_proxy()
    assert [call.result() for call in calls] == len(paths) * [(0, {"Result": 0})]


@pytest.mark.parametrize("text", ODD_TEXTS.values(), ids=ODD_TEXTS)
def test_odd_texts_are_shown_as_they_are(desk, text):
    dialog = Dialog(desk, title=text, Message=text, ButtonOK=text, ButtonCancel=text)
    assert desk.screen.windows() == [dialog.window]
    assert "_NET_WM_STATE_ABOVE" not in dialog.window.states()
    desk.screen.photograph(f"dialog-odd-{list(ODD_TEXTS.values()).index(text)}-{desk.platform}")
    if "TimeOut" in text:
        time.sleep(0.5)
    assert dialog.escape() == 0


def test_control_characters_harm_nothing(desk):
    text = "".join(chr(code) for code in [*range(1, 32), 127, 0x202e, 0x2066, 0xfffe, 0x1f600])
    call = desk.begin("CoreUtilsAdvanceDialog", Title="t" + text, Message="m" + text,
                      ButtonOK="o" + text, ButtonCancel="c" + text)
    window = desk.screen.wait_window()
    assert window.title().startswith("t") and len(window.title()) > 10
    assert not set(window.title()) & {chr(code) for code in range(32)}
    desk.screen.photograph("dialog-control-characters-" + desk.platform)
    time.sleep(DEAF_S)
    window.key("Escape")
    assert call.result() == (0, {"Result": 0})


@pytest.mark.parametrize("text", [2000 * "words ", 10_000 * "W", 3000 * "line\n", 100_000 * "X"],
                         ids=["words", "one word", "lines", "as long as texts may be"])
def test_long_texts_stay_on_the_screen(desk, text):
    dialog = Dialog(desk, Message=text, ButtonOK=text, ButtonCancel="No")
    desk.screen.photograph(f"dialog-long-{text[:4]}-{desk.platform}")
    left, top, width, height = dialog.window.place()
    assert left >= 0 and left + width <= desk.screen.width
    assert top >= 0 and top + height <= desk.screen.height
    assert dialog.escape() == 0


def test_a_long_title_harms_nothing(desk):
    call = desk.begin("CoreUtilsAdvanceDialog", Title=10_000 * "T", Message="m", ButtonOK="Fine")
    window = desk.screen.wait_window()
    left, _, width, _ = window.place()
    assert left >= 0 and left + width <= desk.screen.width
    time.sleep(DEAF_S)
    desk.click_button(window)
    assert call.result() == (0, {"Result": 1})


def test_two_at_once(desk):
    first = Dialog(desk, title="First", **BOTH)
    second = Dialog(desk, title="Second", **BOTH)
    assert set(desk.screen.windows()) == {first.window, second.window}
    assert first.window.place()[:2] != second.window.place()[:2]
    desk.screen.photograph("dialogs-two-" + desk.platform)

    desk.click_button(second.window, 2)
    assert second.result() == 1
    assert not first.call.is_over()
    first.window.activate()
    time.sleep(DEAF_S)
    assert first.escape() == 0


def test_stays_above_others(desk):
    high = Dialog(desk, title="High", TopMost=1, **BOTH)
    low = Dialog(desk, title="Low", TopMost=0, **BOTH)
    low.window.activate()
    wait_until(lambda: desk.screen.stacking()[-1] == high.window, what="the high one to be highest")
    assert desk.screen.active_window() == low.window
    time.sleep(DEAF_S)
    assert low.escape() == 0
    high.window.activate()
    time.sleep(DEAF_S)
    assert high.escape() == 0


def test_no_proxy_answers_as_if_refused(desk):
    desk.end_proxy()
    assert desk.call("CoreUtilsAdvanceDialog", **BOTH) == (0, {"Result": 0})
    assert desk.call("CoreUtilsShowDialog", Message="Nobody sees it") == (0, {})
    assert desk.call("CoreUtilsCloseDialog")[0] == 0


def test_a_proxy_that_is_killed_ends_it(desk):
    dialog = Dialog(desk, **BOTH)
    desk.proxy.kill()
    assert dialog.result(2) == 0


@pytest.mark.parametrize("action, texts", [
    ("CoreUtilsCloseDialog", [CANNOT_CLOSE]),
    ("CoreUtilsShowDialog", [CANNOT_CLOSE_PREVIOUS, CANNOT_SHOW]),
], ids=["close", "show"])
def test_a_proxy_that_was_killed_under_a_message_is_told_in_the_log(desk, action, texts):
    assert desk.call("CoreUtilsShowDialog", Message="The first") == (0, {})
    desk.screen.wait_window(DIALOG_TITLE)
    desk.proxy.kill()
    desk.screen.wait_free()
    assert errors_of(desk, action, Message="The second one") == texts
    # What was not shown is not there to be closed.
    closing = [CANNOT_CLOSE] if CANNOT_SHOW in texts else []
    assert errors_of(desk, "CoreUtilsCloseDialog") == closing

    desk.restart_proxy()
    assert errors_of(desk, "CoreUtilsShowDialog", Message="The third one") == []
    desk.screen.wait_window(DIALOG_TITLE)
    assert errors_of(desk, "CoreUtilsCloseDialog") == []
    desk.screen.wait_free()


def test_a_message_without_buttons_stays_until_the_next_one(desk):
    assert desk.call("CoreUtilsShowDialog", Message="The first") == (0, {})
    first = desk.screen.wait_window(DIALOG_TITLE)
    desk.screen.photograph("dialog-shown-" + desk.platform)
    time.sleep(DEAF_S)
    first.key("Escape", "Return", "space")
    first.close()
    time.sleep(0.3)
    assert first.is_there()

    assert desk.call("CoreUtilsShowDialog", Message="The second one") == (0, {})
    wait_until(lambda: not first.is_there(), what="the first one to go")
    desk.screen.wait_window(DIALOG_TITLE)

    assert desk.call("CoreUtilsCloseDialog")[0] == 0
    desk.screen.wait_free()
    assert desk.call("CoreUtilsCloseDialog")[0] == 0


def test_other_programs_read_a_message_without_buttons(desk):
    assert desk.call("CoreUtilsShowDialog", Message="Read to those who listen") == (0, {})
    desk.screen.wait_window(DIALOG_TITLE)
    assert "Read to those who listen" in desk.texts()
    assert desk.call("CoreUtilsCloseDialog")[0] == 0
    desk.screen.wait_free()


def test_dialogs_go_with_their_agent(desk):
    agent = desk.start_agent()
    assert agent.call("CoreUtilsShowDialog", Message="A message") == (0, {})
    dialog = desk.begin("CoreUtilsAdvanceDialog", agent=agent, Title="A question", **BOTH)
    desk.screen.wait_window("A question")
    assert len(desk.screen.windows()) == 2
    begin = time.monotonic()
    assert agent.stop() == 0, agent.describe()
    assert time.monotonic() - begin < 5
    desk.screen.wait_free()
    wait_until(dialog.is_over, what="the call to end")


def test_others_than_administrators_may_not_show_dialogs(desk):
    for action in ("CoreUtilsShowDialog", "CoreUtilsCloseDialog", "CoreUtilsAdvanceDialog"):
        status, _, _ = desk.agent.request("POST", "/v1/actions/" + action, b"{}", user="visitor")
        assert status == 403
