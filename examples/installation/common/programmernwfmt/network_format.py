"""Block-RAM and transceiver data of a design in the form in which they go over the network.

One request serves all four functions; each reads the parts that concern it:

    text_1      path of the iCE40 bitstream that holds the block RAMs
    dict_1      form of the block-RAM data: "order" is "big" (most significant byte of a word first, the default) or
                "little"; "chunk" is the number of bytes a chunk, 0 (the default) for one chunk a block RAM
    dict_2      the block RAMs that are wanted, "BANK.BLOCK" to the number of words, 1 to 256; empty: all, whole
    text_2      digest of the hash functions, "sha256" or "sha384"; empty: "sha384"
    dict_3      transceiver registers, address to value, both 32-bit numbers, hexadecimal with 0x
    dict_4      registers that differ from dict_3, in the same form; "default" as the value leaves the register out

Block-RAM chunks come in the order of banks and blocks. A transceiver chunk is a run of registers whose addresses
follow one another (by 4): the first address, the number of registers, and their values, each four bytes, most
significant first. The hashes are over all chunks put together, the sizes are their lengths together.
"""

import hashlib
import os
import re
import struct
import sys

FOLDER_ENDING = "nwfmt"
_programmer = os.path.dirname(os.path.abspath(__file__))[:-len(FOLDER_ENDING)]
sys.path.insert(1, os.path.join(_programmer, "python", "source"))

from ice40_bitstream import BLOCK_ROWS, Bitstream
from pgm_python_reasons import Refusal, tells_reasons
from pgm_python_system import read_file

DIGESTS = ("sha256", "sha384")


@tells_reasons
def get_bram_chunks(text_1, dict_1, dict_2, text_2, dict_3, dict_4):
    return make_bram_chunks(text_1, dict_1, dict_2)


@tells_reasons
def get_bram_hash_and_size(text_1, dict_1, dict_2, text_2, dict_3, dict_4):
    return hash_and_size(make_bram_chunks(text_1, dict_1, dict_2), text_2)


@tells_reasons
def get_xcvr_chunks(text_1, dict_1, dict_2, text_2, dict_3, dict_4):
    return make_xcvr_chunks(dict_3, dict_4)


@tells_reasons
def get_xcvr_hash_and_size(text_1, dict_1, dict_2, text_2, dict_3, dict_4):
    return hash_and_size(make_xcvr_chunks(dict_3, dict_4), text_2)


def hash_and_size(chunks, name):
    name = name or "sha384"
    if name not in DIGESTS:
        raise Refusal("the digest %s is not known" % name, "known are: %s" % ", ".join(DIGESTS))
    digest = hashlib.new(name)
    for chunk in chunks:
        digest.update(chunk)
    return [bytearray(digest.digest()), sum(len(chunk) for chunk in chunks)]


def make_bram_chunks(path, form, wanted):
    unknown = sorted(set(form) - {"order", "chunk"})
    if unknown:
        raise Refusal("the form of the block-RAM data has no setting %s" % unknown[0], "it has: order, chunk")
    order = form.get("order", "big")
    if order not in ("big", "little"):
        raise Refusal("the byte order %s is neither big nor little" % order)
    chunk = form.get("chunk", "0")
    if not re.fullmatch("[0-9]{1,9}", chunk):
        raise Refusal("the chunk size %s is no number of bytes" % chunk)

    blocks = Bitstream(read_file(path, "bitstream")).read_blocks()
    words = {place: BLOCK_ROWS for place in blocks}
    if wanted:
        words = {read_place(name, blocks): read_depth(name, depth) for name, depth in wanted.items()}
    images = []
    for place in sorted(words):
        image = blocks[place][:2 * words[place]]
        if order == "little":
            image[0::2], image[1::2] = image[1::2], image[0::2]
        images.append(image)
    if int(chunk) == 0:
        return images
    whole = bytearray().join(images)
    return [whole[start:start + int(chunk)] for start in range(0, len(whole), int(chunk))]


def read_place(name, blocks):
    match = re.fullmatch(r"([0-9]{1,3})\.([0-9]{1,3})", name)
    place = tuple(int(part) for part in match.groups()) if match else None
    if place not in blocks:
        raise Refusal("the bitstream has no block RAM %s" % name,
                      "it has: %s" % (", ".join("%d.%d" % known for known in sorted(blocks)) or "none"))
    return place


def read_depth(name, depth):
    if not re.fullmatch("[0-9]{1,3}", depth) or not 1 <= int(depth) <= BLOCK_ROWS:
        raise Refusal("block RAM %s: %s is no number of words from 1 to %d" % (name, depth, BLOCK_ROWS))
    return int(depth)


def make_xcvr_chunks(registers, changes):
    values = {}
    for number, table in enumerate((registers, changes)):
        for name, text in table.items():
            address = read_number("register address", name)
            if address % 4:
                raise Refusal("the register address %s is no multiple of 4" % name)
            if number and text == "default":
                values.pop(address, None)
            else:
                values[address] = read_number("value of register %s:" % name, text)
    chunks = []
    run = []
    for address in sorted(values):
        if run and address != run[-1] + 4:
            chunks.append(make_register_chunk(run, values))
            run = []
        run.append(address)
    if run:
        chunks.append(make_register_chunk(run, values))
    return chunks


def make_register_chunk(run, values):
    return bytearray(struct.pack(">%dI" % (2 + len(run)), run[0], len(run), *(values[each] for each in run)))


def read_number(what, text):
    try:
        number = int(text, 0)
    except ValueError:
        number = -1
    if not 0 <= number <= 0xFFFFFFFF:
        raise Refusal("%s %s is no 32-bit number" % (what, text), "write it decimal, or hexadecimal with 0x")
    return number
