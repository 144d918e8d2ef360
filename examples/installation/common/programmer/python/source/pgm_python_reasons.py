"""Tells the host why a script fails.

While a host waits for a script it listens for the reasons of a failure and shows each of them as an error message of
its own. A script sends them just before it fails, either itself with send_reasons, or by raising Refusal in a function
that is marked with @tells_reasons.

The environment names the channel of the call in PGM_PYTHON_REASONS_CHANNEL. An older host names none and listens on a
port that is one a machine; so reasons go there only where PGM_PYTHON_BIN_DIR says that there is a host at all.
"""

import functools
import os

CHANNEL_VARIABLE = "PGM_PYTHON_REASONS_CHANNEL"
HOST_VARIABLE = "PGM_PYTHON_BIN_DIR"
PORT = 57343
DELIMITER = " !@#$^&*() "
MOST_BYTES = 2048
CUT = b"..."
ATTEMPTS = 3


class Refusal(Exception):
    """The input cannot be worked on; the reasons are texts that a person can act on."""

    def __init__(self, *reasons):
        super().__init__(*reasons)
        self.reasons = reasons

    def __str__(self):
        return "; ".join(text_of(reason) for reason in self.reasons)


def text_of(value):
    """The text of a value; the name of its type where the value does not give one."""
    try:
        return str(value)
    except Exception:
        return type(value).__name__


def split_into_lines(reasons):
    """The lines of the reasons: each is shown as a message of its own."""
    return [line for reason in reasons for line in text_of(reason).splitlines() if line]


def pack_reasons(reasons):
    """The bytes to send: whole lines as far as they go, then one that says how many more there were. A first line that
    is too long is cut at a whole character and ends in three dots."""
    delimiter = DELIMITER.encode("ascii")
    lines = [line.encode("utf-8", "backslashreplace") for line in split_into_lines(reasons)]
    # More than these cannot fit.
    for shown in range(min(len(lines), MOST_BYTES // len(delimiter) + 1), 0, -1):
        more = len(lines) - shown
        last = [b"and %d more reason%s" % (more, b"s" if more > 1 else b"")] if more else []
        packed = delimiter.join(lines[:shown] + last)
        if len(packed) <= MOST_BYTES:
            return packed
        if shown == 1:
            room = MOST_BYTES - len(packed) + len(lines[0]) - len(CUT)
            return delimiter.join([lines[0][:room].decode("utf-8", "ignore").encode("utf-8") + CUT] + last)
    return b""


def send_reasons(*reasons):
    """Sends the reasons to the host that waits for this script; True when there was one to take them."""
    packed = pack_reasons(reasons)
    channel = os.environ.get(CHANNEL_VARIABLE)
    if not packed:
        return False
    if channel:
        return send_on_channel(channel, packed)
    return HOST_VARIABLE in os.environ and send_to(("127.0.0.1", PORT), packed, False) is True


def send_on_channel(channel, packed):
    """Says the channel's word and sends; True when the host has taken it."""
    host, _, rest = channel.partition(":")
    port, _, word = rest.partition(":")
    if not (host and port.isdigit() and word):
        return False
    for _ in range(ATTEMPTS):
        taken = send_to((host, int(port)), word.encode("utf-8", "ignore") + b"\n" + packed, True)
        if taken is not None:
            return taken
    return False


def send_to(address, packed, waits):
    """True when the bytes were sent and, where that is waited for, the host has taken them; None when it has broken
    the connection off, as it does when too many want to be heard at once."""
    import socket

    try:
        connection = socket.create_connection(address, timeout=1.0)
    except (ConnectionResetError, ConnectionAbortedError):
        return None if waits else False
    except (OSError, OverflowError):
        return False
    with connection:
        if connection.getsockname() == address:
            return False  # nobody listens: the system has connected the socket to itself
        try:
            connection.sendall(packed)
        except socket.timeout:
            return False
        except OSError:
            return None if waits else False
        try:
            connection.shutdown(socket.SHUT_WR)
            if waits:
                connection.recv(1)
        except socket.timeout:
            return False
        except OSError:
            return None if waits else True
    return True


def describe(error):
    """The reasons of an exception; the name of its type where it does not give any."""
    try:
        if isinstance(error, Refusal):
            return tuple(error.reasons)
        if isinstance(error, OSError) and error.strerror:
            place = "%s: " % error.filename if error.filename is not None else ""
            return (place + str(error.strerror),)
        return ("%s: %s" % (type(error).__name__, error),)
    except Exception:
        return (type(error).__name__,)


def tells_reasons(function):
    """Marks a function whose exceptions are told to the host before they leave it. Of sys.exit only a text is told: a
    number says nothing."""

    @functools.wraps(function)
    def telling(*arguments, **keywords):
        try:
            return function(*arguments, **keywords)
        except Exception as error:
            send_reasons(*describe(error))
            raise
        except SystemExit as error:
            if isinstance(error.code, str):
                send_reasons(error.code)
            raise

    return telling


def run_main(main):
    """Ends a main program with the exit status that main() returns; what it raises becomes reasons and status 1.

    Started by hand, where no host listens, the reasons go to standard error.
    """
    import sys

    try:
        status = main()
    except Exception as error:
        reasons = describe(error)
        if not send_reasons(*reasons):
            for reason in reasons:
                print("error: %s" % text_of(reason), file=sys.stderr)
        status = 1
    sys.exit(status)
