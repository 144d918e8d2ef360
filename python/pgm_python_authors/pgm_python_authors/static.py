"""What can be said of a script without running it: its file name, its form, the names and modules it uses, and the
types that its functions return where they are evident."""

import ast
import builtins
import dis
import importlib.util
import marshal
import os
import sys
import sysconfig
import types

from pgm_python_authors.bench import is_utf8, module_name

# The first numbers of compiled files and the version from which each holds.
_MAGIC = ((3379, "3.6"), (3390, "3.7"), (3400, "3.8"), (3420, "3.9"), (3430, "3.10"), (3450, "3.11"), (3500, "3.12"),
          (3550, "3.13"), (3600, "3.14"), (3650, "3.15"))

_MODULE_NAMES = {"__name__", "__file__", "__doc__", "__spec__", "__loader__", "__package__", "__builtins__",
                 "__annotations__", "__path__", "__cached__", "__debug__", "__dict__"}
_CLASS_NAMES = {"__module__", "__qualname__", "__class__", "__classcell__", "__firstlineno__", "__static_attributes__",
                "__classdict__", "__classdictcell__", "__conditional_annotations__", "__type_params__"}


class Problem(Exception):
    """A script that cannot be loaded."""

    def __init__(self, code, text, line=None, hint=""):
        super().__init__(text)
        self.code, self.text, self.line, self.hint = code, text, line, hint


def standard_modules():
    """The names of the standard library's modules."""
    known = set(sys.builtin_module_names)
    if hasattr(sys, "stdlib_module_names"):
        return known | set(sys.stdlib_module_names)
    folder = sysconfig.get_paths()["stdlib"]
    for place in (folder, os.path.join(folder, "lib-dynload")):
        for name in os.listdir(place) if os.path.isdir(place) else []:
            stem = name.split(".")[0]
            if name.endswith((".py", ".so", ".pyd")) or os.path.isfile(os.path.join(place, name, "__init__.py")):
                known.add(stem)
    return known - {"site-packages", "__pycache__"}


def compiled_for(number):
    """The Python version that a compiled file's first number belongs to."""
    version = None
    for first, name in _MAGIC:
        if number >= first:
            version = name
    return version


def load_compiled(path):
    """The code of a compiled script."""
    with open(path, "rb") as stream:
        data = stream.read()
    if len(data) < 16:
        raise Problem("compiled", "it is no compiled script: it has %d bytes" % len(data))
    if data[:4] != importlib.util.MAGIC_NUMBER:
        linked = "%d.%d" % sys.version_info[:2]
        if data[2:4] != b"\r\n":
            raise Problem("compiled", "it is no compiled script, whatever its name says",
                          hint="compile the source: python%s -m py_compile, or cmake/compile_script.py" % linked)
        made_by = compiled_for(int.from_bytes(data[:2], "little"))
        raise Problem("compiled", "it was compiled by Python %s, the one that loads it is %s" %
                      (made_by or "of an unknown version", linked), hint="compile it anew with Python %s" % linked)
    try:
        code = marshal.loads(data[16:])
    except (EOFError, ValueError, TypeError) as error:
        raise Problem("compiled", "the compiled script is damaged: %s" % error, hint="compile it anew")
    if not isinstance(code, types.CodeType):
        raise Problem("compiled", "the compiled script holds no code", hint="compile it anew")
    return code


class Script:
    """A script that has been read: its code and, where it is source, its tree. Raises Problem."""

    def __init__(self, path):
        self.path = path
        self.tree = None
        if path.lower().endswith(".pyc"):
            self.code = load_compiled(path)
            return
        with open(path, "rb") as stream:
            data = stream.read()
        try:
            self.tree = ast.parse(data, path)
            self.code = compile(data, path, "exec", dont_inherit=True)
        except SyntaxError as error:
            raise Problem("syntax", "%s: %s" % (type(error).__name__, error.msg), error.lineno)
        except (ValueError, UnicodeError, RecursionError) as error:
            raise Problem("syntax", "it cannot be compiled: %s" % error)

    def codes(self):
        """All code objects of the script, the module's first, each with whether it is a class body."""
        found = [(self.code, False)]
        for code, _ in found:
            bodies = _class_bodies(code)
            found += [(each, each in bodies) for each in code.co_consts if isinstance(each, types.CodeType)]
        return found

    def defines(self):
        """The names that the script binds as a module."""
        names = {each.argval for each in dis.get_instructions(self.code)
                 if each.opname in ("STORE_NAME", "STORE_GLOBAL")}
        for code, _ in self.codes():
            names |= {each.argval for each in dis.get_instructions(code) if each.opname == "STORE_GLOBAL"}
        return names

    def undefined_names(self):
        """(name, line) of each name that nothing binds."""
        known = self.defines() | _MODULE_NAMES | set(dir(builtins))
        found = {}
        if any("globals" in code.co_names for code, _ in self.codes()):
            return []  # it may bind names that are written nowhere
        for code, is_class in self.codes():
            own = set()
            if is_class:
                own = _CLASS_NAMES | {each.argval for each in dis.get_instructions(code)
                                      if each.opname in ("STORE_NAME", "IMPORT_NAME")}
            uncertain = "NameError" in code.co_names
            line = code.co_firstlineno
            for each in dis.get_instructions(code):
                line = _line_of(each, line)
                if each.opname == "IMPORT_STAR" or "IMPORT_STAR" in str(each.argrepr):
                    return []
                if each.opname in ("LOAD_GLOBAL", "LOAD_NAME", "LOAD_FROM_DICT_OR_GLOBALS"):
                    if not uncertain and each.argval not in known and each.argval not in own:
                        found.setdefault(each.argval, line)
        return sorted(found.items(), key=lambda item: item[1] or 0)

    def imports(self):
        """(module, line, at the top) of each import that nothing guards."""
        if self.tree is not None:
            return _Imports(self.tree).found
        found = []
        for code, _ in self.codes():
            if getattr(code, "co_exceptiontable", b"") or any(
                    each.opname in ("SETUP_FINALLY", "SETUP_EXCEPT") for each in dis.get_instructions(code)):
                continue
            line, level = code.co_firstlineno, 0
            before = []
            for each in dis.get_instructions(code):
                line = _line_of(each, line)
                if each.opname == "IMPORT_NAME":
                    level = before[-2].argval if len(before) > 1 else 0
                    if level == 0:
                        found.append((each.argval.split(".")[0], line, code is self.code))
                before.append(each)
        return found

    def touches_search_path(self):
        """Whether the script seems to change sys.path."""
        return any("path" in code.co_names and {"insert", "append", "extend"} & set(code.co_names)
                   for code, _ in self.codes())

    def only_defines(self):
        """Whether a run of the script does nothing but define."""
        if self.tree is None:
            return False
        quiet = (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef, ast.Import, ast.ImportFrom, ast.Assign,
                 ast.AnnAssign, ast.Pass)
        return all(isinstance(node, quiet) or isinstance(node, ast.Expr) and _constant(node.value) is not _NONE
                   for node in self.tree.body)

    def function(self, name):
        """The definition of a function at the top of the source, or None."""
        if self.tree is None:
            return None
        found = None
        for node in self.tree.body:
            if isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)) and node.name == name:
                found = node
        return found


def _line_of(instruction, line):
    start = instruction.starts_line
    if isinstance(start, bool):  # Python 3.13
        return instruction.line_number or line
    return start or line


def _class_bodies(code):
    """The code objects in `code` that are the bodies of classes."""
    bodies = set()
    pending = False
    for each in dis.get_instructions(code):
        if each.opname == "LOAD_BUILD_CLASS":
            pending = True
        elif pending and isinstance(each.argval, types.CodeType):
            bodies.add(each.argval)
            pending = False
    return bodies


class _Imports(ast.NodeVisitor):
    """The imports that nothing guards: in no try with handlers and under no question about the platform."""

    def __init__(self, tree):
        self.found = []
        self._top = True
        self.visit(tree)

    def visit_Import(self, node):
        self.found += [(alias.name.split(".")[0], node.lineno, self._top) for alias in node.names]

    def visit_ImportFrom(self, node):
        if node.level == 0 and node.module:
            self.found.append((node.module.split(".")[0], node.lineno, self._top))

    def visit_FunctionDef(self, node):
        top, self._top = self._top, False
        self.generic_visit(node)
        self._top = top

    visit_AsyncFunctionDef = visit_FunctionDef

    def visit_Try(self, node):
        if not node.handlers:
            self.generic_visit(node)

    visit_TryStar = visit_Try

    def visit_If(self, node):
        asked = {getattr(each, "id", None) or getattr(each, "attr", None) for each in ast.walk(node.test)}
        if not asked & {"platform", "name", "version_info", "TYPE_CHECKING", "system", "implementation"}:
            self.generic_visit(node)


_NONE = object()


def _constant(node):
    """The value of a constant, or _NONE for anything else."""
    try:
        value = ast.literal_eval(node)
    except (ValueError, TypeError, SyntaxError, MemoryError, RecursionError):
        return _NONE
    return _NONE if isinstance(value, (list, tuple, dict, set)) else value


_CALLS = {"bytes": "bytes", "bytearray": "bytearray", "str": "str", "list": "list", "tuple": "tuple", "dict": "dict",
          "int": "int", "len": "int", "sorted": "list", "hex": "str", "repr": "str", "format": "str", "bool": "bool",
          "memoryview": "memoryview", "map": "map", "zip": "zip", "filter": "filter", "range": "range", "set": "set",
          "float": "float", "ord": "int", "chr": "str", "frozenset": "frozenset", "reversed": "reversed"}
# The types of what methods of known types return.
_METHODS = {("int", "to_bytes"): "bytes", ("str", "encode"): "bytes", ("hash", "digest"): "bytes",
            ("hash", "hexdigest"): "str", ("dict", "copy"): "dict", ("list", "copy"): "list"}
for _owner in ("str", "bytes", "bytearray"):
    for _method in ("join", "replace", "strip", "upper", "lower", "ljust", "rjust", "copy"):
        _METHODS[_owner, _method] = _owner
    _METHODS[_owner, "split"] = "list"
for _owner in ("bytes", "bytearray"):
    _METHODS[_owner, "hex"] = _METHODS[_owner, "decode"] = "str"
_METHODS["str", "format"] = "str"
_ARGUMENTS = {"text": "str", "number": "int", "hex": "str", "bytes": "bytearray", "key": "bytearray", "flag": "bool",
              "map": "dict"}


class Returns:
    """What a function returns, as far as that is evident."""

    def __init__(self, script, function, arguments):
        self._script = script
        self._node = function
        self._env = {}
        self.returns = []  # (expression or None, line)
        self.is_generator = False
        self._collect(function.body)
        names = [each.arg for each in function.args.args]
        assigned = {}
        for node in ast.walk(function):
            targets = []
            if isinstance(node, ast.Assign):
                targets = [(each, node.value) for each in node.targets]
            elif isinstance(node, (ast.AugAssign, ast.AnnAssign, ast.For)):
                targets = [(node.target, None)]
            elif isinstance(node, ast.withitem) and node.optional_vars is not None:
                targets = [(node.optional_vars, None)]
            elif isinstance(node, ast.NamedExpr if sys.version_info >= (3, 8) else ()):
                targets = [(node.target, None)]
            elif isinstance(node, (ast.Global, ast.Nonlocal)):
                targets = [(ast.Name(id=each, ctx=ast.Store()), None) for each in node.names]
            for target, value in targets:
                for each in ast.walk(target):
                    if isinstance(each, ast.Name) and isinstance(each.ctx, ast.Store):
                        whole = isinstance(target, ast.Name)
                        assigned.setdefault(each.id, []).append(value if whole else None)
        for name, argument in zip(names, arguments):
            if name not in assigned:
                self._env[name] = _ARGUMENTS[argument.kind]
        for name, values in assigned.items():
            if len(values) == 1 and values[0] is not None and name not in names:
                self._env[name] = values[0]

    def _collect(self, body):
        for node in body:
            if isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef, ast.Lambda)):
                continue
            if isinstance(node, ast.Return):
                self.returns.append((node.value, node.lineno))
            if isinstance(node, (ast.Yield, ast.YieldFrom)):
                self.is_generator = True
            self._collect(ast.iter_child_nodes(node))

    def always_raises(self):
        """Whether the end of the function is never reached."""
        return _never_ends(self._node.body, self._script)

    def infer(self, node, depth=8):
        """The name of an expression's type, or None where that is not evident."""
        if node is None:
            return "NoneType"
        if depth == 0:
            return None
        value = _constant(node)
        if value is not _NONE:
            return type(value).__name__
        for kind, name in ((ast.Tuple, "tuple"), ((ast.List, ast.ListComp), "list"), ((ast.Dict, ast.DictComp), "dict"),
                           ((ast.Set, ast.SetComp), "set"), (ast.JoinedStr, "str"), (ast.Lambda, "function"),
                           (ast.GeneratorExp, "generator")):
            if isinstance(node, kind):
                return name
        if isinstance(node, ast.Name):
            known = self._env.get(node.id)
            return self.infer(known, depth - 1) if isinstance(known, ast.AST) else known
        if isinstance(node, ast.Subscript):
            whole = self.infer(node.value, depth - 1)
            if isinstance(node.slice, ast.Slice) and whole in ("bytes", "bytearray", "str", "list", "tuple"):
                return whole
            return "int" if whole in ("bytes", "bytearray") and not isinstance(node.slice, ast.Slice) else None
        if isinstance(node, ast.BinOp):
            left, right = self.infer(node.left, depth - 1), self.infer(node.right, depth - 1)
            if isinstance(node.op, ast.Mod) and left in ("str", "bytes"):
                return left
            if isinstance(node.op, ast.Add) and left in ("str", "bytes", "bytearray", "list", "tuple"):
                return left if right is not None else None
            if isinstance(node.op, ast.Mult) and {left, right} & {"str", "bytes", "bytearray", "list", "tuple"}:
                return left if right == "int" else right if left == "int" else None
            return "int" if left == right == "int" and not isinstance(node.op, (ast.Div, ast.Pow)) else None
        if isinstance(node, ast.IfExp):
            yes, no = self.infer(node.body, depth - 1), self.infer(node.orelse, depth - 1)
            return yes if yes == no else None
        if isinstance(node, ast.Compare):
            return "bool" if all(_constant(each) is not _NONE for each in node.comparators) else None
        if isinstance(node, ast.Call):
            return self._infer_call(node, depth)
        return None

    def _infer_call(self, node, depth):
        called = node.func
        if isinstance(called, ast.Name):
            function = self._script.function(called.id)
            if function is not None and not function.decorator_list:
                if isinstance(function, ast.AsyncFunctionDef):
                    return None
                inner = Returns(self._script, function, ())
                kinds = {inner.infer(value, depth - 2) for value, _ in inner.returns} if depth > 2 else {None}
                if inner.is_generator:
                    return "generator"
                return kinds.pop() if len(kinds) == 1 and inner.always_raises() else None
            return None if called.id in self._script.defines() else _CALLS.get(called.id)
        if isinstance(called, ast.Attribute):
            # Only of owners whose type is known: a class of the author's may have a method of any name.
            if isinstance(called.value, ast.Name) and called.value.id == "hashlib":
                return "hash"
            if called.attr == "fromhex" and isinstance(called.value, ast.Name):
                return {"bytes": "bytes", "bytearray": "bytearray"}.get(called.value.id)
            return _METHODS.get((self.infer(called.value, depth - 1), called.attr))
        return None

    def problems(self, kind):
        """(severity, text, line) of what the answers of this kind lack."""
        found = []
        node = self._node
        # In Python 3.7 a definition begins with its decorators.
        first = max([node.lineno] + [each.lineno + 1 for each in node.decorator_list])
        if isinstance(node, ast.AsyncFunctionDef):
            return [("fault", "%s is a coroutine function: a call gives a coroutine and runs nothing of it" % node.name,
                     first)]
        if self.is_generator:
            return [("fault", "%s is a generator function: a call gives a generator and runs nothing of it" % node.name,
                     first)]
        if kind == "ignored":
            return []
        for value, line in self.returns:
            text = self._problem(value, kind)
            if text:
                found.append(("fault", text, line))
        if not self.always_raises():
            due = _due(kind)
            if not self.returns:
                found.append(("fault", "%s returns nothing where %s is due" % (node.name, due), first))
            else:
                found.append(("warning", "%s may end without a return, where %s is due" % (node.name, due),
                              first))
        return found

    def _problem(self, value, kind):
        told = self.infer(value)
        allowed = {"text": {"str"}, "text_or_bytes": {"str", "bytes"}, "number": {"int", "bool"},
                   "bytes": {"bytearray"}, "key": {"bool"}}.get(kind, {"list"})
        if told is None:
            return None
        if told not in allowed:
            return "the answer is %s where %s is due" % (article(told), _due(kind))
        constant = _constant(value) if value is not None else None
        if kind == "key" and constant is False:
            return "the answer is False where True is due"
        if kind == "number" and isinstance(constant, int) and not -0x80000000 <= constant <= 0x7FFFFFFF:
            return "the answer 0x%X does not fit into a signed 32-bit number" % constant
        if isinstance(value, ast.Name) and isinstance(self._env.get(value.id), ast.AST):
            value = self._env[value.id]
        if kind == "chunks":
            items = value.elts if isinstance(value, ast.List) else [value.elt] if isinstance(value, ast.ListComp) else []
            for item in items:
                inner = None if isinstance(item, ast.Starred) else self.infer(item)
                if inner not in (None, "bytearray"):
                    return "a chunk is %s where a bytearray is due" % article(inner)
        elif kind in ("memory", "hash_and_size") and isinstance(value, ast.List):
            wanted = ("bytearray", "int", "int") if kind == "memory" else ("bytearray", "int")
            names = ("the image", "the width", "the depth") if kind == "memory" else ("the hash", "the size")
            if any(isinstance(item, ast.Starred) for item in value.elts):
                return None
            if len(value.elts) != len(wanted):
                return "the answer is a list of %d where a list of %d is due" % (len(value.elts), len(wanted))
            for item, due, name in zip(value.elts, wanted, names):
                inner = self.infer(item)
                if inner not in (None, due) and not (inner == "bool" and due == "int"):
                    return "%s is %s where %s is due" % (name, article(inner), article(due))
        return None


_ENDING_METHODS = {"exit", "_exit", "error", "abort", "fail"}


def _never_ends(body, script, depth=4):
    """Whether the end of a block is never reached."""

    def never(block):
        return _never_ends(block, script, depth)

    for node in body:
        if isinstance(node, (ast.Return, ast.Raise)):
            return True
        if isinstance(node, ast.If) and node.orelse and never(node.body) and never(node.orelse):
            return True
        if isinstance(node, ast.With) and never(node.body):
            return True
        if isinstance(node, ast.Try):
            ends = never(node.body) or never(node.orelse)
            if never(node.finalbody) or ends and all(never(each.body) for each in node.handlers):
                return True
        if isinstance(node, ast.While) and _constant(node.test) not in (_NONE, False, 0, None) and not any(
                isinstance(each, ast.Break) for each in ast.walk(node)):
            return True
        if type(node).__name__ == "Match" and all(never(each.body) for each in node.cases):
            return True
        if isinstance(node, ast.Expr) and isinstance(node.value, ast.Call):
            called = node.value.func
            if isinstance(called, ast.Attribute) and called.attr in _ENDING_METHODS:
                return True
            if isinstance(called, ast.Name):
                function = script.function(called.id)
                if called.id in ("exit", "quit") or depth and function is not None and _never_ends(
                        function.body, script, depth - 1) and not any(
                            isinstance(each, ast.Return) for each in ast.walk(function)):
                    return True
    return False


def article(type_name):
    """A type's name in a sentence."""
    if type_name == "NoneType":
        return "None"
    return "%s %s" % ("an" if type_name[0] in "aeiou" else "a", type_name)


def _due(kind):
    return {"text": "a str", "text_or_bytes": "a str or bytes", "number": "an int", "bytes": "a bytearray",
            "key": "True", "memory": "a list of three", "chunks": "a list of bytearrays",
            "hash_and_size": "a list of two"}[kind]


def name_problems(path, preloaded, as_module):
    """(code, severity, text, hint) of what is wrong with a script's file name."""
    name = os.path.basename(path)
    module = module_name(path)
    if module is None:
        return [("file-name", "fault", "the name of a script ends in .py or .pyc", "")]
    found = []
    if as_module:
        if not name.endswith((".py", ".pyc")):
            found.append(("file-name", "fault", "the name ends in %s, which Python does not import" %
                          name[len(module):], "write it in small letters"))
        if not is_utf8(module):
            found.append(("file-name", "fault", "the name holds bytes that are no UTF-8, and Python makes a text of it",
                          "use letters, digits and _"))
        elif not module or "." in module:
            found.append(("file-name", "fault", "%r is no name of a module: Python takes what is before the dot for a "
                          "package" % module, "name it without dots, such as %s.py" % (module.replace(".", "_") or "script")))
        elif not module.isidentifier():
            found.append(("file-name", "warning", "%r is a name that no import statement can write" % module,
                          "use letters, digits and _"))
    if module in preloaded:
        text = "every session has a module %s of the standard library already" % module
        text += "; this one is never loaded" if as_module else ""
        found.append(("hidden-module", "fault" if as_module else "warning", text, "give the script another name"))
    elif module in standard_modules():
        found.append(("hidden-module", "fault" if as_module else "warning",
                      "it hides the module %s of the standard library from everything in the session" % module,
                      "give the script another name"))
    return found
