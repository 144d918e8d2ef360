"""Signs compact certificates with keys from PEM files.

As a main program:

    norvane_sign inspect FILE                               what a file is: size, digest, a certificate's fields
    norvane_sign sign FILE --out=FILE --pem=KEY.pem [--zky=CHAIN.zky]
    norvane_sign verify FILE                                key chain and signature of a certificate
    norvane_sign chain --out=CHAIN.zky ROOT.pem [KEY.pem ...]   a key chain, each key vouching for the next

The form of certificates and key chains is told in compact_cert.
"""

import argparse
import hashlib
import sys

import compact_cert
from pgm_python_reasons import Refusal, run_main, tells_reasons
from pgm_python_system import read_file, write_file


def get_option(name):
    for argument in sys.argv[1:]:
        if argument.startswith(name + "="):
            return argument[len(name) + 1:]
    return ""


@tells_reasons
def external_ccert_sign_function(unsigned):
    """The signed form of an unsigned certificate; the keys come from the options --zky= and --pem=."""
    cert = compact_cert.parse(compact_cert.bytes_of_hex(unsigned))
    return compact_cert.sign(cert, get_option("--zky"), get_option("--pem")).to_bytes()


@tells_reasons
def external_verify_ccert_function(signed):
    """Returns when key chain and signature of a certificate are valid, raises otherwise."""
    compact_cert.verify(compact_cert.bytes_of_hex(signed))


class Parser(argparse.ArgumentParser):
    def error(self, message):
        raise Refusal(message, "%s --help tells how it is used" % self.prog)


def inspect(options):
    data = read_file(options.file, "file")
    print("file:          %s" % options.file)
    print("size:          %d bytes" % len(data))
    print("SHA-384:       %s" % hashlib.sha384(data).hexdigest())
    if not compact_cert.is_compact_cert(data):
        print("kind:          not a compact certificate")
        return
    cert = compact_cert.parse(data)
    print("kind:          compact certificate, %s" % ("signed" if cert.signature else "not signed"))
    print("first number:  %d (0x%08X)" % (cert.first_number, cert.first_number))
    print("second number: %d (0x%08X)" % (cert.second_number, cert.second_number))
    print("content:       %d bytes" % len(cert.content))
    for index, (key, _) in enumerate(cert.chain):
        print("key %d:         %s, %s" % (index, compact_cert.curve_of(key)[0], compact_cert.fingerprint(key)))


def sign(options):
    cert = compact_cert.parse(read_file(options.file, "certificate"))
    data = compact_cert.sign(cert, options.zky, options.pem).to_bytes()
    write_file(options.out, data)
    print("%s: signed, %d bytes" % (options.out, len(data)))


def verify(options):
    cert = compact_cert.verify(read_file(options.file, "certificate"))
    print("%s: valid, signed by %s" % (options.file, compact_cert.fingerprint(cert.chain[-1][0])))


def chain(options):
    made = compact_cert.make_chain(options.pem)
    write_file(options.out, compact_cert.write_zky(made).encode("ascii"))
    print("%s: %d keys, root %s" % (options.out, len(made), compact_cert.fingerprint(made[0][0])))


def main():
    parser = Parser(prog="norvane_sign", description="Signs compact certificates with keys from PEM files.")
    jobs = parser.add_subparsers(metavar="JOB")
    job = jobs.add_parser("inspect", help="tell what a file is")
    job.add_argument("file", metavar="FILE")
    job.set_defaults(run=inspect)
    job = jobs.add_parser("sign", help="sign an unsigned certificate")
    job.add_argument("file", metavar="FILE", help="the unsigned certificate")
    job.add_argument("--out", metavar="FILE", required=True, help="where the signed certificate goes")
    job.add_argument("--pem", metavar="KEY.pem", default="", help="the key to sign with")
    job.add_argument("--zky", metavar="CHAIN.zky", default="", help="the key chain that ends with that key")
    job.set_defaults(run=sign)
    job = jobs.add_parser("verify", help="check key chain and signature of a certificate")
    job.add_argument("file", metavar="FILE")
    job.set_defaults(run=verify)
    job = jobs.add_parser("chain", help="make a key chain file")
    job.add_argument("--out", metavar="CHAIN.zky", required=True, help="where the key chain goes")
    job.add_argument("pem", metavar="KEY.pem", nargs="+", help="the keys, the root key first")
    job.set_defaults(run=chain)
    options = parser.parse_args()
    if not hasattr(options, "run"):
        parser.error("a job must be named: inspect, sign, verify or chain")
    options.run(options)


if __name__ == "__main__":
    run_main(main)
