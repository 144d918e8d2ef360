"""Key files that a root key is derived from.

A key file is text, one "name: value" a line; blank lines and lines that begin with "#" mean nothing:

    zek-key-file: 1
    iterations: 20000                    1000 to 10000000
    salt: 00112233445566778899AABBCCDDEEFF       16 to 64 bytes, hexadecimal
    seed: ...                                    32 to 64 bytes, hexadecimal, the secret
    check: ...                                   the first 8 bytes of the SHA-256 digest of the salt and the seed

The root key is the first block of HKDF-Expand (RFC 5869, SHA-256) of the key PBKDF2-HMAC-SHA-256 (seed, salt,
iterations, 32 bytes), with "zek root key" followed by the text argument in UTF-8 as info: another text, another key.
"""

import binascii
import hashlib
import hmac

from pgm_python_reasons import Refusal
from pgm_python_system import read_file

NAMES = ("zek-key-file", "iterations", "salt", "seed", "check")
KEY_SIZE = 32


def derive_root_key(path, text, key):
    if not isinstance(key, bytearray) or len(key) != KEY_SIZE:
        raise Refusal("the root key needs a bytearray of %d bytes to go to" % KEY_SIZE)
    fields = read_fields(path)
    if fields["zek-key-file"] != "1":
        raise Refusal("key file %s has version %s, only version 1 is known" % (path, fields["zek-key-file"]))
    iterations = fields["iterations"]
    if not (iterations.isdigit() and len(iterations) <= 8 and 1000 <= int(iterations) <= 10000000):
        raise Refusal("key file %s: iterations must be a number from 1000 to 10000000" % path)
    salt = read_bytes(path, fields, "salt", 16, 64)
    seed = read_bytes(path, fields, "seed", 32, 64)
    check = read_bytes(path, fields, "check", 8, 8)
    if not hmac.compare_digest(hashlib.sha256(salt + seed).digest()[:8], check):
        raise Refusal("key file %s is damaged: its check does not fit its salt and seed" % path,
                      "get the file again from where it came")
    stretched = hashlib.pbkdf2_hmac("sha256", seed, salt, int(iterations), KEY_SIZE)
    info = b"zek root key" + text.encode("utf-8", "surrogateescape")
    key[:] = hmac.new(stretched, info + b"\x01", hashlib.sha256).digest()


def read_fields(path):
    text = read_file(path, "key file", 1 << 16).decode("utf-8", "replace")
    fields = {}
    for number, line in enumerate(text.splitlines(), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        name, colon, value = (part.strip() for part in line.partition(":"))
        if not colon or name not in NAMES:
            raise Refusal("key file %s line %d has no known name" % (path, number),
                          "the names are: %s" % ", ".join(NAMES))
        if name in fields:
            raise Refusal("key file %s line %d gives %s a second time" % (path, number, name))
        fields[name] = value
    missing = [name for name in NAMES if name not in fields]
    if missing:
        raise Refusal("key file %s lacks: %s" % (path, ", ".join(missing)))
    return fields


def read_bytes(path, fields, name, least, most):
    try:
        value = binascii.unhexlify(fields[name])
    except (binascii.Error, ValueError):
        raise Refusal("key file %s: %s is not hexadecimal text of whole bytes" % (path, name))
    if not least <= len(value) <= most:
        raise Refusal("key file %s: %s has %d bytes, %s are needed"
                      % (path, name, len(value), least if least == most else "%d to %d" % (least, most)))
    return value
