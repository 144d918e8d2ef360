"""Writes the manual page of pgm_python_check and its completions for bash and zsh, from the options that it knows.

python3 -m pgm_python_authors.make_pages FOLDER: they go to share/man/man1 and so on below the folder.
"""

import argparse
import os
import sys

from . import __version__
from .check import OPERATIONS, RUNNER, make_parser

NAME = "pgm_python_check"
ENVIRONMENT = (
    ("PGM_COMMON_PROGRAMMER_DIR", "The folder of the common scripts"),
    ("PGM_UNSHIPPED_PROGRAMMER_DIR", "The folder of the scripts for internal use"),
    ("PGM_BIN_DIR", "The folder of the suite's programs"),
    ("PGM_PYTHON_CALLS", "The kind of session that the installation's programs are to use"),
)


def options_of(parser):
    """What --help shows, as (names, value, text)."""
    shown = []
    for action in parser._actions:
        if action.help == argparse.SUPPRESS:
            continue
        value = "" if action.nargs == 0 else action.metavar or action.dest.upper()
        text = (action.help or "") % dict(vars(action), prog=parser.prog)
        shown.append((list(action.option_strings), value, text[:1].upper() + text[1:]))
    return shown


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq")
    return "\\&" + text if text.startswith((".", "'")) else text


def manual_page(parser):
    lines = ['.TH %s 1 "" "pgm_python %s" "pgm_python"' % (NAME.upper(), __version__), ".SH NAME",
             "%s \\- say what will go wrong with scripts, before it does" % NAME, ".SH SYNOPSIS",
             "\\fB%s\\fR [\\fIOPTION\\fR]... [\\fISCRIPT\\fR \\fB\\-\\-as\\fR \\fIOPERATION\\fR]" % NAME,
             ".SH DESCRIPTION", roff(" ".join(parser.description.split())), ".SH OPTIONS"]
    for names, value, text in options_of(parser):
        head = ", ".join("\\fB%s\\fR" % roff(name) for name in names)
        if value:
            head += (" " if head else "") + "\\fI%s\\fR" % roff(value)
        lines += [".TP", head, roff(text)]
    lines += [".SH EXIT STATUS", roff(parser.epilog), ".SH ENVIRONMENT"]
    for name, text in ENVIRONMENT:
        lines += [".TP", "\\fB%s\\fR" % name, roff(text)]
    lines += [".SH SEE ALSO", ".BR pgm_python_call (1),", ".BR pgm_python_run (1)"]
    return "\n".join(lines) + "\n"


def words(parser):
    return " ".join(name for names, _, _ in options_of(parser) for name in names)


def operations():
    return " ".join([RUNNER] + list(OPERATIONS))


def bash_completion(parser):
    return """# Completion of %(name)s for bash.
# shellcheck shell=bash

_%(name)s() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
    COMPREPLY=()
    case $previous in
    --as | --call)
        mapfile -t COMPREPLY < <(compgen -W '%(operations)s' -- "$current")
        return
        ;;
    esac
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '%(words)s' -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}
complete -o filenames -o default -F _%(name)s %(name)s
""" % {"name": NAME, "operations": operations(), "words": words(parser)}


def zsh_completion(parser):
    lines = ["#compdef %s" % NAME, "", "_arguments -S \\"]
    for names, value, text in options_of(parser):
        text = text.replace("'", "'\\''").replace("[", "\\[").replace("]", "\\]").replace(":", "\\:")
        for name in names:
            row = "  '%s[%s]" % (name, text)
            if name in ("--as", "--call"):
                row += ":OPERATION:(%s)" % operations()
            elif value:
                row += ":%s:" % value
            lines.append(row + "' \\")
    return "\n".join(lines + ["  '*:FILE:_files'"]) + "\n"


def main(folder):
    parser = make_parser()
    for place, name, text in (("man/man1", NAME + ".1", manual_page(parser)),
                              ("bash-completion/completions", NAME, bash_completion(parser)),
                              ("zsh/site-functions", "_" + NAME, zsh_completion(parser))):
        folder_of_file = os.path.join(folder, "share", *place.split("/"))
        os.makedirs(folder_of_file, exist_ok=True)
        with open(os.path.join(folder_of_file, name), "w", encoding="utf-8", newline="\n") as stream:
            stream.write(text)


if __name__ == "__main__":
    main(sys.argv[1])
