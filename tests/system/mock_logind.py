"""A stand-in for systemd-logind on a message bus of its own."""

import contextlib
import os
import pathlib
import signal
import socket
import subprocess

import dbus.bus
import dbus.mainloop

from agents import clean_environment
from screens import wait_until

NAME = "org.freedesktop.login1"
ROOT = "/org/freedesktop/login1"
SESSION = NAME + ".Session"
MOCK = "org.freedesktop.DBus.Mock"
START_TIMEOUT_S = 20

# Whoever is on the bus may do anything: it is the test's own.
BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
  "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
"""


def wait_listening(path):
    """Waits for a listener at a socket: the socket itself is there a moment earlier."""
    def is_listening():
        with socket.socket(socket.AF_UNIX) as caller:
            return caller.connect_ex(str(path)) == 0

    wait_until(is_listening, START_TIMEOUT_S, f"a listener at {path}")


def end_programs(run_time_directory):
    """Ends what still runs in a session, as systemd does when its user has logged off: programs for
    accessibility may outlive the windows that asked for them."""
    mark = f"XDG_RUNTIME_DIR={run_time_directory}\0".encode()

    def killed():
        found = []
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if mark in (process / "environ").read_bytes():
                    os.kill(int(process.name), signal.SIGKILL)
                    found.append(process)
        return found

    wait_until(lambda: not killed(), START_TIMEOUT_S, "the session's programs to end")


class MockLogind:
    def __init__(self, directory):
        """`directory` has a short path and is empty."""
        self.address = f"unix:path={directory}/bus"
        self.environment = {"DBUS_SYSTEM_BUS_ADDRESS": self.address}
        self.processes = []
        try:
            self._start(directory)
        except BaseException:
            self.stop()
            raise

    def _start(self, directory):
        config = directory / "bus.conf"
        config.write_text(BUS.format(socket=directory / "bus"))
        self._run(["dbus-daemon", "--nofork", "--nopidfile", f"--config-file={config}"])
        wait_listening(directory / "bus")
        self._run(["/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"])
        self.bus = dbus.bus.BusConnection(self.address, mainloop=dbus.mainloop.NULL_MAIN_LOOP)
        wait_until(lambda: self.bus.name_has_owner(NAME), START_TIMEOUT_S, "the stand-in's name")

    def _run(self, command):
        self.processes.append(subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            env=clean_environment(**self.environment)))

    def stop(self):
        if hasattr(self, "bus"):
            self.bus.close()
        for process in reversed(self.processes):
            process.terminate()
            process.wait(START_TIMEOUT_S)

    def _call(self, path, method, *arguments):
        return self.bus.call_blocking(NAME, path, MOCK, method, None, arguments)

    def add_session(self, identifier, uid=0, user="root", display="", active=True, **properties):
        """A session at the seat, of a person with an X11 desktop but for what `properties` say."""
        self._call(ROOT, "AddSession", identifier, "seat0", dbus.UInt32(uid), user, active)
        self.change(identifier, **({"Type": "x11", "Display": display} | properties))

    def change(self, identifier, **properties):
        self._call(f"{ROOT}/session/{identifier}", "UpdateProperties", SESSION,
                   dbus.Dictionary(properties, signature="sv"))

    def remove_session(self, identifier):
        self._call(ROOT, "RemoveObject", f"{ROOT}/session/{identifier}")

    def sessions(self):
        rows = self.bus.call_blocking(NAME, ROOT, NAME + ".Manager", "ListSessions", "", ())
        return [str(row[0]) for row in rows]

    def clear(self):
        for one in self.sessions():
            self.remove_session(one)
