"""Displays with twice as many dots per inch: what is shown there takes twice as many of them."""

import time

import pytest

from desks import DIALOG_TITLE, new_desk
from screens import DEAF_S, wait_until

BLACK = (0, 0, 0)


@pytest.fixture(scope="module")
def large_desk(platform):
    with new_desk(platform, scale=2) as made:
        yield made


def dialog_size(desk):
    """(width, height) of a dialog, which is answered by its first button."""
    call = desk.begin("CoreUtilsAdvanceDialog", Message="Shall the update begin?", ButtonOK="Now",
                      ButtonCancel="Later")
    window = desk.screen.wait_window(DIALOG_TITLE)
    time.sleep(DEAF_S)
    desk.screen.photograph(f"dialog-scale-{desk.scale}-{desk.platform}")
    size = window.place()[2:]
    desk.click_button(window, 2)
    assert call.result() == (0, {"Result": 1})
    desk.screen.wait_free()
    return size


def test_dialogs_are_larger_and_their_buttons_work(desk, large_desk):
    sizes = zip(dialog_size(desk), dialog_size(large_desk), strict=True)
    assert [1.8 < large / usual < 2.2 for usual, large in sizes] == [True, True]


def title_dots(desk):
    """How many bright pixels each monitor has while the screen is locked: those of the title."""
    assert desk.call("CoreUtilsLockDesktop", LockMessage="Please wait.")[0] == 0
    wait_until(lambda: desk.screen.picture().share_of(BLACK) == 0, what="a screen that is covered")
    desk.screen.wait_still()
    desk.screen.photograph(f"lock-scale-{desk.scale}-{desk.platform}")
    dots = [picture.count_bright() for picture in desk.screen.monitor_pictures()]
    assert desk.call("CoreUtilsUnlockDesktop")[0] == 0
    desk.screen.wait_free()
    return dots


def test_the_lock_is_written_larger_on_all_monitors(desk, large_desk):
    dots = list(zip(title_dots(desk), title_dots(large_desk), strict=True))
    # Four times as many, but that edges are smoothed.
    assert [3 < large / usual < 6 for usual, large in dots] == [True, True], dots
