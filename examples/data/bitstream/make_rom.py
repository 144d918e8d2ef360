"""Makes the contents of the block RAM from the samples: make_rom.py < sine.hex > sine_rom.vh"""

import re
import sys

words = re.sub(r"//.*|@[0-9a-f]+", "", sys.stdin.read()).split()
for line in range(16):
    comma = "," if line < 15 else ""
    print(".INIT_%X(256'h%s)%s" % (line, "".join(reversed(words[16 * line:16 * line + 16])), comma))
