"""Prints protocols.py, made of the description of the operations."""

from pgm_python_authors.operations import ANSWERS, OPERATIONS

_TYPES = {"text": "str", "number": "int", "hex": "str", "bytes": "bytearray", "key": "bytearray", "flag": "bool",
          "map": "Dict[str, str]"}

_HEAD = '''"""The functions that operations call, as types. Made of operations.py by make_protocols.py.

A type checker compares a function with its protocol where the script says so:

    from typing import TYPE_CHECKING

    def change(data: bytearray) -> bytearray:
        ...

    if TYPE_CHECKING:
        from pgm_python_authors.protocols import ModifyBitstream
        _change: ModifyBitstream = change
"""

import sys
from typing import TYPE_CHECKING, Dict, List, Union

if TYPE_CHECKING or sys.version_info >= (3, 8):
    from typing import Protocol
else:
    Protocol = object
'''


def class_name(name):
    return "".join(part.capitalize() for part in name.split("_"))


def make_protocol(name, purpose, arguments, kind):
    answer = ANSWERS[kind]
    lines = ["", "", "class %s(Protocol):" % class_name(name), '    """%s' % purpose, ""]
    lines += ["    %s: %s" % (argument.name, argument.meaning) for argument in arguments]
    lines += ["    Returns %s." % answer.shape, '    """', ""]
    given = ["__%s: %s" % (argument.name, _TYPES[argument.kind]) for argument in arguments]
    line = "    def __call__(%s) -> %s:" % (", ".join(["self"] + given), answer.type)
    if len(line) > 120:
        line = "    def __call__(\n        self,\n%s\n    ) -> %s:" % (
            "\n".join("        %s," % each for each in given), answer.type)
    return lines + [line, "        ..."]


def make():
    lines = []
    for operation in OPERATIONS.values():
        what = "%s: %s" % (operation.name, operation.purpose)
        for name, kind in operation.functions or ((operation.name, operation.answer),):
            purpose = what if not operation.functions else "%s, function %s" % (what, name)
            lines += make_protocol(name, purpose + ".", operation.arguments, kind)
    return _HEAD + "\n".join(lines) + "\n"


if __name__ == "__main__":
    print(make(), end="")
