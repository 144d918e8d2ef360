"""Makes nothing, and fails for the families "broken" and "refused", for the latter with reasons."""

REASONS = ("the first reason", "the second reason")


def tell(reasons):
    import socket

    try:
        with socket.create_connection(("127.0.0.1", 57343)) as connection:
            connection.sendall(" !@#$^&*() ".join(reasons).encode())
            connection.shutdown(socket.SHUT_WR)
            connection.recv(1)
    except OSError:
        pass


def external_make_rim_function(file, family, number, output):
    if number != -2 or file != "design.rbf" or output != "design.rim":
        raise AssertionError("other arguments were given")
    if family == "broken":
        raise RuntimeError
    if family == "refused":
        tell(REASONS)
        raise RuntimeError(*REASONS)
