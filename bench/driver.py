"""Calls one function of a script and writes the answer: driver.py SCRIPT FUNCTION KIND ARGUMENT...

A failure is written line by line, with exit status 1. KIND says what the arguments and the answer are.
"""

import os
import sys

folder, script = os.path.split(sys.argv[1])
sys.path.insert(0, folder)
module = __import__(os.path.splitext(script)[0])
function = getattr(module, sys.argv[2])
kind, arguments = sys.argv[3], sys.argv[4:]
answer = b""
try:
    if kind == "text":
        answer = str(function(*arguments)).encode()
    elif kind == "manifest":
        function(arguments[0], arguments[1], int(arguments[2]), arguments[3])
    elif kind == "certificate":
        content = sys.stdin.buffer.read().hex().upper()
        answer = function(int(arguments[0]), int(arguments[1]), content, *arguments[2:])
    elif kind == "bitstream":
        answer = function(bytearray(sys.stdin.buffer.read()))
    elif kind == "chunks":
        answer = b"".join(function(arguments[0], {}, {}, arguments[1], {}, {}))
    elif kind == "maps":
        import json

        maps = json.load(sys.stdin.buffer)
        found, size = function(arguments[0], *maps[:2], arguments[1], *maps[2:])
        answer = b"%d\n%s" % (size, found)
except Exception as error:
    print(*error.args, sep="\n")
    sys.exit(1)
sys.stdout.buffer.write(answer)
