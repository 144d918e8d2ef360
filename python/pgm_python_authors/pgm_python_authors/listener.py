"""The program's end of the back channel, for the time of one call.

Scripts tell reasons either to the fixed port or to the listener that the environment entry of a call names; this
offers both.
"""

import binascii
import os
import select
import socket
import threading
import time

from pgm_python_authors.operations import DELIMITER, MOST_BYTES, PORT

# How long a failed call waits for reasons that are still on their way, in seconds.
GRACE = 0.5


def split_reasons(text):
    """The reasons in a text, as the program splits them: each ends at its first zero character."""
    return [piece.split("\0")[0] for piece in text.split(DELIMITER) if piece]


def listening_socket(host, port):
    """A listening socket, or None where the port is taken."""
    listening = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        listening.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listening.bind((host, port))
        listening.listen(5)
    except OSError:
        listening.close()
        return None
    return listening


class Listener:
    """Gathers reasons between `with` and its end."""

    def __init__(self, uses_fixed_port=True):
        self._word = binascii.hexlify(os.urandom(16)).decode("ascii")
        self._fixed = listening_socket("0.0.0.0", PORT) if uses_fixed_port else None
        self._announced = listening_socket("127.0.0.1", 0)
        # Whether scripts that know the fixed port only are heard.
        self.has_fixed_port = self._fixed is not None
        self._received = b""
        self._announced_text = b""
        self._heard_fixed = False
        self._done = threading.Event()
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._serve, daemon=True)

    @property
    def announcement(self):
        """The value of the environment entry that names this listener."""
        if self._announced is None:
            return ""
        return "127.0.0.1:%d:%s" % (self._announced.getsockname()[1], self._word)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *error):
        self._ended.set()
        self._thread.join()
        for listening in (self._fixed, self._announced):
            if listening is not None:
                listening.close()

    def reasons(self, failed=True):
        """The reasons that came; after a failed call those on their way are waited for."""
        self._done.wait(GRACE if failed else 0.0)
        # That of the announced channel counts when both have delivered.
        return split_reasons((self._announced_text or self._received).decode("utf-8", "replace"))

    def _serve(self):
        while not self._ended.is_set():
            waiting = [each for each in (self._announced, None if self._heard_fixed else self._fixed) if each]
            if not waiting:
                return
            ready = select.select(waiting, [], [], 0.05)[0]
            for listening in ready:
                try:
                    connection = listening.accept()[0]
                except OSError:
                    continue
                with connection:
                    if listening is self._fixed:
                        self._take_fixed(connection)
                    else:
                        self._take_announced(connection)

    def _take_fixed(self, connection):
        # One connection and one receive.
        self._heard_fixed = True
        connection.settimeout(5.0)
        try:
            received = connection.recv(MOST_BYTES)
        except OSError:
            return
        if received:
            self._received = received
            self._done.set()

    def _take_announced(self, connection):
        # The word and a line feed, then the text; the sender waits for the end of the connection.
        wanted = self._word.encode("ascii") + b"\n"
        received = b""
        end = time.monotonic() + 5.0
        connection.settimeout(1.0)
        while len(received) < len(wanted) + MOST_BYTES and time.monotonic() < end:
            try:
                part = connection.recv(len(wanted) + MOST_BYTES - len(received))
            except OSError:
                break
            if not part:
                break
            received += part
        if received.startswith(wanted) and len(received) > len(wanted) and not self._announced_text:
            self._announced_text = received[len(wanted):]
            self._done.set()
