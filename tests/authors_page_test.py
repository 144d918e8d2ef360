"""Runs every example of docs/scripts.md, in its order.

authors_page_test.py PROGRAMS PACKAGES PAGE: the folder of the programs, the one of the authors' package, the page.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
PROGRAMS, PACKAGES, PAGE = sys.argv[1:4]
sys.path.insert(0, PACKAGES)

from pgm_python_authors import make_reference


def blocks(text):
    """(kind, first line, text) of the page's examples."""
    for match in re.finditer(r"^```(\w+)(?: (\w+))?\n(.*?)^```$", text, re.M | re.S):
        line = text.count("\n", 0, match.start()) + 1
        yield match.group(1), match.group(2), line, match.group(3)


def commands(text):
    """(command, expected output) of a console example; a line that begins with "> " goes on with the command."""
    command, expected = None, []
    for line in text.splitlines():
        if line.startswith("$ "):
            if command is not None:
                yield command, "\n".join(expected)
            command, expected = line[2:], []
        elif line.startswith("> ") and not expected:
            command += "\n" + line[2:]
        else:
            expected.append(line)
    if command is not None:
        yield command, "\n".join(expected)


def matches(expected, output):
    """Whether an output is as expected, where ... stands for anything."""
    pattern = re.escape(expected).replace(re.escape("..."), ".*")
    return re.fullmatch(pattern, output.strip("\n"), re.S) is not None


class PageTest(unittest.TestCase):
    def setUp(self):
        with open(PAGE, encoding="utf-8") as stream:
            self.page = stream.read()

    def test_the_tables_are_made_of_the_description(self):
        self.assertEqual(make_reference.fill(self.page), self.page, "run pgm_python_authors.make_reference")

    def test_nothing_else_looks_like_an_example(self):
        # What is indented by four is neither run nor compared.
        rest = re.sub(r"^```.*?^```$", "", self.page, flags=re.M | re.S)
        self.assertEqual([line for line in rest.splitlines() if line.startswith("    ")], [])

    def test_every_example_does_what_it_says(self):
        counts = {"python": 0, "console": 0}
        skipped = []
        with tempfile.TemporaryDirectory() as folder:
            folder = os.path.realpath(folder)
            environment = {name: value for name, value in os.environ.items() if not name.startswith("PGM_")}
            environment.update(LC_ALL="C.UTF-8", PYTHONDONTWRITEBYTECODE="1",
                               PATH=os.path.dirname(sys.executable) + os.pathsep + environment["PATH"])
            environment.pop("PYTHONPATH", None)
            state = os.path.join(folder, ".state")
            open(state, "w").close()
            for kind, needed, line, text in blocks(self.page):
                if kind == "python":
                    name = re.match("# (.+)\n", text).group(1)
                    os.makedirs(os.path.dirname(os.path.join(folder, name)), exist_ok=True)
                    with open(os.path.join(folder, name), "w", encoding="utf-8") as stream:
                        stream.write(text)
                    counts[kind] += 1
                    continue
                self.assertEqual(kind, "console")
                if needed and not self.has(needed):
                    skipped.append(needed)
                    continue
                for command, expected in commands(text):
                    command = command.replace("/opt/suite/bin", PROGRAMS).replace(
                        "/opt/suite/share/pgm_python/authors", PACKAGES)
                    done = subprocess.run(["bash", "-c", ". %s\n%s\nexport -p >%s" % (state, command, state)],
                                          cwd=folder, env=environment, stdout=subprocess.PIPE,
                                          stderr=subprocess.STDOUT, timeout=120)
                    output = done.stdout.decode("utf-8", "replace")
                    self.assertTrue(matches(expected, output), "%s, the example of line %d:\n$ %s\n%s" % (
                        PAGE, line, command, output))
                    counts[kind] += 1
            with open(os.path.join(folder, "changed.bin"), "rb") as stream:
                self.assertEqual(stream.read(), b"\xfe\xfd")
        self.assertGreaterEqual(counts["python"], 5)
        self.assertGreaterEqual(counts["console"], 15)
        for program in skipped:
            print("skipped: the examples with %s, which is not installed" % program)

    def has(self, program):
        return shutil.which(program) is not None and subprocess.call(
            [program, "--version"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) == 0

    def test_a_wrong_output_is_found(self):
        self.assertTrue(matches("a\n...\nb 1, ...", "a\nx\ny\nb 1, 2\n"))
        self.assertFalse(matches("a\n...\nb 1, ...", "a\nx\ny\nb 2, 2\n"))
        self.assertFalse(matches("a", "a\nb\n"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
