"""Memory text files in the form that $readmemh of IEEE 1364 reads.

Words are hexadecimal, separated by white space or comments ("// to the end of the line" and "/* ... */"), with
underscores between digits as the writer likes. "@" and a hexadecimal address say where the words after it go; words
before the first address go from 0 on. Where an address is given twice the later word counts. Words with x or z
digits are refused: a memory image has no room for unknown bits.

The width of the memory is 4 bits for each digit of its longest word, shorter words have zeros in front. In the image
each word takes as many whole bytes as its width needs, the most significant first. A continuous image runs from
address 0 to the last address that is written, zero where nothing is written; otherwise it holds only the words that
the file gives, in the order of their addresses. The depth is the number of words in the image.
"""

import re

from pgm_python_reasons import Refusal
from pgm_python_system import read_file

MOST_BYTES = 64 << 20

TOKEN = re.compile(r"(?P<space>[ \t\r\n\f\v]+)|(?P<comment>//[^\n]*|/\*.*?\*/)|(?P<open>/\*)"
                   r"|(?P<word>(?:(?!//|/\*)[^ \t\r\n\f\v])+)", re.DOTALL)
ADDRESS = re.compile(r"@[0-9a-fA-F]{1,16}")
WORD = re.compile(r"[0-9a-fA-F][0-9a-fA-F_]*")
UNKNOWN = re.compile(r"[0-9a-fA-FxXzZ?][0-9a-fA-FxXzZ?_]*")


def read_memory_text(path, continuous):
    text = read_file(path, "memory text file", MOST_BYTES).decode("utf-8-sig", "replace")
    words = {}
    digits = 0
    address = 0
    line = 1
    for token in TOKEN.finditer(text):
        kind, found = token.lastgroup, token.group()
        if kind == "word":
            if ADDRESS.fullmatch(found):
                address = int(found[1:], 16)
            else:
                word = read_word(path, line, found)
                digits = max(digits, len(word))
                words[address] = word
                address += 1
        elif kind == "open":
            raise Refusal("%s line %d: the comment that begins here is never closed" % (path, line))
        line += found.count("\n")
    if not words:
        raise Refusal("%s holds no words" % path)

    word_bytes = (digits + 1) // 2
    depth = max(words) + 1 if continuous else len(words)
    if depth * word_bytes > MOST_BYTES:
        raise Refusal("the image of %s would have %d bytes, at most %d are made"
                      % (path, depth * word_bytes, MOST_BYTES), "its last address is @%x" % max(words))
    image = bytearray(depth * word_bytes)
    for index, address in enumerate(sorted(words)):
        start = (address if continuous else index) * word_bytes
        image[start:start + word_bytes] = bytes.fromhex(words[address].zfill(2 * word_bytes))
    return [image, 4 * digits, depth]


def read_word(path, line, found):
    if WORD.fullmatch(found):
        return found.replace("_", "")
    if UNKNOWN.fullmatch(found):
        raise Refusal("%s line %d: the word %s has unknown bits" % (path, line, found[:40]),
                      "replace its x and z digits by the digits that the memory is to hold")
    if found.startswith("@"):
        raise Refusal("%s line %d: %s is no address" % (path, line, found[:40]),
                      "1 to 16 hexadecimal digits must follow the @, without white space")
    raise Refusal("%s line %d: %s is no hexadecimal word" % (path, line, found[:40]))
