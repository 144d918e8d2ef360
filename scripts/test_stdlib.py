"""Runs modules of CPython's own tests as main programs, by this interpreter and by another program, and compares how
they end.

    test_stdlib.py PROGRAM LAUNCHER MODULE...

PROGRAM takes the path of a script, LAUNCHER a command to run. Prints a line for each module. Ends with 1 when the two
differ somewhere.
"""

import concurrent.futures
import os
import platform
import re
import signal
import subprocess
import sys
import sysconfig
import tempfile
import time

LIMIT = 180  # seconds for a run


def outcome(command):
    """How a run ended, and how many tests it ran; None where it took too long."""
    environment = {name: value for name, value in os.environ.items() if not name.startswith("PYTHON")}
    # The linked interpreter finds itself by PATH.
    environment["PATH"] = os.path.join(sys.base_exec_prefix, "bin") + os.pathsep + environment["PATH"]
    environment["LC_ALL"] = "C.UTF-8"
    with tempfile.TemporaryDirectory() as folder:
        process = subprocess.Popen(command, cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        try:
            printed = process.communicate(timeout=LIMIT)[0].decode("utf-8", "replace")
        except subprocess.TimeoutExpired:
            # What it started may hold its output open.
            os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
            return None, 0, ""
    lines = re.findall(r"^(Ran \d+ tests?) in |^((?:OK|FAILED)(?: \(.*\))?)$", printed, re.MULTILINE)
    told = ", ".join("".join(line) for line in lines)
    return "status %d, %s" % (process.returncode, told), sum(map(int, re.findall(r"Ran (\d+) tests? in", printed))), printed


def compare(program, launcher, module):
    """A line about a module, and whether it is same, different or skipped."""
    file = os.path.join(sysconfig.get_paths()["stdlib"], "test", module + ".py")
    if not os.path.exists(file):
        return "skipped", "%s: this Python does not have it" % module
    start = time.monotonic()
    plain, tests, _ = outcome([launcher, sys.executable, file])
    if plain is None:
        return "skipped", "%s: the interpreter takes longer than %d s" % (module, LIMIT)
    if tests == 0:
        return "skipped", "%s: the interpreter runs no tests in it: %s" % (module, plain)
    embedded, _, printed = outcome([launcher, program, file])
    if embedded == plain:
        return "same", "%s: %s (%.0f s)" % (module, plain, time.monotonic() - start)
    text = "%s:\n    interpreter: %s\n    %s: %s" % (module, plain, os.path.basename(program),
                                                   embedded or "longer than %d s" % LIMIT)
    failed = re.findall(r"^(?:FAIL|ERROR): .*", printed, re.MULTILINE)
    return "DIFFERENT", "\n      ".join([text] + failed[:20])


def main(program, launcher, *modules):
    if not os.path.exists(os.path.join(sysconfig.get_paths()["stdlib"], "test", "test_struct.py")):
        print("skipped: Python %s of %s comes without its tests" % (platform.python_version(), sys.base_prefix))
        return 0
    if subprocess.run([launcher, "--probe"]).returncode != 0:
        print("One after another: the system gives no network namespaces")
    counts = {"same": 0, "DIFFERENT": 0, "skipped": 0}
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for kind, line in pool.map(lambda module: compare(program, launcher, module), modules):
            counts[kind] += 1
            print("%s: %s" % (kind, line), flush=True)
    print("Python %s: of %d modules, %d the same, %d different, %d skipped" %
          (platform.python_version(), len(modules), counts["same"], counts["DIFFERENT"], counts["skipped"]))
    return 1 if counts["DIFFERENT"] else 0


sys.exit(main(*sys.argv[1:]))
