"""Compares the authors' description of the operations, and the bench made of it, with the library itself.

authors_test.py FACTS PACKAGES: the program authors_facts, and the folder that holds the package.
"""

import ast
import json
import os
import py_compile
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

try:
    import pty
except ImportError:  # no such terminals
    pty = None

sys.dont_write_bytecode = True
os.environ["PYTHONDONTWRITEBYTECODE"] = "1"
FACTS, PACKAGES = sys.argv[1:3]
sys.path.insert(0, PACKAGES)

from pgm_python_authors import make_protocols, operations, protocols, session
from pgm_python_authors.check import make_parser
from pgm_python_authors.bench import Bench, Installation, Seen
from pgm_python_authors.operations import ARGUMENT_TYPES, OPERATIONS

CONTENT = bytes(range(0xA8, 0xB8))
# What a program gives, by the kind of value.
VALUES = {"text": "text \u00e4", "number": -2, "bytes": CONTENT, "flag": True,
          "map": {"b": "2", "a": "1"}, "texts": ["--first", "second \u00e4"]}

RIGHT = {"text": "'an answer'", "text_or_bytes": "b'an answer'", "number": "-3", "bytes": "bytearray(b'changed')",
         "ignored": "None", "key": "fill(arguments)", "memory": "[bytearray(b'image'), 8, -5]",
         "chunks": "[bytearray(b'a'), bytearray(b'bc')]", "hash_and_size": "[bytearray(b'hash'), 12]"}

ANSWERS = (
    "None", "True", "False", "'text'", "'a\\0b'", "b'bytes'", "b'a\\0b'", "b'\\xff'", "bytearray(b'bytes')",
    "bytearray()", "5", "-1", "0x80000000", "-0x80000001", "1.5", "'5'", "(1, 2)", "[]", "[[]]",
    "[bytearray(b'ab'), bytearray(b'c')]", "(bytearray(b'ab'), bytearray(b'c'))", "[bytearray(b'ab'), b'c']",
    "[bytearray(b'ab'), 5]", "[b'ab', 5]", "(bytearray(b'ab'), 5)", "[bytearray(b'ab'), '5']",
    "[bytearray(b'ab'), 5, 6]", "[b'ab', 5, 6]", "[bytearray(b'ab'), 5, '6']", "(bytearray(b'ab'), 5, 6)",
    "[bytearray(b'ab'), 0xFFFFFFFF, 6]", "type('Text', (str,), {})('text')", "type('Bytes', (bytes,), {})(b'bytes')",
    "type('Array', (bytearray,), {})(b'bytes')", "type('List', (list,), {})([bytearray(b'ab'), 5])",
    "type('Number', (), {'__index__': lambda self: 7})()", "'\\ud800'", "{}", "object()")

SCRIPT = """
import json, os, sys

def fill(arguments):
    arguments[2][:] = bytes(range(32))
    return True

def plain(value):
    return bytes(value).hex() if isinstance(value, bytearray) else list(value.items()) if isinstance(value, dict) else value

def %(function)s(*arguments):
    with open(%(record)r, "w") as stream:
        json.dump({"types": [type(each).__name__ for each in arguments], "values": [plain(each) for each in arguments],
                   "argv": getattr(sys, "argv", [""]), "path": sys.path[:%(entries)d],
                   "programs": os.environ.get("PGM_PYTHON_BIN_DIR")}, stream)
    return %(answer)s
"""

TELLING = """
import socket

def tell(text):
    try:
        connection = socket.create_connection(("127.0.0.1", 57343), timeout=1.0)
    except OSError:
        return
    connection.sendall(text)
    connection.close()
"""


def to_word(value):
    if isinstance(value, bool):
        value = "1" if value else "0"
    elif isinstance(value, int):
        value = str(value)
    elif isinstance(value, dict):
        value = ",".join("%s=%s" % entry for entry in value.items())
    return "x" + (value if isinstance(value, bytes) else value.encode("utf-8", "surrogateescape")).hex()


def from_word(word):
    return None if word == "null" else bytes.fromhex(word[1:])


class Library:
    """The program that calls the library, with an installation of its own."""

    def __init__(self, installation):
        environment = dict(os.environ, PGM_COMMON_PROGRAMMER_DIR=installation.common, LC_ALL="C.UTF-8",
                           PGM_UNSHIPPED_PROGRAMMER_DIR=installation.unshipped, PGM_BIN_DIR=installation.programs)
        for name in list(environment):
            if name.startswith("PGM_PYTHON_"):
                del environment[name]
        self._process = subprocess.Popen([FACTS, "calls"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=subprocess.DEVNULL, env=environment)

    def close(self):
        self._process.stdin.close()
        self._process.stdout.close()
        self._process.wait()

    def call(self, operation, values):
        """What came back as words, and the messages."""
        words = [operation.name]
        for value in values:
            words += [to_word(each) for each in value] if isinstance(value, list) else [to_word(value)]
        self._process.stdin.write((" ".join(words) + "\n").encode("ascii"))
        self._process.stdin.flush()
        results, reports = [], []
        while True:
            line = self._process.stdout.readline().decode("ascii").split()
            if not line:
                raise AssertionError("%s ended the program" % operation.name)
            if line[0] == "end":
                return results, reports
            if line[0] == "value":
                results.append(line[1])
            else:
                text = from_word(line[1]).decode("utf-8", "surrogateescape")
                reports.append(text.rpartition(" [")[0] if text.startswith("internal error") else text)


def as_seen(kind, words):
    """The words of the library as the value of a Seen."""
    if words == ["thrown"]:
        return "thrown"
    if kind in ("text", "text_or_bytes"):
        return from_word(words[0]).decode("utf-8", "surrogateescape")
    if kind == "number":
        return int(words[0])
    if kind == "ignored":
        return words[0] == "1"
    if kind in ("bytes", "key"):
        return from_word(words[0]) or None
    rest = [None if word == "none" else int(word) for word in words[1:]]
    return tuple([from_word(words[0])] + rest)


class AuthorsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls._folder = tempfile.TemporaryDirectory()
        cls.folder = os.path.realpath(cls._folder.name)
        cls.installation = Installation(cls.folder + "/common/programmer", cls.folder + "/unshipped/programmer",
                                        cls.folder + "/bin")
        for kind in ("common", "unshipped", "network", "database"):
            os.makedirs(cls.installation.folder(kind))
        for name in ("key.zky", "key.pem"):
            open(cls.folder + "/" + name, "w").close()
        cls.library = Library(cls.installation)
        cls.bench = Bench(cls.installation)
        cls.record = cls.folder + "/record"

    @classmethod
    def tearDownClass(cls):
        cls.library.close()
        cls._folder.cleanup()

    def place(self, operation, source):
        """Writes an operation's script; returns what the operation is given to name it."""
        name = operation.script or "named_script.py"
        folder = self.installation.folder("common" if operation.folder == "catalogue" else operation.folder)
        path = "%s/%s" % (folder, name)
        text = self.folder + "/source.py"
        with open(text, "w", encoding="utf-8") as stream:
            stream.write(source)
        if name.endswith(".pyc"):
            py_compile.compile(text, cfile=path, dfile="source.py", doraise=True)
        else:
            os.replace(text, path)
        self.addCleanup(lambda: os.path.exists(path) and os.remove(path))
        return path if operation.folder == "catalogue" else name

    def values(self, operation, script, function):
        given = {"script": script, "function": function, ".zky": self.folder + "/key.zky",
                 ".pem": self.folder + "/key.pem"}
        return [given.get(value.kind, given.get(value.check, VALUES.get(value.kind))) for value in operation.values]

    def compare(self, operation, function, source, library=None):
        """Has library and bench call the same and compares what a program sees. Returns the bench's."""
        values = self.values(operation, self.place(operation, source), function)
        kind = operation.answer_of(function)
        records = []
        for side in ("library", "bench"):
            if os.path.exists(self.record):
                os.remove(self.record)
            if side == "library":
                words, messages = (library or self.library).call(operation, values)
            else:
                seen = self.bench.call(operation.name, *values)
            records.append(None)
            if os.path.exists(self.record):
                with open(self.record) as stream:
                    records[-1] = json.load(stream)
        expected = as_seen(kind, words)
        self.assertEqual(seen.messages, messages, (operation.name, source))
        if library is None and None not in records:
            for record in records:
                record["programs"] = None
        self.assertEqual(records[1], records[0])
        if expected == "thrown":
            self.assertIsNotNone(seen.internal_error)
        else:
            self.assertIsNone(seen.internal_error)
            self.assertEqual(seen.value, expected, (operation.name, source))
        return seen, records[0]

    def functions(self):
        for operation in OPERATIONS.values():
            names = [name for name, _ in operation.functions] or [operation.function or "a_function"]
            for name in names:
                yield operation, name

    def source(self, operation, function, answer):
        return SCRIPT % {"function": function, "record": self.record, "answer": answer,
                         "entries": 4 if operation.suite_folders else 1}

    def test_operations_call_what_is_described(self):
        for operation, function in self.functions():
            with self.subTest(operation=operation.name, function=function):
                kind = operation.answer_of(function)
                # A process of its own: PGM_PYTHON_BIN_DIR stays set in one that has called another operation.
                library = Library(self.installation)
                self.addCleanup(library.close)
                source = self.source(operation, function, RIGHT[kind])
                seen, record = self.compare(operation, function, source, library)
                self.assertIsNotNone(record, "the script was not called")
                self.assertTrue(seen.is_right, seen)
                self.assertEqual(seen.messages, [])
                self.assertEqual(record["types"], [ARGUMENT_TYPES[each.kind] for each in operation.arguments])
                self.assertEqual(record["programs"], self.installation.programs if operation.suite_folders else None)
                given = {value.name: value for value in operation.values}
                for argument, value in zip(operation.arguments, record["values"]):
                    expected = {"number": -2, "hex": CONTENT.hex().upper(), "bytes": CONTENT.hex(), "flag": True,
                                "map": [["a", "1"], ["b", "2"]], "key": "00" * 32}.get(argument.kind)
                    if argument.kind == "text":
                        check = given[argument.name].check
                        expected = self.folder + "/key" + check if check.startswith(".") else VALUES["text"]
                    self.assertEqual(value, expected, argument)

    def test_there_are_no_other_operations(self):
        header = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "pgm", "pgm_python",
                              "pgm_python_mgr.h")
        with open(header, encoding="utf-8") as stream:
            text = stream.read()
        for name in OPERATIONS:
            self.assertIn(name.replace("_keychain_script", "_keychain") + "(", text)
        for operation in OPERATIONS.values():
            if operation.function:
                self.assertTrue(operation.function.isidentifier())

    def test_every_answer_is_seen_as_the_library_gives_it(self):
        kinds = {}
        for operation, function in self.functions():
            kinds.setdefault(operation.answer_of(function), (operation, function))
        self.assertEqual(set(kinds), set(operations.ANSWERS))
        for kind, (operation, function) in kinds.items():
            for answer in ANSWERS:
                with self.subTest(kind=kind, answer=answer):
                    self.compare_answer(operation, function, kind, answer)

    def compare_answer(self, operation, function, kind, answer):
        """The same as compare for an answer alone; the bench is told it without a process of its own."""
        placed = self.place(operation, "def %s(*arguments):\n    return %s\n" % (function, answer))
        words, messages = self.library.call(operation, self.values(operation, placed, function))
        seen = Seen()
        reply = {"stage": "answer", "error": None, "answer": session.encode(eval(answer)), "filled": "00" * 32}
        self.bench._tell(operation, function, os.path.basename(placed).rpartition(".")[0], kind, reply, [], seen)
        self.assertEqual(seen.messages, messages)
        expected = as_seen(kind, words)
        if expected == "thrown":
            self.assertIsNotNone(seen.internal_error)
        else:
            self.assertEqual(seen.value, expected)

    def test_answers_of_any_size_and_depth_are_seen_as_the_library_gives_them(self):
        kinds = {}
        for operation, function in self.functions():
            kinds.setdefault(operation.answer_of(function), (operation, function))
        bodies = ("    return 10**6000\n",
                  "    return type('Number', (), {'__index__': lambda self: 10**6000})()\n",
                  "    return [bytearray(b'ab'), 10**6000]\n",
                  "    return [bytearray(b'ab'), 10**6000, 5]\n",
                  "    answer = []\n    answer.append(answer)\n    return answer\n",
                  "    answer = [bytearray(b'ab'), 5, 6]\n    answer[1:2] = [answer]\n    return answer\n",
                  "    answer = []\n    for _ in range(100000):\n        answer = [answer]\n    return answer\n",
                  "    answer = ()\n    for _ in range(100000):\n        answer = (answer,)\n    return [answer, 5]\n")
        for kind, (operation, function) in kinds.items():
            for body in bodies:
                with self.subTest(kind=kind, body=body):
                    # What ends in an internal error leaves a list of that depth to the end of the process.
                    library = Library(self.installation)
                    self.addCleanup(library.close)
                    seen, _ = self.compare(operation, function, "def %s(*arguments):\n%s" % (function, body), library)
                    self.assertNotEqual(seen.answer_type, None)

    def test_answers_that_lie_about_themselves_are_seen_as_the_library_gives_them(self):
        classes = ("(int,), {'__int__': lambda self: 9})(7)", "(int,), {'__repr__': lambda self: 1 / 0})(7)",
                   "(bytearray,), {'__iter__': None, '__len__': lambda self: 99})(b'ab')",
                   "(bytes,), {'__bytes__': lambda self: b'no'})(b'ab')",
                   "(), {'__class__': property(lambda self: bytearray)})()",
                   "(), {'__class__': property(lambda self: 1 / 0)})()",
                   "(list,), {'__iter__': lambda self: 1 / 0})([bytearray(b'ab'), 5])",
                   "(), {'__repr__': lambda self: __import__('sys').exit(3)})()",
                   "(), {'__index__': lambda self: __import__('sys').exit(3)})()")
        kinds = {}
        for operation, function in self.functions():
            kinds.setdefault(operation.answer_of(function), (operation, function))
        for kind, (operation, function) in kinds.items():
            for each in classes:
                with self.subTest(kind=kind, answer=each):
                    self.compare_answer(operation, function, kind, "type('Own', " + each)

    def test_texts_that_are_not_utf_8_are_seen_as_the_library_takes_them(self):
        wrong = "b\udcff"
        compared = 0
        for operation, function in {operation: function for operation, function in self.functions()}.items():
            kind = operation.answer_of(function)
            source = self.source(operation, function, RIGHT[kind])
            script = self.place(operation, source)
            for index, value in enumerate(operation.values):
                texts = {"text": wrong, "map": {"a": wrong}, "texts": ["--first", wrong], "function": wrong}
                if value.kind not in texts or value.kind == "function" and operation.functions:
                    continue
                values = self.values(operation, script, function)
                values[index] = texts[value.kind]
                if value.check in (".zky", ".pem"):
                    values[index] = self.folder + "/" + wrong + value.check
                    open(values[index], "w").close()
                with self.subTest(operation=operation.name, function=function, value=value.name):
                    if os.path.exists(self.record):
                        os.remove(self.record)
                    library = Library(self.installation)
                    self.addCleanup(library.close)
                    words, messages = library.call(operation, values)
                    called = os.path.exists(self.record)
                    if called:
                        os.remove(self.record)
                    seen = self.bench.call(operation.name, *values)
                    self.assertEqual(seen.messages, messages)
                    self.assertEqual(seen.internal_error is not None, words == ["thrown"])
                    self.assertEqual(os.path.exists(self.record), called)
                    if words != ["thrown"]:
                        self.assertEqual(seen.value, as_seen(kind, words))
                    compared += 1
        self.assertGreaterEqual(compared, 20)

    def test_a_module_name_that_is_not_utf_8_is_told_as_the_library_tells_it(self):
        operation = OPERATIONS["modify_bitstream"]
        path = self.folder + "/by\udcff.py"
        with open(path, "w") as stream:
            stream.write("def change(data):\n    return data\n")
        values = [CONTENT, path, "change"]
        words, messages = self.library.call(operation, values + [[]])
        seen = self.bench.call(operation.name, *values)
        self.assertEqual(messages[:1], ["error: Fail to convert module name by\udcff to PyObject"])
        self.assertEqual((seen.messages, seen.value), (messages, as_seen("bytes", words)))
        self.assertIn("UnicodeDecodeError", seen.problem)

    def test_folders_that_cannot_become_python_text_are_refused_as_by_the_library(self):
        for name in ("by\udcff", 'a "quoted" one', "two\nlines", "an \u00e4"):
            folder = "%s/%s" % (self.folder, name)
            for kind in ("script", "common"):
                installation = self.installation
                path = folder + "/change.py"
                if kind == "common":
                    installation = Installation(folder, self.installation.unshipped, self.installation.programs)
                    path = self.folder + "/change.py"
                os.makedirs(folder, exist_ok=True)
                with open(path, "w") as stream:
                    stream.write("def change(data):\n    return data\n")
                with self.subTest(name=name, kind=kind):
                    library = Library(installation)
                    self.addCleanup(library.close)
                    words, messages = library.call(OPERATIONS["modify_bitstream"], [CONTENT, path, "change", []])
                    seen = Bench(installation).call("modify_bitstream", CONTENT, path, "change")
                    self.assertEqual(seen.messages, messages)
                    self.assertEqual(seen.internal_error is not None, words == ["thrown"])
                    self.assertEqual(seen.is_right, "\u00e4" in name)
                    seen = Bench(installation).run(path)
                    self.assertEqual(seen.messages, messages)

    def test_an_argument_that_is_not_utf_8_comes_after_the_script(self):
        operation = OPERATIONS["get_nwfmt_data"]
        for source in ("raise ValueError\n", "def other():\n    pass\n"):
            for values in (["b\udcff"], ["a", {"a": "b\udcff"}], ["a", {"a": "b\udcff"}, {}, "b\udcff"]):
                with self.subTest(source=source, values=values):
                    library = Library(self.installation)
                    self.addCleanup(library.close)
                    given = [self.place(operation, source), "get_bram_chunks"] + values
                    filled = given + ["", {}, {}, "", {}, {}][len(values):]
                    _, messages = library.call(operation, filled)
                    self.assertEqual(self.bench.call(operation.name, *given).messages, messages)

    def test_a_process_that_goes_on_is_not_waited_for(self):
        starting = ("import subprocess, sys\n\ndef get_username(user):\n"
                    "    subprocess.Popen([sys.executable, '-c', 'import time; time.sleep(40)'])\n    return user\n")
        forking = ("import os, time\nif os.fork() == 0:\n    time.sleep(40)\n    os._exit(0)\n\n"
                   "def get_username(user):\n    print('as it goes', flush=True)\n    return user\n")
        operation = OPERATIONS["get_username"]
        bench = Bench(self.installation, timeout=30)
        for source, output in ((starting, ""), (forking, "as it goes\n")):
            with self.subTest(source=source):
                self.place(operation, source)
                begin = time.monotonic()
                seen = bench.call(operation.name, "somebody")
                self.assertLess(time.monotonic() - begin, 25)
                self.assertEqual((seen.value, seen.messages, seen.output), ("somebody", [], output))

    def test_what_a_script_wrote_before_its_time_was_over_is_told(self):
        self.place(OPERATIONS["get_username"], "import time\n\ndef get_username(user):\n"
                   "    print('begun', flush=True)\n    time.sleep(60)\n")
        seen = Bench(self.installation, timeout=2).call("get_username", "somebody")
        self.assertEqual((seen.output, seen.problem), ("begun\n", "the script did not end within 2 seconds"))

    def test_the_first_line_of_an_exception_is_its_cause(self):
        for raised, problem in (("ValueError('first\\nsecond')", "ValueError: first"),
                                ("ValueError('\\nfirst\\nsecond')", "ValueError: first"),
                                ("KeyError('a')", "KeyError: 'a'"), ("KeyError", "KeyError"),
                                ("noted(ValueError('first'))", "ValueError: first"),
                                ("SyntaxError('first', ('x.py', 1, 1, 'text'))", "SyntaxError: first")):
            with self.subTest(raised=raised):
                self.place(OPERATIONS["get_username"],
                           "def noted(error):\n    if hasattr(error, 'add_note'):\n        error.add_note('a note')\n"
                           "    return error\n\ndef get_username(user):\n    raise %s\n" % raised)
                self.assertEqual(self.bench.call("get_username", "somebody").problem, problem)

    def test_failures_are_seen_as_the_library_tells_them(self):
        failures = (
            ("raises", "def %s(*arguments):\n    raise ValueError('no')\n"),
            ("exits", "import sys\ndef %s(*arguments):\n    sys.exit(0)\n"),
            ("tells", TELLING + "def %s(*arguments):\n    tell(b'one !@#$^&*() two\\0rest')\n    raise ValueError\n"),
            ("tells as it is loaded", TELLING + "tell(b'a reason')\nraise ValueError\n# %s\n"),
            ("tells and succeeds", TELLING + "def %s(*arguments):\n    tell(b'no matter')\n    return None\n"),
            ("another function", "def other():\n    pass\n# %s\n"),
            ("parameters", "def %s(a, b, c, d, e, f, g, h):\n    pass\n"),
            ("syntax", "def %s(:\n"),
        )
        roads = set()
        for operation, function in self.functions():
            road = (operation.channel, operation.posts, operation.call_failure)
            same_road = road in roads
            roads.add(road)
            for what, source in failures:
                if same_road and not what.startswith("tells"):
                    continue
                if what == "syntax" and (operation.script or "").endswith(".pyc"):
                    continue
                with self.subTest(operation=operation.name, function=function, failure=what):
                    self.compare(operation, function, source % function)

    def test_reasons_come_on_both_channels(self):
        telling = """
import os, socket

def tell(text):
    host, port, word = os.environ["PGM_PYTHON_REASONS_CHANNEL"].split(":")
    with socket.create_connection((host, int(port)), timeout=5.0) as connection:
        connection.sendall(%s + text)
        connection.shutdown(socket.SHUT_WR)
        connection.recv(1)

def external_verify_ccert_function(content):
%s
    raise ValueError
"""
        operation = OPERATIONS["verify_compact_cert_keychain_script"]
        right, wrong = "word.encode() + b'\\n'", "b'another word\\n'"
        cases = (
            (right, "    tell(b'one !@#$^&*() two')", ["one", "two"]),
            (right, "    tell(b'x' * 3000)", ["x" * 2048]),
            (wrong, "    tell(b'one')", []),
            # The fixed port counts where nothing else came.
            (wrong, "    tell(b'one')\n    fixed(b'two')", ["two"]),
            (right, "    fixed(b'two')\n    tell(b'one')", ["one"]),
        )
        for word, body, reasons in cases:
            with self.subTest(body=body, word=word):
                source = TELLING.replace("def tell", "def fixed") + telling % (word, body)
                script = self.place(operation, source)
                seen = self.bench.call(operation.name, script, CONTENT)
                self.assertEqual(seen.reasons, reasons, seen)

    def test_refusals_are_those_of_the_library(self):
        for operation in OPERATIONS.values():
            function = operation.function or dict(operation.functions or (("a_function", ""),)).popitem()[0]
            script = self.place(operation, self.source(operation, function, "None"))
            for index, value in enumerate(operation.values):
                wrong = {"filled": [""], "certificate": [b"", b"1234567"], ".zky": ["/no/key.zky", __file__],
                         ".pem": ["/no/key.pem", __file__]}.get(value.check, [])
                for each in wrong:
                    with self.subTest(operation=operation.name, value=value.name, wrong=each):
                        values = self.values(operation, script, function)
                        values[index] = each
                        _, messages = self.library.call(operation, values)
                        seen = self.bench.call(operation.name, *values)
                        self.assertEqual(messages, ["internal error: " + value.refusal])
                        self.assertEqual(seen.messages, messages)

    def test_a_missing_script_is_told_as_the_library_tells_it(self):
        for operation, function in self.functions():
            with self.subTest(operation=operation.name):
                values = self.values(operation, "missing.py", function)
                _, messages = self.library.call(operation, values)
                self.assertEqual(self.bench.call(operation.name, *values).messages, messages)

    def test_the_catalogue_is_the_library_s(self):
        rows = subprocess.check_output([FACTS, "catalogue"]).decode("ascii").splitlines()
        self.assertEqual([" ".join(row) for row in operations.CATALOGUE], rows)

    def test_the_back_channel_is_the_library_s(self):
        port, limit, delimiter = subprocess.check_output([FACTS, "channel"]).decode("ascii").split()
        self.assertEqual((operations.PORT, operations.MOST_BYTES, operations.DELIMITER),
                         (int(port), int(limit), from_word(delimiter).decode("ascii")))

    def test_the_types_are_made_of_the_description(self):
        with open(protocols.__file__, encoding="utf-8") as stream:
            self.assertEqual(stream.read(), make_protocols.make(), "run pgm_python_authors.make_protocols")

    def test_the_types_of_the_reasons_module_are_its_own(self):
        with open(os.path.join(PACKAGES, "pgm_python_reasons.pyi"), encoding="utf-8") as stream:
            stub = ast.parse(stream.read())
        with open(os.path.join(PACKAGES, "pgm_python_reasons.py"), encoding="utf-8") as stream:
            module = ast.parse(stream.read())
        own = {node.name: node for node in module.body if isinstance(node, (ast.FunctionDef, ast.ClassDef))}
        compared = 0
        for node in stub.body:
            if isinstance(node, ast.FunctionDef) and node.name != "__getattr__":
                told, real = node.args, own[node.name].args
                self.assertEqual([each.arg for each in told.args], [each.arg for each in real.args], node.name)
                self.assertEqual(told.vararg is None, real.vararg is None, node.name)
                compared += 1
        self.assertGreaterEqual(compared, 3)
        self.assertIn("Refusal", own)


@unittest.skipUnless(shutil.which("bash") and pty, "bash or a terminal is not there")
class BashCompletion(unittest.TestCase):
    def test_files_are_completed_as_in_the_other_programs(self):
        lines = set()
        for name in ("pgm_python_check", "pgm_python_call", "pgm_python_run"):
            path = os.path.join(PACKAGES, "..", "..", "bash-completion", "completions", name)
            if name == "pgm_python_check" or os.path.exists(path):
                with open(path, encoding="utf-8") as stream:
                    lines.add(stream.read().splitlines()[-1].replace(name, "NAME"))
        self.assertEqual(len(lines), 1, lines)

    def test_names_with_blanks_and_files_in_folders_are_completed(self):
        completion = os.path.abspath(os.path.join(PACKAGES, "..", "..", "bash-completion", "completions",
                                                  "pgm_python_check"))
        with tempfile.TemporaryDirectory() as folder:
            os.makedirs(folder + "/a folder/inside")
            open(folder + "/a folder/inside/my script.py", "w").close()
            with open(folder + "/start", "w") as stream:
                stream.write("PS1=; bind 'set enable-bracketed-paste off'\nsource '%s'\n"
                             "pgm_python_check() { printf '%%s\\n' \"$@\" >>words; }\n" % completion)
            pid, terminal = pty.fork()
            if pid == 0:
                os.chdir(folder)
                os.environ["TERM"] = "dumb"
                os.execvp("bash", ["bash", "--noprofile", "--rcfile", "start", "-i"])
            # One key stroke for each step, as the shell reads what was typed ahead.
            os.write(terminal, b"pgm_python_check a\tin\tm\t --as modify_b\t --func\t one\rexit\r")
            end = time.monotonic() + 30
            while time.monotonic() < end and os.waitpid(pid, os.WNOHANG) == (0, 0):
                if select.select([terminal], [], [], 0.1)[0]:
                    try:
                        os.read(terminal, 4096)
                    except OSError:
                        time.sleep(0.05)
            os.close(terminal)
            with open(folder + "/words") as stream:
                self.assertEqual(stream.read().splitlines(),
                                 ["a folder/inside/my script.py", "--as", "modify_bitstream", "--function", "one"])


class ManualPage(unittest.TestCase):
    """The page and the completions of pgm_python_check, beside what --help says."""

    def setUp(self):
        self.share = os.path.join(PACKAGES, "..", "..")
        self.help = " ".join(make_parser().format_help().split()).replace("- ", "-")
        with open(os.path.join(self.share, "man", "man1", "pgm_python_check.1"), encoding="utf-8") as stream:
            self.page = re.sub(r"\\f[BIR]", "", stream.read()).replace("\\-", "-").replace("\\(aq", "'")
        self.options = sorted(set(re.findall(r"(?<![\w-])--?[a-z]+", make_parser().format_help())))

    def test_says_what_help_says(self):
        entries = re.findall(r"^\.TP\n(.+)\n(.+)$", self.page[:self.page.index(".SH EXIT")], re.M)
        self.assertGreater(len(entries), 8)
        for names, text in entries:
            self.assertIn((text[0].lower() + text[1:]).replace("- ", "-"), self.help, names)

    def test_knows_every_option(self):
        self.assertIn("--strict", self.options)
        for place in ("man/man1/pgm_python_check.1", "bash-completion/completions/pgm_python_check",
                      "zsh/site-functions/_pgm_python_check"):
            with open(os.path.join(self.share, place), encoding="utf-8") as stream:
                text = stream.read().replace("\\-", "-")
            for option in self.options:
                self.assertIn(option, text, place)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
