"""Fills the tables of docs/scripts.md, made of the description of the operations: make_reference.py FILE."""

import re
import sys

from pgm_python_authors.operations import ANSWERS, CATALOGUE, OPERATIONS

_FOLDERS = {"common": "common/programmer/python", "unshipped": "unshipped/programmer/python",
            "network": "common/programmernwfmt", "database": "unshipped/programmer/mysql"}


def _row(*cells):
    return "| %s |" % " | ".join(cell.replace("|", "\\|") for cell in cells)


def make_answers():
    return [_row(kind.replace("_", " "), "`%s`" % answer.type if answer.type != "object" else "any", answer.shape,
                 answer.otherwise or "all is well") for kind, answer in ANSWERS.items()]


def make_operations():
    rows = []
    for operation in OPERATIONS.values():
        folder = _FOLDERS.get(operation.folder)
        script = "`%s/%s`" % (folder, operation.script) if operation.script else "named by the program"
        if folder and not operation.script:
            script += ", in `%s`" % folder
        arguments = "; ".join("%s (%s): %s" % (each.name, each.kind, each.meaning) for each in operation.arguments)
        for name, kind in operation.functions or ((operation.function, operation.answer),):
            rows.append(_row("`%s`: %s" % (operation.name, operation.purpose), script,
                             "`%s`" % name if name else "named by the program", arguments or "none",
                             kind.replace("_", " "), operation.channel or "no"))
    return rows


def make_catalogue():
    return [_row("`%s`" % row.name, "`%s`" % row.file, "`%s`" % _FOLDERS[row.folder]) for row in CATALOGUE]


def fill(text):
    """The text with its tables filled anew."""
    for name, make in (("answers", make_answers), ("operations", make_operations), ("catalogue", make_catalogue)):
        begin, end = "<!-- %s -->\n" % name, "<!-- end -->"
        pattern = r"(\|(?:---\|)+\n)(?:\|.*\n)*%s(?:.*\n)*?%s\n" % (re.escape(begin), end)
        rows = "\n".join(make()) + "\n"
        text, count = re.subn(pattern, lambda match: match.group(1) + rows + begin + end + "\n", text)
        if count != 1:
            raise ValueError("no place for the table %s" % name)
    return text


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as stream:
        page = fill(stream.read())
    with open(sys.argv[1], "w", encoding="utf-8") as stream:
        stream.write(page)
