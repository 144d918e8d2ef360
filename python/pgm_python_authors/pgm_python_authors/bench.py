"""Calls a function of a script as an operation of the library does, and tells what the program would see.

Each call has a Python process of its own, as it has a session of its own in the program: the argument types,
sys.argv, the search path, PGM_PYTHON_BIN_DIR and the listener for reasons are those of the operation.
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile

from pgm_python_authors.listener import Listener
from pgm_python_authors.operations import CATALOGUE, CHANNEL_ENTRY, OPERATIONS, ROOT_KEY_SIZE

_SESSION = os.path.join(os.path.dirname(os.path.abspath(__file__)), "session.py")
_PACKAGES = os.path.dirname(os.path.dirname(_SESSION))
# Where this package is installed with the programs: share/pgm_python/authors/pgm_python_authors beside bin.
_PROGRAMS = os.path.normpath(os.path.join(os.path.dirname(_SESSION), "..", "..", "..", "..", "bin"))
NO_NUMBER = 0xFFFFFFFF
# No script takes longer, and no system waits for ever.
MOST_SECONDS = 1000000.0


def read_seconds(text):
    """The number of seconds of a command line."""
    try:
        seconds = float(text)
    except ValueError:
        seconds = 0.0
    if not 0.0 < seconds <= MOST_SECONDS:
        raise argparse.ArgumentTypeError("%s is no number of seconds above 0, %.0f at most" % (text, MOST_SECONDS))
    return seconds


class Installation:
    """The folders that scripts are found in."""

    def __init__(self, common, unshipped, programs):
        self.common = common.rstrip("/") if len(common) > 1 else common
        self.unshipped = unshipped.rstrip("/") if len(unshipped) > 1 else unshipped
        self.programs = programs

    @classmethod
    def from_environment(cls, programs=None, environment=None):
        """The installation that the environment names; what it does not name is found from the programs' folder."""
        environment = os.environ if environment is None else environment
        programs = environment.get("PGM_BIN_DIR") or programs or _PROGRAMS

        def folder(entry, inner):
            named = environment.get(entry)
            if named:
                return named
            beside = os.path.normpath(os.path.join(programs, "..", inner))
            shared = os.path.normpath(os.path.join(programs, "..", "share", "pgm_python", inner))
            return shared if os.path.isdir(shared) and not os.path.isdir(beside) else beside

        return cls(folder("PGM_COMMON_PROGRAMMER_DIR", os.path.join("common", "programmer")),
                   folder("PGM_UNSHIPPED_PROGRAMMER_DIR", os.path.join("unshipped", "programmer")), programs)

    def folder(self, kind):
        """The folder of a kind of script."""
        return {"common": self.common + "/python", "unshipped": self.unshipped + "/python",
                "database": self.unshipped + "/mysql", "network": self.common + "nwfmt"}[kind]

    @property
    def suite_path(self):
        """The suite's entries of the search path, in the order in which each is put before the others."""
        return [self.common + "/python", self.common + "/python/source", self.unshipped + "/python/source"]

    def find_script(self, operation, name):
        """The path that an operation makes of the name of a script."""
        if operation.folder == "catalogue":
            return self.find_default(name)
        return "%s/%s" % (self.folder(operation.folder), name)

    def find_default(self, name):
        """The path of a default script, or the name itself."""
        if os.path.exists(name):
            return name
        for row in CATALOGUE:
            if name in (row.name, row.file, os.path.splitext(row.file)[0]):
                path = "%s/%s" % (self.folder(row.folder), row.file)
                return path if os.path.exists(path) else name
        return name


def module_name(path):
    """The name under which a script is imported; None where the file is no script."""
    name = os.path.basename(path)
    for extension in (".py", ".pyc"):
        if name.lower().endswith(extension):
            return name[:-len(extension)]
    return None


def is_utf8(text):
    """Whether a text or a name of the file system is UTF-8."""
    try:
        text.encode("utf-8")
    except UnicodeEncodeError:
        return False
    return True


def cut(text):
    """A text as it goes to a script or comes back: up to its first zero character."""
    return text.split("\0")[0]


def signed(number):
    """The low 32 bits of a number, as a signed one."""
    number &= 0xFFFFFFFF
    return number - 0x100000000 if number & 0x80000000 else number


class Seen:
    """What a program sees of a call.

    value           the operation's result: str, int, bool, bytes or None; (image, width, depth) of read_mif; (data,
                    size) of get_nwfmt_data, the size None when it is not set
    succeeded       whether the call did not fail
    messages        the lines that are shown: "error: TEXT", "error NUMBER: TEXT"
    reasons         the reasons among them
    internal_error  the text of the internal error that ends the program, or None
    problem         why the answer is of no use, or None; also where the call counts as a success
    answer_type     the type of what the function returned, None when nothing came back
    traceback       the traceback of what was raised, which the program shows only where a message "error: ..." follows
    heard           whether scripts that know the fixed port only were listened to: no other program had it
    output, errors  what the script wrote to standard output and standard error
    """

    def __init__(self):
        self.value = None
        self.succeeded = False
        self.messages = []
        self.reasons = []
        self.internal_error = None
        self.problem = None
        self.answer_type = None
        self.traceback = ""
        self.file = None
        self.line = None
        self.stage = ""
        self.output = ""
        self.errors = ""
        self.heard = True

    @property
    def is_right(self):
        """Whether the call succeeded and its answer has the right type."""
        return self.succeeded and self.problem is None and self.internal_error is None

    def __repr__(self):
        return "Seen(value=%r, messages=%r, internal_error=%r, problem=%r)" % (
            self.value, self.messages, self.internal_error, self.problem)


class Wrong(Exception):
    """An answer that ends in an internal error."""


def _number(told, seen, what):
    number = told.get("index", told.get("value") if told["kind"] in ("int", "bool") else None)
    if number is not None and not number.startswith("of ") and -0x80000000 <= int(number) <= 0x7FFFFFFF:
        return int(number) & 0xFFFFFFFF
    if number is not None:
        _note(seen, "%s %s does not fit into a signed 32-bit number" % (what, number))
    else:
        _note(seen, "%s is %s where an int is due" % (what, _a(told["type"])))
    return NO_NUMBER


def _bytes(told, seen, what):
    if told["kind"] == "bytearray":
        return bytes.fromhex(told["value"])
    _note(seen, "%s is %s where a bytearray is due" % (what, _a(told["type"])))
    return b""


def _a(type_name):
    if type_name == "NoneType":
        return "None"
    return "%s %s" % ("an" if type_name[0] in "aeiou" else "a", type_name)


def _note(seen, problem):
    if seen.problem is None:
        seen.problem = problem


def _list(told, count, text, seen):
    if told["kind"] != "list" or len(told["items"]) != count:
        come = "a list of %d" % len(told["items"]) if told["kind"] == "list" else _a(told["type"])
        _note(seen, "the answer is %s where a list of %d is due" % (come, count))
        raise Wrong(text)
    return told["items"]


def failure_value(kind):
    """What a program gets from a failed call."""
    return {"text": "", "text_or_bytes": "", "number": NO_NUMBER, "bytes": None, "ignored": False, "key": None,
            "memory": (None, None, None), "chunks": (b"", None), "hash_and_size": (b"", None)}[kind]


def convert(kind, told, filled, seen):
    """Puts what becomes of an answer into `seen`; returns False where it makes the call a failed one."""
    if kind == "ignored":
        seen.value = True
    elif kind in ("text", "text_or_bytes"):
        text = b""
        if told["kind"] == "str" and (told["exact"] or kind == "text"):
            try:
                text = told["value"].encode("utf-8")
            except UnicodeEncodeError:
                _note(seen, "the answer holds characters that UTF-8 has not")
        elif told["kind"] == "bytes" and kind == "text_or_bytes":
            text = bytes.fromhex(told["value"])
        else:
            _note(seen, "the answer is %s where %s is due" %
                  (_a(told["type"]), "a str" if kind == "text" else "a str or bytes"))
        seen.value = text.split(b"\0")[0].decode("utf-8", "surrogateescape")
    elif kind == "number":
        seen.value = _number(told, seen, "the answer")
    elif kind == "bytes":
        seen.value = _bytes(told, seen, "the answer") or None
    elif kind == "key":
        if told["kind"] != "bool":
            _note(seen, "the answer is %s where True is due" % _a(told["type"]))
            raise Wrong("PyBool_Check(pResult)")
        if told["value"] != "1":
            _note(seen, "the answer is False where True is due")
            raise Wrong("pResult == Py_True")
        key = bytes.fromhex(filled)
        if len(key) != ROOT_KEY_SIZE:
            _note(seen, "the key has %d bytes where %d are due" % (len(key), ROOT_KEY_SIZE))
        seen.value = key[:ROOT_KEY_SIZE].ljust(ROOT_KEY_SIZE, b"\0")
    elif kind == "memory":
        items = _list(told, 3, "return_size == 3", seen)
        seen.value = (_bytes(items[0], seen, "the image"), _number(items[1], seen, "the width"),
                      _number(items[2], seen, "the depth"))
    elif kind == "chunks":
        seen.value = (b"", None)
        if told["kind"] != "list":
            _note(seen, "the answer is %s where a list is due" % _a(told["type"]))
            return True
        if any(item["kind"] != "bytearray" for item in told["items"]):
            for index, item in enumerate(told["items"]):
                _bytes(item, seen, "chunk %d" % index)
            return False
        seen.value = (b"".join(bytes.fromhex(item["value"]) for item in told["items"]), None)
    else:
        seen.value = (b"", None)
        items = _list(told, 2, "list_size == 2", seen)
        if items[0]["kind"] != "bytearray":
            _bytes(items[0], seen, "the hash")
            return False
        seen.value = (bytes.fromhex(items[0]["value"]), _number(items[1], seen, "the size"))
    return True


class Bench:
    """Calls functions and runs scripts."""

    def __init__(self, installation=None, python=None, timeout=60.0):
        """`python` is the interpreter that scripts run with, this one unless said; `timeout` is in seconds."""
        self.installation = installation or Installation.from_environment()
        self.python = python or sys.executable
        self.timeout = timeout

    def __getattr__(self, name):
        if name not in OPERATIONS:
            raise AttributeError(name)
        return lambda *values, **keywords: self.call(name, *values, **keywords)

    def call(self, operation_name, *values, **keywords):
        """Calls what an operation calls with the program's values; those left out at the end are empty.

        script= is a file that stands in for the operation's script. Returns a Seen.
        """
        script = keywords.pop("script", None)
        if keywords:
            raise TypeError("call() has no keyword %s" % sorted(keywords)[0])
        operation = OPERATIONS[operation_name]
        given = self._take_values(operation, values)
        function = given.get("function", operation.function)
        kind = operation.answer_of(function)
        seen = Seen()
        seen.value = failure_value(kind)
        refusal = self._refusal(operation, given)
        if refusal:
            return self._end(seen, refusal)
        path = script or self.installation.find_script(operation, given.get("script", operation.script))
        if not os.path.exists(path):
            if operation.may_be_missing:
                seen.problem = "the script %s is not there" % path
                return seen
            return self._end(seen, "Python script %s doest not exist" % path)
        if operation.functions and function not in dict(operation.functions):
            return self._end(seen, "Function %s is not supported" % function)
        if operation.suite_folders and not self._takes_suite_folders(seen):
            return seen
        module = module_name(path)
        if module is None:
            return self._end(seen, "Python script %s must have extension of .py or .pyc" % path)
        if not self._takes_folder(os.path.dirname(os.path.abspath(path)), seen):
            return seen
        if not module:
            return self._end(seen, "mysql_file.size()" if operation.folder == "database" else "filename.size()")
        request = self.request(operation, path, function, given)
        reply, reasons = self.ask(request, seen, bool(operation.channel))
        self._take_error(reply, seen, path)
        return self._tell(operation, function, module, kind, reply, reasons, seen)

    def run(self, script, *arguments):
        """Runs a script as run_python_file does; the value of the Seen is whether that succeeded."""
        seen = Seen()
        seen.value = False
        path = self.installation.find_default(script)
        if not os.path.exists(path):
            seen.problem = "Python script %s doest not exist" % path
            seen.messages.append("error: " + seen.problem)
            return seen
        if not self._takes_suite_folders(seen):
            return seen
        if module_name(path) is None:
            return self._end(seen, "Python script %s must have extension of .py or .pyc" % path)
        if not self._takes_folder(os.path.dirname(os.path.abspath(path)), seen):
            return seen
        request = self._request(path, self.installation.suite_path)
        request.update(main=True, argv=[path] + list(arguments))
        reply, reasons = self.ask(request, seen, True)
        self._take_error(reply, seen, path)
        if reply["stage"] == "answer":
            seen.value = seen.succeeded = True
        elif reply["stage"] != "gone":
            seen.messages.append("error 20354: Fail to execute file %s" % path)
            self._take_reasons(reasons, seen)
        return seen

    def request(self, operation, path, function, given=None):
        """What session.py is asked; without values: to load the script only."""
        suite = self.installation.suite_path if operation.suite_folders else []
        request = self._request(path, suite)
        if not operation.suite_folders:
            request["environment"] = {}
        request["argv"] = [""] if not operation.command_line else [path]
        names = [name for name, _ in operation.functions] or [operation.function or function]
        request["functions"] = {name: len(operation.arguments) for name in names if name}
        if given is not None:
            request["function"] = function
            request["arguments"] = [
                {"kind": argument.kind, "value": given[argument.name]} for argument in operation.arguments]
            request["arguments_first"] = operation.arguments_first
            if operation.command_line == "options":
                request["argv"] += ["--zky=" + given["zky"], "--pem=" + given["pem"]]
            elif operation.command_line == "texts":
                request["argv"] += given["texts"]
        return request

    def ask(self, request, seen=None, listening=False):
        """Has a session do what is asked. Returns its reply and, after a failure, the reasons that came."""
        seen = seen or Seen()
        with tempfile.TemporaryDirectory(prefix="pgm_python_bench.") as folder:
            place = os.path.join(folder, "request")
            answer = os.path.join(folder, "reply")
            with open(place, "w", encoding="utf-8") as stream:
                json.dump(request, stream)
            environment = dict(os.environ, PYTHONDONTWRITEBYTECODE="1")
            environment.pop(CHANNEL_ENTRY, None)
            # What leads to this package leads to its pgm_python_reasons, too, which sessions find in their own folders.
            folders = [each for each in environment.pop("PYTHONPATH", "").split(os.pathsep)
                       if each and os.path.abspath(each) != _PACKAGES]
            if folders:
                environment["PYTHONPATH"] = os.pathsep.join(folders)
            command = [self.python, _SESSION, place, answer]
            if not listening:
                return self._start(command, environment, answer, seen), []
            with Listener(os.environ.get("PGM_PYTHON_REASONS") != "announced") as listener:
                seen.heard = listener.has_fixed_port
                environment[CHANNEL_ENTRY] = listener.announcement
                reply = self._start(command, environment, answer, seen)
                # What was sent has come by now where the call succeeded; a failed one is waited for.
                return reply, listener.reasons(reply["error"] is not None)

    def _start(self, command, environment, answer, seen):
        # Files: the end of a pipe would not come before every process that the script has started has ended, too.
        with tempfile.TemporaryFile() as output, tempfile.TemporaryFile() as errors:
            status = self._wait(subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=errors,
                                                 env=environment))
            seen.output, seen.errors = self._text(output), self._text(errors)
        if status is None:
            return self._no_reply("the script did not end within %g seconds" % self.timeout)
        if not os.path.exists(answer):
            if status < 0:
                return self._no_reply("the script was ended by signal %d" % -status)
            return self._no_reply("the script ended the process, status %d" % status)
        with open(answer, encoding="utf-8") as stream:
            return json.load(stream)

    def _wait(self, process):
        """The exit status of a process; None where it had to be ended."""
        with process:
            try:
                return process.wait(self.timeout)
            except subprocess.TimeoutExpired:
                process.kill()
            except BaseException:
                process.kill()
                raise
        return None

    @staticmethod
    def _text(stream):
        if hasattr(os, "pread"):
            # The place in the file stays where a process that goes on writes.
            data = os.pread(stream.fileno(), os.fstat(stream.fileno()).st_size, 0)
        else:
            stream.seek(0)
            data = stream.read()
        return data.decode("utf-8", "replace")

    @staticmethod
    def _no_reply(text):
        return {"stage": "gone", "error": {"type": "", "text": text, "message": text, "module": None, "file": None,
                                           "line": None, "traceback": text + "\n"}}

    def _request(self, path, suite):
        absolute = os.path.abspath(path)
        return {"main": False, "file": absolute, "argv": [path], "path": suite + [os.path.dirname(absolute)],
                "environment": {"PGM_PYTHON_BIN_DIR": self.installation.programs}, "module": module_name(path),
                "function": None, "functions": {}, "arguments": [], "arguments_first": False}

    @staticmethod
    def _take_values(operation, values):
        """The program's values by the names of the arguments that they become."""
        given = {argument.name: "00" * ROOT_KEY_SIZE for argument in operation.arguments if argument.kind == "key"}
        kinds = {argument.name: argument.kind for argument in operation.arguments}
        values = list(values)
        for value in operation.values:
            taken = values.pop(0) if values else {"number": 0, "bytes": b"", "flag": False, "map": {},
                                                  "texts": []}.get(value.kind, "")
            if value.kind == "number":
                taken = signed(taken)
            elif value.kind == "bytes":
                taken = bytes(taken).hex()
                if kinds[value.name] == "hex":
                    taken = taken.upper()
            elif value.kind == "flag":
                taken = bool(taken)
            elif value.kind == "map":
                taken = sorted((cut(key), cut(text)) for key, text in dict(taken).items())
            elif value.kind == "texts":
                taken = [cut(text) for text in taken]
            else:
                given["whole " + value.name] = taken
                taken = cut(taken)
            given[value.kind if value.kind in ("script", "function", "texts") else value.name] = taken
        if values:
            raise TypeError("%s takes %d values, %d more were given" %
                            (operation.name, len(operation.values), len(values)))
        return given

    @staticmethod
    def _refusal(operation, given):
        """The internal error of the first value that cannot be used, or None."""
        for value in operation.values:
            taken = given[value.kind if value.kind in ("script", "function", "texts") else value.name]
            if value.check == "filled":
                wrong = not given["whole " + value.name]
            elif value.check == "certificate":
                wrong = not taken or len(taken) // 2 % 8 != 0
            elif value.check:
                wrong = bool(taken) and not (taken.lower().endswith(value.check) and os.path.exists(taken))
            elif value.kind == "texts":
                if "" in taken:
                    return "Argument at index %d cannot be empty string" % taken.index("")
                continue
            else:
                continue
            if wrong:
                return value.refusal
        return None

    def _takes_suite_folders(self, seen):
        here = self.installation
        return all(self._takes_folder(folder, seen) for folder in (here.common, here.unshipped, here.programs))

    def _takes_folder(self, folder, seen):
        """Whether a folder's name can become a part of Python text; where it cannot, that ends the program."""
        if is_utf8(folder) and not set(folder) & set("\"\r\n"):
            return True
        seen.problem = "the name of the folder %s cannot become a part of Python text" % folder
        self._end(seen, "py_eval(setting.c_str())")
        return False

    @staticmethod
    def _end(seen, text):
        seen.internal_error = text
        seen.succeeded = False
        seen.messages.append("internal error: " + text)
        return seen

    @staticmethod
    def _take_error(reply, seen, path):
        seen.stage = reply["stage"]
        error = reply["error"]
        if error:
            seen.traceback, seen.problem = error["traceback"], error["text"]
            seen.file, seen.line = error["file"] or path, error["line"]

    @staticmethod
    def _take_reasons(reasons, seen):
        seen.reasons = reasons
        seen.messages += ["error 20353: " + reason for reason in reasons]

    def _tell(self, operation, function, module, kind, reply, reasons, seen):
        stage = reply["stage"]
        if stage == "gone":
            return seen
        if stage == "argument":
            argument = operation.arguments[reply["refused"]]
            seen.problem = "what the program gives as %s is not UTF-8" % argument.name
            return self._end(seen, argument.refusal)
        if stage in ("start", "name", "import", "function"):
            text = "Fail to load module %s" % module
            if stage == "name":
                text = "Fail to convert module name %s to PyObject" % module
            elif stage == "function":
                text = operation.lookup_failure.replace("%s", function)
            seen.messages.append("error: " + text)
            if operation.channel != "early":
                return seen
        elif stage == "answer":
            seen.answer_type = reply["answer"]["type"]
            try:
                seen.succeeded = convert(kind, reply["answer"], reply.get("filled", ""), seen)
            except Wrong as error:
                seen.value = failure_value(kind)
                return self._end(seen, str(error))
            if seen.succeeded:
                return seen
        if operation.call_failure and stage in ("call", "answer"):
            seen.messages.append("error: " + operation.call_failure)
        if operation.posts:
            seen.messages.append("error 20351: Fail to execute function %s in file %s" % (function, module))
        self._take_reasons(reasons, seen)
        return seen
