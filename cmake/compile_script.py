"""Compiles one script: compile_script.py SOURCE OUTPUT NAME-IN-TRACEBACKS."""

import py_compile
import sys

py_compile.compile(sys.argv[1], cfile=sys.argv[2], dfile=sys.argv[3], doraise=True)
