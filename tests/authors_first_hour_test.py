"""An author's first hour: the three scripts of docs/scripts.md, made wrong in many ways.

The checker names each mistake, with file and line where there is one; the types name those that types can find, and the
fixtures for pytest those that a call can find. On what is right all three are silent.

authors_first_hour_test.py PROGRAMS PACKAGES SOURCES: the folder of the programs, the one of the authors' package, the
project's sources.
"""

import ctypes
import glob
import json
import os
import py_compile
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree
from typing import NamedTuple, Optional

sys.dont_write_bytecode = True
PROGRAMS, PACKAGES, SOURCES = sys.argv[1:4]
sys.path.insert(0, PACKAGES)

from pgm_python_authors.bench import Bench, Installation
from pgm_python_authors.check import Checker
from pgm_python_authors.operations import OPERATIONS

CHECK = os.path.join(PROGRAMS, "pgm_python_check")

# What is not the scripts': the machine's.
SURROUNDINGS = {"pth", "port", "python-sessions"}

MODIFY, NETWORK, MAIN = "invert.py", "halves.py", "tarn_card_sign.py"
SIX = "(text_1, dict_1, dict_2, text_2, dict_3, dict_4)"
TYPED_SIX = ("(text_1: str, dict_1: Dict[str, str], dict_2: Dict[str, str], text_2: str, dict_3: Dict[str, str], "
             "dict_4: Dict[str, str]) -> ")


class Mistake(NamedTuple):
    name: str
    script: str
    # What stands in the right script, and what is written instead.
    right: str
    wrong: str
    # The checker's code for it.
    code: str
    # A piece of the line that is to be named; None where there is none.
    line: Optional[str]
    types: bool
    call: bool
    # Another file name.
    file: Optional[str] = None
    # How the file is made, other than by writing it.
    form: str = ""
    function: str = "invert"


MISTAKES = (
    Mistake("bytes_for_bytearray", MODIFY, "    return data\n", "    return bytes(data)\n", "answer",
            "return bytes(data)", True, True),
    Mistake("text_for_bytearray", MODIFY, "    return data\n", "    return data.hex()\n", "answer",
            "return data.hex()", True, True),
    Mistake("tuple_for_bytearray", MODIFY, "    return data\n", "    return data, len(data)\n", "answer",
            "return data, len", True, True),
    Mistake("forgotten_return", MODIFY, "    return data\n", "", "answer", "def invert", True, True),
    Mistake("yield_for_return", MODIFY, "    return data\n", "    yield data\n", "answer", "def invert", True, True),
    Mistake("coroutine", MODIFY, "def invert", "async def invert", "answer", "async def invert", True, True),
    Mistake("one_parameter_more", MODIFY, "(data: bytearray)", "(data: bytearray, mask: int)", "parameters",
            "@tells_reasons", True, True),
    Mistake("no_parameter", MODIFY, "(data: bytearray)", "()", "parameters", "@tells_reasons", True, True),
    Mistake("syntax_error", MODIFY, "if not data:", "if not data", "syntax", "if not data", False, True),
    Mistake("missing_import", MODIFY, "import sys\n", "import sys\nimport bitmath\n", "missing-import",
            "import bitmath", False, True),
    Mistake("missing_import_of_a_branch", MODIFY, "        return bytearray(byte",
            "        import bitmath\n        return bytearray(byte", "missing-import", "import bitmath", False, False),
    Mistake("reasons_without_the_module", MODIFY, "from pgm_python_reasons import Refusal, tells_reasons\n", "",
            "undefined-name", "@tells_reasons", True, True),
    Mistake("misspelt_name", MODIFY, "    data[0] ^= 0xFF\n", "    data[0] ^= MASK\n", "undefined-name", "MASK", True,
            True),
    Mistake("another_function", MODIFY, "def invert(", "def Invert(", "missing-function", None, False, True),
    Mistake("name_of_a_standard_module", MODIFY, "", "", "hidden-module", None, False, True, file="os.py"),
    Mistake("name_that_hides_a_module", MODIFY, "", "", "hidden-module", None, False, False, file="fractions.py"),
    Mistake("name_with_dots", MODIFY, "", "", "file-name", None, False, True, file="my-script.v2.py"),
    Mistake("extension_in_capitals", MODIFY, "", "", "file-name", None, False, True, file="invert.PY"),
    Mistake("old_compiled_file", MODIFY, "", "", "compiled", None, False, True, file="invert.pyc", form="old"),
    Mistake("damaged_compiled_file", MODIFY, "", "", "compiled", None, False, True, file="invert.pyc", form="cut"),
    Mistake("exit_as_it_is_loaded", MODIFY, "import sys\n", "import sys\n\nsys.exit(0)\n", "load", "sys.exit(0)", False,
            True),
    Mistake("error_as_it_is_loaded", MODIFY, "import sys\n", "import sys\n\nLIMIT = int(\"many\")\n", "load",
            "LIMIT =", False, True),
    Mistake("fragile_extension", MODIFY, "import sys\n", "import sys\n\nimport numpy\n", "extension", "import numpy",
            False, False),
    Mistake("tuple_of_chunks", NETWORK, "    return [bytearray(data[:middle]), bytearray(data[middle:])]",
            "    return bytearray(data[:middle]), bytearray(data[middle:])", "answer", "return bytearray(data[:", True,
            True),
    Mistake("chunk_of_bytes", NETWORK, ", bytearray(data[middle:])]", ", bytes(data[middle:])]", "answer",
            "return [bytearray(data[:", True, True),
    Mistake("hash_as_text", NETWORK, "bytearray(hashlib.sha256(data).digest())", "hashlib.sha256(data).hexdigest()",
            "answer", "hexdigest", True, True, function="get_bram_hash_and_size"),
    Mistake("tuple_of_hash_and_size", NETWORK, "[bytearray(hashlib.sha256(data).digest()), len(data)]",
            "(bytearray(hashlib.sha256(data).digest()), len(data))", "answer", "hashlib.sha256(", True, True,
            function="get_bram_hash_and_size"),
    Mistake("hash_without_size", NETWORK, ".digest()), len(data)]", ".digest())]", "answer", "hashlib.sha256(", False,
            True, function="get_bram_hash_and_size"),
    Mistake("reasons_out_of_reach", NETWORK, "sys.path.insert(1, ", "print(1, ", "missing-import",
            "from pgm_python_reasons", False, True),
    Mistake("one_parameter_less", NETWORK, ", dict_4: Dict[str, str]) -> List[bytearray]", ") -> List[bytearray]",
            "parameters", "@tells_reasons", True, True),
    Mistake("main_is_never_called", MAIN, "\n\nif __name__ == \"__main__\":\n    run_main(main)\n", "", "does-nothing",
            None, False, False),
    Mistake("forgotten_import", MAIN, "import sys\n", "", "undefined-name", "if len(sys.argv)", True, True),
    Mistake("wrong_indentation", MAIN, "    print(\"signing", "  print(\"signing", "syntax", "print(\"signing", False,
            True),
    Mistake("default_script_in_the_other_folder", MAIN, "", "", "never-found", None, False, True,
            file="pelimor_sign.py", form="unshipped"),
)


def right_scripts():
    """The scripts of the page by their file names; the functions in network format have types, too."""
    with open(os.path.join(SOURCES, "docs", "scripts.md"), encoding="utf-8") as stream:
        page = stream.read()
    scripts = {}
    for match in re.finditer(r"^```python\n# (\S+)\n(.*?)^```$", page, re.M | re.S):
        scripts[os.path.basename(match.group(1))] = match.group(2)
    network = scripts[NETWORK].replace("import hashlib\n", "import hashlib\nfrom typing import Dict, List, Union\n", 1)
    network = network.replace("def get_bram_chunks" + SIX, "def get_bram_chunks" + TYPED_SIX + "List[bytearray]")
    scripts[NETWORK] = network.replace("def get_bram_hash_and_size" + SIX, "def get_bram_hash_and_size" + TYPED_SIX +
                                       "List[Union[bytearray, int]]")
    scripts[MAIN] = scripts[MAIN].replace("def main():", "def main() -> None:")
    return {name: scripts[name] for name in (MODIFY, NETWORK, MAIN)}


def typed(script, text):
    """A script with the lines that have a type checker compare its functions."""
    if script == MAIN:
        return text
    names = {MODIFY: {"ModifyBitstream": "invert"},
             NETWORK: {"GetBramChunks": "get_bram_chunks", "GetBramHashAndSize": "get_bram_hash_and_size"}}[script]
    lines = ["", "from typing import TYPE_CHECKING", "if TYPE_CHECKING:",
             "    from pgm_python_authors.protocols import %s" % ", ".join(names)]
    lines += ["    _%s: %s = %s" % (function, name, function) for name, function in names.items()]
    return text + "\n".join(lines) + "\n"


def has(program):
    return shutil.which(program) is not None and subprocess.call(
        [program, "--version"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) == 0


def without_rights():
    """Leaves out of the process that root goes past the rights of files."""
    if os.geteuid() == 0:
        for capability in (1, 2):  # CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH; 24 is PR_CAPBSET_DROP
            if ctypes.CDLL(None).prctl(24, capability, 0, 0, 0) != 0:
                raise OSError("the capability stays")


def rights_count():
    """Whether a process can be started that is kept out by the rights of files."""
    with tempfile.NamedTemporaryFile() as stream:
        os.chmod(stream.name, 0)
        try:
            return subprocess.call(["cat", stream.name], preexec_fn=without_rights, stderr=subprocess.DEVNULL) != 0
        except (OSError, AttributeError, subprocess.SubprocessError):
            return False


class FirstHourTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls._folder = tempfile.TemporaryDirectory()
        cls.folder = os.path.realpath(cls._folder.name)
        common, unshipped = cls.folder + "/common/programmer", cls.folder + "/unshipped/programmer"
        cls.network = common + "nwfmt"
        for folder in (common + "/python/source", unshipped + "/python/source", cls.network):
            os.makedirs(folder)
        shutil.copy(os.path.join(PACKAGES, "pgm_python_reasons.py"), common + "/python/source")
        with open(common + "/python/source/numpy.py", "w") as stream:
            stream.write("# stands for the extension\n")
        cls.environment = {name: value for name, value in os.environ.items()
                           if not name.startswith("PGM_") and name != "PYTHONPATH"}
        cls.environment.update(LC_ALL="C.UTF-8", PYTHONDONTWRITEBYTECODE="1")
        cls.own = dict(cls.environment, PGM_COMMON_PROGRAMMER_DIR=common, PGM_UNSHIPPED_PROGRAMMER_DIR=unshipped)
        cls.unshipped = unshipped + "/python"
        cls.right = right_scripts()
        with open(cls.folder + "/design.bin", "wb") as stream:
            stream.write(b"design")
        cls.paths = {name: cls.place(Mistake(name.split(".")[0], name, "", "", "", None, True, True))
                     for name in cls.right}
        cls.wrong = {mistake.name: cls.place(mistake) for mistake in MISTAKES}

    @classmethod
    def tearDownClass(cls):
        cls._folder.cleanup()

    @classmethod
    def place(cls, mistake):
        """Writes a script with its mistake; returns its path."""
        text = cls.right[mistake.script]
        if mistake.right or mistake.wrong:
            assert text.count(mistake.right) == 1 or mistake.right in ("import sys\n",), mistake.name
            text = text.replace(mistake.right, mistake.wrong, 1)
            if mistake.name == "forgotten_return":
                text = text.replace("        return bytearray(", "        bytearray(")
        folder = "%s/%s" % (cls.folder, mistake.name)
        name = mistake.file or mistake.script
        if mistake.script == NETWORK:
            folder, name = cls.network, mistake.name + ".py"
        elif mistake.form == "unshipped":
            folder = cls.unshipped
        os.makedirs(folder, exist_ok=True)
        path = "%s/%s" % (folder, name)
        if mistake.form in ("old", "cut"):
            source = cls.folder + "/source.py"
            with open(source, "w", encoding="utf-8") as stream:
                stream.write(text)
            py_compile.compile(source, cfile=path, dfile="invert.py", doraise=True)
            with open(path, "rb") as stream:
                data = stream.read()
            with open(path, "wb") as stream:
                # 3379: Python 3.6.
                stream.write(b"\x33\x0d\r\n" + data[4:] if mistake.form == "old" else data[:len(data) // 2])
            return path
        with open(path, "w", encoding="utf-8") as stream:
            stream.write(text)
        return path

    def check(self, *arguments, **keywords):
        """The checker's report."""
        done = subprocess.run([CHECK, "--json"] + list(arguments), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              env=keywords.get("environment", self.own), timeout=300,
                              preexec_fn=keywords.get("preexec_fn"))
        self.assertIn(done.returncode, (0, 1), done.stderr.decode("utf-8", "replace"))
        report = json.loads(done.stdout.decode("utf-8"))
        self.assertEqual(report["status"], done.returncode)
        return report

    def check_script(self, script, path, *more):
        use = {MODIFY: ["--as", "modify_bitstream", "--function", "invert"], NETWORK: ["--as", "get_nwfmt_data"],
               MAIN: ["--as", "run_python_file"]}[script]
        return self.check(path, *use + list(more))

    @staticmethod
    def alarms(report):
        return [finding for finding in report["findings"]
                if finding["severity"] != "note" and finding["code"] not in SURROUNDINGS]

    def test_there_are_twenty_mistakes_and_more(self):
        self.assertGreaterEqual(len({mistake.name for mistake in MISTAKES}), 20)
        self.assertEqual(len(set(self.wrong)), len(MISTAKES))

    def test_the_checker_names_every_mistake(self):
        for mistake in MISTAKES:
            with self.subTest(mistake=mistake.name):
                path = self.wrong[mistake.name]
                if mistake.form == "unshipped":
                    report = self.check()
                else:
                    report = self.check_script(mistake.script, path)
                found = [each for each in report["findings"]
                         if each["code"] == mistake.code and each["file"] == path]
                self.assertTrue(found, report["findings"])
                self.assertNotEqual(found[0]["severity"], "note")
                if found[0]["severity"] == "fault":
                    self.assertEqual(report["status"], 1)
                if mistake.line is None:
                    self.assertIsNone(found[0]["line"], found)
                    continue
                with open(path, encoding="utf-8") as stream:
                    lines = stream.read().splitlines()
                told = [lines[each["line"] - 1] for each in found]
                if mistake.code == "parameters":
                    # Up to Python 3.7 a function begins with its decorator for the interpreter, too.
                    self.assertTrue(any("@tells_reasons" in line or "def " in line for line in told), told)
                else:
                    self.assertTrue(any(mistake.line in line for line in told), told)

    def test_the_checker_is_silent_on_the_right_scripts(self):
        for name, path in self.paths.items():
            with self.subTest(script=name):
                report = self.check_script(name, path)
                self.assertEqual(self.alarms(report), [])
                self.assertEqual(report["status"], 0)

    def test_a_warning_counts_with_strict(self):
        path = self.wrong["main_is_never_called"]
        self.assertEqual(self.check_script(MAIN, path)["status"], 0)
        self.assertEqual(self.check_script(MAIN, path, "--strict")["status"], 1)

    def test_a_fragile_extension_is_none_where_the_interpreter_is_kept(self):
        path = self.wrong["fragile_extension"]
        for kind, alarms in (("fresh", 1), ("kept", 0), ("worker", 0)):
            environment = dict(self.own, PGM_PYTHON_CALLS=kind)
            report = self.check(path, "--as", "modify_bitstream", "--function", "invert", environment=environment)
            self.assertEqual(len(self.alarms(report)), alarms, kind)

    def test_the_checker_is_silent_on_the_example_installation(self):
        report = self.check(environment=self.environment)
        self.assertEqual(self.alarms(report), [])
        self.assertEqual(report["status"], 0)
        self.assertEqual(report["folders"]["common"], os.path.realpath(PROGRAMS + "/../common/programmer"))

    def test_the_checker_is_silent_on_the_scripts_of_the_tests(self):
        scripts = glob.glob(os.path.join(SOURCES, "tests", "*.py"))
        self.assertGreaterEqual(len(scripts), 4)
        for path in scripts:
            with self.subTest(script=path):
                self.assertEqual(self.alarms(self.check(path, "--as", "run_python_file")), [])

    def test_the_checker_is_silent_on_the_scripts_of_the_benchmarks(self):
        folder = os.path.join(SOURCES, "bench", "scripts")
        checked = 0
        for operation in OPERATIONS.values():
            name = operation.script and os.path.splitext(operation.script)[0] + ".py"
            path = os.path.join(folder, "common", "programmer", "python", name or "")
            if operation.folder == "network":
                path = glob.glob(os.path.join(folder, "common", "programmernwfmt", "*.py"))[0]
            if not os.path.isfile(path):
                continue
            with open(path, encoding="utf-8") as stream:
                if operation.function and "def %s(" % operation.function not in stream.read():
                    continue
            with self.subTest(operation=operation.name):
                self.assertEqual(self.alarms(self.check(path, "--as", operation.name)), [])
                checked += 1
        self.assertGreaterEqual(checked, 3)

    def test_a_broken_installation_is_told(self):
        """What is wrong with no script but with the installation."""
        folder = self.folder + '/a "quoted" one'
        os.makedirs(folder + "/python/source")
        with open(folder + "/python/source/random.py", "w") as stream:
            stream.write("seed = 4\n")
        environment = dict(self.own, PGM_COMMON_PROGRAMMER_DIR=folder, PGM_PYTHON_CALLS="sometimes")
        report = self.check(environment=environment)
        codes = {finding["code"]: finding for finding in report["findings"]}
        self.assertEqual(report["status"], 1)
        self.assertEqual(codes["folder-name"]["file"], folder)
        self.assertEqual(codes["hidden-module"]["file"], folder + "/python/source/random.py")
        self.assertEqual(codes["setting"]["text"], "PGM_PYTHON_CALLS is sometimes")
        missing = {finding["operation"] for finding in report["findings"] if finding["code"] == "missing-script"}
        fixed = {operation.name for operation in OPERATIONS.values() if operation.script} | {"get_nwfmt_data"}
        self.assertEqual(missing, fixed)

    def test_names_and_forms_that_are_doubtful_are_told(self):
        folder = self.folder + "/doubtful"
        os.makedirs(folder)
        for name in ("my-script.py", "both.py"):
            self.write(folder, name[:-3], self.right[MODIFY])
        py_compile.compile(folder + "/both.py", cfile=folder + "/both.pyc", doraise=True)
        for name, code in (("my-script.py", "file-name"), ("both.pyc", "two-forms")):
            report = self.check_script(MODIFY, "%s/%s" % (folder, name))
            self.assertEqual([(each["severity"], each["code"]) for each in self.alarms(report)], [("warning", code)])

    def test_names_that_are_bound_in_another_way_are_no_alarm(self):
        folder = self.folder + "/bound"
        os.makedirs(folder)
        self.write(folder, "bound", "import sys\nsetattr(sys.modules[__name__], 'MASK', 3)\n\n\n"
                   "def invert(data):\n    data[0] ^= MASK\n    return data\n")
        self.assertEqual(self.alarms(self.check_script(MODIFY, folder + "/bound.py")), [])

    def test_the_cost_of_pth_files_is_told(self):
        base = self.folder + "/base"
        environment = dict(self.own, PYTHONUSERBASE=base)
        place = subprocess.check_output([sys.executable, "-c", "import site; print(site.getusersitepackages())"],
                                        env=environment).decode("utf-8").strip()
        os.makedirs(place)
        with open(place + "/slow.pth", "w") as stream:
            stream.write("import time; time.sleep(0.05)\n")
        for kind, severity in (("fresh", "warning"), ("kept", "note")):
            report = self.check(self.paths[MAIN], "--as", "run_python_file",
                                environment=dict(environment, PGM_PYTHON_CALLS=kind))
            found = [each for each in report["findings"] if each["file"] == place + "/slow.pth"]
            self.assertEqual([each["severity"] for each in found], [severity])
            self.assertGreaterEqual(float(re.search(r"([0-9.]+) ms", found[0]["text"]).group(1)), 50)

    def test_pythons_that_do_not_fit_are_told(self):
        folder = self.folder + "/programs"
        os.makedirs(folder)
        with open(folder + "/pgm_python_run", "w") as stream:
            stream.write("#!/bin/sh\necho 3.6.15\n")
        os.chmod(folder + "/pgm_python_run", 0o755)
        report = self.check(self.paths[MAIN], "--as", "run_python_file", environment=dict(self.own, PGM_BIN_DIR=folder))
        self.assertIn("linked with Python 3.6.15", [each["text"] for each in report["findings"]
                                                    if each["code"] == "linked-python"][0])
        for version, calls, codes in (((3, 12, 1), "fresh", ["python-sessions"]), ((3, 12, 1), "kept", []),
                                      ((3, 12, 2), "fresh", []), ((3, 6, 9), "fresh", ["python"])):
            checker = Checker(None, None, {"PGM_PYTHON_CALLS": calls})
            checker.session = {"version": list(version)}
            checker._check_python()
            self.assertEqual([finding.code for finding in checker.findings], codes, version)

    def test_bad_usage(self):
        for arguments in (["--no-such-option"], [self.paths[MODIFY]], [self.paths[MODIFY], "--as", "nothing"],
                          ["missing.py", "--as", "modify_bitstream"], ["--as", "modify_bitstream"], ["--call"],
                          ["--call", "nothing"], ["--call", "query_opn_enum", "many"], ["--call", "get_username", "a", "b"],
                          [self.paths[MODIFY], "--as", "get_username", "--function", "invert"],
                          ["--call="], ["--call=nothing"], ["--call=get_username", "a", "b"],
                          *(["--timeout", text] for text in ("nan", "inf", "-inf", "1e10", "0", "-1", "soon")),
                          [self.folder, "--as", "modify_bitstream"], [os.devnull, "--as", "modify_bitstream"],
                          [self.folder, "--call", "get_username", "a"]):
            with self.subTest(arguments=arguments):
                status = subprocess.call([CHECK] + arguments, env=self.own, stdout=subprocess.DEVNULL,
                                         stderr=subprocess.DEVNULL)
                self.assertEqual(status, 2)

    def usage_error(self, *arguments, **keywords):
        done = subprocess.run([CHECK] + list(arguments), stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=self.own,
                              preexec_fn=keywords.get("preexec_fn"))
        self.assertEqual(done.returncode, 2)
        return done.stderr.decode("utf-8").splitlines()[-1]

    def test_a_call_may_be_one_word_with_its_operation(self):
        report = self.check("--call=modify_bitstream", self.folder + "/design.bin", self.paths[MODIFY], "invert")
        self.assertEqual((report["status"], report["call"]["right"]), (0, True))

    def test_a_script_without_a_function_is_told_what_can_be_named(self):
        folder = self.folder + "/choice"
        os.makedirs(folder)
        self.write(folder, "ok", "def f(d):\n    return bytearray(d)\n\n\ndef two(a, b):\n    return bytearray(a)\n")
        report = self.check(folder + "/ok.py", "--as", "modify_bitstream")
        self.assertEqual([(each["severity"], each["text"]) for each in report["findings"]
                          if each["code"] == "functions"], [("note", "functions that a program can name: f")])
        self.assertEqual(report["status"], 0)
        self.write(folder, "none", "VALUE = 5\n")
        report = self.check(folder + "/none.py", "--as", "modify_bitstream")
        self.assertEqual([(each["severity"], each["text"]) for each in report["findings"] if each["code"] == "functions"],
                         [("fault", "it has no function that takes the one argument")])

    def test_an_answer_that_cannot_be_told_is_wrong_and_no_crash(self):
        folder = self.folder + "/large"
        os.makedirs(folder)
        self.write(folder, "large", "def f(d):\n    return 10**6000\n\n\ndef own(d):\n    a = []\n    a.append(a)\n"
                   "    return a\n")
        for function, kind in (("f", "int"), ("own", "list")):
            report = self.check("--call", "modify_bitstream", os.devnull, folder + "/large.py", function)
            self.assertEqual((report["status"], report["call"]["answer_type"], report["call"]["value"]),
                             (1, kind, None))
            self.assertIn("no bytes, size 0", report["findings"][0]["hint"])

    def test_a_failure_without_a_line_of_the_author_names_the_script(self):
        folder = self.folder + "/no_line"
        os.makedirs(folder)
        path = folder + "/zero.py"
        with open(path, "wb") as stream:
            stream.write(b"def f(d):\n    return d\n\0\n")
        report = self.check("--call", "modify_bitstream", os.devnull, path, "f")
        self.assertEqual([each["file"] for each in report["findings"]], [path])
        self.assertIn("null bytes", report["findings"][0]["text"])

    @unittest.skipUnless(rights_count(), "this user may read and enter everything")
    def test_what_may_not_be_read_is_told_by_its_name(self):
        folder = self.folder + "/rights"
        common, unshipped = folder + "/common/programmer", folder + "/unshipped/programmer"
        for each in (common + "/python/source", unshipped + "/python", unshipped + "/mysql"):
            os.makedirs(each)
        path = folder + "/invert.py"
        shutil.copy(self.paths[MODIFY], path)
        own = dict(self.own, PGM_COMMON_PROGRAMMER_DIR=common, PGM_UNSHIPPED_PROGRAMMER_DIR=unshipped)
        script = common + "/python/norvane_sign.py"
        shutil.copy(self.paths[MODIFY], script)

        def found(place, *arguments):
            report = self.check(*arguments, environment=own, preexec_fn=without_rights)
            self.assertEqual(report["status"], 1)
            return [(each["severity"], each["text"]) for each in report["findings"] if each["file"] == place]

        os.chmod(path, 0)
        call = found(path, "--call", "modify_bitstream", os.devnull, path, "invert")
        self.assertEqual(len(call), 1)
        self.assertTrue(call[0][1].startswith("PermissionError: "), call)
        self.assertEqual(found(path, path, "--as", "modify_bitstream"),
                         [("fault", "it cannot be read: Permission denied")])
        for closed, place, mode in ((common + "/python", common + "/python", 0o600), (common, common, 0o600),
                                    (common, common, 0), (unshipped + "/mysql", unshipped + "/mysql", 0o300)):
            with self.subTest(closed=closed, mode=mode):
                os.chmod(closed, mode)
                try:
                    told = found(place)
                    self.assertEqual(len(told), 1, told)
                    self.assertEqual(told[0][0], "fault")
                    self.assertTrue(told[0][1].endswith("cannot be entered: Permission denied"), told)
                    if closed != unshipped + "/mysql":
                        told = found(script)
                        self.assertEqual(set(told), {("fault", "the script cannot be reached: Permission denied")})
                finally:
                    os.chmod(closed, 0o700)
        os.chmod(path, 0o600)
        os.chmod(folder, 0)
        try:
            for arguments in ([path, "--as", "modify_bitstream"],
                              [path, "--call", "modify_bitstream", os.devnull, "x.py", "invert"]):
                self.assertTrue(self.usage_error(*arguments, preexec_fn=without_rights).endswith(
                    path + " cannot be reached: Permission denied"))
        finally:
            os.chmod(folder, 0o700)

    def test_folders_in_the_place_of_scripts_are_told(self):
        self.assertTrue(self.usage_error(self.folder, "--as", "run_python_file").endswith(self.folder + " is a folder"))
        self.assertTrue(self.usage_error("missing.py", "--as", "run_python_file").endswith("missing.py does not exist"))
        common = self.folder + "/in_place/programmer"
        os.makedirs(common + "/python/norvane_sign.py")
        open(common + "/python/source", "w").close()
        report = self.check(environment=dict(self.own, PGM_COMMON_PROGRAMMER_DIR=common))
        told = {each["file"]: each["text"] for each in report["findings"] if each["severity"] == "fault"}
        self.assertEqual(told[common + "/python/norvane_sign.py"], "the script is a folder")
        self.assertEqual(told[common + "/python/source"], "this folder of scripts is no folder")

    def test_a_name_that_is_not_utf_8_is_a_fault(self):
        path = self.folder + "/by\udcff.py"
        shutil.copy(self.paths[MODIFY], path)
        self.addCleanup(os.remove, path)
        report = self.check(path, "--as", "modify_bitstream", "--function", "invert")
        self.assertEqual([(each["severity"], each["code"]) for each in self.alarms(report)], [("fault", "file-name")])
        self.assertIn("UTF-8", self.alarms(report)[0]["text"])
        report = self.check(path, "--as", "run_python_file")
        self.assertEqual([each["code"] for each in self.alarms(report)], ["does-nothing"])

    def test_a_main_program_that_ends_the_process_is_seen_as_it_is(self):
        folder = self.folder + "/ending"
        os.makedirs(folder)
        self.write(folder, "ending", "import os\nprint('so far', flush=True)\nos._exit(0)\n")
        run = subprocess.run([os.path.join(PROGRAMS, "pgm_python_run"), folder + "/ending.py"], stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, env=self.own)
        self.assertEqual((run.returncode, run.stdout), (0, b"so far\n"))
        seen = Bench(Installation(self.folder + "/common/programmer", self.folder + "/unshipped/programmer",
                                  PROGRAMS)).run(folder + "/ending.py")
        self.assertEqual((seen.messages, seen.output, seen.is_right), ([], "so far\n", False))
        self.assertEqual(seen.problem, "the script ended the process, status 0")

    def failed(self, command, **variables):
        done = subprocess.run(["bash", "-c", command, CHECK, CHECK, self.paths[MODIFY]], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, env=dict(self.own, **variables), timeout=120)
        self.assertEqual(done.returncode, 1, done)
        lines = done.stderr.decode("utf-8").splitlines()
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith("pgm_python_check: "), lines)
        return lines[0]

    @unittest.skipUnless(shutil.which("bash"), "bash is not there")
    def test_output_that_cannot_be_written_is_told(self):
        check = '"$1" "$2" --as modify_bitstream --function invert'
        for arguments in (check, check + " --json", '"$1" --operations', '"$1" --help', '"$1" --version'):
            with self.subTest(arguments=arguments):
                if os.path.exists("/dev/full"):
                    self.assertIn("standard output: No space left", self.failed(arguments + " >/dev/full"))
                self.assertIn("Broken pipe", self.failed("{ sleep 1; %s; } | true; exit ${PIPESTATUS[0]}" % arguments))
                self.assertIn("standard output is closed", self.failed(arguments + " >&-"))
        done = subprocess.run(["bash", "-c", '"$1" --no-such-option 2>&-', CHECK, CHECK], env=self.own,
                              stdout=subprocess.PIPE)
        self.assertEqual(done.returncode, 2)

    def test_a_check_without_a_place_for_its_files_is_told(self):
        code = ("import errno, sys, tempfile\nsys.path.insert(0, sys.argv[1])\nfrom pgm_python_authors import check\n"
                "def full(*words, **more):\n    raise OSError(errno.ENOSPC, 'No space left on device', '/tmp/x')\n"
                "def none(*words, **more):\n    raise FileNotFoundError(errno.ENOENT, 'No usable folder')\n"
                "tempfile.TemporaryDirectory = {'full': full, 'none': none}[sys.argv[2]]\n"
                "sys.exit(check.main(sys.argv[3:]))\n")
        for what, text in (("full", "the check cannot be done: /tmp/x: No space left on device"),
                           ("none", "the check cannot be done: No usable folder")):
            done = subprocess.run([sys.executable, "-c", code, PACKAGES, what, self.paths[MODIFY], "--as",
                                   "modify_bitstream"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=self.own)
            self.assertEqual((done.returncode, done.stdout, done.stderr.decode("utf-8").splitlines()),
                             (1, b"", ["pgm_python_check: " + text]))

    def test_a_call_tells_what_a_program_sees(self):
        design = self.folder + "/design.bin"
        report = self.check("--call", "modify_bitstream", design, self.paths[MODIFY], "invert", "--", "--all")
        self.assertEqual((report["status"], report["call"]["right"]), (0, True))
        self.assertIn(bytes(byte ^ 0xFF for byte in b"design").hex().upper(), report["call"]["value"])
        report = self.check("--call", "modify_bitstream", design, self.wrong["bytes_for_bytearray"], "invert")
        self.assertEqual((report["status"], report["call"]["right"]), (1, False))
        self.assertEqual(report["call"]["answer_type"], "bytes")
        self.assertIn("no bytes, size 0", report["findings"][0]["hint"])
        report = self.check("--call", "modify_bitstream", os.devnull, self.paths[MODIFY], "invert")
        self.assertEqual(report["call"]["reasons"], ["the bitstream is empty"])
        self.assertEqual(report["status"], 1)

    def test_the_holder_of_the_port_is_named(self):
        holding = ("import socket, sys\ns = socket.socket()\ns.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)\n"
                   "s.bind(('127.0.0.1', 57343))\ns.listen(1)\nprint('listening', flush=True)\nsys.stdin.read()\n")
        holder = subprocess.Popen([sys.executable, "-c", holding], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            self.assertEqual(holder.stdout.readline().strip(), b"listening")
            report = self.check_script(MODIFY, self.paths[MODIFY])
            found = [each["text"] for each in report["findings"] if each["code"] == "port"]
            self.assertEqual(len(found), 1)
            if os.path.exists("/proc/net/tcp"):
                self.assertIn("(process %d)" % holder.pid, found[0])
        finally:
            holder.stdin.close()
            holder.wait()
            holder.stdout.close()

    @unittest.skipUnless(has("mypy"), "mypy is not installed")
    def test_the_types_name_what_types_can_find(self):
        folder = self.folder + "/types"
        os.makedirs(folder)
        expected = set()
        for mistake in MISTAKES:
            if mistake.types:
                with open(self.wrong[mistake.name], encoding="utf-8") as stream:
                    text = stream.read()
                expected.add(mistake.name)
                self.write(folder, mistake.name, typed(mistake.script, text))
        for name, text in self.right.items():
            self.write(folder, name.split(".")[0], typed(name, text))
        done = subprocess.run(["mypy", "--cache-dir", os.devnull] + sorted(os.listdir(folder)), cwd=folder,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300,
                              env=dict(self.environment, MYPYPATH=PACKAGES))
        output = done.stdout.decode("utf-8")
        found = set(re.findall(r"^(\w+)\.py:\d+: error: ", output, re.M))
        self.assertEqual(found, expected, output)

    def write(self, folder, name, text):
        with open("%s/%s.py" % (folder, name), "w", encoding="utf-8") as stream:
            stream.write(text)

    @unittest.skipUnless(has("pytest"), "pytest is not installed")
    def test_the_fixtures_find_what_a_call_can_find(self):
        folder = self.folder + "/calls"
        os.makedirs(folder)
        calls = [(mistake, self.wrong[mistake.name]) for mistake in MISTAKES]
        calls += [(Mistake("right_" + name.split(".")[0], name, "", "", "", None, False, False), path)
                  for name, path in self.paths.items()]
        lines = []
        for mistake, path in calls:
            call = "modify_bitstream(b'design', %r, 'invert')" % path
            if mistake.script == NETWORK:
                function = "get_bram_chunks" if mistake.function == "invert" else mistake.function
                call = "get_nwfmt_data(%r, %r, %r)" % (os.path.basename(path), function, self.folder + "/design.bin")
            elif mistake.script == MAIN:
                call = "run(%r, 'card')" % ("pelimor_sign" if mistake.form else path)
            lines += ["def test_%s(pgm_python):" % mistake.name, "    seen = pgm_python.%s" % call,
                      "    assert seen.is_right, seen", ""]
        self.write(folder, "test_calls", "\n".join(lines))
        done = subprocess.run(
            ["pytest", "-q", "-p", "pgm_python_authors.pytest_plugin", "-p", "no:cacheprovider", "--pgm-python",
             sys.executable, "--junitxml", folder + "/report.xml", "test_calls.py"], cwd=folder,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=600,
            env=dict(self.own, PYTHONPATH=PACKAGES))
        output = done.stdout.decode("utf-8", "replace")
        self.assertIn(done.returncode, (0, 1), output)
        cases = xml.etree.ElementTree.parse(folder + "/report.xml").iter("testcase")
        failed = {case.get("name")[len("test_"):] for case in cases if case.find("failure") is not None}
        self.assertEqual(failed, {mistake.name for mistake in MISTAKES if mistake.call}, output[-2000:])
        self.assertNotIn("error in fixture", output)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
