"""Peers that do not play by the rules: they say nothing, too much, or stop in the middle."""

import contextlib
import socket
import struct
import threading
import time

from silent_network import NETBIOS_SESSION, own_loopback

WAIT_S = 60

# Sessions of NetBIOS (RFC 1002 section 4.3): a type, then a length of 17 bits.
MESSAGE, POSITIVE_RESPONSE, NEGATIVE_RESPONSE, KEEP_ALIVE = 0x00, 0x82, 0x83, 0x85
SMB2_HEADER = 64
SMB2_SIGNATURE = slice(4 + 48, 4 + 64)


def frame(kind, content=b""):
    return struct.pack("!BBH", kind, len(content) >> 16, len(content) & 0xFFFF) + content


def read_exactly(connection, count):
    data = b""
    while len(data) < count:
        part = connection.recv(count - len(data))
        if not part:
            raise ConnectionError("the other side has closed")
        data += part
    return data


def read_frame(connection):
    header = read_exactly(connection, 4)
    kind, high, low = struct.unpack("!BBH", header)
    return header + read_exactly(connection, (high & 1) << 16 | low)


class Peer:
    """Listens at an address and has `behave(connection)` deal with each caller; whatever that
    raises ends the connection. Counts those who were served and those who still are."""

    def __init__(self, behave, address=None, port=NETBIOS_SESSION):
        self._behave = behave
        self._listener = socket.create_server((address or own_loopback(), port))
        self._lock = threading.Lock()
        self._open = set()
        self.served = 0
        threading.Thread(target=self._accept, daemon=True).start()

    @property
    def address(self):
        return self._listener.getsockname()[0]

    @property
    def port(self):
        return self._listener.getsockname()[1]

    def share(self):
        return rf"\\{self.address}\files"

    def count_open(self):
        with self._lock:
            return len(self._open)

    def close(self):
        # A thread that waits for callers would keep the listener.
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        with self._lock:
            for one in self._open:
                with contextlib.suppress(OSError):
                    one.shutdown(socket.SHUT_RDWR)

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                connection, _ = self._listener.accept()
                with self._lock:
                    self._open.add(connection)
                    self.served += 1
                threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        connection.settimeout(WAIT_S)
        try:
            with contextlib.suppress(OSError):
                self._behave(connection)
        finally:
            with self._lock:
                self._open.discard(connection)
            connection.close()


# What a peer may do with a connection on which the caller expects `data`.


def stay_silent(connection, data=b""):
    """Until the caller goes."""
    while connection.recv(65536):
        pass


def close(connection, data=b""):
    pass


def reset(connection, data=b""):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def send_half(connection, data=b""):
    connection.sendall(data[:len(data) // 2] or b"\x82")


def send_without_content(connection, data):
    """A message of the right kind that holds nothing."""
    connection.sendall(frame(data[0]))
    stay_silent(connection)


def send_too_short(connection, data):
    """A message that ends within its header, and says so."""
    connection.sendall(frame(data[0], data[4:24]))
    stay_silent(connection)


def send_without_tail(connection, data):
    """A message whose offsets and lengths point behind its end."""
    connection.sendall(frame(data[0], data[4:-1][:SMB2_HEADER + 4]))
    stay_silent(connection)


def announce_too_much(connection, data):
    connection.sendall(frame(data[0], data[4:] + bytes(100))[:len(data)])


def announce_huge(connection, data=b""):
    """As long as a message can say that it is, and then without an end."""
    connection.sendall(b"\x00\x01\xff\xff")
    while True:
        connection.sendall(bytes(65536))


def send_garbage(connection, data):
    """Of the right length and kind."""
    connection.sendall(data[:4] + bytes(i * 151 & 0xFF for i in range(len(data) - 4)))
    stay_silent(connection)


def send_all_ones(connection, data):
    """The right header and, behind it, numbers that are as large as they can be."""
    begin = 4 + SMB2_HEADER + 2
    connection.sendall(data[:begin] + b"\xff" * (len(data) - begin))
    stay_silent(connection)


def speak_http(connection, data=b""):
    connection.sendall(b"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n")
    stay_silent(connection)


def send_endlessly(connection, data=b""):
    while True:
        connection.sendall(b"\xa5" * 65536)


def drip(connection, data=b""):
    """A byte at a time: each one comes long before anybody loses patience."""
    for byte in data or bytes(WAIT_S):
        connection.sendall(bytes([byte]))
        time.sleep(1)


def keep_alive(connection, data=b""):
    """Nothing but signs of life."""
    while True:
        connection.sendall(frame(KEEP_ALIVE))
        time.sleep(0.1)


def promise(connection, data):
    """Again and again: the answer is still being worked on (STATUS_PENDING)."""
    header = bytearray(data[4:4 + SMB2_HEADER])
    struct.pack_into("<I", header, 8, 0x00000103)
    struct.pack_into("<I", header, 16, struct.unpack_from("<I", header, 16)[0] | 0x2)
    pending = frame(MESSAGE, bytes(header) + struct.pack("<HBBIB", 9, 0, 0, 0, 0))
    while True:
        connection.sendall(pending)
        time.sleep(0.1)


def spoil_signature(connection, data):
    spoiled = bytearray(data)
    spoiled[SMB2_SIGNATURE] = bytes(byte ^ 0xFF for byte in spoiled[SMB2_SIGNATURE])
    connection.sendall(spoiled)
    stay_silent(connection)


class FaultyFileServer(Peer):
    """In front of a file server: passes everything on, but to the caller's request `number` (from
    0) answers with `fault(connection, right answer)`."""

    def __init__(self, server, fault, number):
        def behave(connection):
            with socket.create_connection((server.address, NETBIOS_SESSION), WAIT_S) as upstream:
                for passed in range(100):
                    upstream.sendall(read_frame(connection))
                    answer = read_frame(upstream)
                    if passed == number:
                        fault(connection, answer)
                        return
                    connection.sendall(answer)

        super().__init__(behave)
