"""Makes reference-integrity manifests: what a raw binary configuration file must measure to be the right one.

A manifest is JSON in UTF-8:

    manifest        "reference-integrity"
    version         1
    tool            "rim_generator"
    family          device family, as given
    number          as given, a signed 32-bit number
    file            name of the configuration file, without its folder
    size            its size in bytes
    algorithm       "SHA-384"
    digest          its digest, hexadecimal

As a main program: rim_generator RBF_FILE FAMILY NUMBER OUTPUT_FILE
"""

import hashlib
import json
import os

from pgm_python_reasons import Refusal, run_main, tells_reasons
from pgm_python_system import write_file


@tells_reasons
def external_make_rim_function(rbf_file, family, rim_number, output_file):
    if not family.strip() or not family.isprintable():
        raise Refusal("the device family %r is no name" % family)
    if not -0x80000000 <= rim_number <= 0x7FFFFFFF:
        raise Refusal("the manifest number %d has more than 32 bits" % rim_number)
    size, digest = measure(rbf_file)
    if os.path.exists(output_file) and os.path.samefile(rbf_file, output_file):
        raise Refusal("the manifest would overwrite the configuration file %s" % rbf_file,
                      "name another output file")
    manifest = {
        "manifest": "reference-integrity",
        "version": 1,
        "tool": "rim_generator",
        "family": family,
        "number": rim_number,
        "file": os.path.basename(rbf_file),
        "size": size,
        "algorithm": "SHA-384",
        "digest": digest,
    }
    write_file(output_file, (json.dumps(manifest, indent=2, ensure_ascii=False) + "\n").encode("utf-8"))


def measure(path):
    """(size, SHA-384) of a file."""
    if not os.path.exists(path):
        raise Refusal("configuration file %s does not exist" % path)
    if not os.path.isfile(path):
        raise Refusal("configuration file %s is not a regular file" % path)
    digest = hashlib.sha384()
    size = 0
    with open(path, "rb") as stream:
        for block in iter(lambda: stream.read(1 << 20), b""):
            digest.update(block)
            size += len(block)
    if size == 0:
        raise Refusal("configuration file %s is empty" % path, "make the configuration file again")
    return size, digest.hexdigest()


def main():
    import sys

    if len(sys.argv) != 5:
        raise Refusal("four arguments are needed: RBF_FILE FAMILY NUMBER OUTPUT_FILE")
    rbf_file, family, number, output_file = sys.argv[1:]
    try:
        rim_number = int(number, 0)
    except ValueError:
        raise Refusal("the manifest number %s is no number" % number)
    external_make_rim_function.__wrapped__(rbf_file, family, rim_number, output_file)
    print("%s: manifest of %s" % (output_file, rbf_file))


if __name__ == "__main__":
    run_main(main)
