"""Makes and verifies compact certificates; their form and their key chains are told in compact_cert.

As a main program it verifies: compact_cert_sign FILE [...]
"""

import compact_cert
from pgm_python_reasons import Refusal, run_main, tells_reasons


@tells_reasons
def external_sign_function(first_number, second_number, content, zky, pem):
    """The certificate of a content: signed when a key is given with pem, else ready to be signed.

    A key chain given with zky goes into it; it must end with the key that signs.
    """
    cert = compact_cert.CompactCert(first_number, second_number, compact_cert.bytes_of_hex(content))
    if pem:
        compact_cert.sign(cert, zky, pem)
    elif zky:
        cert.chain = compact_cert.read_zky(zky)
    return cert.to_bytes()


@tells_reasons
def external_verify_function(signed):
    """Returns when key chain and signature of a certificate are valid, raises otherwise."""
    compact_cert.verify(compact_cert.bytes_of_hex(signed))


@tells_reasons
def external_verify_ccert_function(signed):
    """The same for callers that name the script."""
    compact_cert.verify(compact_cert.bytes_of_hex(signed))


def main():
    import sys

    from pgm_python_system import read_file

    if len(sys.argv) < 2:
        raise Refusal("no certificate is named", "name the files to verify")
    for path in sys.argv[1:]:
        cert = compact_cert.verify(read_file(path, "certificate"))
        print("%s: valid, signed by %s" % (path, compact_cert.fingerprint(cert.chain[-1][0])))


if __name__ == "__main__":
    run_main(main)
