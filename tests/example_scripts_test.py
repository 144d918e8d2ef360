"""Tests of the scripts of the example installation, run with plain Python on their sources.

The host's listener is played by the tests on a free port, so that they disturb no host that runs beside them; one
test uses the real port.
"""

import contextlib
import hashlib
import io
import json
import os
import py_compile
import shutil
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.dont_write_bytecode = True

HERE = os.path.dirname(os.path.abspath(__file__))
EXAMPLES = os.path.join(os.path.dirname(HERE), "examples")
INSTALLATION = os.path.join(EXAMPLES, "installation")
DATA = os.path.join(EXAMPLES, "data")
COMMON = os.path.join(INSTALLATION, "common", "programmer")
UNSHIPPED = os.path.join(INSTALLATION, "unshipped", "programmer")
NETWORK = os.path.join(INSTALLATION, "common", "programmernwfmt")

for folder in (os.path.join(COMMON, "python"), os.path.join(COMMON, "python", "source"),
               os.path.join(UNSHIPPED, "python"), os.path.join(UNSHIPPED, "mysql"), NETWORK):
    sys.path.insert(0, folder)

import compact_cert
import compact_cert_sign
import ice40_bitstream
import mysql
import network_format
import norvane_sign
import pgm_internal_tool
import pgm_python_common_function
import pgm_python_reasons
import pgm_python_system
import rim_generator
from pgm_python_reasons import Refusal

DELIMITER = " !@#$^&*() "
LINGER_NONE = struct.pack("hh", 1, 0) if os.name == "nt" else struct.pack("ii", 1, 0)
BITSTREAM = os.path.join(DATA, "bitstream", "sine_player.bin")
SINE = os.path.join(DATA, "bitstream", "sine.hex")
ROOT_PEM = os.path.join(DATA, "keys", "example_root.pem")
SIGNING_PEM = os.path.join(DATA, "keys", "example_signing.pem")
STRANGER_PEM = os.path.join(DATA, "keys", "example_stranger.pem")
SIGNING_ZKY = os.path.join(DATA, "keys", "example_signing.zky")
ZEK = os.path.join(DATA, "keys", "example.zek")


def needs(command):
    return unittest.skipUnless(shutil.which(command), "the command %s is not installed" % command)


def read(path):
    with open(path, "rb") as stream:
        return stream.read()


class Listener:
    """Takes one connection and one receive, as a host does on its fixed port."""

    def __init__(self, port=0):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.bind(("127.0.0.1", port))
        self.socket.listen(5)
        self.socket.settimeout(0.05)
        self.port = self.socket.getsockname()[1]
        self.received = None
        self.rest = None
        self.closing = False
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while not self.closing and self.received is None:
            try:
                connection, _ = self.socket.accept()
            except socket.timeout:
                continue
            with connection:
                connection.settimeout(5)
                received = connection.recv(2048)
                self.rest = connection.recv(2048)
                self.received = received

    def pieces(self):
        """The reasons that came; none when nobody sent within a moment."""
        self.thread.join(0.3)
        self.close()
        return self.received.decode("utf-8").split(DELIMITER) if self.received else []

    def close(self):
        self.closing = True
        self.thread.join()
        self.socket.close()


class AnnouncedListener:
    """Takes connections as a host does on an announced channel, until one has said the word; breaks the first ones off
    unheard."""

    def __init__(self, breaks_off=0):
        self.breaks_off = breaks_off
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.socket.bind(("127.0.0.1", 0))
        self.socket.listen(5)
        self.socket.settimeout(0.05)
        self.word = "0123456789abcdef" * 2
        self.channel = "127.0.0.1:%d:%s" % (self.socket.getsockname()[1], self.word)
        self.connections = 0
        self.received = None
        self.closing = False
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while not self.closing and self.received is None:
            try:
                connection, _ = self.socket.accept()
            except socket.timeout:
                continue
            self.connections += 1
            with connection:
                if self.connections <= self.breaks_off:
                    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, LINGER_NONE)
                    continue
                connection.settimeout(5)
                received = b""
                while True:
                    chunk = connection.recv(4096)
                    if not chunk:
                        break
                    received += chunk
                self.received = received

    def text(self):
        """What came after the word; None when nothing came within a moment."""
        self.thread.join(0.3)
        self.close()
        if self.received is None:
            return None
        word, _, text = self.received.partition(b"\n")
        assert word == self.word.encode("ascii"), word
        return text

    def close(self):
        self.closing = True
        self.thread.join()
        self.socket.close()


class ScriptTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="example scripts é ")
        self.addCleanup(shutil.rmtree, self.folder)
        self.listener = Listener()
        self.addCleanup(self.listener.close)
        self.patch(pgm_python_reasons, "PORT", self.listener.port)
        self.patch(sys, "argv", ["script"])
        # Inside a host of which no channel is known.
        self.set_variable("PGM_PYTHON_BIN_DIR", self.folder)
        self.set_variable("PGM_PYTHON_REASONS_CHANNEL", None)

    def patch(self, owner, name, value):
        self.addCleanup(setattr, owner, name, getattr(owner, name))
        setattr(owner, name, value)

    def set_variable(self, name, value):
        before = os.environ.get(name)

        def restore():
            os.environ.pop(name, None)
            if before is not None:
                os.environ[name] = before
        self.addCleanup(restore)
        os.environ.pop(name, None)
        if value is not None:
            os.environ[name] = value

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, data):
        with open(self.path(name), "wb") as stream:
            stream.write(data)
        return self.path(name)

    def new_listener(self):
        self.listener.close()
        self.listener = Listener()
        self.addCleanup(self.listener.close)
        pgm_python_reasons.PORT = self.listener.port

    def refused(self, function, *arguments):
        """The reasons with which a call is refused, as the host gets them."""
        self.new_listener()
        with self.assertRaises(Refusal) as caught:
            function(*arguments)
        pieces = self.listener.pieces()
        self.assertEqual(pieces, [str(reason) for reason in caught.exception.reasons])
        self.assertEqual(self.listener.rest, b"", "the reasons did not come in one send")
        return pieces

    def run_program(self, script, *arguments, port=None, variables=None):
        """Runs a script as the main program; (exit status, standard output, standard error)."""
        launch = ("import os, runpy, sys; sys.dont_write_bytecode = True\n"
                  "sys.path.insert(0, sys.argv[1]); import pgm_python_reasons\n"
                  "pgm_python_reasons.PORT = int(sys.argv[2]); del sys.argv[:3]\n"
                  "sys.path.insert(0, os.path.dirname(sys.argv[0]))\n"
                  "runpy.run_path(sys.argv[0], run_name='__main__')\n")
        environment = dict(os.environ, PYTHONIOENCODING="utf-8", **(variables or {}))
        done = subprocess.run([sys.executable, "-c", launch, os.path.join(COMMON, "python", "source"),
                               str(port or self.listener.port), script] + list(arguments),
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120,
                              env=environment)
        output, errors = (text.decode("utf-8").replace(os.linesep, "\n") for text in (done.stdout, done.stderr))
        return done.returncode, output, errors


def connect_to_itself(address, timeout):
    connection = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    connection.settimeout(timeout)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    connection.bind(address)
    connection.connect(address)
    return connection


class ReasonsTest(ScriptTest):
    def test_pieces_are_joined_by_the_delimiter_in_order(self):
        self.assertEqual(len(pgm_python_reasons.DELIMITER), 11)
        self.assertEqual(pgm_python_reasons.pack_reasons(["one", "", "two", 3, "é"]),
                         ("one" + DELIMITER + "two" + DELIMITER + "3" + DELIMITER + "é").encode("utf-8"))
        self.assertEqual(pgm_python_reasons.pack_reasons([]), b"")

    def pieces(self, *reasons):
        packed = pgm_python_reasons.pack_reasons(reasons)
        self.assertLessEqual(len(packed), 2048)
        return packed.decode("utf-8").split(DELIMITER)

    def test_at_most_2048_bytes_in_whole_pieces(self):
        fits = ["a" * 1000, "b" * (2048 - 1000 - 11)]
        self.assertEqual(len(pgm_python_reasons.pack_reasons(fits)), 2048)
        self.assertEqual(self.pieces(*fits), fits)
        self.assertEqual(self.pieces("a" * 1000, "b" * (2048 - 1000 - 10)), ["a" * 1000, "and 1 more reason"])
        self.assertEqual(self.pieces(*fits, "c"), ["a" * 1000, "and 2 more reasons"])

    def test_of_many_reasons_the_first_ones_go_and_the_others_are_counted(self):
        reasons = ["reason number %d" % number for number in range(1000)]
        pieces = self.pieces(*reasons)
        shown = len(pieces) - 1
        self.assertEqual(pieces, reasons[:shown] + ["and %d more reasons" % (1000 - shown)])
        self.assertGreater(len(DELIMITER.join(pieces + [reasons[shown]])), 2048, "one more would have fitted")

    def test_as_many_short_reasons_as_can_be(self):
        reasons = ["x"] * 171  # with the delimiters between them 2041 bytes
        self.assertEqual(self.pieces(*reasons), reasons)
        self.assertEqual(self.pieces(*reasons, "y"), ["x"] * 169 + ["and 3 more reasons"])

    def test_a_first_piece_too_long_is_cut_at_a_whole_character(self):
        self.assertEqual(self.pieces("a" + "é" * 2000), ["a" + "é" * 1022 + "..."])
        self.assertEqual(self.pieces("é" * 2000), ["é" * 1022 + "..."])
        self.assertEqual(self.pieces("a" + "é" * 2000, "b"), ["a" + "é" * 1008 + "...", "and 1 more reason"])

    def test_a_piece_that_just_fits_is_not_cut(self):
        self.assertEqual(self.pieces("a" * 2048), ["a" * 2048])
        self.assertEqual(self.pieces("a" * 2049), ["a" * 2045 + "..."])

    def test_every_line_of_a_reason_is_a_piece(self):
        self.assertEqual(self.pieces("one\ntwo\r\n\n  three\n", "four"), ["one", "two", "  three", "four"])
        self.assertEqual(pgm_python_reasons.pack_reasons(["\n", ""]), b"")

    def test_text_that_is_no_utf_8_is_sent_readably(self):
        self.assertEqual(pgm_python_reasons.pack_reasons(["x\udcff"]), b"x\\udcff")

    def test_reasons_come_in_one_send(self):
        self.assertTrue(pgm_python_reasons.send_reasons("first", "second"))
        self.assertEqual(self.listener.pieces(), ["first", "second"])
        self.assertEqual(self.listener.rest, b"")

    def test_silent_when_nobody_listens(self):
        self.listener.close()
        output = io.StringIO()
        with contextlib.redirect_stdout(output), contextlib.redirect_stderr(output):
            self.assertFalse(pgm_python_reasons.send_reasons("unheard"))
        self.assertEqual(output.getvalue(), "")

    def announced(self, **settings):
        listener = AnnouncedListener(**settings)
        self.addCleanup(listener.close)
        self.set_variable("PGM_PYTHON_REASONS_CHANNEL", listener.channel)
        return listener

    def test_the_announced_channel_goes_before_the_port(self):
        announced = self.announced()
        self.assertTrue(pgm_python_reasons.send_reasons("first", "second"))
        self.assertEqual(announced.text(), ("first" + DELIMITER + "second").encode("ascii"))
        self.assertEqual(self.listener.pieces(), [])

    def test_the_announced_channel_needs_no_other_sign_of_a_host(self):
        announced = self.announced()
        self.set_variable("PGM_PYTHON_BIN_DIR", None)
        self.assertTrue(pgm_python_reasons.send_reasons("heard"))
        self.assertEqual(announced.text(), b"heard")

    @unittest.skipIf(os.name == "nt", "Wine does not tell a connection broken off from one that ended")
    def test_a_connection_that_is_broken_off_is_tried_again(self):
        announced = self.announced(breaks_off=2)
        self.assertTrue(pgm_python_reasons.send_reasons("heard"))
        self.assertEqual((announced.connections, announced.text()), (3, b"heard"))

    @unittest.skipIf(os.name == "nt", "Wine does not tell a connection broken off from one that ended")
    def test_a_connection_that_is_broken_off_again_and_again_is_given_up(self):
        announced = self.announced(breaks_off=9)
        self.assertFalse(pgm_python_reasons.send_reasons("unheard"))
        self.assertEqual((announced.connections, announced.text()), (3, None))

    def test_nothing_goes_to_the_port_when_the_announced_channel_is_gone(self):
        announced = self.announced()
        announced.close()
        self.assertFalse(pgm_python_reasons.send_reasons("unheard"))
        self.assertEqual(self.listener.pieces(), [])

    def test_a_channel_that_cannot_be_read_is_none(self):
        for channel in ("x", "127.0.0.1", "127.0.0.1:", "127.0.0.1:80", "127.0.0.1:x:word", ":80:word",
                        "127.0.0.1:99999:word", "127.0.0.1:-1:word"):
            self.set_variable("PGM_PYTHON_REASONS_CHANNEL", channel)
            self.assertFalse(pgm_python_reasons.send_reasons("unheard"), channel)
        self.assertEqual(self.listener.pieces(), [])

    def test_outside_a_host_nothing_goes_to_the_port(self):
        self.set_variable("PGM_PYTHON_BIN_DIR", None)
        self.assertFalse(pgm_python_reasons.send_reasons("unheard"))
        self.assertEqual(self.listener.pieces(), [])

    def test_nobody_is_not_taken_for_a_host(self):
        # A socket that is connected to its own port, as the system does now and then where nobody listens.
        self.listener.close()
        self.patch(socket, "create_connection", connect_to_itself)
        self.assertFalse(pgm_python_reasons.send_reasons("unheard"))

    def test_the_port_of_the_host(self):
        source = read(pgm_python_reasons.__file__).decode("utf-8")
        self.assertIn("\nPORT = 57343\n", source)
        deadline = time.monotonic() + 30
        while True:
            try:
                listener = Listener(57343)
                break
            except OSError:
                if time.monotonic() > deadline:
                    self.skipTest("port 57343 is taken by another program")
                time.sleep(0.2)
        pgm_python_reasons.PORT = 57343
        self.assertTrue(pgm_python_reasons.send_reasons("heard"))
        self.assertEqual(listener.pieces(), ["heard"])

    def test_a_marked_function_tells_and_raises(self):
        @pgm_python_reasons.tells_reasons
        def refuse(first, second):
            """Text."""
            raise Refusal(first, second)

        self.assertEqual(self.refused(refuse, "a", "b"), ["a", "b"])
        self.assertEqual((refuse.__name__, refuse.__doc__), ("refuse", "Text."))

    def test_a_marked_function_tells_of_other_errors(self):
        @pgm_python_reasons.tells_reasons
        def fail():
            return {}["key"]

        with self.assertRaises(KeyError):
            fail()
        self.assertEqual(self.listener.pieces(), ["KeyError: 'key'"])

    def test_an_exception_without_a_text_is_told_by_its_type(self):
        class Mute(Exception):
            def __str__(self):
                raise RuntimeError("no text")

        class Bare(Refusal):
            def __init__(self):
                pass

        for error, pieces in ((Mute(), ["Mute"]), (Refusal("first", Mute(), "third"), ["first", "Mute", "third"]),
                              (OSError(5, Mute()), ["OSError"]), (Bare(), ["Bare"])):
            with self.subTest(pieces=pieces):
                @pgm_python_reasons.tells_reasons
                def fail():
                    raise error

                self.new_listener()
                with self.assertRaises(type(error)) as caught:
                    fail()
                self.assertIs(caught.exception, error)
                self.assertEqual(self.listener.pieces(), pieces)
        self.assertEqual(str(Refusal("first", Mute())), "first; Mute")

    def test_a_main_program_without_a_text_of_its_error_ends_with_status_1(self):
        script = self.write("fail.py", b"from pgm_python_reasons import *\n"
                                       b"class Mute(Exception):\n    def __str__(self):\n        raise ValueError\n"
                                       b"def main():\n    raise Mute\nrun_main(main)\n")
        self.assertEqual(self.run_program(script), (1, "", ""))
        self.assertEqual(self.listener.pieces(), ["Mute"])
        status, output, errors = self.run_program(script)
        self.assertEqual((status, output, errors.splitlines()), (1, "", ["error: Mute"]))

    def test_an_exit_with_a_text_is_told(self):
        for code, pieces in (("no licence", ["no licence"]), (3, []), (0, []), (None, []), ("", [])):
            with self.subTest(code=code):
                self.new_listener()
                with self.assertRaises(SystemExit) as caught:
                    pgm_python_reasons.tells_reasons(sys.exit)(code)
                self.assertEqual(caught.exception.code, code)
                self.assertEqual(self.listener.pieces(), pieces)

    def test_an_operating_system_error_names_the_file(self):
        try:
            open(self.path("nowhere"))
        except OSError as error:
            self.assertEqual(pgm_python_reasons.describe(error),
                             ("%s: No such file or directory" % self.path("nowhere"),))

    def test_a_marked_function_that_returns_sends_nothing(self):
        self.assertEqual(pgm_python_reasons.tells_reasons(lambda number: number + 1)(1), 2)
        self.assertEqual(self.listener.pieces(), [])

    def test_a_main_program_ends_with_status_1_and_tells_the_host(self):
        script = self.write("fail.py", b"from pgm_python_reasons import *\n"
                                       b"def main():\n    raise Refusal('why', 'what now')\nrun_main(main)\n")
        self.assertEqual(self.run_program(script), (1, "", ""))
        self.assertEqual(self.listener.pieces(), ["why", "what now"])

    def test_a_main_program_tells_standard_error_when_nobody_listens(self):
        script = self.write("fail.py", b"from pgm_python_reasons import *\n"
                                       b"def main():\n    raise Refusal('why', 'what now')\nrun_main(main)\n")
        self.listener.close()
        status, output, errors = self.run_program(script)
        self.assertEqual((status, output, errors.splitlines()), (1, "", ["error: why", "error: what now"]))

    def test_a_main_program_that_returns_ends_with_status_0(self):
        script = self.write("work.py", b"from pgm_python_reasons import run_main\nrun_main(lambda: print('done'))\n")
        status, output, errors = self.run_program(script)
        self.assertEqual((status, output.strip(), errors), (0, "done", ""))


class SystemTest(ScriptTest):
    def test_a_file_is_written_whole_with_the_rights_that_the_process_gives(self):
        target = self.path("file")
        pgm_python_system.write_file(target, b"one")
        pgm_python_system.write_file(target, b"two")
        self.assertEqual(read(target), b"two")
        self.assertEqual(os.listdir(self.folder), ["file"])
        if os.name == "posix":
            ordinary = self.write("ordinary", b"")
            self.assertEqual(os.stat(target).st_mode, os.stat(ordinary).st_mode)

    def test_a_file_that_cannot_be_written_leaves_nothing(self):
        os.mkdir(self.path("folder"))
        self.refused(pgm_python_reasons.tells_reasons(pgm_python_system.write_file), self.path("folder"), b"")
        self.assertEqual(os.listdir(self.folder), ["folder"])
        reasons = self.refused(pgm_python_reasons.tells_reasons(pgm_python_system.write_file),
                               self.path("no/file"), b"")
        self.assertEqual(reasons[0], "folder %s does not exist" % self.path("no"))

    def test_a_missing_command_is_named(self):
        reasons = self.refused(pgm_python_reasons.tells_reasons(pgm_python_system.run_command), ["no-such-command"])
        self.assertEqual(reasons, ["the command no-such-command is not installed",
                                   "install it, or put its folder on PATH"])

    def test_a_command_that_does_not_end_is_stopped(self):
        reasons = self.refused(pgm_python_reasons.tells_reasons(pgm_python_system.run_command),
                               [sys.executable, "-c", "import time; time.sleep(60)"], None, 1)
        self.assertEqual(reasons, ["the command %s did not end within 1 seconds" % sys.executable])

    def test_a_command_has_no_input_but_what_it_is_given(self):
        copy = [sys.executable, "-c", "import sys; sys.stdout.write(sys.stdin.read()); sys.exit('a\\nb')"]
        self.assertEqual(pgm_python_system.run_command(copy), (1, b"", "b"))
        self.assertEqual(pgm_python_system.run_command(copy, b"data"), (1, b"data", "b"))


class QueryTest(ScriptTest):
    def test_every_name_has_its_code_and_every_code_its_name(self):
        names = pgm_python_common_function.OPN_CODES
        for name in names:
            code = pgm_python_common_function.query_opn_name(name)
            self.assertIs(type(code), int)
            self.assertTrue(-0x80000000 <= code <= 0x7FFFFFFF)
            self.assertEqual(code & 0xFFFFFFFF, names[name])
            self.assertEqual(pgm_python_common_function.query_opn_enum(code), name)
            self.assertEqual(pgm_python_common_function.query_opn_enum(names[name]), name)
        self.assertEqual(len(set(names.values())), len(names))
        self.assertNotIn(0xFFFFFFFF, names.values())

    def test_a_code_with_the_top_bit_set_is_negative(self):
        self.assertEqual(pgm_python_common_function.query_opn_name("NRV060-F484-ES"), 0x80000301 - 0x100000000)

    def test_unknown_names_and_codes_are_refused(self):
        self.assertEqual(self.refused(pgm_python_common_function.query_opn_enum, -1),
                         ["no ordering part has the code 0xFFFFFFFF"])
        self.assertEqual(self.refused(pgm_python_common_function.query_opn_name, "NRV060-F484-I3")[0],
                         "there is no ordering part NRV060-F484-I3")
        self.assertIn("NRV060-F484-I2",
                      self.refused(pgm_python_common_function.query_opn_name, "NRV060-F484-I3")[1])
        self.assertEqual(self.refused(pgm_python_common_function.query_opn_name, "?"),
                         ["there is no ordering part ?", "names look like NRV010-C100-I2"])


try:
    import pwd
except ImportError:
    pwd = None


@unittest.skipUnless(pwd, "this system has no account table that Python can read")
class UsernameTest(ScriptTest):
    def test_every_account_has_its_full_name_or_its_own(self):
        for entry in pwd.getpwall():
            expected = pwd.getpwnam(entry.pw_name).pw_gecos.split(",")[0].strip() or entry.pw_name
            self.assertEqual(pgm_python_common_function.get_username(entry.pw_name), expected)

    def test_full_name_and_none(self):
        class Accounts:
            gecos = "Ann Other,Room 1,,"

            def getpwnam(self, name):
                return pwd.struct_passwd((name, "x", 1, 1, self.gecos, "/", "/bin/sh"))

        accounts = Accounts()
        sys.modules["pwd"] = accounts
        self.addCleanup(sys.modules.__setitem__, "pwd", pwd)
        self.assertEqual(pgm_python_common_function.get_username("ann"), "Ann Other")
        accounts.gecos = ",,"
        self.assertEqual(pgm_python_common_function.get_username("ann"), "ann")

    def test_the_empty_name_is_the_current_account(self):
        own = pwd.getpwuid(os.getuid()).pw_name
        self.assertEqual(pgm_python_common_function.get_username(""), pgm_python_common_function.get_username(own))

    def test_an_unknown_account_is_refused(self):
        self.assertEqual(self.refused(pgm_python_common_function.get_username, "no such account")[0],
                         "there is no account no such account on this computer")

    def test_without_an_account_table_the_current_account_is_known(self):
        sys.modules["pwd"] = None
        self.addCleanup(sys.modules.__setitem__, "pwd", pwd)
        self.set_variable("LOGNAME", "somebody")
        self.assertEqual(pgm_python_common_function.get_username(""), "somebody")
        self.assertEqual(pgm_python_common_function.get_username("Somebody"), "somebody")
        self.assertEqual(self.refused(pgm_python_common_function.get_username, "other"),
                         ["the name of account other cannot be looked up, only that of the current account"])


class MemoryTextTest(ScriptTest):
    def image(self, text, continuous):
        return pgm_python_common_function.read_mif(self.write("m.hex", text.encode("utf-8")), continuous)

    def refusal(self, text):
        path = self.write("m.hex", text.encode("utf-8"))
        return [reason.replace(path, "FILE")
                for reason in self.refused(pgm_python_common_function.read_mif, path, True)]

    def test_words_in_a_row(self):
        self.assertEqual(self.image("00 11\n22\tFF\r\naB", True), [bytearray(b"\x00\x11\x22\xFF\xAB"), 8, 5])

    def test_the_answer_is_a_list_with_a_bytearray(self):
        answer = self.image("1", False)
        self.assertIs(type(answer), list)
        self.assertEqual([type(part) for part in answer], [bytearray, int, int])

    def test_addresses_with_and_without_the_words_between(self):
        text = "@4 44\n@1 11 22"
        self.assertEqual(self.image(text, True), [bytearray(b"\0\x11\x22\0\x44"), 8, 5])
        self.assertEqual(self.image(text, False), [bytearray(b"\x11\x22\x44"), 8, 3])

    def test_a_later_word_counts(self):
        self.assertEqual(self.image("@0 11 22 @1 33", False), [bytearray(b"\x11\x33"), 8, 2])

    def test_comments_and_underscores(self):
        text = "// 99 @9\n1_2/* 99\n99 */34 /*a*/ /**/ 5_6_ // 99"
        self.assertEqual(self.image(text, True), [bytearray(b"\x12\x34\x56"), 8, 3])
        self.assertEqual(self.image("\ufeff// ü\n7", True), [bytearray(b"\x07"), 4, 1])

    def test_widths(self):
        self.assertEqual(self.image("7 f", True), [bytearray(b"\x07\x0F"), 4, 2])
        self.assertEqual(self.image("123 4", True), [bytearray(b"\x01\x23\x00\x04"), 12, 2])
        self.assertEqual(self.image("1 0123456789abcdef0", True)[1:], [68, 2])

    def test_the_flag_may_be_any_truth(self):
        self.assertEqual(self.image("@1 11", 1), self.image("@1 11", True))

    def test_refusals_name_the_line(self):
        self.assertEqual(self.refusal("00\n// x\n/* \n */ 1x"),
                         ["FILE line 4: the word 1x has unknown bits",
                          "replace its x and z digits by the digits that the memory is to hold"])
        self.assertEqual(self.refusal("00\n0z")[0], "FILE line 2: the word 0z has unknown bits")
        self.assertEqual(self.refusal("00\n\nhello"), ["FILE line 3: hello is no hexadecimal word"])
        self.assertEqual(self.refusal("_1"), ["FILE line 1: _1 is no hexadecimal word"])
        self.assertEqual(self.refusal("8'hff"), ["FILE line 1: 8'hff is no hexadecimal word"])
        self.assertEqual(self.refusal("\n@ 5 00")[0], "FILE line 2: @ is no address")
        self.assertEqual(self.refusal("@x 00")[0], "FILE line 1: @x is no address")
        self.assertEqual(self.refusal("00\n/* open"), ["FILE line 2: the comment that begins here is never closed"])
        self.assertEqual(self.refusal("// nothing\n@5"), ["FILE holds no words"])
        self.assertEqual(self.refusal("@ffffffff 00"),
                         ["the image of FILE would have 4294967296 bytes, at most 67108864 are made",
                          "its last address is @ffffffff"])

    def test_far_words_are_taken_without_what_is_between(self):
        self.assertEqual(self.image("@ffffffff 01", False), [bytearray(b"\x01"), 4 * 2, 1])

    def test_a_missing_file_and_a_folder_are_refused(self):
        self.assertEqual(self.refused(pgm_python_common_function.read_mif, self.path("none"), True),
                         ["memory text file %s does not exist" % self.path("none")])
        self.assertEqual(self.refused(pgm_python_common_function.read_mif, self.folder, True),
                         ["memory text file %s is not a regular file" % self.folder])

    def test_the_example(self):
        image, width, depth = pgm_python_common_function.read_mif(SINE, True)
        self.assertEqual((width, depth, len(image)), (16, 256, 512))
        self.assertEqual(image[:4], bytearray(b"\x80\x00\x83\x24"))


class RootKeyTest(ScriptTest):
    FIELDS = {"zek-key-file": "1", "iterations": "1000", "salt": "00" * 15 + "01", "seed": "AB" * 32}

    def key_file(self, **changes):
        fields = dict(self.FIELDS)
        fields["check"] = hashlib.sha256(bytes.fromhex(fields["salt"] + fields["seed"])).hexdigest()[:16]
        fields.update(changes)
        lines = ["%s: %s" % field for field in fields.items() if field[1] is not None]
        return self.write("k.zek", ("# comment\n\n" + "\n".join(lines) + "\n").encode("ascii"))

    def derive(self, path, text):
        key = bytearray(32)
        self.assertIs(pgm_python_common_function.get_zek_root_key(path, text, key), True)
        return key

    def refusal(self, path):
        key = bytearray(32)
        reasons = self.refused(pgm_python_common_function.get_zek_root_key, path, "", key)
        self.assertEqual(key, bytearray(32))
        return [reason.replace(path, "FILE") for reason in reasons]

    def test_a_key_that_other_tools_derive_too(self):
        # openssl kdf -kdfopt digest:SHA256 -kdfopt hexpass:ABAB... -kdfopt hexsalt:00...01 -kdfopt iter:1000
        #     -keylen 32 PBKDF2
        # then: openssl kdf -kdfopt digest:SHA256 -kdfopt mode:EXPAND_ONLY -kdfopt hexkey:...
        #     -kdfopt info:"zek root keyfamily one" -keylen 32 HKDF
        self.assertEqual(self.derive(self.key_file(), "family one").hex(), KNOWN_ROOT_KEY)

    def test_another_text_another_key(self):
        path = self.key_file()
        keys = {bytes(self.derive(path, text)) for text in ("", "a", "b", "é")}
        self.assertEqual(len(keys), 4)
        self.assertEqual(self.derive(path, "a"), self.derive(path, "a"))

    def test_another_file_another_key(self):
        self.assertNotEqual(self.derive(self.key_file(), ""), self.derive(ZEK, ""))
        first = self.derive(self.key_file(), "")
        self.assertNotEqual(first, self.derive(self.key_file(iterations="1001"), ""))

    def test_the_key_goes_to_the_given_bytearray_and_nowhere_else(self):
        path = self.key_file()
        key = bytearray(b"\xFF" * 32)
        same = key
        pgm_python_common_function.get_zek_root_key(path, "", key)
        self.assertIs(key, same)
        self.assertEqual(len(key), 32)
        self.assertNotEqual(key, bytearray(b"\xFF" * 32))
        self.assertEqual(os.listdir(self.folder), ["k.zek"])

    def test_refusals(self):
        self.assertEqual(self.refusal(self.path("none.zek")), ["key file FILE does not exist"])
        self.assertEqual(self.refusal(self.key_file(seed="AC" * 32))[0],
                         "key file FILE is damaged: its check does not fit its salt and seed")
        self.assertEqual(self.refusal(self.key_file(seed="A" * 63)),
                         ["key file FILE: seed is not hexadecimal text of whole bytes"])
        self.assertEqual(self.refusal(self.key_file(seed="AB" * 31)),
                         ["key file FILE: seed has 31 bytes, 32 to 64 are needed"])
        self.assertEqual(self.refusal(self.key_file(check="AB")), ["key file FILE: check has 1 bytes, 8 are needed"])
        self.assertEqual(self.refusal(self.write("k.zek", "é: 1".encode("utf-8")))[0],
                         "key file FILE line 1 has no known name")
        self.assertEqual(self.refusal(self.key_file(salt=None)), ["key file FILE lacks: salt"])
        self.assertEqual(self.refusal(self.key_file(**{"zek-key-file": "2"})),
                         ["key file FILE has version 2, only version 1 is known"])
        for number in ("999", "10000001", "-1", "x", ""):
            self.assertEqual(self.refusal(self.key_file(iterations=number)),
                             ["key file FILE: iterations must be a number from 1000 to 10000000"])
        self.assertEqual(self.refusal(self.key_file(extra="1"))[0], "key file FILE line 8 has no known name")
        self.assertEqual(self.refusal(self.write("k.zek", b"salt: 00\nsalt: 00\n")),
                         ["key file FILE line 2 gives salt a second time"])

    def test_a_wrong_place_for_the_key_is_refused(self):
        for place in (bytes(32), bytearray(31), None):
            self.assertEqual(self.refused(pgm_python_common_function.get_zek_root_key, self.key_file(), "", place),
                             ["the root key needs a bytearray of 32 bytes to go to"])

    def test_a_reason_never_holds_the_seed(self):
        for path in (self.key_file(seed="AB" * 32 + "x"), self.key_file(check="00" * 8)):
            self.assertNotIn("ABAB", "".join(self.refusal(path)))


KNOWN_ROOT_KEY = "b47ae7bf449b9470db18e6dbab85e9c201d2e630555d1acd2bd60528f5b17154"


@needs("git")
class DepotTest(ScriptTest):
    @classmethod
    def setUpClass(cls):
        cls.place = tempfile.mkdtemp(prefix="depot é ")
        cls.depot = os.path.join(cls.place, "depot.git")
        subprocess.run([sys.executable, os.path.join(DATA, "make_depot.py"), cls.place], check=True,
                       stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.place)

    def setUp(self):
        super().setUp()
        self.set_variable("PGM_PYTHON_DEPOT", self.depot)

    def sync(self, source):
        return pgm_python_common_function.sync_p4file(self.folder, source)

    def refusal(self, source):
        return self.refused(self.sync, source)

    def git(self, *arguments):
        environment = dict(os.environ, GIT_AUTHOR_NAME="a", GIT_AUTHOR_EMAIL="a@b", GIT_COMMITTER_NAME="a",
                           GIT_COMMITTER_EMAIL="a@b")
        return subprocess.run(("git",) + arguments, check=True, stdout=subprocess.PIPE, env=environment,
                              stdin=subprocess.DEVNULL).stdout.decode("ascii").strip()

    def test_the_newest_revision(self):
        commit = self.git("--git-dir=" + self.depot, "rev-parse", "HEAD")[:12]
        size = os.path.getsize(SINE)
        target = self.path("sine.hex")
        self.assertEqual(self.sync("//depot/memory/sine.hex"),
                         "//depot/memory/sine.hex#2 - added as %s (commit %s, %d bytes)" % (target, commit, size))
        self.assertEqual(read(target), read(SINE))
        self.assertEqual(self.sync("//depot/memory/sine.hex#head"),
                         "//depot/memory/sine.hex#2 - is up to date in %s (commit %s, %d bytes)"
                         % (target, commit, size))

    def test_revisions_by_number_and_by_tag(self):
        self.sync("//depot/memory/sine.hex")
        self.assertTrue(self.sync("//depot/memory/sine.hex#1").startswith("//depot/memory/sine.hex#1 - updated in "))
        first = read(self.path("sine.hex"))
        self.assertNotIn(b"//", first)
        self.assertTrue(self.sync("//depot/memory/sine.hex#2").startswith("//depot/memory/sine.hex#2 - updated in "))
        self.assertTrue(self.sync("//depot/memory/sine.hex@first").startswith("//depot/memory/sine.hex#1 - updated"))
        self.assertEqual(read(self.path("sine.hex")), first)
        commit = self.git("--git-dir=" + self.depot, "rev-parse", "main")
        self.assertIn("#2 - updated", self.sync("//depot/memory/sine.hex@" + commit))
        self.assertEqual(os.listdir(self.folder), ["sine.hex"])

    def test_both_revisions_hold_the_same_memory(self):
        images = []
        for number in (1, 2):
            self.sync("//depot/memory/sine.hex#%d" % number)
            images.append(pgm_python_common_function.read_mif(self.path("sine.hex"), True))
        self.assertEqual(images[0], images[1])

    def test_binary_files_come_unchanged(self):
        self.sync("//depot/images/sine_player.bin")
        self.assertEqual(read(self.path("sine_player.bin")), read(BITSTREAM))

    def test_refusals(self):
        self.assertEqual(self.refusal("//depot/memory/none"), ["the depot has no file //depot/memory/none"])
        self.assertEqual(self.refusal("//depot/none@first"), ["the depot has no file //depot/none at first"])
        self.assertEqual(self.refusal("//depot/memory/sine.hex#3"),
                         ["//depot/memory/sine.hex has no revision #3", "its revisions are #1 to #2"])
        self.assertEqual(self.refusal("//depot/memory/sine.hex#0")[1], "its revisions are #1 to #2")
        self.assertEqual(self.refusal("//depot/memory/sine.hex@none"),
                         ["the depot knows no tag, branch or commit none"])
        self.assertEqual(self.refusal("//depot/memory")[0], "//depot/memory is no file at revision #2")
        self.assertEqual(self.refusal("//depot/memory/sine.hex@--all"),
                         ["--all cannot be the name of a tag, a branch or a commit"])
        for source in ("memory/sine.hex", "//other/memory/sine.hex", "//depot/", "//depot/../x", "//depot/a//b",
                       "//depot/memory/...", "//depot/memory/*", "//depot/memory/sine.hex#", "//depot/x#1@first"):
            self.assertEqual(self.refusal(source)[0], "%s does not name a depot file" % source)
        self.assertEqual(os.listdir(self.folder), [])

    def test_a_missing_folder_and_a_missing_depot_are_refused(self):
        self.assertEqual(self.refused(pgm_python_common_function.sync_p4file, self.path("none"), "//depot/a"),
                         ["the folder %s to sync into does not exist" % self.path("none")])
        self.set_variable("PGM_PYTHON_DEPOT", self.folder)
        self.assertEqual(self.refusal("//depot/a")[0], "there is no depot at %s" % self.folder)

    def test_the_default_depot_is_next_to_the_common_folder(self):
        self.set_variable("PGM_PYTHON_DEPOT", None)
        self.assertEqual(self.refusal("//depot/a")[0],
                         "there is no depot at %s" % os.path.join(INSTALLATION, "depot.git"))

    def test_another_repository_in_the_environment_changes_nothing(self):
        self.set_variable("GIT_DIR", self.path("elsewhere"))
        self.assertIn("#1 - added", self.sync("//depot/images/sine_player.bin"))

    def test_a_repository_with_a_work_tree_a_deleted_file_a_link_and_rights(self):
        work = self.path("work")
        self.git("init", "--quiet", work)
        tool = self.write("work/tool", b"#!/bin/sh\n")
        os.chmod(tool, 0o755)
        self.write("work/gone", b"1")
        self.write("work/[a]*?", b"odd") if os.name == "posix" else None
        if os.name == "posix":
            os.symlink("tool", self.path("work/link"))
        self.git("-C", work, "add", "--all")
        self.git("-C", work, "commit", "--quiet", "--message=one")
        os.remove(self.path("work/gone"))
        self.git("-C", work, "add", "--all")
        self.git("-C", work, "commit", "--quiet", "--message=two")
        self.set_variable("PGM_PYTHON_DEPOT", work)
        self.assertIn("#1 - added", self.sync("//depot/tool"))
        self.assertIn("#1 - added", self.sync("//depot/gone#1"))
        self.assertEqual(self.refusal("//depot/gone")[0], "//depot/gone is no file at revision #2")
        if os.name == "posix":
            self.assertTrue(os.access(self.path("tool"), os.X_OK))
            self.assertFalse(os.stat(self.path("gone")).st_mode & 0o111)
            self.assertEqual(self.refusal("//depot/link")[0], "//depot/link is no file at revision #1")
            self.assertEqual(self.refusal("//depot/[t]ool"), ["the depot has no file //depot/[t]ool"])


@needs("openssl")
class CertificateTest(ScriptTest):
    CONTENT = bytes(range(48))

    def setUp(self):
        super().setUp()
        self.set_variable("PGM_PYTHON_TRUSTED_ROOTS", None)

    def openssl(self, *arguments, **more):
        return subprocess.run(("openssl",) + arguments, check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              **more).stdout

    def make(self, zky="", pem="", first=1, second=2, content=CONTENT):
        made = compact_cert_sign.external_sign_function(first, second, content.hex().upper(), zky, pem)
        self.assertIs(type(made), bytearray)
        self.assertEqual(len(made) % 8, 0)
        return bytes(made)

    def sign(self, unsigned, zky="", pem=""):
        sys.argv = ["norvane_sign.py", "--zky=" + zky, "--pem=" + pem]
        signed = norvane_sign.external_ccert_sign_function(unsigned.hex().upper())
        self.assertIs(type(signed), bytearray)
        self.assertEqual(len(signed) % 8, 0)
        return bytes(signed)

    def refuse_sign(self, unsigned, zky="", pem=""):
        return self.refused(self.sign, unsigned, zky, pem)

    def refuse_verify(self, cert):
        reasons = self.refused(compact_cert_sign.external_verify_function, cert.hex().upper())
        for function in (compact_cert_sign.external_verify_ccert_function,
                         norvane_sign.external_verify_ccert_function):
            self.assertEqual(self.refused(function, cert.hex().upper()), reasons)
        return reasons

    def verify(self, cert):
        compact_cert_sign.external_verify_function(cert.hex().upper())
        compact_cert_sign.external_verify_ccert_function(cert.hex().upper())
        norvane_sign.external_verify_ccert_function(cert.hex().upper())

    def test_the_form_of_an_unsigned_certificate(self):
        made = self.make(first=-1, second=0x7FFFFFFF, content=b"12345678" + b"9")
        self.assertEqual(made, b"PGMCCERT" + struct.pack("<6I", 1, 0xFFFFFFFF, 0x7FFFFFFF, 9, 0, 0)
                         + b"123456789" + bytes(7) + bytes(8))
        self.assertEqual(self.refuse_verify(made)[0], "the certificate is not signed")

    def test_made_signed_and_verified_with_a_chain(self):
        unsigned = self.make()
        signed = self.sign(unsigned, SIGNING_ZKY, SIGNING_PEM)
        self.verify(signed)
        cert = compact_cert.parse(signed)
        self.assertEqual((cert.first_number, cert.second_number, cert.content), (1, 2, self.CONTENT))
        self.assertEqual(len(cert.chain), 2)

    def test_openssl_alone_accepts_signature_and_link(self):
        signed = self.sign(self.make(), SIGNING_ZKY, SIGNING_PEM)
        root = self.openssl("pkey", "-in", ROOT_PEM, "-pubout", "-outform", "DER")
        key = self.openssl("pkey", "-in", SIGNING_PEM, "-pubout", "-outform", "DER")
        keys, chain_size = struct.unpack_from("<II", signed, 24)
        self.assertEqual(keys, 2)
        place = 32 + 48
        root_size, no_link = struct.unpack_from("<HH", signed, place)
        self.assertEqual((signed[place + 4:place + 4 + root_size], no_link), (root, 0))
        place += 4 + root_size
        key_size, link_size = struct.unpack_from("<HH", signed, place)
        self.assertEqual(signed[place + 4:place + 4 + key_size], key)
        link = signed[place + 4 + key_size:place + 4 + key_size + link_size]
        end = 32 + 48 + chain_size
        signature_size, zero = struct.unpack_from("<II", signed, end)
        self.assertEqual(zero, 0)
        signature = signed[end + 8:end + 8 + signature_size]
        for pem, proof, data in ((ROOT_PEM, link, b"PGMCLINK" + key), (SIGNING_PEM, signature, signed[:end])):
            public = self.write("public.pem", self.openssl("pkey", "-in", pem, "-pubout"))
            answer = self.openssl("dgst", "-sha384", "-verify", public, "-signature", self.write("proof", proof),
                                  self.write("data", data))
            self.assertEqual(answer, b"Verified OK\n")

    def test_signed_at_once(self):
        for zky, pem, keys in ((SIGNING_ZKY, SIGNING_PEM, 2), ("", STRANGER_PEM, 1), ("", ROOT_PEM, 1)):
            made = self.make(zky, pem)
            self.verify(made)
            self.assertEqual(len(compact_cert.parse(made).chain), keys)

    def test_a_chain_put_in_before_is_kept(self):
        unsigned = self.make(SIGNING_ZKY)
        self.verify(self.sign(unsigned, "", SIGNING_PEM))
        self.verify(self.sign(unsigned, SIGNING_ZKY, SIGNING_PEM))
        self.assertEqual(self.refuse_sign(unsigned, "", STRANGER_PEM)[0],
                         "the key in %s is not the one that the key chain ends with" % STRANGER_PEM)

    def test_every_changed_byte_is_found(self):
        signed = self.sign(self.make(), SIGNING_ZKY, SIGNING_PEM)
        for place in list(range(0, len(signed), 13)) + [len(signed) - 1]:
            broken = bytearray(signed)
            broken[place] ^= 0x01
            with self.assertRaises(Refusal, msg="byte %d" % place):
                compact_cert.verify(bytes(broken))

    def test_reasons_for_broken_certificates(self):
        signed = self.sign(self.make(), SIGNING_ZKY, SIGNING_PEM)
        changed = signed[:40] + bytes([signed[40] ^ 1]) + signed[41:]
        self.assertEqual(self.refuse_verify(changed)[0],
                         "the signature does not fit the certificate: it was changed after it was signed, or damaged")
        self.assertEqual(self.refuse_verify(b"X" + signed[1:]),
                         ["this is not a compact certificate: it begins with %s, not with %s"
                          % (b"XGMCCERT".hex().upper(), b"PGMCCERT".hex().upper())])
        self.assertEqual(self.refuse_verify(signed[:-8])[0], "the certificate ends within its signature")
        self.assertEqual(self.refuse_verify(signed[:16])[0], "the certificate ends within its header")
        self.assertEqual(self.refuse_verify(signed[:80])[0], "the certificate ends within its key chain")
        self.assertEqual(self.refuse_verify(signed + bytes(8)),
                         ["the certificate has 8 bytes too many, or its signature section is damaged"])
        self.assertEqual(self.refuse_verify(signed[:8] + b"\2" + signed[9:]),
                         ["the certificate has version 2, only version 1 is known"])
        self.assertEqual(self.refuse_verify(signed[:24] + b"\x09" + signed[25:]),
                         ["the certificate says that its chain has 9 keys, at most 8 are allowed"])
        self.assertEqual(self.refuse_verify(signed[:23] + b"\xFF" + signed[24:])[0],
                         "the certificate ends within its content")
        padded = bytearray(self.make(content=b"123456789"))
        padded[32 + 15] = 1
        self.assertEqual(self.refuse_verify(bytes(padded)), ["the padding after the certificate's content is not zero"])

    def test_a_signature_of_another_certificate_does_not_fit(self):
        one = self.make("", ROOT_PEM, content=b"one     ")
        two = self.make("", ROOT_PEM, content=b"two     ")
        end = 32 + 8 + struct.unpack_from("<I", one, 28)[0]
        self.assertIn("does not fit", self.refuse_verify(one[:end] + two[end:])[0])

    def test_a_chain_that_was_put_together_wrongly(self):
        root, signing = (compact_cert.read_public_key(pem) for pem in (ROOT_PEM, SIGNING_PEM))
        stranger = compact_cert.read_public_key(STRANGER_PEM)
        link = compact_cert.sign_bytes(b"PGMCLINK" + signing, STRANGER_PEM, stranger)
        cert = compact_cert.CompactCert(1, 2, self.CONTENT, [(root, b""), (signing, link)])
        cert.signature = compact_cert.sign_bytes(cert.signed_bytes(), SIGNING_PEM, signing)
        self.assertEqual(self.refuse_verify(bytes(cert.to_bytes()))[0],
                         "key 1 of the chain is not signed by the key before it")
        cert.chain = [(signing, link)]
        cert.signature = compact_cert.sign_bytes(cert.signed_bytes(), SIGNING_PEM, signing)
        self.assertEqual(self.refuse_verify(bytes(cert.to_bytes())),
                         ["the root key of the chain has a link, it must have none"])

    def test_trusted_roots(self):
        signed = self.sign(self.make(), SIGNING_ZKY, SIGNING_PEM)
        root = hashlib.sha256(self.openssl("pkey", "-in", ROOT_PEM, "-pubout", "-outform", "DER")).hexdigest()
        self.set_variable("PGM_PYTHON_TRUSTED_ROOTS", "00" * 32)
        self.assertEqual(self.refuse_verify(signed)[0],
                         "the root key of the chain is not trusted: its fingerprint is %s" % root.upper())
        os.environ["PGM_PYTHON_TRUSTED_ROOTS"] = "%s, %s" % ("00" * 32, root)
        self.verify(signed)

    def test_keys_that_cannot_sign(self):
        unsigned = self.make()
        self.assertEqual(self.refuse_sign(unsigned), ["there is no key to sign with", "give one with --pem=FILE.pem"])
        self.assertEqual(self.refuse_sign(unsigned, "", self.path("none.pem")),
                         ["key file %s does not exist" % self.path("none.pem")])
        self.assertEqual(self.refuse_sign(unsigned, "", self.write("text.pem", b"hello"))[0],
                         "no key can be read from %s" % self.path("text.pem"))
        self.assertEqual(self.refuse_sign(unsigned, SIGNING_ZKY, ROOT_PEM)[0],
                         "the key in %s is not the one that the key chain ends with" % ROOT_PEM)
        public = self.write("public.pem", self.openssl("pkey", "-in", ROOT_PEM, "-pubout"))
        self.assertEqual(self.refuse_sign(unsigned, "", public)[0],
                         "nothing can be signed with %s: is it a private key?" % public)
        rsa = self.write("rsa.pem", self.openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:1024"))
        self.assertEqual(self.refuse_sign(unsigned, "", rsa)[:2],
                         ["key file %s cannot be used" % rsa, "a key is neither ECDSA P-256 nor ECDSA P-384"])

    def test_a_key_with_a_pass_phrase_is_refused_without_asking(self):
        locked = self.path("locked.pem")
        self.openssl("pkey", "-in", ROOT_PEM, "-aes256", "-passout", "pass:secret", "-out", locked)
        self.assertEqual(self.refuse_sign(self.make(), "", locked),
                         ["no key can be read from %s" % locked,
                          "it must be a PEM file with an ECDSA P-256 or P-384 key without pass phrase"])

    def test_certificates_that_cannot_be_signed(self):
        signed = self.make("", ROOT_PEM)
        self.assertEqual(self.refuse_sign(signed, "", ROOT_PEM)[0], "the certificate is signed already")
        self.assertEqual(self.refuse_sign(self.make(SIGNING_ZKY), self.other_chain(), STRANGER_PEM)[0],
                         "the certificate holds another key chain than %s" % self.path("other.zky"))
        self.assertIn("is not a compact certificate", self.refuse_sign(bytes(8), "", ROOT_PEM)[0])

    def other_chain(self):
        text = compact_cert.write_zky(compact_cert.make_chain([ROOT_PEM, STRANGER_PEM]))
        return self.write("other.zky", text.encode("ascii"))

    def test_chain_files_that_cannot_be_used(self):
        good = compact_cert.write_zky(compact_cert.make_chain([ROOT_PEM, SIGNING_PEM])).splitlines()
        other = read(self.other_chain()).decode("ascii").splitlines()

        def refuse(*lines):
            path = self.write("bad.zky", "\n".join(lines).encode("ascii"))
            reasons = self.refused(compact_cert_sign.external_sign_function, 1, 2, "00", path, "")
            return [reason.replace(path, "FILE") for reason in reasons]

        self.assertEqual(refuse("hello"), ["FILE is not a key chain file: it does not begin with \"zky-key-chain: 1\""])
        self.assertEqual(refuse(), refuse("hello"))
        self.assertEqual(refuse("zky-key-chain: 1"), ["FILE holds 0 keys, 1 to 8 are allowed"])
        self.assertEqual(refuse(*good[:2] + [good[3]])[0], "FILE line 3 has no place here")
        self.assertEqual(refuse("# note", "", good[0], "key: *")[0], "FILE line 4 is not base64")
        self.assertEqual(refuse(good[0], "key:")[0], "FILE line 2 has no place here")
        self.assertEqual(refuse(*good[:3])[:2], ["key chain file FILE cannot be used",
                                                 "key 1 of the chain is not signed by the key before it"])
        self.assertEqual(refuse(*good[:3] + [other[3]])[1], "key 1 of the chain is not signed by the key before it")
        self.assertEqual(refuse(good[0], "key: AAAA")[1], "a key is neither ECDSA P-256 nor ECDSA P-384")

    def test_hexadecimal_text_that_is_none(self):
        for text in ("0", "0G", "hello"):
            self.assertEqual(self.refused(compact_cert_sign.external_verify_function, text),
                             ["the data is not hexadecimal text of whole bytes"])
        self.assertEqual(self.refused(compact_cert_sign.external_sign_function, 1, 2, "", "", ""), ["there is no data"])

    def test_long_chains_and_mixed_curves(self):
        chain = compact_cert.make_chain([ROOT_PEM, STRANGER_PEM, SIGNING_PEM])
        path = self.write("long.zky", compact_cert.write_zky(chain).encode("ascii"))
        signed = self.sign(self.make(), path, SIGNING_PEM)
        self.verify(signed)
        self.assertEqual(compact_cert.parse(signed).chain, chain)

    def test_nothing_stays_behind(self):
        before = set(os.listdir(tempfile.gettempdir()))
        self.verify(self.sign(self.make(), SIGNING_ZKY, SIGNING_PEM))
        left = [name for name in set(os.listdir(tempfile.gettempdir())) - before if name.startswith("compact_cert")]
        self.assertEqual(left, [])

    def test_as_main_program(self):
        script = os.path.join(COMMON, "python", "norvane_sign.py")
        zky, unsigned, signed = self.path("c.zky"), self.write("u.ccert", self.make()), self.path("s.ccert")
        root = hashlib.sha256(self.openssl("pkey", "-in", ROOT_PEM, "-pubout", "-outform", "DER")).hexdigest().upper()

        self.assertEqual(self.run_program(script, "chain", "--out=" + zky, ROOT_PEM, SIGNING_PEM),
                         (0, "%s: 2 keys, root %s\n" % (zky, root), ""))
        status, output, errors = self.run_program(script, "sign", unsigned, "--out=" + signed, "--zky=" + zky,
                                                  "--pem=" + SIGNING_PEM)
        self.assertEqual((status, output, errors),
                         (0, "%s: signed, %d bytes\n" % (signed, os.path.getsize(signed)), ""))
        self.verify(read(signed))
        key = compact_cert.fingerprint(compact_cert.read_public_key(SIGNING_PEM))
        for program, arguments in ((script, ["verify", signed]),
                                   (os.path.join(COMMON, "python", "compact_cert_sign.py"), [signed])):
            self.assertEqual(self.run_program(program, *arguments),
                             (0, "%s: valid, signed by %s\n" % (signed, key), ""))
        status, output, _ = self.run_program(script, "inspect", signed)
        self.assertEqual(status, 0)
        self.assertIn("compact certificate, signed", output)
        self.assertIn(hashlib.sha384(read(signed)).hexdigest(), output)
        self.assertIn(root, output)
        status, output, _ = self.run_program(script, "inspect", BITSTREAM)
        self.assertEqual((status, output.splitlines()[-1]), (0, "kind:          not a compact certificate"))

    def test_main_program_help_and_refusals(self):
        script = os.path.join(COMMON, "python", "norvane_sign.py")
        status, output, errors = self.run_program(script, "--help")
        self.assertEqual((status, errors), (0, ""))
        self.assertTrue(output.startswith("usage: norvane_sign "))
        for arguments, reason in ((["verify", self.path("none")],
                                   "certificate %s does not exist" % self.path("none")),
                                  ([], "a job must be named: inspect, sign, verify or chain"),
                                  (["sign", "x"], "the following arguments are required: --out")):
            self.new_listener()
            self.assertEqual(self.run_program(script, *arguments), (1, "", ""))
            self.assertEqual(self.listener.pieces()[0], reason)
        self.new_listener()
        script = os.path.join(COMMON, "python", "compact_cert_sign.py")
        self.assertEqual(self.run_program(script), (1, "", ""))
        self.assertEqual(self.listener.pieces(), ["no certificate is named", "name the files to verify"])

    def test_without_openssl_the_reason_is_told(self):
        unsigned = self.make()
        self.set_variable("PATH", self.folder)
        self.assertEqual(self.refuse_sign(unsigned, "", ROOT_PEM)[0], "the command openssl is not installed")


class ManifestTest(ScriptTest):
    def make(self, rbf, family="norvane", number=7, output=None):
        return rim_generator.external_make_rim_function(rbf, family, number, output or self.path("rim.json"))

    def test_the_manifest_of_a_real_bitstream(self):
        self.make(BITSTREAM)
        self.assertEqual(json.loads(read(self.path("rim.json")).decode("utf-8")), {
            "manifest": "reference-integrity", "version": 1, "tool": "rim_generator", "family": "norvane",
            "number": 7, "file": "sine_player.bin", "size": 32220, "algorithm": "SHA-384",
            "digest": hashlib.sha384(read(BITSTREAM)).hexdigest()})
        self.assertEqual(os.listdir(self.folder), ["rim.json"])

    def test_numbers_and_names_as_given(self):
        rbf = self.write("é.rbf", b"x" * 3000000)
        for number in (-1, -0x80000000, 0x7FFFFFFF, 0):
            self.make(rbf, "Norväne 2", number)
            manifest = json.loads(read(self.path("rim.json")).decode("utf-8"))
            self.assertEqual((manifest["number"], manifest["family"], manifest["file"], manifest["size"]),
                             (number, "Norväne 2", "é.rbf", 3000000))
            self.assertEqual(manifest["digest"], hashlib.sha384(b"x" * 3000000).hexdigest())

    def test_refusals_leave_an_old_manifest_alone(self):
        self.write("rim.json", b"old")
        empty = self.write("empty.rbf", b"")
        for arguments, reason in (
                ((self.path("none.rbf"),), "configuration file %s does not exist" % self.path("none.rbf")),
                ((self.folder,), "configuration file %s is not a regular file" % self.folder),
                ((empty,), "configuration file %s is empty" % empty),
                ((BITSTREAM, " "), "the device family ' ' is no name"),
                ((BITSTREAM, "a\nb"), "the device family 'a\\nb' is no name"),
                ((BITSTREAM, "a", 0x80000000), "the manifest number 2147483648 has more than 32 bits"),
                ((BITSTREAM, "a", 1, self.path("no/rim.json")), "folder %s does not exist" % self.path("no")),
                ((BITSTREAM, "a", 1, self.folder), "%s is a folder, a file is to be written there" % self.folder)):
            self.assertEqual(self.refused(self.make, *arguments)[0], reason)
        self.assertEqual(read(self.path("rim.json")), b"old")

    def test_the_configuration_file_is_never_overwritten(self):
        rbf = self.write("a.rbf", b"data")
        self.assertEqual(self.refused(self.make, rbf, "a", 1, rbf)[0],
                         "the manifest would overwrite the configuration file %s" % rbf)
        self.assertEqual(read(rbf), b"data")

    def test_as_main_program(self):
        script = os.path.join(COMMON, "python", "rim_generator.py")
        rim = self.path("rim.json")
        self.assertEqual(self.run_program(script, BITSTREAM, "norvane", "0x10", rim),
                         (0, "%s: manifest of %s\n" % (rim, BITSTREAM), ""))
        self.assertEqual(json.loads(read(rim).decode("utf-8"))["number"], 16)
        self.assertEqual(self.run_program(script, BITSTREAM, "norvane", "x", rim), (1, "", ""))
        self.assertEqual(self.listener.pieces(), ["the manifest number x is no number"])


class BitstreamTest(ScriptTest):
    """Changes of a real bitstream; 0x75CD is where the data of block-RAM bank 3 begins."""

    def setUp(self):
        super().setUp()
        self.data = read(BITSTREAM)

    def change(self, *options, data=None):
        sys.argv = ["pgm_internal_tool.pyc"] + list(options)
        changed = pgm_internal_tool.change_bitstream(bytearray(self.data if data is None else data))
        self.assertIs(type(changed), bytearray)
        return bytes(changed)

    def refusal(self, *options, data=None):
        return self.refused(lambda: self.change(*options, data=data))

    def test_bytes_are_changed_and_the_checksum_is_mended(self):
        changed = self.change("--set", "0x75CD=A55A", "--set", "%d=0F" % 0x2000)
        expected = bytearray(self.data)
        expected[0x75CD:0x75CF] = b"\xA5\x5A"
        expected[0x2000] = 0x0F
        start = self.data.index(b"\x01\x05") + 2
        place = len(self.data) - 5
        self.assertEqual(self.data[place - 1], 0x22)
        crc = 0xFFFF
        for byte in expected[start:place]:
            for bit in range(7, -1, -1):
                feedback = crc >> 15 ^ byte >> bit & 1
                crc = crc << 1 & 0xFFFF ^ (0x1021 if feedback else 0)
        expected[place:place + 2] = crc.to_bytes(2, "big")
        self.assertEqual(changed, bytes(expected))
        self.assertNotEqual(changed[place:place + 2], self.data[place:place + 2])

    def test_a_change_that_changes_nothing_gives_the_same_bitstream(self):
        self.assertEqual(self.change("--set", "0x75CD=" + self.data[0x75CD:0x75D5].hex()), self.data)

    @needs("iceunpack")
    def test_the_tool_chain_accepts_the_changed_bitstream(self):
        changed = self.change("--set=0x75CF=1234")
        path = self.write("changed.bin", changed)
        done = subprocess.run(["iceunpack", path, self.path("changed.asc")], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertEqual((done.returncode, done.stdout), (0, b""))
        words = read(self.path("changed.asc")).decode("ascii").split(".ram_data 10 11\n")[1].split()[0]
        self.assertEqual(words[-4:], "1234")
        self.write("broken.bin", self.data[:0x75CF] + b"\x12\x34" + self.data[0x75D1:])
        done = subprocess.run(["iceunpack", self.path("broken.bin"), self.path("broken.asc")],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertIn(b"CRC", done.stdout)

    def test_the_comment_may_be_changed(self):
        commented = b"\xFF\x00build 1\x00" + self.data[2:]
        changed = self.change("--set", "8=32", data=commented)
        self.assertEqual(changed, commented.replace(b"build 1", b"build 2"))

    def test_offsets_of_commands_are_refused(self):
        for offset in (0, 4, 0x1B, 0x75CC, len(self.data) - 5, len(self.data) - 1):
            reasons = self.refusal("--set", "%d=00" % offset)
            self.assertEqual(reasons[0], "offset 0x%X belongs to the commands of the bitstream" % offset)
        self.assertEqual(self.refusal("--set", "0x79CC=0000")[0],
                         "offset 0x79CD belongs to the commands of the bitstream")

    def test_refusals(self):
        how = "changes are written as --set OFFSET=HEXBYTES"
        self.assertEqual(self.refusal(), ["nothing is to be changed", how])
        for text in ("5", "x=00", "0x10=", "0x10=0", "0x10=GG", "=00"):
            self.assertEqual(self.refusal("--set", text), ["%s is no change" % text,
                                                           how + ", for example --set 0x75D0=80FF"])
        self.assertEqual(self.refusal("--set=-1=00")[0], "-1=00 is no change")
        self.assertEqual(self.refusal("--other"), ["unrecognized arguments: --other", how])
        self.assertEqual(self.refusal("--set", "0x7DDB=0000"),
                         ["the 2 bytes at offset 0x7DDB reach beyond the end of the data", "the data has 0x7DDC bytes"])
        self.assertEqual(self.refusal("--set", "0x75CE=00", "--set", "0x75CD=0000"),
                         ["the byte at offset 0x75CE is to be changed twice"])

    def test_bitstreams_that_are_not_valid(self):
        change = ["--set", "0x75CD=00"]
        broken = bytearray(self.data)
        broken[0x3000] ^= 1
        self.assertIn("the bitstream's checksum is wrong: 7631 is stored at offset 0x7DD7, its bytes give ",
                      self.refusal(*change, data=broken)[0])
        self.assertEqual(self.refusal(*change, data=b"hello"),
                         ["this is not an iCE40 bitstream: the bytes 7EAA997E are not in it"])
        self.assertEqual(self.refusal(*change, data=b"")[0], self.refusal(*change, data=b"hello")[0])
        self.assertEqual(self.refusal(*change, data=self.data[:0x7DD9])[0],
                         "the bitstream ends at offset 0x7DD9, before its wake-up command")
        self.assertEqual(self.refusal(*change, data=self.data[:0x7DD8])[0],
                         "the bitstream ends at offset 0x7DD8, before its wake-up command")
        self.assertEqual(self.refusal(*change, data=self.data[:0x3000])[0],
                         "the bitstream ends within the configuration data of bank 2")
        self.assertEqual(self.refusal(*change, data=self.data[:0x79F0])[0],
                         "the bitstream ends within the block RAM data of bank 3")
        sync = bytes.fromhex("7EAA997E")
        self.assertEqual(self.refusal(*change, data=sync + b"\x01\x06"), ["the bitstream holds no checksum"])
        self.assertEqual(self.refusal(*change, data=sync + b"\x01\x09"),
                         ["the bitstream has at offset 0x4 an unknown command 0x09"])
        self.assertEqual(self.refusal(*change, data=sync + b"\xF0"),
                         ["the bitstream has at offset 0x4 an unknown command 0xF."])
        self.assertEqual(self.refusal(*change, data=sync + b"\x22\0\0"),
                         ["the bitstream has at offset 0x4 a checksum that has no beginning or not two bytes"])
        self.assertEqual(self.refusal(*change, data=sync + b"\x01\x03"),
                         ["the bitstream has at offset 0x4 block RAM data without width and height"])
        self.assertEqual(self.refusal(*change, data=sync + b"\x61\x07\x71\x01\x01\x03\xAA\0\1"),
                         ["the bitstream has at offset 0x8 block RAM data that two zero bytes do not end"])

    def test_plain_data(self):
        self.assertEqual(self.change("--plain", "--set", "1=4142", "--set", "0x0=40", data=b"hello"), b"@ABlo")
        self.assertEqual(self.refusal("--plain", "--set", "5=00", data=b"hello")[0],
                         "the 1 bytes at offset 0x5 reach beyond the end of the data")

    def test_as_main_program(self):
        script = os.path.join(UNSHIPPED, "python", "pgm_internal_tool.py")
        status, output, errors = self.run_program(script, BITSTREAM)
        self.assertEqual((status, errors), (0, ""))
        self.assertEqual(output.splitlines()[0], "0x00001C to 0x001773  configuration, bank 0")
        self.assertEqual(output.splitlines()[-1], "0x007DD7 to 0x007DD8  checksum 7631")
        out = self.path("out.bin")
        self.assertEqual(self.run_program(script, BITSTREAM, "--out=" + out, "--set=0x75CD=A5"),
                         (0, "%s: changed, 32220 bytes\n" % out, ""))
        self.assertEqual(read(out), self.change("--set=0x75CD=A5"))
        self.assertEqual(self.run_program(script, BITSTREAM, "--set=0x75CD=A5"), (1, "", ""))
        self.assertEqual(self.listener.pieces()[0], "it is not said where the changed data goes")


class NetworkFormatTest(ScriptTest):
    def bram(self, form=None, wanted=None, path=BITSTREAM):
        return network_format.get_bram_chunks(path, form or {}, wanted or {}, "", {}, {})

    def test_the_example_memory_is_in_the_bitstream(self):
        memory = pgm_python_common_function.read_mif(SINE, True)[0]
        chunks = self.bram()
        self.assertIs(type(chunks), list)
        self.assertEqual([(type(chunk), len(chunk)) for chunk in chunks], [(bytearray, 512)] * 16)
        self.assertEqual([index for index, chunk in enumerate(chunks) if chunk == memory], [13])
        self.assertEqual(sum(map(any, chunks)), 1)
        self.assertEqual(self.bram(wanted={"3.1": "256"}), [memory])
        self.assertEqual(self.bram({"order": "big", "chunk": "0"}, {"3.1": "3", "0.0": "1"}),
                         [bytearray(2), memory[:6]])

    def test_byte_order_and_chunk_size(self):
        memory = pgm_python_common_function.read_mif(SINE, True)[0]
        swapped = self.bram({"order": "little"}, {"3.1": "256"})[0]
        self.assertEqual(struct.unpack("<256H", swapped), struct.unpack(">256H", memory))
        chunks = self.bram({"chunk": "200"}, {"3.1": "256"})
        self.assertEqual([len(chunk) for chunk in chunks], [200, 200, 112])
        self.assertEqual(bytearray().join(chunks), memory)

    def test_hash_and_size(self):
        memory = pgm_python_common_function.read_mif(SINE, True)[0]
        for text, name in (("", "sha384"), ("sha384", "sha384"), ("sha256", "sha256")):
            answer = network_format.get_bram_hash_and_size(BITSTREAM, {"chunk": "7"}, {"3.1": "256"}, text, {}, {})
            self.assertEqual(answer, [bytearray(hashlib.new(name, memory).digest()), 512])
            self.assertEqual([type(part) for part in answer], [bytearray, int])
        whole = network_format.get_bram_hash_and_size(BITSTREAM, {}, {}, "", {}, {})
        self.assertEqual(whole[1], 16 * 512)

    def test_block_ram_refusals(self):
        def refuse(*arguments):
            return self.refused(lambda: self.bram(*arguments))

        self.assertEqual(refuse({"size": "1"}), ["the form of the block-RAM data has no setting size",
                                                 "it has: order, chunk"])
        self.assertEqual(refuse({"order": "middle"}), ["the byte order middle is neither big nor little"])
        self.assertEqual(refuse({"chunk": "-1"}), ["the chunk size -1 is no number of bytes"])
        self.assertEqual(refuse({}, {"4.0": "1"})[0], "the bitstream has no block RAM 4.0")
        self.assertEqual(refuse({}, {"x": "1"})[0], "the bitstream has no block RAM x")
        for depth in ("0", "257", "x"):
            self.assertEqual(refuse({}, {"3.1": depth}),
                             ["block RAM 3.1: %s is no number of words from 1 to 256" % depth])
        self.assertEqual(refuse({}, {}, self.path("none")), ["bitstream %s does not exist" % self.path("none")])
        self.assertEqual(self.refused(network_format.get_bram_hash_and_size, BITSTREAM, {}, {}, "md5", {}, {}),
                         ["the digest md5 is not known", "known are: sha256, sha384"])

    def xcvr(self, registers, changes=None):
        return network_format.get_xcvr_chunks("", {}, {}, "", registers, changes or {})

    def test_register_images(self):
        registers = {"0x100": "1", "0x104": "0xFFFFFFFF", "256": "2", "0x110": "3", "0": "4"}
        chunks = self.xcvr(registers)
        self.assertEqual(chunks, [bytearray(struct.pack(">3I", 0, 1, 4)),
                                  bytearray(struct.pack(">4I", 0x100, 2, 2, 0xFFFFFFFF)),
                                  bytearray(struct.pack(">3I", 0x110, 1, 3))])
        self.assertEqual({type(chunk) for chunk in chunks}, {bytearray})
        changed = self.xcvr(registers, {"0x110": "default", "0x100": "9", "0x108": "8", "0x200": "default"})
        self.assertEqual(changed, [chunks[0], bytearray(struct.pack(">5I", 0x100, 3, 9, 0xFFFFFFFF, 8))])
        self.assertEqual(self.xcvr({}), [])

    def test_register_hash_and_size(self):
        registers = {"0x0": "1", "0x8": "2"}
        image = struct.pack(">6I", 0, 1, 1, 8, 1, 2)
        self.assertEqual(network_format.get_xcvr_hash_and_size("", {}, {}, "sha256", registers, {}),
                         [bytearray(hashlib.sha256(image).digest()), 24])
        self.assertEqual(network_format.get_xcvr_hash_and_size("", {}, {}, "", {}, {}),
                         [bytearray(hashlib.sha384(b"").digest()), 0])

    def test_register_refusals(self):
        for registers, reason in (({"x": "1"}, "register address x is no 32-bit number"),
                                  ({"0x100000000": "1"}, "register address 0x100000000 is no 32-bit number"),
                                  ({"0x2": "1"}, "the register address 0x2 is no multiple of 4"),
                                  ({"0x4": "-1"}, "value of register 0x4: -1 is no 32-bit number"),
                                  ({"0x4": "default"}, "value of register 0x4: default is no 32-bit number")):
            self.assertEqual(self.refused(self.xcvr, registers)[0], reason)

    def test_it_finds_its_helpers_by_itself(self):
        done = subprocess.run([sys.executable, "-I", "-B", "-c",
                               "import sys; sys.path.insert(0, sys.argv[1]); import network_format\n"
                               "print(network_format.get_xcvr_chunks('', {}, {}, '', {'0': '1'}, {}))", NETWORK],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertIn(b"[bytearray(b'\\x00", done.stdout)


class DatabaseTest(ScriptTest):
    def ask(self, *arguments):
        sys.argv = ["mysql.pyc"] + list(arguments)
        answer = mysql.mysql()
        self.assertIs(type(answer), str)
        return answer

    def error(self, *arguments):
        with self.assertRaises(mysql.QueryError) as caught:
            self.ask(*arguments)
        return str(caught.exception)

    def make_file(self):
        path = self.path("parts #1%.db" if os.name == "nt" else "parts #1?.db")  # "?" is in no name there
        connection = sqlite3.connect(path)
        connection.executescript(read(os.path.join(DATA, "parts.sql")).decode("utf-8"))
        connection.commit()
        connection.close()
        return path

    def test_the_example_in_memory(self):
        self.assertEqual(self.ask("SELECT name, luts FROM devices WHERE family = 'norvane' ORDER BY luts"),
                         "name\tluts\nNRV010\t10240\nNRV025\t25600\nNRV060\t61440\n")
        self.assertEqual(self.ask("--no-header", "SELECT count(*) FROM devices"), "6\n")

    def test_a_file(self):
        path = self.make_file()
        self.assertEqual(self.ask("--database=" + path, "SELECT opn, shelf FROM parts WHERE stock < 4 ORDER BY opn"),
                         "opn\tshelf\nNRV060-F484-ES\tNULL\nPLM240-F1152-I1\t4\n")
        self.assertEqual(self.ask("--database", path, "UPDATE parts SET stock = 0 WHERE family = 'tarn'"), "")
        self.assertEqual(self.ask("--no-header", "--database", path, "SELECT stock FROM parts WHERE family = 'tarn'"),
                         "0\n")
        self.assertEqual(self.ask("--database", path, "SELECT opn FROM parts WHERE stock < 0"), "opn\n")

    def test_values_that_need_care(self):
        self.assertEqual(self.ask("--no-header", "SELECT char(9) || 'a\\' || char(10), NULL, x'00FF', 1.5, 'é'"),
                         "\\ta\\\\\\n\tNULL\t00FF\t1.5\té\n")

    def test_errors(self):
        self.assertEqual(self.error(), "no SQL statement is given; see --help")
        self.assertEqual(self.error(" "), "no SQL statement is given; see --help")
        self.assertEqual(self.error("SELEC"), "the database says: near \"SELEC\": syntax error")
        self.assertEqual(self.error("--database", self.path("none.db"), "SELECT 1"),
                         "the database file %s does not exist" % self.path("none.db"))
        self.assertEqual(os.listdir(self.folder), [])
        self.assertIn("not a database", self.error("--database", self.write("text.db", b"x" * 5000), "SELECT * FROM a"))
        self.assertEqual(self.error("--user=me", "SELECT 1"),
                         "--user is for a server: name it with --host, --port or --socket")
        self.assertEqual(self.error("--other", "SELECT 1"), "unrecognized arguments: --other; see --help")
        self.assertIn("You can only execute one statement at a time", self.error("SELECT 1; SELECT 2"))

    def test_a_failed_statement_changes_nothing(self):
        path = self.make_file()
        self.assertIn("UNIQUE", self.error("--database", path, "INSERT INTO parts VALUES ('NEW', 'tarn', 1, 1), "
                                           "('TRN04-Q48-C1', 'tarn', 1, 1)"))
        self.assertEqual(self.ask("--no-header", "--database", path, "SELECT count(*) FROM parts"), "8\n")

    def test_help(self):
        self.assertTrue(self.ask("--help").startswith("usage: mysql "))

    def test_a_server_without_a_client_command(self):
        self.set_variable("PATH", self.folder)
        self.assertEqual(self.error("--port=1", "SELECT 1"), "neither the command mariadb nor the command mysql "
                         "is installed, one must ask the server")

    def test_as_main_program(self):
        script = os.path.join(UNSHIPPED, "mysql", "mysql.py")
        self.assertEqual(self.run_program(script, "--no-header", "SELECT 7"), (0, "7\n", ""))
        status, output, errors = self.run_program(script, "SELEC")
        self.assertEqual((status, output, errors.strip()),
                         (1, "", "error: the database says: near \"SELEC\": syntax error"))


def find_server():
    return shutil.which("mariadbd") or next(
        (path for path in ("/usr/sbin/mariadbd", "/usr/libexec/mariadbd") if os.access(path, os.X_OK)), None)


@unittest.skipUnless(find_server() and shutil.which("mariadb-install-db") and shutil.which("mariadb"),
                     "the MariaDB server or its client is not installed")
class ServerTest(DatabaseTest):
    """The same script asks a real MariaDB server on a private folder and a free loopback port."""

    test_the_example_in_memory = test_a_file = test_values_that_need_care = test_errors = None
    test_a_failed_statement_changes_nothing = test_help = test_as_main_program = None
    test_a_server_without_a_client_command = None

    @classmethod
    def setUpClass(cls):
        cls.place = tempfile.mkdtemp(prefix="db")
        cls.data = os.path.join(cls.place, "data")
        cls.socket = os.path.join(cls.place, "s")
        common = ["--no-defaults", "--datadir=" + cls.data]
        if os.getuid() == 0:
            common.append("--user=root")
        subprocess.run([shutil.which("mariadb-install-db")] + common
                       + ["--auth-root-authentication-method=normal", "--skip-test-db"],
                       check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            cls.port = probe.getsockname()[1]
        cls.log = open(os.path.join(cls.place, "log"), "wb")
        cls.server = subprocess.Popen([find_server()] + common + [
            "--bind-address=127.0.0.1", "--port=%d" % cls.port, "--socket=" + cls.socket,
            "--pid-file=" + os.path.join(cls.place, "pid"), "--innodb-buffer-pool-size=8M",
            "--skip-name-resolve"], stdin=subprocess.DEVNULL, stdout=cls.log, stderr=cls.log)
        deadline = time.monotonic() + 60
        while True:
            done = subprocess.run([shutil.which("mariadb"), "--no-defaults", "--socket=" + cls.socket, "--user=root",
                                   "--execute=CREATE DATABASE shop"],
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            if done.returncode == 0:
                break
            if cls.server.poll() is not None or time.monotonic() > deadline:
                cls.tearDownClass()
                raise AssertionError("the MariaDB server did not start")
            time.sleep(0.2)

    @classmethod
    def tearDownClass(cls):
        if cls.server.poll() is None:
            cls.server.terminate()
            cls.server.wait(60)
        cls.log.close()
        shutil.rmtree(cls.place)

    def ask_server(self, *arguments):
        return self.ask("--port=%d" % self.port, "--user=root", "--database=shop", *arguments)

    def test_a_server_is_asked(self):
        self.assertEqual(self.ask_server(read(os.path.join(DATA, "parts.sql")).decode("utf-8")), "")
        self.assertEqual(self.ask_server("SELECT opn, shelf FROM parts WHERE stock < 4 ORDER BY opn"),
                         "opn\tshelf\nNRV060-F484-ES\tNULL\nPLM240-F1152-I1\t4\n")
        self.assertEqual(self.ask("--socket", self.socket, "--user=root", "--no-header",
                                  "SELECT 'é', concat(char(9), char(10), '\\\\')"), "é\t\\t\\n\\\\\n")
        self.assertEqual(self.ask("--host=127.0.0.1", "--port=%d" % self.port, "--user=root", "--no-header",
                                  "SELECT 1 + 1"), "2\n")

    def test_errors_of_the_server(self):
        with self.assertRaises(mysql.QueryError) as caught:
            self.ask_server("SELECT * FROM nothing")
        self.assertIn("Table 'shop.nothing' doesn't exist", str(caught.exception))
        with self.assertRaises(mysql.QueryError) as caught:
            self.ask("--port=%d" % self.port, "--user=nobody_here", "SELECT 1")
        self.assertIn("Access denied", str(caught.exception))

    def test_commands_of_the_client_are_not_run(self):
        mark = self.path("mark")
        with contextlib.suppress(mysql.QueryError):
            self.ask_server("\\! touch '%s'\n" % mark)
        with contextlib.suppress(mysql.QueryError):
            self.ask_server("system touch '%s'\n" % mark)
        self.assertFalse(os.path.exists(mark))


class InstallationTest(ScriptTest):
    def layout(self):
        rows = []
        for line in read(os.path.join(INSTALLATION, "layout.txt")).decode("ascii").splitlines():
            if line and not line.startswith("#"):
                rows.append(tuple(line.split()))
        return rows

    def test_the_layout_names_every_script_once(self):
        found = []
        for folder, _, names in os.walk(INSTALLATION):
            found += [os.path.relpath(os.path.join(folder, name), INSTALLATION).replace(os.sep, "/")
                      for name in names if name.endswith(".py")]
        self.assertEqual(sorted(path for path, _ in self.layout()), sorted(found))
        self.assertEqual({form for _, form in self.layout()}, {"py", "pyc"})

    def test_the_forms_that_callers_expect(self):
        forms = {os.path.basename(path): form for path, form in self.layout()}
        for name in ("pgm_python_common_function", "compact_cert_sign", "rim_generator", "mysql",
                     "pgm_internal_tool"):
            self.assertEqual(forms[name + ".py"], "pyc")
        for name in ("norvane_sign", "network_format", "pgm_python_reasons"):
            self.assertEqual(forms[name + ".py"], "py")

    def install(self):
        for path, form in self.layout():
            source, target = os.path.join(INSTALLATION, path), self.path(path)
            os.makedirs(os.path.dirname(target), exist_ok=True)
            if form == "pyc":
                py_compile.compile(source, target + "c", doraise=True)
            else:
                shutil.copy(source, target)

    def test_the_installed_scripts_work(self):
        self.install()
        python = self.path("common/programmer/python")
        code = ("import sys\n"
                "base = sys.argv[1]\n"
                "for part in ('common/programmer/python', 'common/programmer/python/source',\n"
                "             'unshipped/programmer/python', 'unshipped/programmer/mysql', 'common/programmernwfmt'):\n"
                "    sys.path.insert(0, base + '/' + part)\n"
                "import pgm_python_common_function, compact_cert_sign, rim_generator, norvane_sign\n"
                "import pgm_internal_tool, mysql, network_format\n"
                "print(pgm_python_common_function.query_opn_enum(0x101))\n"
                "print(pgm_python_common_function.read_mif(sys.argv[2], True)[1:])\n"
                "rim_generator.external_make_rim_function(sys.argv[3], 'f', 1, base + '/rim.json')\n"
                "print(len(compact_cert_sign.external_sign_function(1, 2, '00', '', '')))\n"
                "sys.argv[1:] = ['SELECT 5']\n"
                "print(mysql.mysql().split())\n"
                "print(compact_cert_sign.__file__.endswith('.pyc'))\n")
        done = subprocess.run([sys.executable, "-B", "-c", code, self.folder, SINE, BITSTREAM],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertEqual((done.stdout.decode("utf-8").splitlines(), done.stderr),
                         (["NRV010-C100-I2", "[16, 256]", "48", "['5', '5']", "True"], b""))
        self.assertFalse(os.path.exists(os.path.join(python, "rim_generator.py")))

    def test_the_example_data_belongs_together(self):
        self.assertEqual(read(os.path.join(DATA, "bitstream", "sine_player.sha384")),
                         hashlib.sha384(read(BITSTREAM)).digest())
        with open(SINE, "rb") as stream:
            done = subprocess.run([sys.executable, os.path.join(DATA, "bitstream", "make_rom.py")], stdin=stream,
                                  stdout=subprocess.PIPE, check=True)
        self.assertEqual(done.stdout.split(), read(os.path.join(DATA, "bitstream", "sine_rom.vh")).split())
        for name in os.listdir(os.path.join(DATA, "keys")):
            self.assertTrue(read(os.path.join(DATA, "keys", name)).lstrip(b"# ").startswith(b"EXAMPLE KEY"), name)


if __name__ == "__main__":
    unittest.main()
