"""Configuration bitstreams of the iCE40 device family, as Project IceStorm documents them.

After a comment (between FF 00 and 00 FF) and the bytes 7E AA 99 7E a bitstream is a row of commands. The high four
bits of a command's first byte say what it is, the low four how many bytes of payload follow, most significant first.
Of the commands, these matter here:

    01 01, 01 03    data of a bank's configuration or block-RAM cells follow: width times height bits, two zero bytes
    01 05           the checksum begins anew
    01 06           the device wakes up, the bitstream ends
    1x              number of the bank
    22              checksum over all since 01 05: CRC-16 (0x1021, from 0xFFFF), its own two bytes included it is 0
    6x, 7x, 8x      width less 1, height and first row of the bank's data

A block RAM is 256 words of 16 bits: it takes 16 neighbouring bits, most significant first, in each of a bank's rows.
"""

import binascii

from pgm_python_reasons import Refusal

SYNC = b"\x7E\xAA\x99\x7E"
BLOCK_ROWS = 256
BLOCK_BITS = 16

CRAM = "configuration"
BRAM = "block RAM"
COMMENT = "comment"


class Area:
    """A run of bytes that may be changed freely: the comment, or a bank's data."""

    def __init__(self, kind, start, end, bank=0, width=0, first_row=0):
        self.kind = kind
        self.start = start
        self.end = end
        self.bank = bank
        self.width = width
        self.first_row = first_row


class Bitstream:
    """A bitstream taken apart; refused when its commands or its checksums are wrong."""

    def __init__(self, data):
        self.data = bytearray(data)
        self.areas = []
        self.checksums = []     # (where the sum begins, where the two bytes of the checksum are)
        self._read_commands()
        for start, place in self.checksums:
            if binascii.crc_hqx(bytes(self.data[start:place + 2]), 0xFFFF) != 0:
                raise Refusal("the bitstream's checksum is wrong: %s is stored at offset 0x%X, its bytes give %04X"
                              % (self.data[place:place + 2].hex().upper(), place, self._sum(start, place)),
                              "the file is damaged: make the bitstream again")

    def _sum(self, start, place):
        return binascii.crc_hqx(bytes(self.data[start:place]), 0xFFFF)

    def mend_checksums(self):
        for start, place in self.checksums:
            self.data[place:place + 2] = self._sum(start, place).to_bytes(2, "big")

    def _read_commands(self):
        sync = self.data.find(SYNC)
        if sync < 0:
            raise Refusal("this is not an iCE40 bitstream: the bytes %s are not in it" % SYNC.hex().upper())
        if sync > 4 and self.data[:2] == b"\xFF\x00" and self.data[2:sync].endswith(b"\x00\xFF"):
            self.areas.append(Area(COMMENT, 2, sync - 2))
        state = {1: 0, 8: 0}
        sum_start = None
        position = sync + len(SYNC)
        while True:
            start = position
            code, payload, position = self._take_command(start)
            if code == 0:
                if payload in (1, 3):
                    position = self._take_data(CRAM if payload == 1 else BRAM, start, position, state)
                elif payload == 5:
                    sum_start = position
                elif payload == 6:
                    break
                else:
                    raise self._refusal(start, "an unknown command 0x%02X" % payload)
            elif code == 2:
                if sum_start is None or position - start != 3:
                    raise self._refusal(start, "a checksum that has no beginning or not two bytes")
                self.checksums.append((sum_start, start + 1))
            elif code in (1, 6, 7, 8):
                state[code] = payload
            elif code not in (4, 5, 9):
                raise self._refusal(start, "an unknown command 0x%X." % code)
        if not self.checksums:
            raise Refusal("the bitstream holds no checksum")

    def _take_command(self, start):
        first = self.data[start] if start < len(self.data) else 0
        end = start + 1 + (first & 0x0F)
        if end > len(self.data) or start >= len(self.data):
            raise Refusal("the bitstream ends at offset 0x%X, before its wake-up command" % len(self.data),
                          "the file was cut off: make the bitstream again")
        return first >> 4, int.from_bytes(self.data[start + 1:end], "big"), end

    def _take_data(self, kind, start, position, state):
        if 6 not in state or 7 not in state:
            raise self._refusal(start, "%s data without width and height" % kind)
        width = state[6] + 1
        end = position + width * state[7] // 8
        if end + 2 > len(self.data):
            raise Refusal("the bitstream ends within the %s data of bank %d" % (kind, state[1]),
                          "the file was cut off: make the bitstream again")
        if any(self.data[end:end + 2]):
            raise self._refusal(start, "%s data that two zero bytes do not end" % kind)
        self.areas.append(Area(kind, position, end, state[1], width, state[8]))
        return end + 2

    @staticmethod
    def _refusal(start, what):
        return Refusal("the bitstream has at offset 0x%X %s" % (start, what))

    def find_area(self, offset):
        for area in self.areas:
            if area.start <= offset < area.end:
                return area
        return None

    def read_blocks(self):
        """{(bank, block): bytearray of 512 bytes} of the block RAMs, words most significant byte first."""
        blocks = {}
        for area in self.areas:
            if area.kind != BRAM:
                continue
            if area.width % BLOCK_BITS:
                raise Refusal("bank %d of the block RAM is %d bits wide, no multiple of %d"
                              % (area.bank, area.width, BLOCK_BITS))
            row_bytes = area.width // 8
            for row in range((area.end - area.start) // row_bytes):
                word = area.first_row + row
                if word >= BLOCK_ROWS:
                    raise Refusal("bank %d of the block RAM has more than %d rows" % (area.bank, BLOCK_ROWS))
                start = area.start + row * row_bytes
                for block in range(row_bytes // 2):
                    image = blocks.setdefault((area.bank, block), bytearray(2 * BLOCK_ROWS))
                    image[2 * word:2 * word + 2] = self.data[start + 2 * block:start + 2 * block + 2]
        return blocks
