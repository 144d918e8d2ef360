"""Compact certificates: their form, their key chains, how they are signed and verified.

A certificate is a row of sections, each padded with zero bytes to a multiple of 8; numbers are little-endian:

    header      8 bytes  "PGMCCERT"
                u32      version of the form, 1
                u32      first number
                u32      second number
                u32      length of the content
                u32      number of keys in the chain
                u32      length of the chain section, padding included
    content     the bytes that are certified
    chain       for each key: u16 length of the key, u16 length of its link, the key, its link
    signature   u32 length of the signature, u32 zero, the signature; length 0: not signed

Keys are ECDSA P-256 or P-384 public keys (DER, SubjectPublicKeyInfo), the root key first. A link is the signature
by the key before over "PGMCLINK" and the key; the root key has none. The last key of the chain signs all that comes
before the signature section. Signatures are DER, over SHA-256 for P-256 and over SHA-384 for P-384.

A ".zky" file carries a key chain as text, a "key:" line for each key and a "link:" line after each but the first,
both base64, after a first line "zky-key-chain: 1". Blank lines and lines that begin with "#" mean nothing.

Trust: with PGM_PYTHON_TRUSTED_ROOTS set to fingerprints of root keys (SHA-256 of the key, hexadecimal, separated by
commas), only chains from those roots are valid. Unset, a chain is judged by itself alone.
"""

import base64
import binascii
import hashlib
import os
import struct
import tempfile

from pgm_python_reasons import Refusal
from pgm_python_system import read_file, run_command

MAGIC = b"PGMCCERT"
LINK_MAGIC = b"PGMCLINK"
VERSION = 1
HEADER = struct.Struct("<8s6I")
LINK = struct.Struct("<HH")
SIGNATURE = struct.Struct("<II")
MOST_KEYS = 8

# How the DER form of a public key on each curve begins, its whole length, and the digest to sign with.
CURVES = (
    ("ECDSA P-256", bytes.fromhex("3059301306072A8648CE3D020106082A8648CE3D03010703420004"), 91, "sha256"),
    ("ECDSA P-384", bytes.fromhex("3076301006072A8648CE3D020106052B8104002203620004"), 120, "sha384"),
)


class CompactCert:
    def __init__(self, first_number, second_number, content, chain=(), signature=b""):
        self.first_number = first_number & 0xFFFFFFFF
        self.second_number = second_number & 0xFFFFFFFF
        self.content = bytes(content)
        self.chain = list(chain)
        self.signature = signature

    def signed_bytes(self):
        chain = pad(b"".join(LINK.pack(len(key), len(link)) + key + link for key, link in self.chain))
        header = HEADER.pack(MAGIC, VERSION, self.first_number, self.second_number, len(self.content),
                             len(self.chain), len(chain))
        return header + pad(self.content) + chain

    def to_bytes(self):
        return bytearray(self.signed_bytes() + pad(SIGNATURE.pack(len(self.signature), 0) + self.signature))


def pad(data):
    return data + bytes(-len(data) % 8)


def bytes_of_hex(text):
    try:
        data = bytes.fromhex(text)
    except ValueError:
        raise Refusal("the data is not hexadecimal text of whole bytes")
    if not data:
        raise Refusal("there is no data")
    return data


def is_compact_cert(data):
    return data[:len(MAGIC)] == MAGIC


class Reader:
    """Takes a certificate apart, section by section."""

    def __init__(self, data):
        self.data = data
        self.position = 0

    def take(self, size, what):
        end = self.position + size
        if end > len(self.data):
            raise Refusal("the certificate ends within its %s" % what,
                          "%d bytes are there, at least %d are needed" % (len(self.data), end))
        taken = self.data[self.position:end]
        self.position = end
        return taken

    def take_padding(self, what):
        if any(self.take(-self.position % 8, what)):
            raise Refusal("the padding after the certificate's %s is not zero" % what)


def parse(data):
    """The certificate in data, its form checked; keys and signatures are not judged here."""
    if not is_compact_cert(data):
        raise Refusal("this is not a compact certificate: it begins with %s, not with %s"
                      % (data[:8].hex().upper() or "nothing", MAGIC.hex().upper()))
    reader = Reader(data)
    fields = HEADER.unpack(reader.take(HEADER.size, "header"))
    _, version, first_number, second_number, content_size, keys, chain_size = fields
    if version != VERSION:
        raise Refusal("the certificate has version %d, only version %d is known" % (version, VERSION))
    if keys > MOST_KEYS:
        raise Refusal("the certificate says that its chain has %d keys, at most %d are allowed" % (keys, MOST_KEYS))
    content = reader.take(content_size, "content")
    reader.take_padding("content")
    chain_start = reader.position
    chain = []
    for _ in range(keys):
        key_size, link_size = LINK.unpack(reader.take(LINK.size, "key chain"))
        key = reader.take(key_size, "key chain")
        chain.append((key, reader.take(link_size, "key chain")))
    reader.take_padding("key chain")
    if reader.position - chain_start != chain_size:
        raise Refusal("the certificate's key chain has %d bytes, its header says %d"
                      % (reader.position - chain_start, chain_size))
    signature_size, reserved = SIGNATURE.unpack(reader.take(SIGNATURE.size, "signature"))
    signature = reader.take(signature_size, "signature")
    reader.take_padding("signature")
    if reserved or reader.position != len(data):
        raise Refusal("the certificate has %d bytes too many, or its signature section is damaged"
                      % (len(data) - reader.position))
    return CompactCert(first_number, second_number, content, chain, signature)


def curve_of(key):
    """(name, digest) of a public key."""
    for name, beginning, size, digest in CURVES:
        if len(key) == size and key.startswith(beginning):
            return name, digest
    raise Refusal("a key is neither ECDSA P-256 nor ECDSA P-384",
                  "make one with: openssl ecparam -name secp384r1 -genkey -noout -out KEY.pem")


def fingerprint(key):
    return hashlib.sha256(key).hexdigest().upper()


def read_public_key(pem):
    """The public key of a PEM file, which may hold a private or a public key."""
    read_file(pem, "key file")
    status, key, _ = run_command(["openssl", "pkey", "-in", pem, "-passin", "pass:", "-pubout", "-outform", "DER"])
    if status != 0:
        status, key, _ = run_command(["openssl", "pkey", "-in", pem, "-pubin", "-pubout", "-outform", "DER"])
    if status != 0:
        raise Refusal("no key can be read from %s" % pem,
                      "it must be a PEM file with an ECDSA P-256 or P-384 key without pass phrase")
    try:
        curve_of(key)
    except Refusal as refusal:
        raise Refusal("key file %s cannot be used" % pem, *refusal.reasons)
    return key


def sign_bytes(data, pem, key):
    digest = curve_of(key)[1]
    status, signature, error = run_command(["openssl", "dgst", "-" + digest, "-sign", pem, "-passin", "pass:"], data)
    if status != 0:
        raise Refusal("nothing can be signed with %s: is it a private key?" % pem, "openssl says: %s" % error)
    return signature


def is_signed_by(key, signature, data):
    digest = curve_of(key)[1]
    with tempfile.TemporaryDirectory(prefix="compact_cert.") as folder:
        key_file = os.path.join(folder, "key.pem")
        signature_file = os.path.join(folder, "signature")
        with open(key_file, "wb") as stream:
            stream.write(b"-----BEGIN PUBLIC KEY-----\n" + base64.encodebytes(key) + b"-----END PUBLIC KEY-----\n")
        with open(signature_file, "wb") as stream:
            stream.write(signature)
        status, answer, _ = run_command(
            ["openssl", "dgst", "-" + digest, "-verify", key_file, "-signature", signature_file], data)
    return status == 0 and answer.startswith(b"Verified OK")


def check_chain(chain):
    """Refuses a chain whose keys do not each vouch for the next, or whose root is not trusted."""
    if chain[0][1]:
        raise Refusal("the root key of the chain has a link, it must have none")
    trusted = os.environ.get("PGM_PYTHON_TRUSTED_ROOTS", "").replace(" ", "").upper()
    if trusted and fingerprint(chain[0][0]) not in trusted.split(","):
        raise Refusal("the root key of the chain is not trusted: its fingerprint is %s" % fingerprint(chain[0][0]),
                      "PGM_PYTHON_TRUSTED_ROOTS names the fingerprints of the root keys that are")
    curve_of(chain[0][0])
    for index in range(1, len(chain)):
        key, link = chain[index]
        if not is_signed_by(chain[index - 1][0], link, LINK_MAGIC + key):
            raise Refusal("key %d of the chain is not signed by the key before it" % index,
                          "the key chain was damaged or put together wrongly: make the .zky file anew")


def make_chain(pems):
    """A key chain from PEM files, the root key's first; all but the last must hold private keys."""
    chain = []
    for index, pem in enumerate(pems):
        key = read_public_key(pem)
        chain.append((key, sign_bytes(LINK_MAGIC + key, pems[index - 1], chain[-1][0]) if chain else b""))
    return chain


def write_zky(chain):
    lines = ["zky-key-chain: 1"]
    for key, link in chain:
        lines.append("key: " + base64.b64encode(key).decode("ascii"))
        if link:
            lines.append("link: " + base64.b64encode(link).decode("ascii"))
    return "\n".join(lines) + "\n"


def read_zky(path):
    """The key chain of a ".zky" file, checked."""
    text = read_file(path, "key chain file", 1 << 20).decode("utf-8", "replace")
    rows = [(number, line.strip()) for number, line in enumerate(text.splitlines(), 1)]
    rows = [(number, line) for number, line in rows if line and not line.startswith("#")]
    if not rows or rows[0][1] != "zky-key-chain: 1":
        raise Refusal("%s is not a key chain file: it does not begin with \"zky-key-chain: 1\"" % path)
    chain = []
    for number, line in rows[1:]:
        name, _, value = line.partition(":")
        try:
            data = base64.b64decode(value.strip(), validate=True)
        except binascii.Error:
            raise Refusal("%s line %d is not base64" % (path, number))
        if name == "key" and data:
            chain.append((data, b""))
        elif name == "link" and data and len(chain) > 1 and not chain[-1][1]:
            chain[-1] = (chain[-1][0], data)
        else:
            raise Refusal("%s line %d has no place here" % (path, number),
                          "a \"key:\" line comes for each key, a \"link:\" line after each but the first")
    if not 1 <= len(chain) <= MOST_KEYS:
        raise Refusal("%s holds %d keys, 1 to %d are allowed" % (path, len(chain), MOST_KEYS))
    try:
        check_chain(chain)
    except Refusal as refusal:
        raise Refusal("key chain file %s cannot be used" % path, *refusal.reasons)
    return chain


def sign(cert, zky, pem):
    """Signs a certificate with the key in pem; the chain is that of zky, or the certificate's own, or the key alone."""
    if not pem:
        raise Refusal("there is no key to sign with", "give one with --pem=FILE.pem")
    if cert.signature:
        raise Refusal("the certificate is signed already", "sign the unsigned certificate that it was made from")
    key = read_public_key(pem)
    if zky:
        chain = read_zky(zky)
        if cert.chain and cert.chain != chain:
            raise Refusal("the certificate holds another key chain than %s" % zky,
                          "sign it without --zky, or make the certificate without a chain")
        cert.chain = chain
    cert.chain = cert.chain or [(key, b"")]
    if cert.chain[-1][0] != key:
        raise Refusal("the key in %s is not the one that the key chain ends with" % pem,
                      "the chain ends with the key %s" % fingerprint(cert.chain[-1][0]),
                      "the key file holds the key %s" % fingerprint(key))
    cert.signature = sign_bytes(cert.signed_bytes(), pem, key)
    return cert


def verify(data):
    """The certificate in data when its key chain and its signature are valid."""
    cert = parse(data)
    if not cert.signature:
        raise Refusal("the certificate is not signed", "sign it first")
    if not cert.chain:
        raise Refusal("the certificate holds no key, so its signature cannot be checked")
    check_chain(cert.chain)
    if not is_signed_by(cert.chain[-1][0], cert.signature, cert.signed_bytes()):
        raise Refusal("the signature does not fit the certificate: it was changed after it was signed, or damaged",
                      "the signing key is %s" % fingerprint(cert.chain[-1][0]),
                      "get the certificate again from where it came, or make and sign it anew")
    return cert
