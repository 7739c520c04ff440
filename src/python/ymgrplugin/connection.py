"""The stream socket to the daemon. Nothing here waits but Connection.wait()."""

from __future__ import annotations

import select
import socket
import time

from .errors import ConnectionLost
from .messages import FrameReader, Reply, Request, parse_message

_READ_SIZE = 256 * 1024


class Connection:
    def __init__(self, path: str, limit: int) -> None:
        """OSError when the daemon can not be reached."""
        self._reader = FrameReader(limit)
        self._unsent = memoryview(b"")
        self._is_ended = False
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
        try:
            self._socket.connect(path)
        except OSError:
            self._socket.close()
            raise

    def fileno(self) -> int:
        return self._socket.fileno()

    def close(self) -> None:
        self._socket.close()

    @property
    def has_unsent(self) -> bool:
        return len(self._unsent) > 0

    def send(self, frame: bytes) -> None:
        """Sends now what the socket takes; flush() the rest."""
        self._unsent = memoryview(bytes(self._unsent) + frame if self._unsent else frame)
        self.flush()

    def flush(self) -> None:
        try:
            while self._unsent:
                self._unsent = self._unsent[self._socket.send(self._unsent) :]
        except BlockingIOError:
            pass
        except OSError as error:
            raise ConnectionLost(f"sending failed: {error.strerror}") from None

    def receive(self) -> list[Request | Reply]:
        """The messages that have arrived. What came before the end of the connection is still given out."""
        messages: list[Request | Reply] = []
        try:
            while not self._is_ended:
                data = self._socket.recv(_READ_SIZE)
                self._is_ended = not data
                messages += [parse_message(text) for text in self._reader.feed(data)]
        except BlockingIOError:
            pass
        except OSError as error:
            raise ConnectionLost(f"receiving failed: {error.strerror}") from None
        except ValueError as error:
            raise ConnectionLost(f"the daemon can not be understood: {error}") from None
        if self._is_ended and not messages:
            raise ConnectionLost("the daemon has gone")
        return messages

    def wait(self, deadline: float) -> bool:
        """Until something arrives, sending meanwhile; False when time.monotonic() has reached `deadline`."""
        poller = select.poll()
        while True:
            poller.register(self._socket, select.POLLIN | (select.POLLOUT if self.has_unsent else 0))
            left = deadline - time.monotonic()
            ready = poller.poll(left * 1000) if left > 0 else []
            if not ready:
                return False
            if ready[0][1] & select.POLLOUT:
                self.flush()
            if ready[0][1] & ~select.POLLOUT:
                return True
