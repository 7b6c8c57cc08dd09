"""A screen without hardware, with a window manager, and what a person would see and do on it."""

import array
import operator
import os
import pathlib
import re
import select
import socket
import struct
import subprocess
import sys
import tempfile
import time
import zlib

import Xlib.display
import Xlib.error
import Xlib.ext
import Xlib.support.unix_connect
from Xlib import X, XK, Xatom, Xutil

from agents import ROOT, clean_environment

# It stumbles over the numbers that extensions have in some servers, and none is needed.
Xlib.ext.__extensions__ = []


def abstract_socket(address):
    """A connection to the X server of this network namespace. In each it has the same number, and
    the socket among the files is that of whichever server was started last on the machine."""
    connection = socket.socket(socket.AF_UNIX)
    connection.connect("\0" + address.lstrip("\0"))
    return connection


# Other programs look there first by themselves.
Xlib.support.unix_connect._get_unix_socket = abstract_socket

SCREENSHOTS = ROOT / "build/test-logs/screenshots"
START_TIMEOUT_S = 20
WAIT_S = 10
# What a dialog that has just appeared does not listen to, and some more.
DEAF_S = 0.7


def wait_until(predicate, limit_s=WAIT_S, what="it"):
    """The first true value of `predicate`."""
    end = time.monotonic() + limit_s
    while True:
        value = predicate()
        if value:
            return value
        assert time.monotonic() < end, f"waited {limit_s} s for {what} in vain"
        time.sleep(0.02)


class Picture:
    """Pixels of a part of a screen, four bytes each: blue, green, red, nothing."""

    def __init__(self, width, height, data):
        self.width, self.height, self.data = width, height, data

    def __eq__(self, other):
        return (self.width, self.height, self.data) == (other.width, other.height, other.data)

    def pixel(self, x, y):
        start = 4 * (y * self.width + x)
        return self.data[start:start + 3]

    def _pixels(self):
        return array.array("I", self.data)

    def differing(self, other):
        """How many pixels are not the same."""
        assert (self.width, self.height) == (other.width, other.height)
        return sum(map(operator.ne, self._pixels(), other._pixels()))

    def is_like(self, other):
        """Toolkits do not always smooth the same edge in the same way."""
        return self.differing(other) < 100

    def share_of(self, colour):
        """The part of the pixels, 0 to 1, that have this colour."""
        pixels = self._pixels()
        # Nobody says what is in the fourth byte.
        count = sum(pixels.count(int.from_bytes(bytes(colour) + bytes([last]), sys.byteorder))
                    for last in (0, 255))
        return count / len(pixels)

    def count_bright(self):
        """How many pixels are nearly white."""
        is_bright = bytes(value > 200 for value in range(256))
        blue, green, red = (int.from_bytes(self.data[channel::4].translate(is_bright), "big")
                            for channel in range(3))
        return (blue & green & red).bit_count()

    def has_only(self, colour):
        return self.share_of(colour) == 1

    def keep(self, name):
        """As a file for those who look at what the tests have seen."""
        self.save(SCREENSHOTS / (re.sub(r"[^\w-]+", "-", name).strip("-") + ".png"))

    def save(self, file):
        rows = bytearray()
        for y in range(self.height):
            line = self.data[4 * y * self.width:4 * (y + 1) * self.width]
            row = bytearray(3 * self.width)
            row[0::3], row[1::3], row[2::3] = line[2::4], line[1::4], line[0::4]
            rows += b"\0" + row
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(png(self.width, self.height, bytes(rows)))


def png(width, height, rows):
    """A PNG file of rows of RGB pixels, each after a byte 0."""
    def chunk(name, content):
        return (struct.pack(">I", len(content)) + name + content
                + struct.pack(">I", zlib.crc32(name + content)))

    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(rows, 1)) + chunk(b"IEND", b""))


def plain_image(file, width, height, red_green_blue):
    """Makes a PNG of one colour."""
    file.write_bytes(png(width, height, (b"\0" + bytes(red_green_blue) * width) * height))
    return file


class Window:
    """A window that the window manager knows."""

    def __init__(self, screen, identifier):
        self.screen = screen
        self.id = identifier
        self.x_window = screen.x.create_resource_object("window", identifier)

    def __eq__(self, other):
        return isinstance(other, Window) and self.id == other.id

    def __hash__(self):
        return hash(self.id)

    def _property(self, name, kind):
        atom = self.screen.x.get_atom
        try:
            found = self.x_window.get_full_property(atom(name), kind)
        except Xlib.error.XError:  # gone
            return None
        return found and found.value

    def title(self):
        value = self._property("_NET_WM_NAME", self.screen.x.get_atom("UTF8_STRING"))
        if value is None:
            value = self._property("WM_NAME", X.AnyPropertyType) or b""
        return value.decode("utf-8", "replace") if isinstance(value, bytes) else value

    def states(self):
        value = self._property("_NET_WM_STATE", Xatom.ATOM)
        return {self.screen.x.get_atom_name(atom) for atom in value or []}

    def place(self):
        """(left, top, width, height) on the screen, without the frame."""
        size = self.x_window.get_geometry()
        corner = self.screen.root.translate_coords(self.x_window, 0, 0)
        return corner.x, corner.y, size.width, size.height

    def is_there(self):
        return self in self.screen.windows()

    def picture(self):
        return self.screen.picture(*self.place())

    def photograph(self, name):
        """Keeps what is seen of it, its frame included."""
        left, top, width, height = self.place()
        frame = self._property("_NET_FRAME_EXTENTS", Xatom.CARDINAL) or [0, 0, 0, 0]
        before, after, above, below = map(int, frame)
        self.screen.picture(left - before, top - above, width + before + after,
                            height + above + below).keep(name)

    def is_active(self):
        return self.screen.active_window() == self

    def activate(self):
        """Brings the window to the front, as a click in a list of windows would."""
        self.screen.ask_window_manager(self.x_window, "_NET_ACTIVE_WINDOW", 2)
        wait_until(self.is_active, what="the window to be the active one")

    def close(self):
        """Uses the window's close control."""
        self.screen.ask_window_manager(self.x_window, "_NET_CLOSE_WINDOW", 0, 2)

    def click(self, x, y):
        """Clicks at a point of the window; what is negative counts from the far edges."""
        left, top, width, height = self.place()
        self.screen.click(left + (x if x >= 0 else width + x), top + (y if y >= 0 else height + y))

    def key(self, *names):
        """Presses keys when the window has had time to listen."""
        wait_until(self.is_active, what="the window to be the active one")
        self.screen.key(*names)


class Typewriter:
    """A white window of the test's own that writes down the keys pressed in it."""

    def __init__(self, screen, title="typewriter", whole_screen=False):
        self.screen = screen
        self.keys = []
        self.clicks = 0
        self.x = Xlib.display.Display(screen.display)
        size = (screen.width, screen.height) if whole_screen else (200, 100)
        self.x_window = self.x.screen().root.create_window(
            0, 0, *size, 0, X.CopyFromParent, background_pixel=0xffffff,
            event_mask=X.KeyPressMask | X.ButtonPressMask)
        self.x_window.set_wm_name(title)
        self.x_window.set_wm_hints(flags=1, input=1)
        if whole_screen:
            # Neither frame nor place by the window manager.
            hints = self.x.get_atom("_MOTIF_WM_HINTS")
            self.x_window.change_property(hints, hints, 32, [2, 0, 0, 0, 0])
            self.x_window.set_wm_normal_hints(flags=Xutil.USPosition, x=0, y=0)
        self.x_window.map()
        self.x.sync()
        self.window = screen.wait_window(title)
        self.window.activate()

    def _read(self):
        while self.x.pending_events():
            event = self.x.next_event()
            if event.type == X.ButtonPress:
                self.clicks += 1
            elif event.type == X.KeyPress:
                self.keys.append(XK.keysym_to_string(self.x.keycode_to_keysym(event.detail, 0)))

    def typed(self):
        self.x.sync()
        self._read()
        return "".join(key or "?" for key in self.keys)

    def close(self):
        self.x_window.destroy()
        self.x.sync()
        self.x.close()


class Screen:
    """An X server of its own, with one monitor, and a window manager."""

    def __init__(self, width=1280, height=1024):
        self.processes = []
        self.width, self.height = width, height
        try:
            self._start()
        except BaseException:
            self.stop()
            raise

    def _server(self):
        """Its command line, without `-displayfd`."""
        return ["Xvfb", "-screen", "0", f"{self.width}x{self.height}x24"]

    def _prepare(self):
        """Called when the server runs."""

    def _start(self):
        reading, writing = os.pipe()
        self._run(self._server() + ["-displayfd", str(writing), "-nolisten", "tcp", "-noreset"],
                  pass_fds=[writing])
        os.close(writing)
        with os.fdopen(reading) as answer:
            assert select.select([answer], [], [], START_TIMEOUT_S)[0], "the X server says nothing"
            self.display = ":" + answer.readline().strip()
        assert self.display != ":", "the X server did not start"
        self._prepare()
        self.x = Xlib.display.Display(self.display)
        self.root = self.x.screen().root
        # The usual settings, but for buttons of title bars that windows here do not ask for: it does
        # not look at what they ask for.
        with tempfile.NamedTemporaryFile("w", suffix=".xml") as settings:
            usual = pathlib.Path("/etc/xdg/openbox/rc.xml").read_text()
            assert "<titleLayout>NLIMC<" in usual
            settings.write(usual.replace("<titleLayout>NLIMC<", "<titleLayout>LC<"))
            settings.flush()
            self._run(["openbox", "--sm-disable", "--config-file", settings.name],
                      env=clean_environment(DISPLAY=self.display, XDG_CONFIG_HOME="/nonexistent",
                                            XDG_CACHE_HOME="/nonexistent"))
            self._wait_window_manager()
        # Away from where windows appear.
        self.move(self.width - 1, self.height - 1)
        self.empty = self.picture()

    def _wait_window_manager(self):
        """It forgets windows that are mapped while it starts."""
        wait_until(lambda: self._root_property("_NET_SUPPORTING_WM_CHECK"), START_TIMEOUT_S,
                   "the window manager")
        probe = self.root.create_window(0, 0, 9, 9, 0, X.CopyFromParent)

        def manages():
            probe.unmap()
            probe.map()
            self.x.sync()
            time.sleep(0.05)
            return self.windows()

        wait_until(manages, START_TIMEOUT_S, "the window manager to manage")
        probe.destroy()
        wait_until(lambda: not self.windows(), what="the probe to go")

    def _run(self, command, **options):
        self.processes.append(subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, **options))

    def stop(self):
        if hasattr(self, "x"):
            self.x.close()
        for process in reversed(self.processes):
            process.terminate()
            process.wait(START_TIMEOUT_S)

    # Virtual desktops.

    def current_desktop(self):
        return self._root_property("_NET_CURRENT_DESKTOP")[0]

    def switch_desktop(self, number):
        """As a click in a pager would."""
        assert number < self._root_property("_NET_NUMBER_OF_DESKTOPS")[0]
        self.ask_window_manager(self.root, "_NET_CURRENT_DESKTOP", number)
        wait_until(lambda: self.current_desktop() == number, what="the other desktop")

    def _root_property(self, name):
        found = self.root.get_full_property(self.x.get_atom(name), X.AnyPropertyType)
        return found and list(found.value)

    def ask_window_manager(self, x_window, request, *values):
        message = Xlib.protocol.event.ClientMessage(
            window=x_window, client_type=self.x.get_atom(request),
            data=(32, (list(values) + [0] * 5)[:5]))
        self.root.send_event(message, X.SubstructureRedirectMask | X.SubstructureNotifyMask)
        self.x.sync()

    # Windows.

    def windows(self, title=None):
        """Windows with a title, all without one, the oldest first."""
        found = [Window(self, one) for one in self._root_property("_NET_CLIENT_LIST") or []]
        return [one for one in found if title is None or one.title() == title]

    def stacking(self):
        """All windows, the lowest first."""
        return [Window(self, one) for one in self._root_property("_NET_CLIENT_LIST_STACKING") or []]

    def active_window(self):
        value = self._root_property("_NET_ACTIVE_WINDOW")
        return Window(self, value[0]) if value and value[0] else None

    def wait_window(self, title=None):
        """The only window with that title."""
        found = wait_until(lambda: self.windows(title), what=f"a window {title!r}")
        assert len(found) == 1, [one.title() for one in found]
        return found[0]

    def wait_free(self, limit_s=WAIT_S):
        """Waits until nothing is on the screen but its background."""
        wait_until(lambda: not self.windows() and self.picture() == self.empty, limit_s,
                   "an empty screen, without " + str([one.title() for one in self.windows()]))

    # Pictures.

    def picture(self, left=0, top=0, width=None, height=None):
        width = min(width or self.width, self.width - left)
        height = min(height or self.height, self.height - top)
        image = self.root.get_image(left, top, width, height, X.ZPixmap, 0xffffffff)
        return Picture(width, height, image.data)

    def monitor_pictures(self):
        return [self.picture(*place) for place in self.monitors()]

    def photograph(self, name):
        picture = self.picture()
        picture.keep(name)
        return picture

    def wait_still(self, place=None):
        """The picture when it has not changed for a while."""
        pictures = [self.picture(*(place or ()))]

        def still():
            time.sleep(0.1)
            pictures.append(self.picture(*(place or ())))
            return len(pictures) > 3 and all(one == pictures[-1] for one in pictures[-4:])

        wait_until(still, what="a picture that stays")
        return pictures[-1]

    def monitors(self):
        """(left, top, width, height) of each."""
        return [(0, 0, self.width, self.height)]

    # Hands.

    def _do(self, *commands):
        subprocess.run(["xdotool", *map(str, commands)], check=True, timeout=START_TIMEOUT_S,
                       env=clean_environment(DISPLAY=self.display), stdout=subprocess.DEVNULL)

    def move(self, x, y):
        self._do("mousemove", x, y)

    def click(self, x, y):
        self._do("mousemove", x, y, "click", "--delay", 0, 1)

    def key(self, *names):
        """Presses keys one after the other: "Escape", "alt+F4"."""
        self._do("key", *names)


class TwoMonitors(Screen):
    """A screen whose monitors stand side by side, both of 800 by 600 pixels, or `scale` times that.
    Xvfb has but one, so this is the X server of TigerVNC, which has as many as its viewer asks
    for."""

    def __init__(self, directory, scale=1):
        self.socket = directory / "rfb"
        self.monitor = (800 * scale, 600 * scale)
        super().__init__(2 * self.monitor[0], self.monitor[1])

    def _server(self):
        return ["Xtigervnc", "-geometry", f"{self.width}x{self.height}", "-depth", "24",
                "-SecurityTypes", "None", "-rfbport", "-1", "-rfbunixpath", str(self.socket)]

    def monitors(self):
        return [(0, 0, *self.monitor), (self.monitor[0], 0, *self.monitor)]

    def _prepare(self):
        """Asks for two monitors, as a viewer of remote desktops does (RFC 6143 and its extension
        ExtendedDesktopSize)."""
        with socket.socket(socket.AF_UNIX) as viewer:
            viewer.settimeout(START_TIMEOUT_S)
            viewer.connect(str(self.socket))
            stream = viewer.makefile("rwb")

            def exchange(message, expected):
                stream.write(message)
                stream.flush()
                return stream.read(expected)

            exchange(stream.read(12), 2)  # the version; one way to log on
            exchange(b"\1", 4)            # none at all
            name_length = exchange(b"\1", 24)[20:]
            stream.read(int.from_bytes(name_length, "big"))
            extended_desktop_size = struct.pack(">BxHi", 2, 1, -308)
            ask_for_all = struct.pack(">BBHHHH", 3, 0, 0, 0, 8, 8)
            monitors = b"".join(struct.pack(">IHHHHI", 1 + number, *place, 0)
                                for number, place in enumerate(self.monitors()))
            set_size = struct.pack(">BxHHBx", 251, self.width, self.height, 2) + monitors
            exchange(extended_desktop_size + ask_for_all + set_size, 16)
            wait_until(lambda: "Monitors: 2" in subprocess.run(
                ["xrandr", "--display", self.display, "--listmonitors"], capture_output=True,
                text=True, check=True).stdout, START_TIMEOUT_S, "two monitors")
