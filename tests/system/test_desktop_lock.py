"""The lock of the desktop, as whoever sits in front of it meets it."""

import concurrent.futures
import time

import pytest

from desks import DIALOG_TITLE, ON_LINUX, new_desk
from screens import Typewriter, wait_until

WHITE = (255, 255, 255)


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


@pytest.fixture(scope="session")
def abandoned_lock():
    """A lock of a desk of its own, whose agent is killed now: after how many seconds it has gone."""
    # What measures the time is the same on all platforms. Half a minute is long for one test: the
    # others go on meanwhile.
    with new_desk("linux") as desk, concurrent.futures.ThreadPoolExecutor(1) as watcher:
        corner = desk.screen.picture(0, 0, 1, 1)

        def is_free():
            return desk.screen.picture(0, 0, 1, 1) == corner

        assert lock(desk) == 0
        wait_until(lambda: not is_free(), what="a lock that is painted")
        begin = time.monotonic()
        desk.agent.kill()

        def wait_free():
            wait_until(is_free, 40, "the screen to become free")
            return time.monotonic() - begin

        yield watcher.submit(wait_free)


@pytest.mark.first
def test_a_lock_stays_when_its_agent_is_killed(abandoned_lock):
    assert not abandoned_lock.done()


def test_a_lock_covers_all_monitors(desk, typewriter):
    assert lock(desk) == 0
    assert is_covered(desk)
    desk.screen.photograph("lock-" + desk.platform)
    pictures = desk.screen.monitor_pictures()
    assert len(pictures) == 2
    for picture in pictures:
        assert picture.share_of(WHITE) < 0.05
        corners = [picture.pixel(x, y) for x in (0, picture.width - 1)
                   for y in (0, picture.height - 1)]
        assert bytes(WHITE) not in corners

    assert unlock(desk) == 0
    wait_free(desk)


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


def test_an_agent_that_stops_frees_the_screen_in_time(desk, typewriter):
    agent = desk.start_agent()
    assert lock(desk, agent=agent) == 0
    agent.stop()
    assert is_covered(desk)
    # Another agent that wants the lock inherits the screen.
    assert lock(desk) == 0
    assert unlock(desk) == 0
    wait_free(desk)


@pytest.mark.last
def test_a_lock_whose_agent_was_killed_goes_in_time(abandoned_lock):
    assert 25 < abandoned_lock.result(45) < 33
