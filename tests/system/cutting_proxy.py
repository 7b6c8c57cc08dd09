"""A proxy in front of an agent that spoils uploads on their way to it."""

import contextlib
import select
import socket
import struct
import threading

PIECE = 16 * 1024
WAIT_S = 30
# Calls bring less over TLS, handshake and certificates included.
MOST_CALL_BYTES = 16 * 1024


class CuttingProxy:
    """Passes on what it gets, until an upload has brought `after` bytes.

    An upload is a connection that begins with PUT or, over TLS, any: choose `after` beyond
    MOST_CALL_BYTES there, so that no call is struck.

    `fault`: None (nothing happens), "cut" (reset in both directions), "half-close" (the agent sees
    the end, the client nothing), "stall" (nothing is passed on any more) or "hold" (nothing until
    `release`)."""

    def __init__(self, upstream):
        self.upstream = upstream
        self.fault = None
        self.after = 0
        #: Set when the fault has come about.
        self.struck = threading.Event()
        self._released = threading.Event()
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._open = []
        threading.Thread(target=self._accept, daemon=True).start()

    def address(self):
        return self._listener.getsockname()

    def strike(self, fault, after):
        self.fault, self.after = fault, after
        self.struck.clear()
        self._released.clear()

    def release(self):
        self._released.set()

    def close(self):
        self._listener.close()
        for one in self._open:
            with contextlib.suppress(OSError):
                one.close()

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                client, _ = self._listener.accept()
                threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        try:
            agent = socket.create_connection(self.upstream, WAIT_S)
        except OSError:
            client.close()
            return
        self._open += [client, agent]
        # ValueError: `close` has taken a socket away.
        with client, agent, contextlib.suppress(OSError, ValueError):
            self._pass_on(client, agent)

    def _pass_on(self, client, agent):
        """One thread for both directions: a socket that another one waits on would not close."""
        is_upload, passed = None, 0
        listening = {client, agent}
        while listening:
            ready, _, _ = select.select(list(listening), [], [])
            if agent in ready:
                data = agent.recv(PIECE)
                if data:
                    client.sendall(data)
                else:
                    # What the client still sends is taken: a reset would cost it the reply.
                    client.shutdown(socket.SHUT_WR)
                    listening.discard(agent)
            if client not in ready:
                continue
            data = client.recv(PIECE)
            if not data:
                agent.shutdown(socket.SHUT_WR)
                listening.discard(client)
                continue
            if is_upload is None:
                is_upload = data.startswith((b"PUT ", b"\x16\x03"))
            if is_upload and self.fault and passed + len(data) >= self.after:
                part = self.after - passed
                agent.sendall(data[:part])
                if self._strike(client, agent):
                    agent.sendall(data[part:])
                else:
                    listening.discard(client)
            else:
                agent.sendall(data)
            passed += len(data)

    def _strike(self, client, agent):
        """Whether what the client sends is passed on again."""
        fault, self.fault = self.fault, None
        # First: whoever hears of the cut may ask at once.
        self.struck.set()
        if fault == "cut":
            for one in (client, agent):
                one.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                one.close()
            raise ConnectionAbortedError
        if fault == "half-close":
            agent.shutdown(socket.SHUT_WR)
        return fault == "hold" and self._released.wait(WAIT_S)
