"""The lock of the desktop, as whoever sits in front of it meets it."""

import concurrent.futures
import contextlib
import threading
import time

import pytest

from agents import START_TIMEOUT_S
from desks import DIALOG_TITLE, ON_LINUX, ON_WINDOWS, new_desk
from screens import Typewriter, wait_until

WHITE = (255, 255, 255)
TITLE = "This computer is locked"


def lock(desk, message="The machine is being updated.", agent=None):
    code, _ = (agent or desk.agent).call("CoreUtilsLockDesktop", LockMessage=message)
    if code == 0 and desk.platform == "windows":
        # Wine tells the X server of its windows a moment later.
        wait_until(lambda: is_covered(desk), what="a covered screen")
    return code


def unlock(desk):
    return desk.call("CoreUtilsUnlockDesktop")[0]


def change(desk, message):
    return desk.call("CoreUtilsSetLockMessageText", LockMessage=message)[0]


def restore(desk):
    return desk.call("CoreUtilsRestoreDesktopLockState")[0]


@pytest.fixture
def typewriter(desk):
    """A white window over the whole screen, whatever is on it."""
    made = Typewriter(desk.screen, whole_screen=True)
    wait_until(lambda: desk.screen.picture().has_only(WHITE), what="a white screen")
    yield made
    made.close()


def is_covered(desk):
    """Nothing of the typewriter can be seen: what is white is the lock's title."""
    return desk.screen.picture().share_of(WHITE) < 0.03


def is_free(desk):
    return desk.screen.picture().has_only(WHITE)


def wait_covered(desk):
    wait_until(lambda: is_covered(desk), what="a covered screen")


def wait_free(desk):
    wait_until(lambda: is_free(desk), what="a free screen")


def abandon_lock(desk, end_agent):
    """What waits until the lock of an agent that ends now has gone, and tells after how long."""
    corner = desk.screen.picture(0, 0, 1, 1)

    def is_free():
        return desk.screen.picture(0, 0, 1, 1) == corner

    assert lock(desk) == 0
    wait_until(lambda: not is_free(), what="a lock that is painted")
    end_agent(desk.agent)
    begin = time.monotonic()
    assert not is_free()

    def wait_free():
        wait_until(is_free, 40, "the screen to become free")
        return time.monotonic() - begin

    return wait_free


# The desks' proxies are not the agents' own, which would end with an agent that stops.
ENDS = {"killed": lambda agent: agent.kill(), "stopped": lambda agent: agent.stop()}


@pytest.fixture(scope="session")
def abandoned_locks():
    """Locks of desks of their own, whose agents have ended: after how many seconds each has gone."""
    # What measures the time is the same on all platforms. Half a minute is long for one test: the
    # others go on meanwhile.
    with contextlib.ExitStack() as ending:
        desks = {how: ending.enter_context(new_desk("linux")) for how in ENDS}
        watcher = ending.enter_context(concurrent.futures.ThreadPoolExecutor(len(ENDS)))
        yield {how: watcher.submit(abandon_lock(desks[how], end)) for how, end in ENDS.items()}


@pytest.mark.first
@pytest.mark.parametrize("how", ENDS)
def test_a_lock_stays_when_its_agent_has_ended(abandoned_locks, how):
    assert not abandoned_locks[how].done()


def test_a_lock_covers_all_monitors(desk, typewriter):
    assert lock(desk) == 0
    assert is_covered(desk)
    desk.screen.wait_still()
    pictures = desk.screen.monitor_pictures()
    pictures[0].keep("lock-" + desk.platform)
    assert len(pictures) == 2
    for picture in pictures:
        assert picture.share_of(WHITE) < 0.05
        corners = [picture.pixel(x, y) for x in (0, picture.width - 1)
                   for y in (0, picture.height - 1)]
        assert bytes(WHITE) not in corners

    assert unlock(desk) == 0
    wait_free(desk)


def shown_texts(desk):
    """(title, message) of each monitor, as screen readers find them."""
    if desk.platform == "windows":
        return [tuple(text.split("\\n", 1)) for name, text in desk.window_texts()
                if name == "ZelProxyLock"]
    labels = [name for role, name in desk.read_screen() if role == "label"]
    return list(zip(labels[0::2], labels[1::2]))


def test_screen_readers_read_title_and_message(desk, typewriter):
    assert lock(desk, "The machine is being updated.") == 0
    assert shown_texts(desk) == 2 * [(TITLE, "The machine is being updated.")]
    assert change(desk, "Two minutes more.") == 0
    assert shown_texts(desk) == 2 * [(TITLE, "Two minutes more.")]
    assert unlock(desk) == 0


def rows_of_things(picture):
    """(top, bottom) of each thing that stands out from the background, the sign and lines of text."""
    rows = []
    for y in range(picture.height):
        line = picture.data[4 * y * picture.width:4 * (y + 1) * picture.width]
        is_background = max(line[1::4]) < 90  # its green is darker than that of all else
        if is_background:
            continue
        if rows and rows[-1][1] == y:
            rows[-1] = (rows[-1][0], y + 1)
        else:
            rows.append((y, y + 1))
    return rows


def test_title_and_message_are_painted_below_the_sign(desk, typewriter):
    assert lock(desk, "The machine is being updated.") == 0
    desk.screen.wait_still()
    for picture in desk.screen.monitor_pictures():
        sign, title, message = rows_of_things(picture)
        assert title[1] - title[0] > message[1] - message[0]

    with desk.talk() as talk:
        assert talk.ask("lock-text", title="", text="The machine is being updated.") == 0
    desk.screen.wait_still()
    for picture in desk.screen.monitor_pictures():
        sign, message = rows_of_things(picture)
    assert unlock(desk) == 0


def test_a_lock_begins_without_the_message_of_the_one_before(desk, typewriter):
    assert lock(desk, "Only for those who were here") == 0
    assert unlock(desk) == 0
    with desk.talk() as talk:
        assert talk.ask("lock") == 0
        wait_covered(desk)
        assert shown_texts(desk) == 2 * [
            (TITLE, "Keyboard and mouse are locked while work is being done on this computer. "
                    "Please wait.")]
        assert talk.ask("unlock") == 0


@ON_LINUX
def test_the_title_is_in_the_users_language(desk, typewriter):
    # scripts/wine-run gives all programs the same locale.
    desk.restart_proxy(LC_ALL="de_DE.UTF-8")
    # An agent remembers for some seconds what language the proxy speaks.
    agent = desk.start_agent()
    assert lock(desk, "Bis gleich.", agent) == 0
    desk.screen.photograph("lock-de")
    assert shown_texts(desk) == 2 * [("Dieser Computer ist gesperrt", "Bis gleich.")]
    assert agent.call("CoreUtilsUnlockDesktop")[0] == 0
    desk.end_proxy()


def test_locks_add_up(desk, typewriter):
    for _ in range(3):
        assert lock(desk) == 0
    for _ in range(2):
        assert unlock(desk) == 0
        assert is_covered(desk)
    assert unlock(desk) == 0
    wait_free(desk)
    assert unlock(desk) == 1


def test_the_message_is_shown_and_changes(desk, typewriter):
    def wait_other_than(*pictures):
        wait_until(lambda: not any(desk.screen.picture().is_like(one) for one in pictures),
                   what="another picture")
        return desk.screen.wait_still()

    desk.screen.move(3, 3)
    assert lock(desk, "One message") == 0
    wait_covered(desk)
    first = desk.screen.wait_still()
    assert change(desk, "Quite another message of more words") == 0
    second = wait_other_than(first)
    assert 100 < first.differing(second) < desk.screen.width * desk.screen.height / 4
    assert change(desk, "One message") == 0
    wait_until(lambda: desk.screen.picture().is_like(first), what="the first message again")
    assert lock(desk, "A third one, with the second lock") == 0
    assert not wait_other_than(first).is_like(second)
    for _ in range(2):
        assert unlock(desk) == 0


@pytest.mark.parametrize("message", ["", 10_000 * "long ", "<b>&amp; %s \x07\u202e\" \\ _a", 500 * "l\n"],
                         ids=["none", "long", "odd", "lines"])
def test_any_message_can_be_shown(desk, typewriter, message):
    assert lock(desk, message) == 0
    assert is_covered(desk)
    desk.screen.photograph(f"lock-message-{message[:4]}-{desk.platform}")
    assert unlock(desk) == 0
    wait_free(desk)


def test_there_is_no_message_without_a_lock(desk):
    assert change(desk, "Nobody sees it") == 1
    assert unlock(desk) == 1
    assert restore(desk) == 0
    desk.screen.wait_free()


def test_keys_and_pointer_reach_nothing(desk, typewriter):
    desk.screen.key("a")
    wait_until(lambda: typewriter.typed() == "a", what="the first key")
    assert lock(desk) == 0

    keys = ["b", "Return", "Escape", "space", "alt+F4", "ctrl+w"]
    # The window manager of the tests takes some keys before Wine sees them.
    desk.screen.key(*keys, *(["alt+Tab", "super+e"] if desk.platform == "linux" else []))
    for x, y in ((10, 10), (400, 300), (1200, 300)):
        desk.screen.click(x, y)
    time.sleep(0.5)
    assert is_covered(desk)
    assert typewriter.typed() == "a" and typewriter.clicks == 0
    assert typewriter.window.is_there()

    assert unlock(desk) == 0
    wait_free(desk)
    typewriter.window.activate()
    desk.screen.key("c")
    wait_until(lambda: typewriter.typed() == "ac", what="the key after the lock")


class PushingWindow:
    """A window of another program of Windows that wants to be in front of all others."""

    def __init__(self, desk):
        self.desk = desk
        self.program = desk.start_windows_program("pushing_window")
        self.lines = []
        self.reader = threading.Thread(target=lambda: self.lines.extend(
            line.decode().strip() for line in self.program.stdout))
        self.reader.start()
        wait_until(lambda: self.lines == ["ready"], START_TIMEOUT_S, "a window that pushes")

    def touch(self):
        self.desk.screen.key("x")
        self.desk.screen.click(60, 60)

    def wait_reached(self):
        """Until a key and a click reach it, which must first get in front, and its hooks."""
        before = len(self.lines)
        expected = {"key 88", "click 513", "heard key 88", "heard click 513"}
        wait_until(lambda: self.touch() or expected <= set(self.lines[before:]),
                   what="a key and a click")

    def close(self):
        self.program.kill()
        self.program.wait()
        self.reader.join()


@ON_WINDOWS
def test_keys_and_pointer_reach_no_window_that_pushes_forward(desk):
    # On Linux the X server itself gives all input to who holds it.
    window = PushingWindow(desk)
    try:
        window.wait_reached()
        time.sleep(0.5)
        assert desk.call("CoreUtilsLockDesktop", LockMessage="Hands off")[0] == 0
        before = list(window.lines)
        for _ in range(10):
            window.touch()
        time.sleep(0.5)
        assert window.lines == before
        assert unlock(desk) == 0
        window.wait_reached()
    finally:
        window.close()


@pytest.fixture
def first_virtual_desktop(desk):
    yield
    desk.screen.switch_desktop(0)


@ON_LINUX
def test_a_lock_covers_all_virtual_desktops(desk, typewriter, first_virtual_desktop):
    # Those of Windows are not Wine's, and programs under Wine know nothing of the window manager's.
    desk.screen.key("ctrl+alt+Right")
    wait_until(lambda: desk.screen.current_desktop() == 1, what="the desktop that a key leads to")
    desk.screen.switch_desktop(0)
    wait_free(desk)

    desk.screen.move(3, 3)
    assert lock(desk) == 0
    locked = desk.screen.wait_still()
    desk.screen.key("ctrl+alt+Right")
    time.sleep(0.5)
    assert desk.screen.current_desktop() == 0
    for number in (1, 0):
        desk.screen.switch_desktop(number)
        wait_until(lambda: desk.screen.picture().is_like(locked), what="the lock")
    assert unlock(desk) == 0
    wait_free(desk)


def test_dialogs_that_appear_meanwhile_stay_below(desk, typewriter):
    assert lock(desk) == 0
    assert desk.call("CoreUtilsShowDialog", Message="Below the lock") == (0, {})
    desk.screen.wait_window(DIALOG_TITLE)
    time.sleep(0.3)
    assert is_covered(desk)
    assert unlock(desk) == 0
    wait_until(lambda: not is_covered(desk), what="a screen without the lock")
    assert desk.call("CoreUtilsCloseDialog")[0] == 0
    wait_free(desk)


@ON_LINUX
def test_windows_that_appear_meanwhile_stay_below(desk, typewriter):
    # Wine knows nothing of other windows on its X server.
    assert lock(desk) == 0
    other = Typewriter(desk.screen, title="other", whole_screen=True)
    wait_covered(desk)
    time.sleep(0.3)
    assert is_covered(desk)
    other.close()
    assert unlock(desk) == 0
    wait_free(desk)


def test_a_restored_lock_is_as_it_was(desk, typewriter):
    assert lock(desk, "A message to be kept") == 0
    desk.screen.move(3, 3)
    before = desk.screen.wait_still()
    desk.proxy.kill()
    wait_free(desk)
    assert restore(desk) == 1

    desk.restart_proxy()
    assert restore(desk) == 0
    wait_until(lambda: desk.screen.picture().is_like(before), what="the lock as it was")
    assert restore(desk) == 0
    assert unlock(desk) == 0
    wait_free(desk)


def test_without_a_proxy_there_is_no_lock(desk, typewriter):
    desk.end_proxy()
    assert lock(desk) == 1
    assert unlock(desk) == 1
    assert restore(desk) == 0


@ON_LINUX
def test_without_a_display_there_is_no_lock(desk):
    # Sessions of Windows always have one.
    desk.restart_proxy(DISPLAY="")
    assert lock(desk) == 1
    assert unlock(desk) == 1
    desk.end_proxy()


@ON_LINUX
def test_sessions_of_wayland_are_not_locked(desk, typewriter):
    desk.restart_proxy(XDG_SESSION_TYPE="wayland")
    assert lock(desk) == 1
    wait_free(desk)
    desk.end_proxy()


def test_an_unlock_that_nobody_hears_counts(desk, typewriter):
    assert lock(desk) == 0
    desk.end_proxy()
    assert unlock(desk) == 1
    assert unlock(desk) == 1
    wait_free(desk)


def test_another_agent_inherits_the_screen_of_one_that_has_stopped(desk, typewriter):
    agent = desk.start_agent()
    assert lock(desk, agent=agent) == 0
    assert agent.stop() == 0
    assert is_covered(desk)
    assert lock(desk) == 0
    assert unlock(desk) == 0
    wait_free(desk)


@pytest.mark.last
@pytest.mark.parametrize("how", ENDS)
def test_a_lock_whose_agent_has_ended_goes_in_time(abandoned_locks, how):
    assert 25 < abandoned_locks[how].result(45) < 33
