"""Files and commands, as the scripts of the programmer use them."""

import os

from pgm_python_reasons import Refusal


def read_file(path, what, most_bytes=None):
    """The bytes of a regular file; what names it in the reasons."""
    if not os.path.exists(path):
        raise Refusal("%s %s does not exist" % (what, path))
    if not os.path.isfile(path):
        raise Refusal("%s %s is not a regular file" % (what, path))
    if most_bytes is not None and os.path.getsize(path) > most_bytes:
        raise Refusal("%s %s is larger than %d bytes" % (what, path, most_bytes))
    try:
        with open(path, "rb") as stream:
            return stream.read()
    except OSError as error:
        raise Refusal("%s %s cannot be read: %s" % (what, path, error.strerror))


def write_file(path, data, mode=0o666):
    """Writes a file whole or not at all: readers see the old one or the new one."""
    folder, name = os.path.split(os.path.abspath(path))
    if not os.path.isdir(folder):
        raise Refusal("folder %s does not exist" % folder, "make it, or name another place for %s" % name)
    if os.path.isdir(path):
        raise Refusal("%s is a folder, a file is to be written there" % path)
    unfinished = os.path.join(folder, ".%s.%s" % (name[:100], os.urandom(6).hex()))
    try:
        flags = os.O_WRONLY | os.O_CREAT | os.O_EXCL | getattr(os, "O_BINARY", 0)
        with open(os.open(unfinished, flags, mode), "wb") as stream:
            stream.write(data)
            stream.flush()
            os.fsync(stream.fileno())
        os.replace(unfinished, path)
    except OSError as error:
        raise Refusal("%s cannot be written: %s" % (path, error.strerror))
    finally:
        if os.path.lexists(unfinished):
            os.remove(unfinished)


def run_command(arguments, data=None, timeout=60, environment=None, without=()):
    """Runs a command without a shell and returns (exit status, standard output, last line of standard error).

    It sees this process's environment with the entries of environment added and those named in without left out.
    """
    import subprocess

    variables = dict(os.environ, LC_ALL="C")
    variables.update(environment or {})
    for name in without:
        variables.pop(name, None)
    feed = {"stdin": subprocess.DEVNULL} if data is None else {"input": data}
    try:
        done = subprocess.run(arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=timeout,
                              env=variables, creationflags=getattr(subprocess, "CREATE_NO_WINDOW", 0), **feed)
    except FileNotFoundError:
        raise Refusal("the command %s is not installed" % arguments[0],
                      "install it, or put its folder on PATH")
    except subprocess.TimeoutExpired:
        raise Refusal("the command %s did not end within %d seconds" % (arguments[0], timeout))
    lines = done.stderr.decode("utf-8", "replace").strip().splitlines()
    return done.returncode, done.stdout, lines[-1].strip() if lines else ""
