"""A stand-in for the user-session proxy that shows nothing: a test says what the person answers."""

import itertools
import os
import socket
import struct
import threading
import xml.etree.ElementTree as ElementTree
from xml.sax.saxutils import escape, quoteattr

FIRST_BUTTON, SECOND_BUTTON, CLOSE_BUTTON, NO_BUTTON = 100, 101, 102, 0


class Dialog:
    def __init__(self, text, buttons):
        self.text, self.buttons = text, buttons
        self.button = NO_BUTTON
        self.is_open = True
        self.answer_show = None


class ScriptedProxy:
    """Serves at `pipe` until `stop`. `press(dialog)` tells the button that the person uses, or None to
    leave the dialog open."""

    def __init__(self, pipe, press=lambda dialog: CLOSE_BUTTON):
        self.pipe = str(pipe)
        self.press = press
        self.requests = {}
        self._dialogs = {}
        self._numbers = itertools.count(1)
        self._holders = set()
        self._lock = threading.RLock()
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(self.pipe)
        os.chmod(self.pipe, 0o600)
        self._listener.listen(128)
        threading.Thread(target=self._accept, daemon=True).start()

    def stop(self):
        # A thread that accepts is not woken by the close alone.
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        os.unlink(self.pipe)

    def open_dialogs(self):
        with self._lock:
            return len(self._dialogs)

    def is_locked(self):
        with self._lock:
            return bool(self._holders)

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        own = []
        with connection:
            try:
                while message := receive(connection):
                    self._handle(connection, own, message)
            except OSError:
                pass
        with self._lock:
            self._holders.discard(connection)
            for number in own:
                self._dialogs.pop(number, None)

    def _handle(self, connection, own, message):
        name, identifier, fields = message

        def reply(code=0, **values):
            send(connection, name, identifier, code, values)

        with self._lock:
            self.requests[name] = self.requests.get(name, 0) + 1
            if name.startswith("dialog-"):
                self._handle_dialog(own, name, fields, reply)
            elif name == "session":
                reply(userName="alice", sessionId="c7", platform="linux", processId=os.getpid(),
                      startedAt=1700000000, language="en", display="yes")
            elif name == "absence":
                reply(idleMs=0, screenLocked="no")
            elif name == "lock-text" and not self._holders:
                reply(-1, reason="the screen is not locked")
            else:
                if name == "lock":
                    self._holders.add(connection)
                if name == "unlock":
                    self._holders.clear()
                reply()

    def _handle_dialog(self, own, name, fields, reply):
        if name == "dialog-create":
            number = next(self._numbers)
            self._dialogs[number] = Dialog(fields["text"], int(fields["buttons"]))
            own.append(number)
            return reply(dialog=number)
        dialog = self._dialogs.get(int(fields["dialog"]))
        if name == "dialog-close":
            self._end(dialog, NO_BUTTON)
            return reply()
        if dialog is None:
            return reply(-1, reason="there is no such dialog")
        if name == "dialog-state":
            return reply(isOpen="yes" if dialog.is_open else "no", button=dialog.button)
        if fields.get("wait") != "1":
            return reply()
        dialog.answer_show = lambda: reply(button=dialog.button)
        if not dialog.is_open:
            return dialog.answer_show()
        button = self.press(dialog)
        if button is not None:
            self._end(dialog, button)

    def _end(self, dialog, button):
        if dialog is None or not dialog.is_open:
            return
        dialog.is_open, dialog.button = False, button
        if dialog.answer_show:
            dialog.answer_show()


def receive_bytes(connection, count):
    received = b""
    while len(received) < count:
        piece = connection.recv(count - len(received))
        if not piece:
            return None
        received += piece
    return received


def receive(connection):
    """(name, id, fields) of the next message; None at the end."""
    header = receive_bytes(connection, 4)
    if header is None:
        return None
    document = receive_bytes(connection, struct.unpack(">I", header)[0])
    if document is None:
        return None
    root = ElementTree.fromstring(document)
    return root.get("name"), root.get("id"), {field.get("name"): field.text or "" for field in root}


def send(connection, name, identifier, code, values):
    fields = "".join(f"<field name={quoteattr(key)}>{escape(str(value))}</field>\n"
                     for key, value in values.items())
    document = (f'<?xml version="1.0" encoding="UTF-8"?>\n<message kind="reply" name="{name}" '
                f'id="{identifier}" code="{code}">\n{fields}</message>\n').encode()
    connection.sendall(struct.pack(">I", len(document)) + document)
