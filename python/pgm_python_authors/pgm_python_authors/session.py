"""The inside of a session: loads a script, calls its function or runs it as a main program, and tells what happened.

Started by bench.py in a process of its own: session.py REQUEST REPLY, both files of JSON.
"""

import sys

_modules_before = set(sys.modules)

import importlib
import importlib.machinery
import inspect
import json
import operator
import os
import reprlib
import site
import tokenize  # the traceback module imports it late
import traceback
import types

_short = reprlib.Repr()
_short.maxstring = _short.maxother = 80
# The name of a type, whatever a class of classes has under __name__.
_name_of = type.__dict__["__name__"].__get__


def decode(value):
    """A value of the request."""
    kind = value["kind"]
    if kind in ("bytes", "key"):
        return bytearray(bytes.fromhex(value["value"]))
    if kind == "map":
        return dict(value["value"])
    return value["value"]


def number_text(number):
    """A number as it is told: in digits where it has not too many, which Python would refuse to write."""
    return "%d" % number if number.bit_length() <= 128 else "of %d bits" % number.bit_length()


def number_of(value):
    """The number of what is as good as an int where one is due; None where it is not."""
    try:
        if sys.version_info >= (3, 8) and hasattr(type(value), "__index__"):
            return operator.index(value)
        # Python came to refuse this.
        if sys.version_info < (3, 10) and hasattr(type(value), "__int__"):
            number = type(value).__int__(value)
            return number if isinstance(number, int) else None
    except BaseException:  # a program drops whatever comes of it
        pass
    return None


def encode_known(value, depth):
    """What is told of a value, as the program's own look at it, which runs none of the methods of a derived class."""
    told = {"type": _name_of(type(value)), "kind": "other", "exact": True}
    for kind, known in (("bool", bool), ("int", int), ("str", str), ("bytes", bytes), ("bytearray", bytearray),
                        ("list", list), ("tuple", tuple)):
        if issubclass(type(value), known):
            told["kind"] = kind
            told["exact"] = type(value) is known
            if kind in ("bytes", "bytearray"):
                told["value"] = bytes(known.__getitem__(value, slice(None))).hex()
            elif kind in ("list", "tuple"):
                told["items"] = [encode(item, depth - 1) for item in known.__iter__(value)] if depth else []
            elif kind in ("bool", "int"):
                told["value"] = number_text(int.__int__(value))
            else:
                told["value"] = str.__str__(value)
            break
    if value is None:
        told["kind"] = "none"
    elif told["kind"] == "other":
        number = number_of(value)
        if number is not None:
            told["index"] = number_text(number)
    return told


def encode(value, depth=1):
    """What is told of a value: its type and, for types that a program can take, the value itself. A program looks into
    a list and no deeper. Of what cannot be told, the type is."""
    try:
        told = encode_known(value, depth)
    except BaseException:
        told = {"type": _name_of(type(value)), "kind": "other", "exact": False}
    try:
        told["repr"] = _short.repr(value)
    except BaseException:
        told["repr"] = "<%s>" % told["type"]
    return told


def first_line(error, told):
    """The cause in a line. What an exception says may have several, and notes may follow."""
    if isinstance(error, SyntaxError):
        lines = ["%s: " % type(error).__name__] + str(error.msg).splitlines()
    else:
        lines = "".join(told.format_exception_only()).splitlines()
    lines = [line.strip() for line in lines if line.strip()]
    # A message may begin with an empty line.
    return " ".join(lines[:2]) if lines[0].endswith(":") else lines[0]


def describe_error(error, request):
    """What is told of an exception, with the place in the author's files."""
    frames = []
    for frame, line in traceback.walk_tb(error.__traceback__):
        frames.append((frame.f_code.co_filename, line))
    own = [place for place in frames if place[0] != __file__ and not place[0].startswith("<frozen")]
    if isinstance(error, SyntaxError) and error.filename:
        own.append((error.filename, error.lineno or 0))
    else:
        # The author's line, not one of the standard library that it called.
        library = os.path.dirname(os.path.abspath(os.__file__))
        own = [place for place in own if not os.path.abspath(place[0]).startswith(library + os.sep)]
    told = traceback.TracebackException.from_exception(error)
    stack = [entry for entry in told.stack if entry.filename != __file__ and "<frozen" not in entry.filename]
    lines = ["Traceback (most recent call last):\n"] + traceback.format_list(stack) if stack else []
    lines += list(told.format_exception_only())
    return {
        "type": type(error).__name__,
        "text": first_line(error, told),
        "message": str(error),
        "module": getattr(error, "name", None) if isinstance(error, ImportError) else None,
        "file": own[-1][0] if own else None,
        "line": own[-1][1] if own else None,
        "traceback": "".join(lines),
    }


def session_facts():
    """What every session finds, before a script is loaded."""
    folders = list(site.getsitepackages()) if hasattr(site, "getsitepackages") else []
    if site.ENABLE_USER_SITE:
        folders.append(site.getusersitepackages())
    return {"path": list(sys.path), "version": list(sys.version_info[:3]), "executable": sys.executable,
            "modules": sorted(_modules_before), "builtin": list(sys.builtin_module_names), "site": folders,
            "library": os.path.dirname(os.path.abspath(os.__file__))}


def function_facts(function, count):
    """Where a function is and whether it can be called with `count` arguments."""
    facts = {"callable": callable(function), "file": None, "line": None, "fits": True, "problem": ""}
    plain = inspect.unwrap(function) if callable(function) else function
    code = getattr(plain, "__code__", None)
    if code is not None:
        facts["file"], facts["line"] = code.co_filename, code.co_firstlineno
    if callable(function) and count is not None:
        try:
            inspect.signature(function).bind(*[None] * count)
        except TypeError as error:
            facts["fits"], facts["problem"] = False, str(error)
        except ValueError:  # written in C: not told
            pass
    return facts


def forget_modules():
    """Leaves the modules that every session finds."""
    for name in set(sys.modules) - _modules_before:
        del sys.modules[name]


def set_up(request):
    if sys.path and os.path.abspath(sys.path[0]) == os.path.dirname(os.path.abspath(__file__)):
        del sys.path[0]
    forget_modules()
    sys.argv = request["argv"]
    if sys.argv == [""] and sys.version_info < (3, 8):
        sys.argv = []  # what an interpreter without a command line has there
    for folder in request["path"]:
        sys.path.insert(0, folder)
    os.environ.update(request["environment"])


def check_text(text):
    """Raises what a program gets for a text that is not UTF-8."""
    text.encode("utf-8", "surrogateescape").decode("utf-8")


def can_be_made(arguments, reply):
    """Whether each text among the arguments can become a str; the program ends with the first that cannot."""
    for index, value in enumerate(arguments):
        if value["kind"] == "text":
            try:
                check_text(value["value"])
            except UnicodeError:
                reply["stage"], reply["refused"] = "argument", index
                return False
    return True


def call(request, reply):
    import_module = importlib.import_module
    reply["stage"] = "name"
    check_text(request["module"])
    reply["stage"] = "import"
    module = import_module(request["module"])
    reply["module_file"] = getattr(module, "__file__", None)
    reply["modules"] = sorted({name.split(".")[0] for name in sys.modules})
    reply["functions"] = {
        name: function_facts(getattr(module, name), count)
        for name, count in request["functions"].items() if hasattr(module, name)}
    reply["path"] = list(sys.path)
    reply["names"] = sorted(vars(module))
    reply["defined"] = {
        name: function_facts(value, 1) for name, value in vars(module).items()
        if inspect.isfunction(value) and value.__module__ == module.__name__ and not name.startswith("_")}
    if request["function"] is None:
        return
    if request["arguments_first"] and not can_be_made(request["arguments"], reply):
        return
    reply["stage"] = "function"
    function = getattr(module, request["function"])
    if not can_be_made(request["arguments"], reply):
        return
    arguments = tuple(decode(value) for value in request["arguments"])
    reply["stage"] = "call"
    for value in request["arguments"]:
        for entry in value["value"] if value["kind"] == "map" else []:
            for text in entry:
                check_text(text)
    answer = function(*arguments)
    reply["stage"] = "answer"
    reply["answer"] = encode(answer)
    if arguments and isinstance(arguments[-1], bytearray):
        reply["filled"] = bytes(arguments[-1]).hex()
    reply["modules"] = sorted({name.split(".")[0] for name in sys.modules})


def run(request, reply):
    """Runs a script as the main program."""
    reply["stage"] = "call"
    path = request["file"]
    if path.lower().endswith(".pyc"):
        code = importlib.machinery.SourcelessFileLoader("__main__", path).get_code("__main__")
    else:
        with open(path, "rb") as stream:
            code = compile(stream.read(), path, "exec", dont_inherit=True)
    main = types.ModuleType("__main__")
    main.__file__ = path
    main.__builtins__ = sys.modules["builtins"]
    sys.modules["__main__"] = main
    try:
        exec(code, main.__dict__)
    except SystemExit as error:
        if isinstance(error.code, int) and error.code == 0 or error.code is None:
            pass
        else:
            if not isinstance(error.code, int):
                print(error.code, file=sys.stderr)
            raise
    reply["stage"] = "answer"


def main():
    with open(sys.argv[1], encoding="utf-8") as stream:
        request = json.load(stream)
    place = sys.argv[2]
    reply = {"stage": "start", "error": None}
    set_up(request)
    reply["session"] = session_facts()
    try:
        if request["main"]:
            run(request, reply)
        elif request["module"]:
            call(request, reply)
    except BaseException as error:
        try:
            reply["error"] = describe_error(error, request)
        except Exception:  # an exception whose own text cannot be made
            name = type(error).__name__
            reply["error"] = {"type": name, "text": name, "message": "", "module": None, "file": None, "line": None,
                              "traceback": name + "\n"}
    # Whole or not at all, and whatever the script did to the streams.
    with open(place + ".part", "w", encoding="utf-8") as stream:
        json.dump(reply, stream)
    os.replace(place + ".part", place)


if __name__ == "__main__":
    main()
