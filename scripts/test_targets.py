"""Tells which targets hold the tests whose names match a regular expression, one a line; nothing where only the whole
build will do.

    test_targets.py --sources FOLDER EXPRESSION     by the sources of the programs of tests
    test_targets.py --tests BUILD EXPRESSION        by the tests that ctest would run
"""

import json
import os
import re
import subprocess
import sys


def names_of_source(text):
    """The names of the tests of a source, without the values of parameters."""
    for suite, name in re.findall(r"^TEST(?:_F)?\((\w+),\s*(\w+)\)", text, re.MULTILINE):
        yield "%s.%s" % (suite, name)
    prefixes = re.findall(r"^INSTANTIATE_TEST_SUITE_P\((\w*),\s*(\w+)", text, re.MULTILINE)
    for suite, name in re.findall(r"^TEST_P\((\w+),\s*(\w+)\)", text, re.MULTILINE):
        for prefix, instantiated in prefixes:
            if instantiated == suite:
                yield "%s/%s.%s/" % (prefix, suite, name)


def targets_by_sources(folder, expression):
    for file in sorted(os.listdir(folder)):
        if file.endswith("_test.cpp"):
            with open(os.path.join(folder, file), encoding="utf-8") as source:
                if any(re.search(expression, name) for name in names_of_source(source.read())):
                    yield file[:-len(".cpp")]


def targets_by_tests(build, expression):
    listed = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1", "--tests-regex", expression],
                            stdout=subprocess.PIPE, check=True)
    targets = set()
    for test in json.loads(listed.stdout.decode("utf-8"))["tests"]:
        not_built = re.fullmatch(r"(\w+)_NOT_BUILT(-\w+)?", test["name"])
        programs = [not_built.group(1)] if not_built else [
            os.path.basename(word) for word in test.get("command", [])
            if os.path.dirname(word) == os.path.join(os.path.abspath(build), "bin")]
        if len(programs) != 1:
            return []
        targets.add(programs[0])
    return sorted(targets)


def main(kind, folder, expression):
    find = {"--sources": targets_by_sources, "--tests": targets_by_tests}[kind]
    for target in find(folder, expression):
        print(target)


main(*sys.argv[1:])
