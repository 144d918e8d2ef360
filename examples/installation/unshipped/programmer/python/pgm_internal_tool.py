"""Internal tool for bitstreams: shows them and changes bytes of them.

change_bitstream(data) changes a bitstream at the offsets that its options name and mends the checksum:

    --set OFFSET=HEXBYTES   bytes to put at an offset (decimal, or hexadecimal with 0x); as often as wanted
    --plain                 the data is any binary file: every offset may be changed, there is no checksum to mend

Without --plain the data is an iCE40 bitstream, its checksum must be right beforehand, and only the comment and the
data of configuration and block-RAM cells may be changed, none of the commands between them.

As a main program: itool FILE                             shows the parts of a bitstream
                   itool FILE --out=FILE --set ...        writes a changed one
"""

import argparse
import sys

import ice40_bitstream
from pgm_python_reasons import Refusal, run_main, tells_reasons
from pgm_python_system import read_file, write_file


class Parser(argparse.ArgumentParser):
    def error(self, message):
        raise Refusal(message, "changes are written as --set OFFSET=HEXBYTES")


def make_parser(prog, **more):
    parser = Parser(prog=prog, allow_abbrev=False, **more)
    parser.add_argument("--set", metavar="OFFSET=HEXBYTES", action="append", default=[], help="bytes to change")
    parser.add_argument("--plain", action="store_true", help="not a bitstream: change any byte, mend nothing")
    return parser


@tells_reasons
def change_bitstream(data):
    options = make_parser("change_bitstream", add_help=False).parse_args(sys.argv[1:])
    return change(data, options)


def read_change(text):
    offset, equals, digits = text.partition("=")
    try:
        place, new = int(offset, 0), bytes.fromhex(digits)
    except ValueError:
        place, new = -1, b""
    if not equals or place < 0 or not new:
        raise Refusal("%s is no change" % text, "changes are written as --set OFFSET=HEXBYTES, "
                      "for example --set 0x75D0=80FF")
    return place, new


def change(data, options):
    changes = sorted(read_change(text) for text in options.set)
    if not changes:
        raise Refusal("nothing is to be changed", "changes are written as --set OFFSET=HEXBYTES")
    changed = data if options.plain else ice40_bitstream.Bitstream(data)
    target = data if options.plain else changed.data
    free = 0
    for offset, new in changes:
        end = offset + len(new)
        if end > len(target):
            raise Refusal("the %d bytes at offset 0x%X reach beyond the end of the data" % (len(new), offset),
                          "the data has 0x%X bytes" % len(target))
        if offset < free:
            raise Refusal("the byte at offset 0x%X is to be changed twice" % offset)
        free = end
        if not options.plain:
            check_area(changed, offset, end)
        target[offset:end] = new
    if not options.plain:
        changed.mend_checksums()
        ice40_bitstream.Bitstream(target)
    return target


def check_area(bitstream, offset, end):
    area = bitstream.find_area(offset)
    if area is None or end > area.end:
        raise Refusal("offset 0x%X belongs to the commands of the bitstream" % (area.end if area else offset),
                      "only the comment and the data of cells may be changed: " + "; ".join(
                          "0x%X to 0x%X" % (each.start, each.end - 1) for each in bitstream.areas))


def main():
    parser = make_parser("itool", description="Shows the parts of a bitstream, or changes bytes of it.")
    parser.add_argument("file", metavar="FILE")
    parser.add_argument("--out", metavar="FILE", help="where the changed data goes")
    options = parser.parse_args()
    data = bytearray(read_file(options.file, "bitstream"))
    if options.set or options.plain or options.out:
        if not options.out:
            raise Refusal("it is not said where the changed data goes", "name a file with --out=FILE")
        write_file(options.out, change(data, options))
        print("%s: changed, %d bytes" % (options.out, len(data)))
        return
    bitstream = ice40_bitstream.Bitstream(data)
    for area in bitstream.areas:
        place = "0x%06X to 0x%06X" % (area.start, area.end - 1)
        bank = "" if area.kind == ice40_bitstream.COMMENT else ", bank %d" % area.bank
        print("%s  %s%s" % (place, area.kind, bank))
    for _, place in bitstream.checksums:
        print("0x%06X to 0x%06X  checksum %s" % (place, place + 1, data[place:place + 2].hex().upper()))


if __name__ == "__main__":
    run_main(main)
