"""The program pgm_python_check: says what will go wrong with scripts, before it does."""

import argparse
import importlib.machinery
import io
import json
import os
import re
import socket
import stat
import statistics
import subprocess
import sys
from typing import NamedTuple, Optional

from pgm_python_authors import __version__
from pgm_python_authors.bench import Bench, Installation, module_name, read_seconds
from pgm_python_authors.operations import ANSWERS, CATALOGUE, OPERATIONS, PORT, RUNNER
from pgm_python_authors.static import Problem, Returns, Script, name_problems

SEVERITIES = ("fault", "warning", "note")
DESCRIPTION = """Says what will go wrong with the scripts of pgm_python, before it does. Without SCRIPT it checks the
installation that the environment names; with SCRIPT and --as that script."""

# Extensions that do not get over a second start of the interpreter in a process.
FRAGILE_EXTENSIONS = ("numpy", "cryptography")
# Pythons that are known not to survive sessions.
FRAGILE_PYTHONS = ((3, 12, 0), (3, 12, 1))
OTHER_SESSIONS = "keep the interpreter (PGM_PYTHON_CALLS=kept), or call in a worker (PGM_PYTHON_CALLS=worker)"
# A .pth file that costs every call more milliseconds than this is a warning.
MOST_PTH_MS = 10.0


class Finding(NamedTuple):
    severity: str
    # A short name that stays.
    code: str
    text: str
    hint: str = ""
    operation: Optional[str] = None
    file: Optional[str] = None
    line: Optional[int] = None


class Checker:
    """Gathers findings."""

    def __init__(self, installation, bench, environment=None):
        self.installation = installation
        self.bench = bench
        self.environment = os.environ if environment is None else environment
        self.findings = []
        self.session = None
        self._read = {}

    def add(self, severity, code, text, hint="", operation=None, file=None, line=None):
        finding = Finding(severity, code, text, hint, operation, file, line)
        if finding not in self.findings:
            self.findings.append(finding)

    # The surroundings.

    def check_surroundings(self):
        """The Python, its .pth files, the folders, the settings and the port. False when there is no session."""
        self._check_settings()
        self._check_folders()
        reply, _ = self.bench.ask({"main": False, "argv": [""], "path": [], "environment": {}, "module": None})
        self.session = reply.get("session")
        if self.session is None:
            self.add("fault", "python", "the Python %s does not start" % self.bench.python, reply["error"]["text"])
            return False
        self._check_python()
        self._check_linked_python()
        self._check_pth_files()
        self._check_port()
        return True

    @property
    def calls(self):
        return self.environment.get("PGM_PYTHON_CALLS") or "fresh"

    def _check_settings(self):
        for entry, known in (("PGM_PYTHON_CALLS", ("fresh", "kept", "worker")),
                             ("PGM_PYTHON_REASONS", ("both", "announced"))):
            value = self.environment.get(entry)
            if value and value not in known:
                self.add("fault", "setting", "%s is %s" % (entry, value), "it is one of: %s" % ", ".join(known))

    def _check_folders(self):
        here = self.installation
        for what, folder in (("common", here.common), ("unshipped", here.unshipped), ("programs'", here.programs)):
            self._check_folder_name("the %s folder" % what, folder)
        for what, folder, missing in (("common", here.common, "fault"), ("unshipped", here.unshipped, "note")):
            trouble = folder_trouble(folder)
            if trouble:
                self.add(missing if trouble == MISSING else "fault", "folder", "the %s folder %s" % (what, trouble),
                         "PGM_%s_PROGRAMMER_DIR names it" % what.upper(), file=folder)
        told = {here.common, here.unshipped}
        for folder in here.suite_path + [here.folder(kind) for kind in ("unshipped", "database", "network")]:
            trouble = None if folder in told else folder_trouble(folder)
            told.add(folder)
            if trouble and trouble != MISSING and not folder_trouble(os.path.dirname(folder)):
                self.add("fault", "folder", "this folder of scripts %s" % trouble, file=folder)

    def _check_folder_name(self, what, folder):
        wrong = None
        if '"' in folder:
            wrong = "a double quote"
        elif "\\" in folder and os.sep != "\\":
            wrong = "a backslash"
        elif "\n" in folder or "\r" in folder:
            wrong = "a line break"
        else:
            try:
                folder.encode("utf-8")
            except UnicodeEncodeError:
                wrong = "bytes that are no UTF-8"
        if wrong:
            self.add("fault", "folder-name", "the name of %s holds %s, and names of folders become part of Python text" %
                     (what, wrong), "use a folder without it", file=folder)

    def _check_python(self):
        version = tuple(self.session["version"])
        if version < (3, 7):
            self.add("fault", "python", "Python %d.%d.%d is too old: 3.7 is the first" % version)
        if version in FRAGILE_PYTHONS and self.calls == "fresh":
            self.add("warning", "python-sessions",
                     "Python %d.%d.%d does not survive a second session of a process with some modules" % version,
                     "use 3.12.2 or newer, or " + OTHER_SESSIONS)

    def _check_linked_python(self):
        """Whether the programs are linked with the Python that checks."""
        program = os.path.join(self.installation.programs, "pgm_python_run")
        if os.name != "posix" or not os.access(program, os.X_OK):
            return
        try:
            told = subprocess.run([program, "-c", "import sys; print('%d.%d.%d' % sys.version_info[:3])"],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60)
        except (OSError, subprocess.SubprocessError) as error:
            self.add("fault", "programs", "it does not start: %s" % error, file=program)
            return
        linked = told.stdout.decode("utf-8", "replace").strip()
        used = "%d.%d.%d" % tuple(self.session["version"])
        if told.returncode != 0:
            lines = told.stderr.decode("utf-8", "replace").strip().splitlines()
            self.add("fault", "programs", "no session starts: %s" % (lines[-1] if lines else "no reason is told"),
                     file=program)
        elif linked != used:
            self.add("warning", "linked-python", "it is linked with Python %s, and this checks with %s" % (linked, used),
                     "start the pgm_python_check beside it", file=program)

    def _check_pth_files(self):
        for path, cost in pth_costs(self.bench.python, self.session["site"]):
            severity = "warning" if cost > MOST_PTH_MS and self.calls == "fresh" else "note"
            each = "every call" if self.calls == "fresh" else "the start of the interpreter"
            self.add(severity, "pth", "it costs %s %.1f ms" % (each, cost),
                     "remove what is not needed" if severity == "warning" else "", file=path)

    def _check_port(self):
        if self.environment.get("PGM_PYTHON_REASONS") == "announced" or port_is_free():
            return
        holder = holder_of_port(PORT)
        self.add("warning", "port", "TCP port %d is in use%s: a script that tells its reasons there is not heard" %
                 (PORT, " by %s" % holder if holder else ""), "tell them with the module pgm_python_reasons")

    # Scripts.

    def check_installation(self):
        """Every operation, the catalogue and what else stands in the folders."""
        self._check_reasons_module()
        fixed = {}
        for operation in OPERATIONS.values():
            if operation.script is None:
                continue
            path = self.installation.find_script(operation, operation.script)
            trouble = file_trouble(path)
            if trouble is None:
                fixed.setdefault(path, []).append(operation)
            elif trouble != MISSING:
                self._add_script_trouble(path, trouble, operation.name)
            elif operation.may_be_missing:
                self.add("note", "missing-script", "the script is not there: %s answers nothing" % operation.name,
                         operation=operation.name, file=path)
            else:
                source = path.endswith(".pyc") and os.path.exists(path[:-1])
                self.add("fault", "missing-script", "the script is not there: %s ends in an internal error" %
                         operation.name, "its source is there: compile it" if source else "",
                         operation=operation.name, file=path)
        for path, operations in fixed.items():
            self._check_functions(path, [(each, each.function) for each in operations])
        self._check_network_scripts()
        self._check_catalogue(set(fixed))
        self._check_other_files()

    def _add_script_trouble(self, path, trouble, operation=None):
        self.add("fault", "unreadable", "the script %s" % trouble, operation=operation, file=path)

    def _check_reasons_module(self):
        folders = self.installation.suite_path
        if not any(os.path.isfile("%s/pgm_python_reasons.%s" % (folder, extension))
                   for folder in folders for extension in ("py", "pyc")):
            self.add("warning", "reasons-module", "the module pgm_python_reasons is in none of the script folders",
                     "put it into %s" % folders[1])

    def _check_network_scripts(self):
        operation = OPERATIONS["get_nwfmt_data"]
        folder = self.installation.folder("network")
        names = {name for name, _ in operation.functions}
        scripts = scripts_in(folder)
        if not scripts and folder_trouble(folder) in (None, MISSING):
            self.add("note", "missing-script", "no network-format scripts are there", operation=operation.name,
                     file=folder)
        for path in scripts:
            script = self._script(path, operation.name)
            if script is not None and names & script.defines():
                self._check_functions(path, [(operation, None)])

    def _check_catalogue(self, checked):
        for row in CATALOGUE:
            path = "%s/%s" % (self.installation.folder(row.folder), row.file)
            trouble = file_trouble(path)
            if trouble == MISSING:
                self.add("note", "missing-default", "the default script %s is not there" % row.name, file=path)
            elif trouble:
                if not any(finding.code == "unreadable" and finding.file == path for finding in self.findings):
                    self._add_script_trouble(path, trouble, RUNNER)
            elif path not in checked:
                self.check_main(path)
        known = {os.path.splitext(row.file)[0]: row for row in CATALOGUE}
        wanted = {"%s/%s" % (self.installation.folder(row.folder), row.file) for row in CATALOGUE}
        for folder in ("common", "unshipped"):
            for path in scripts_in(self.installation.folder(folder)):
                row = known.get(module_name(path))
                if row is None or path in wanted:
                    continue
                place = "%s/%s" % (self.installation.folder(row.folder), row.file)
                if not os.path.exists(place):
                    self.add("warning", "never-found", "the default script %s is looked for as %s, so this file is "
                             "never found by that name" % (row.name, place), "put it there", file=path)

    def _check_other_files(self):
        here = self.installation
        folders = here.suite_path + [here.folder("database"), here.folder("network")]
        for folder in folders + [here.folder("unshipped")]:
            for path in scripts_in(folder):
                self._script(path)
                told = any(finding.file == path and finding.code in ("file-name", "hidden-module")
                           for finding in self.findings)
                if not told:
                    self._check_name(path, False)

    def check_script(self, path, operation_name, function=None):
        """One script, as an operation uses it."""
        self._check_folder_name("the script's folder", os.path.dirname(os.path.abspath(path)))
        for beside in scripts_in(os.path.dirname(os.path.abspath(path))):
            if os.path.abspath(path) != beside and module_name(beside) != module_name(path):
                self._check_name(beside, False)
        if operation_name == RUNNER:
            self.check_main(path)
            return
        operation = OPERATIONS[operation_name]
        if operation.script and os.path.basename(path) != operation.script:
            same = module_name(path) == module_name(operation.script)
            self.add("note" if same else "warning", "script-name", "%s loads a script of the name %s" %
                     (operation.name, operation.script),
                     "install it compiled" if same and operation.script.endswith("c") else
                     "install it under that name", operation=operation.name, file=path)
        self._check_functions(path, [(operation, function or operation.function)])

    def check_main(self, path):
        """A script that runs as the main program, without running it."""
        self._check_name(path, False)
        script = self._script(path, RUNNER)
        if script is None:
            return
        self._check_names_used(script, RUNNER)
        self._check_imports(script, RUNNER, self.session["path"] + list(reversed(
            self.installation.suite_path)) + [os.path.dirname(os.path.abspath(path))], True)
        if script.only_defines():
            self.add("warning", "does-nothing", "run as a main program it does nothing but define",
                     "call the main function at its end", operation=RUNNER, file=path)

    def _check_name(self, path, as_module, operation=None):
        for code, severity, text, hint in name_problems(path, self.session["modules"], as_module):
            self.add(severity, code, text, hint, operation=operation, file=path)

    def _script(self, path, operation=None):
        """The script, read; None when it cannot be, which is told once."""
        if path not in self._read:
            self._read[path] = None
            try:
                self._read[path] = Script(path)
            except Problem as problem:
                self.add("fault", problem.code, problem.text, problem.hint, operation=operation, file=path,
                         line=problem.line)
            except OSError as error:
                self.add("fault", "unreadable", "it cannot be read: %s" % error.strerror, operation=operation,
                         file=path)
        return self._read[path]

    def _check_names_used(self, script, operation, bound=()):
        """Names that nothing binds; `bound` are those that the loaded module has."""
        for name, line in script.undefined_names():
            if name in bound:
                continue
            hint = ""
            if name in ("Refusal", "tells_reasons", "run_main", "send_reasons"):
                hint = "from pgm_python_reasons import %s" % name
            self.add("fault", "undefined-name", "the name %s is not defined" % name, hint, operation=operation,
                     file=script.path, line=line)

    def _check_imports(self, script, operation, folders, top):
        """Imports that find nothing; those at the top too where the script was not loaded."""
        for name, line, at_top in script.imports():
            if name in FRAGILE_EXTENSIONS and self.calls == "fresh" and find_module(name, folders):
                self._add_fragile(name, operation, script.path, line)
            if at_top and not top or script.touches_search_path() and top:
                continue
            if name not in self.session["builtin"] and not find_module(name, folders):
                self.add("fault", "missing-import", "there is no module %s where the script looks for it" % name,
                         self._import_hint(name, operation), operation=operation, file=script.path, line=line)

    def _add_fragile(self, name, operation, path, line=None):
        self.add("warning", "extension", "%s does not survive a second session of a process: the second call fails" %
                 name, OTHER_SESSIONS, operation=operation, file=path, line=line)

    def _import_hint(self, name, operation):
        known = OPERATIONS.get(operation)
        if known is None or known.suite_folders:
            if name == "pgm_python_reasons":
                return "put pgm_python_reasons.py into %s" % self.installation.suite_path[1]
            return ""
        source = self.installation.suite_path[1]
        if os.path.isfile("%s/%s.py" % (source, name)):
            return ("%s finds only modules of its own folder: before the import, "
                    "sys.path.insert(1, the common folder + \"/python/source\")" % known.name)
        return "%s finds only modules of its own folder" % known.name

    def _check_functions(self, path, wanted):
        """A script and the (operation, function) that it is for; a function of None is any that the script has."""
        operation = wanted[0][0]
        self._check_name(path, True, operation.name)
        beside = path[:-1] if path.endswith(".pyc") else None
        if beside and os.path.exists(beside):
            self.add("warning", "two-forms", "%s is beside it, and Python loads that one" % os.path.basename(beside),
                     "keep one of the two", operation=operation.name, file=path)
        script = self._script(path, operation.name)
        blocked = any(finding.file == path and finding.severity == "fault" and
                      finding.code in ("file-name", "hidden-module") for finding in self.findings)
        if script is None:
            return
        for each, function in wanted:
            for name in [function] if function else [name for name, _ in each.functions]:
                self._check_answers(script, each, name)
        if blocked:
            self._check_names_used(script, operation.name)
            return
        functions = {}
        for each, function in wanted:
            for name in [function] if function else [name for name, _ in each.functions]:
                functions[name] = len(each.arguments)
        request = self.bench.request(operation, path, wanted[0][1])
        request["functions"] = functions
        reply, _ = self.bench.ask(request)
        self._check_names_used(script, operation.name, reply.get("names", ()))
        if reply["error"]:
            self._add_load_failure(reply["error"], script, operation)
            folders = self.session["path"] + request["path"]
            self._check_imports(script, operation.name, folders, False)
            return
        self._check_imports(script, operation.name, reply["path"], False)
        for name in FRAGILE_EXTENSIONS:
            named = any(finding.code == "extension" and finding.file == path for finding in self.findings)
            if name in reply["modules"] and self.calls == "fresh" and not named:
                self._add_fragile(name, operation.name, path)
        for each, function in wanted:
            self._check_found(path, each, function, reply)

    def _check_found(self, path, operation, function, reply):
        found = reply.get("functions", {})
        if function is None and operation.functions:
            if not found:
                self.add("fault", "missing-function", "it has none of the functions %s" %
                         ", ".join(name for name, _ in operation.functions), operation=operation.name, file=path)
            names = sorted(found)
        elif function is None:
            fitting = sorted(name for name, facts in reply["defined"].items() if facts["fits"])
            text = "functions that a program can name: %s" % ", ".join(fitting)
            if not fitting:
                text = "it has no function that takes the one argument"
            self.add("note" if fitting else "fault", "functions", text, "--function checks one of them",
                     operation=operation.name, file=path)
            return
        elif function not in found:
            near = [name for name in reply["defined"] if name.lower().replace("_", "") ==
                    function.lower().replace("_", "")]
            self.add("fault", "missing-function", "it has no function %s" % function,
                     "is it %s?" % near[0] if near else "", operation=operation.name, file=path)
            return
        else:
            names = [function]
        for name in names:
            facts = found[name]
            if not facts["callable"]:
                self.add("fault", "missing-function", "%s is no function" % name, operation=operation.name, file=path)
            elif not facts["fits"]:
                count = len(operation.arguments)
                gets = ", ".join(each.name for each in operation.arguments)
                self.add("fault", "parameters", "%s does not take the %d argument%s that it gets%s: %s" %
                         (name, count, "" if count == 1 else "s", " (%s)" % gets if gets else "", facts["problem"]),
                         operation=operation.name, file=path, line=facts["line"])

    def _check_answers(self, script, operation, function):
        definition = script.function(function)
        if definition is None:
            return
        kind = operation.answer_of(function)
        for severity, text, line in Returns(script, definition, operation.arguments).problems(kind):
            otherwise = ANSWERS[kind].otherwise
            self.add(severity, "answer", text, "the program sees %s" % otherwise if otherwise else "",
                     operation=operation.name, file=script.path, line=line)

    def _add_load_failure(self, error, script, operation):
        place, line = error["file"] or script.path, error["line"]
        compiled = script.path.lower().endswith(".pyc") and module_name(place) == module_name(script.path)
        if compiled or place and os.path.abspath(place) == os.path.abspath(script.path):
            place = script.path
        if error["type"] == "ModuleNotFoundError" and error["module"]:
            name = error["module"].split(".")[0]
            text = "there is no module %s where the script looks for it" % error["module"]
            self.add("fault", "missing-import", text, self._import_hint(name, operation.name),
                     operation=operation.name, file=place, line=line)
        elif error["type"] == "SystemExit":
            self.add("fault", "load", "it ends as it is loaded: %s" % error["text"],
                     "call sys.exit only below if __name__ == \"__main__\":", operation=operation.name, file=place,
                     line=line)
        else:
            undefined = any(finding.file == place and finding.line == line and finding.code == "undefined-name"
                            for finding in self.findings)
            if not undefined:
                self.add("fault", "load", "it cannot be loaded: %s" % error["text"], operation=operation.name,
                         file=place, line=line)


MISSING = "is not there"
FOLDER = "is a folder"


def file_trouble(path):
    """Why there is no file of this name, or None; MISSING only where that is sure."""
    try:
        mode = os.stat(path).st_mode
    except (FileNotFoundError, NotADirectoryError):
        return MISSING
    except OSError as error:
        return "cannot be reached: %s" % error.strerror
    return FOLDER if stat.S_ISDIR(mode) else None if stat.S_ISREG(mode) else "is no regular file"


def folder_trouble(folder):
    """Why there is no folder of this name that modules are found in, or None; MISSING only where that is sure."""
    trouble = file_trouble(folder)
    if trouble != FOLDER:
        return trouble or "is no folder"
    try:
        os.stat(os.path.join(folder, "."))
        os.listdir(folder)
    except OSError as error:
        return "cannot be entered: %s" % error.strerror
    return None


def scripts_in(folder):
    """The script files of a folder."""
    try:
        names = sorted(os.listdir(folder))
    except OSError:
        return []
    return ["%s/%s" % (folder, name) for name in names
            if module_name(name) is not None and os.path.isfile("%s/%s" % (folder, name))]


def find_module(name, folders):
    """Whether a module can be imported with these folders on the search path, without importing it."""
    if name == "__main__" or name in sys.builtin_module_names or importlib.machinery.FrozenImporter.find_spec(name) is not None:
        return True
    try:
        return importlib.machinery.PathFinder.find_spec(name, folders) is not None
    except (ImportError, ValueError, OSError):
        return True


def port_is_free():
    """Whether the library could listen on the fixed port now."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as trial:
        trial.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            trial.bind(("0.0.0.0", PORT))
            trial.listen(1)
        except OSError:
            return False
    return True


def holder_of_port(port):
    """The program that listens on a port, as "NAME (process ID)", where the system tells."""
    inodes = set()
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(table) as stream:
                rows = [row.split() for row in stream][1:]
        except OSError:
            continue
        inodes |= {row[9] for row in rows if row[3] == "0A" and int(row[1].rsplit(":", 1)[1], 16) == port}
    if not inodes:
        return None
    for process in os.listdir("/proc"):
        if not process.isdigit():
            continue
        try:
            for descriptor in os.listdir("/proc/%s/fd" % process):
                link = os.readlink("/proc/%s/fd/%s" % (process, descriptor))
                match = re.match(r"socket:\[(\d+)\]$", link)
                if match and match.group(1) in inodes:
                    with open("/proc/%s/comm" % process) as stream:
                        return "%s (process %s)" % (stream.read().strip(), process)
        except OSError:
            continue
    return None


# What the time of a .pth file is measured with: a Python that has done everything but that.
_PTH_TIMER = """
import sys, os, site, time, json
sys.stdout.flush()
out = os.dup(1)
os.dup2(2, 1)
costs = []
for path in json.loads(sys.argv[1]):
    begin = time.perf_counter()
    try:
        site.addpackage(os.path.dirname(path), os.path.basename(path), None)
    except Exception:
        pass
    costs.append((time.perf_counter() - begin) * 1000)
os.write(out, json.dumps(costs).encode())
"""


def pth_costs(python, folders):
    """(path, milliseconds) of each .pth file in folders for modules."""
    paths = []
    for folder in folders:
        try:
            paths += [os.path.join(folder, name) for name in sorted(os.listdir(folder)) if name.endswith(".pth")]
        except OSError:
            continue
    if not paths:
        return []
    rounds = []
    for _ in range(3):
        try:
            told = subprocess.run([python, "-S", "-c", _PTH_TIMER, json.dumps(paths)], stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, timeout=60).stdout
            rounds.append(json.loads(told.decode("ascii")))
        except (OSError, ValueError, subprocess.SubprocessError):
            continue
    return [(path, statistics.median(each[index] for each in rounds)) for index, path in enumerate(paths) if rounds]


# The command line.


class UsageError(Exception):
    pass


def read_number(text):
    try:
        number = int(text, 0)
    except ValueError:
        raise UsageError("%s is no number" % text)
    if not -0x80000000 <= number <= 0xFFFFFFFF:
        raise UsageError("%s is no 32-bit number" % text)
    return number


def read_flag(text):
    if text.lower() not in ("true", "false", "1", "0", "yes", "no"):
        raise UsageError("%s is neither true nor false" % text)
    return text.lower() in ("true", "1", "yes")


def read_bytes(text):
    try:
        with open(text, "rb") as stream:
            return stream.read()
    except OSError as error:
        raise UsageError("%s cannot be read: %s" % (text, error.strerror))


def read_map(text):
    entries = {}
    for entry in text.split(",") if text else []:
        key, equals, value = entry.partition("=")
        if not equals:
            raise UsageError("%s is no KEY=VALUE" % entry)
        entries[key] = value
    return entries


def read_values(operation, texts):
    """The values of an operation from a command line."""
    readers = {"number": read_number, "flag": read_flag, "bytes": read_bytes, "map": read_map}
    texts = list(texts)
    values = []
    for value in operation.values:
        if value.kind == "texts":
            values.append(texts[1:] if texts[:1] == ["--"] else texts)
            texts = []
        elif texts:
            values.append(readers.get(value.kind, str)(texts.pop(0)))
        elif value.check in ("filled", "certificate") or value.kind in ("number", "bytes"):
            raise UsageError("%s needs %s" % (operation.name, " ".join(usage_of(operation))))
    if texts:
        raise UsageError("%s takes no argument %s; it needs %s" %
                         (operation.name, texts[0], " ".join(usage_of(operation))))
    return values


def usage_of(operation):
    forms = {"bytes": "%s-file", "map": "%s-key=value,...", "texts": "%s..."}
    return [(forms.get(value.kind, "%s") % value.name).upper() for value in operation.values]


def require_file(path):
    """Ends with bad usage where a named file is none."""
    trouble = file_trouble(path) if path else None
    if trouble:
        raise UsageError("%s %s" % (path, trouble.replace(MISSING, "does not exist")))


def call(checker, bench, script, words, report):
    """--call: calls a function with real arguments."""
    name, texts = words[0], words[1:]
    if name == RUNNER:
        if not script and not texts:
            raise UsageError("%s needs a script" % RUNNER)
        seen = bench.run(*([script] if script else []) + texts)
        kind = None
    elif name in OPERATIONS:
        operation = OPERATIONS[name]
        values = read_values(operation, texts)
        require_file(script)
        seen = bench.call(name, *values, script=script)
        functions = [value for value, wanted in zip(values, operation.values) if wanted.kind == "function"]
        kind = operation.answer_of(functions[0] if functions else None)
    else:
        raise UsageError("there is no operation %s" % name)
    report["call"] = {"operation": name, "right": seen.is_right, "answer_type": seen.answer_type,
                      "value": show(seen.value), "messages": seen.messages, "reasons": seen.reasons,
                      "internal_error": seen.internal_error, "problem": seen.problem, "traceback": seen.traceback,
                      "output": seen.output, "errors": seen.errors}
    if not seen.is_right:
        sees = ""
        if kind and seen.answer_type and ANSWERS[kind].otherwise:
            sees = "due is %s; the program sees %s" % (ANSWERS[kind].shape, ANSWERS[kind].otherwise)
        checker.add("fault", "call", seen.problem or seen.internal_error or "the call failed", sees, operation=name,
                    file=seen.file or script, line=seen.line)


def show(value):
    if isinstance(value, bytes):
        return "%d bytes%s" % (len(value), ": " + value[:16].hex().upper() if value else "")
    if isinstance(value, tuple):
        return [show(item) for item in value]
    return value


def print_call(told, stream):
    for name in ("output", "errors"):
        if told[name]:
            stream.write("the script wrote%s:\n" % (" to standard error" if name == "errors" else ""))
            stream.writelines("    %s\n" % line for line in told[name].splitlines())
    if told["traceback"] and not told["traceback"].strip() == told["problem"]:
        stream.writelines("    %s\n" % line for line in told["traceback"].splitlines())
    stream.write("%s returned %s\n" % (told["operation"], told["answer_type"] or "nothing"))
    stream.write("the program sees: %s\n" % json.dumps(told["value"]))
    stream.writelines("    %s\n" % line for line in told["messages"])


def print_findings(checker, stream):
    for severity in SEVERITIES:
        for finding in checker.findings:
            if finding.severity != severity:
                continue
            place = ""
            if finding.file:
                place = "%s%s: " % (finding.file, ", line %d" % finding.line if finding.line else "")
            stream.write("%s: %s%s%s\n" % (severity, place, finding.text,
                                           " [%s]" % finding.operation if finding.operation else ""))
            if finding.hint:
                stream.write("    %s\n" % finding.hint)


def counted(count, what):
    return "%d %s%s" % (count, what, "" if count == 1 else "s")


def make_parser():
    parser = argparse.ArgumentParser(prog="pgm_python_check", description=DESCRIPTION, allow_abbrev=False,
                                     epilog="Exit status: 0 nothing is wrong, 1 something will fail, or the check or "
                                     "its output failed, 2 bad usage.")
    parser.add_argument("script", metavar="SCRIPT", nargs="?", help="a script to check instead of the installation")
    parser.add_argument("--as", dest="operation", metavar="OPERATION",
                        help="the operation that is to use SCRIPT; %s for a main program" % RUNNER)
    parser.add_argument("--function", metavar="NAME", help="the function, where the program names it")
    parser.add_argument("--call", nargs=argparse.REMAINDER, metavar="OPERATION ARGUMENT",
                        help="call the function with these arguments, of SCRIPT where one is named; bytes are read "
                        "from files, maps are KEY=VALUE,KEY=VALUE; takes the rest of the command line")
    parser.add_argument("--json", action="store_true", help="tell it for machines")
    parser.add_argument("--strict", action="store_true", help="a warning counts as something that will fail")
    parser.add_argument("--timeout", metavar="SECONDS", type=read_seconds, default=60.0,
                        help="how long a script may take to load or answer (%(default)g)")
    parser.add_argument("--operations", action="store_true", help="list the operations with their arguments")
    parser.add_argument("--version", action="version", version="pgm_python_check %s, Python %d.%d.%d" %
                        ((__version__,) + sys.version_info[:3]))
    # What the launcher tells.
    parser.add_argument("--programs", metavar="FOLDER", help=argparse.SUPPRESS)
    return parser


def print_operations(stream):
    for operation in OPERATIONS.values():
        stream.write("%s %s\n" % (operation.name, " ".join(usage_of(operation))))
        stream.write("    %s: %s(%s) -> %s\n" % (
            operation.script or "the script that is named", operation.function or "the function that is named",
            ", ".join(argument.name for argument in operation.arguments), ANSWERS[operation.answer].shape))


def check(options, report):
    """Does what the command line asks for."""
    if options.script and options.call is None:
        if options.operation is None:
            raise UsageError("--as OPERATION is missing: what is %s for?" % options.script)
        if options.operation != RUNNER and options.operation not in OPERATIONS:
            raise UsageError("there is no operation %s; --operations lists them" % options.operation)
        require_file(options.script)
        known = OPERATIONS.get(options.operation)
        if options.function and (known is None or known.function):
            raise UsageError("the function of %s is not named by the program" % options.operation)
        if options.function and known.functions and options.function not in dict(known.functions):
            raise UsageError("Function %s is not supported" % options.function)
    elif options.operation or options.function:
        raise UsageError("--as and --function are for a script")
    elif options.call is not None and not options.call:
        raise UsageError("--call needs an operation")
    installation = Installation.from_environment(options.programs)
    bench = Bench(installation, timeout=options.timeout)
    checker = Checker(installation, bench)
    report["folders"] = {"common": installation.common, "unshipped": installation.unshipped,
                         "network": installation.folder("network"), "programs": installation.programs}
    if options.call is not None:
        call(checker, bench, options.script, options.call, report)
    elif checker.check_surroundings():
        if options.script:
            checker.check_script(options.script, options.operation, options.function)
        else:
            checker.check_installation()
    return checker


def split_call(arguments):
    """The arguments before --call, and its own: the rest as it is, with a "--" in it. None where there is no --call."""
    for place, argument in enumerate(arguments):
        if argument == "--call":
            return arguments[:place], arguments[place + 1:]
        if argument.startswith("--call="):
            return arguments[:place], [argument[len("--call="):]] + arguments[place + 1:]
    return arguments, None


def run(arguments, out):
    """Does what the arguments say, and writes to a stream; returns the exit status."""
    parser = make_parser()
    arguments, words = split_call(arguments)
    options = parser.parse_args(arguments)
    options.call = words
    if options.operations:
        print_operations(out)
        return 0
    report = {"version": __version__,
              "python": {"version": "%d.%d.%d" % sys.version_info[:3], "executable": sys.executable}}
    try:
        checker = check(options, report)
    except UsageError as error:
        parser.error(str(error))
    counts = {severity: sum(finding.severity == severity for finding in checker.findings) for severity in SEVERITIES}
    status = 1 if counts["fault"] or options.strict and counts["warning"] else 0
    if options.json:
        report.update(findings=[finding._asdict() for finding in checker.findings], counts=counts, status=status)
        json.dump(report, out, indent=2)
        out.write("\n")
        return status
    out.write("Python %s, %s\n" % (report["python"]["version"], report["python"]["executable"]))
    if not options.script:
        out.write("common folder %s\nunshipped folder %s\n" % (checker.installation.common,
                                                               checker.installation.unshipped))
    if "call" in report:
        print_call(report["call"], out)
    print_findings(checker, out)
    if "call" in report and not counts["fault"]:
        out.write("the answer is right\n")
    else:
        out.write("%s, %s, %s\n" % tuple(counted(counts[each], each) for each in SEVERITIES))
    return status


def complain(text):
    sys.stderr.write("pgm_python_check: %s\n" % text)
    return 1


def main(arguments=None):
    if sys.stderr is None:
        sys.stderr = open(os.devnull, "w")
    if sys.stdout is None:
        return complain("standard output is closed")
    for stream in (sys.stdout, sys.stderr):
        if hasattr(stream, "reconfigure"):
            stream.reconfigure(errors="backslashreplace")
    out = io.StringIO()
    try:
        status = run(list(sys.argv[1:] if arguments is None else arguments), out)
    except SystemExit as end:  # --help, --version and bad usage
        status = end.code
    except OSError as error:
        place = "%s: " % error.filename if error.filename else ""
        return complain("the check cannot be done: %s%s" % (place, error.strerror or error))
    try:
        sys.stdout.write(out.getvalue())
        sys.stdout.flush()
    except OSError as error:
        # The interpreter writes once more what is left, as it ends.
        with open(os.devnull, "wb") as nothing:
            os.dup2(nothing.fileno(), sys.stdout.fileno())
        return complain("standard output: %s" % error.strerror)
    return status
