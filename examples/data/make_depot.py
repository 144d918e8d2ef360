"""Makes the depot of the examples, a bare git repository: make_depot.py FOLDER makes FOLDER/depot.git

It holds //depot/memory/sine.hex in two revisions, the first without comments, and //depot/images/sine_player.bin in
one. The tag "first" names the depot as it was before the second revision.
"""

import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
WHO = b"Depot Example <depot@example.com>"


def file_entry(path, data):
    return b"M 100644 inline %s\ndata %d\n%s\n" % (path.encode("ascii"), len(data), data)


def commit(seconds, text, *files):
    head = b"commit refs/heads/main\ncommitter %s %d +0000\ndata %d\n%s\n" % (WHO, seconds, len(text), text)
    return head + b"".join(files) + b"\n"


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: make_depot.py FOLDER")
    depot = os.path.join(sys.argv[1], "depot.git")
    if os.path.exists(depot):
        sys.exit("error: %s exists already" % depot)
    with open(os.path.join(HERE, "bitstream", "sine.hex"), "rb") as stream:
        memory = stream.read().replace(b"\r\n", b"\n")
    with open(os.path.join(HERE, "bitstream", "sine_player.bin"), "rb") as stream:
        image = stream.read()
    bare = b"\n".join(line.split(b"//")[0].rstrip() for line in memory.splitlines()).strip() + b"\n"

    history = (
        commit(1700000000, b"Sine table and the bitstream that plays it",
               file_entry("memory/sine.hex", bare), file_entry("images/sine_player.bin", image))
        + b"reset refs/tags/first\nfrom refs/heads/main\n\n"
        + commit(1700086400, b"Say in the sine table what it is", file_entry("memory/sine.hex", memory)))

    variables = {name: value for name, value in os.environ.items() if not name.startswith("GIT_")}
    for arguments, data in (
            (["init", "--quiet", "--bare", depot], b""),
            (["--git-dir=" + depot, "symbolic-ref", "HEAD", "refs/heads/main"], b""),
            (["--git-dir=" + depot, "fast-import", "--quiet"], history)):
        subprocess.run(["git"] + arguments, input=data, env=variables, check=True, timeout=60)
    print(depot)


if __name__ == "__main__":
    main()
