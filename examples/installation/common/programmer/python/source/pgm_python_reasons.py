"""Tells the host why a script fails.

While a host waits for a script it listens on a local port for the reasons of a failure and shows each of them as
an error message of its own. A script sends them just before it fails, either itself with send_reasons, or by
raising Refusal in a function that is marked with @tells_reasons.
"""

import functools

PORT = 57343
DELIMITER = " !@#$^&*() "
MOST_BYTES = 2048


class Refusal(Exception):
    """The input cannot be worked on; the reasons are texts that a person can act on."""

    def __init__(self, *reasons):
        super().__init__(*reasons)
        self.reasons = reasons

    def __str__(self):
        return "; ".join(str(reason) for reason in self.reasons)


def pack_reasons(reasons):
    """The bytes to send: as many whole reasons as fit, a first one that is too long cut at a whole character."""
    packed = b""
    for reason in reasons:
        text = str(reason)
        if not text:
            continue
        piece = text.encode("utf-8", "backslashreplace")
        if not packed:
            packed = piece[:MOST_BYTES].decode("utf-8", "ignore").encode("utf-8")
            continue
        longer = packed + DELIMITER.encode("ascii") + piece
        if len(longer) > MOST_BYTES:
            break
        packed = longer
    return packed


def send_reasons(*reasons):
    """Sends the reasons to the host that waits for this script; True when there was one to take them."""
    import socket

    packed = pack_reasons(reasons)
    if not packed:
        return False
    try:
        connection = socket.create_connection(("127.0.0.1", PORT), timeout=1.0)
    except OSError:
        return False
    with connection:
        try:
            connection.sendall(packed)
        except OSError:
            return False
        try:
            connection.shutdown(socket.SHUT_WR)
        except OSError:
            pass
    return True


def describe(error):
    """The reasons of an exception."""
    if isinstance(error, Refusal):
        return error.reasons
    if isinstance(error, OSError) and error.strerror:
        place = "%s: " % error.filename if error.filename is not None else ""
        return (place + error.strerror,)
    return ("%s: %s" % (type(error).__name__, error),)


def tells_reasons(function):
    """Marks a function whose exceptions are told to the host before they leave it."""

    @functools.wraps(function)
    def telling(*arguments, **keywords):
        try:
            return function(*arguments, **keywords)
        except Exception as error:
            send_reasons(*describe(error))
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
                print("error: %s" % reason, file=sys.stderr)
        status = 1
    sys.exit(status)
