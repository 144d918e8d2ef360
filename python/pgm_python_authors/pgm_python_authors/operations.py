"""What each operation calls, with which arguments, and what it wants back.

The one description that the types, the checker and the bench are made of. A test compares it with the library.
"""

from typing import Dict, NamedTuple, Optional, Tuple

# The back channel.
PORT = 57343
DELIMITER = " !@#$^&*() "
MOST_BYTES = 2048

# The environment entry that names a listener of a call's own: "127.0.0.1:PORT:WORD".
CHANNEL_ENTRY = "PGM_PYTHON_REASONS_CHANNEL"

ROOT_KEY_SIZE = 32


class Argument(NamedTuple):
    """An argument that a function gets."""

    name: str
    # How it is made:
    #   text    str
    #   number  int from -0x80000000 to 0x7FFFFFFF
    #   hex     str of hexadecimal digits, two upper-case ones a byte
    #   bytes   bytearray, a copy of the program's bytes
    #   key     bytearray of ROOT_KEY_SIZE zeros, which the function fills
    #   flag    bool
    #   map     dict of str to str, in the order of its keys
    kind: str
    meaning: str
    # Of a text: the text of the internal error when it is not UTF-8.
    refusal: str = ""


# The Python type of each kind of argument.
ARGUMENT_TYPES = {
    "text": "str",
    "number": "int",
    "hex": "str",
    "bytes": "bytearray",
    "key": "bytearray",
    "flag": "bool",
    "map": "dict",
}


class Value(NamedTuple):
    """A value that a program gives to an operation."""

    name: str
    # text, number, bytes, flag, map; texts (the rest of the values, each a text); script and function (the names of
    # what is called).
    kind: str
    # What is asked of it: "filled" (not empty), "certificate" (whole 8-byte words, at least one), ".zky" and ".pem"
    # (empty, or an existing file with that extension), "" (nothing).
    check: str = ""
    # The text of the internal error when it is not so.
    refusal: str = ""


class Answer(NamedTuple):
    """What a function is to return."""

    # The type, as an annotation.
    type: str
    shape: str
    # What a program sees when something else comes.
    otherwise: str


# "value" where the answer's value is used, whatever its type: None is as good as True.
ANSWERS = {
    "text": Answer("str", "the text; it ends at its first zero character", "an empty text"),
    "text_or_bytes": Answer("Union[str, bytes]",
                            "the text, a str (of no class derived from it) or UTF-8 bytes; it ends at its first zero",
                            "an empty text"),
    "number": Answer("int", "a number from -0x80000000 to 0x7FFFFFFF", "0xFFFFFFFF"),
    "bytes": Answer("bytearray", "the bytes", "no bytes, size 0"),
    "ignored": Answer("object", "anything, None too; to return is success, to raise is failure", ""),
    "key": Answer("bool", "True, and the %d bytes of the key in the third argument" % ROOT_KEY_SIZE,
                  "an internal error, which ends the program"),
    "memory": Answer("List[Union[bytearray, int]]", "a list of three: a bytearray (the image), an int (the width), an int (the depth)",
                     "an internal error, which ends the program; no image where it is no bytearray, 0xFFFFFFFF where "
                     "a number is none"),
    "chunks": Answer("List[bytearray]", "a list of bytearrays",
                     "no data when it is no list; a failed call when something in it is no bytearray"),
    "hash_and_size": Answer("List[Union[bytearray, int]]", "a list of two: a bytearray (the hash) and an int (the size)",
                            "an internal error, which ends the program, when it is no list of two; a failed call when "
                            "the hash is no bytearray; 0xFFFFFFFF when the size is no int"),
}


class Operation(NamedTuple):
    """An operation of the library that calls a function of a script."""

    name: str
    purpose: str
    # The folder of the script: "common" (python below the common folder), "network" (the common folder's name with
    # "nwfmt" after it), "database" (mysql below the unshipped folder), "catalogue" (a default script or any file).
    folder: str
    # The script's file name; None: named by the program.
    script: Optional[str]
    # The function; None: named by the program.
    function: Optional[str]
    # What the program gives, in order.
    values: Tuple[Value, ...]
    # What the function gets, in order.
    arguments: Tuple[Argument, ...]
    # A key of ANSWERS.
    answer: str
    # Whether reasons are shown: "early" (also when the script cannot be loaded), "late" (when the function was
    # called) or "" (never).
    channel: str
    # What sys.argv holds: "path" (the script's path), "options" (the path, --zky=..., --pem=...), "texts" (the path
    # and the program's texts) or "" (it is not set).
    command_line: str
    # Whether the suite's script folders are on the search path and PGM_PYTHON_BIN_DIR is set.
    suite_folders: bool = True
    # The functions that the program may name and the kind of answer of each; empty: see above.
    functions: Tuple[Tuple[str, str], ...] = ()
    # What is printed after the traceback when the function raises; empty: neither of them.
    call_failure: str = ""
    # What is printed when the function is not there.
    lookup_failure: str = "Fail to find function %s"
    # Whether a failed call is told as message 20351.
    posts: bool = True
    # Whether a missing script is an ordinary outcome.
    may_be_missing: bool = False
    # Whether the arguments are made before the function is looked for.
    arguments_first: bool = False

    def answer_of(self, function):
        """The kind of answer that a function is to give."""
        return dict(self.functions).get(function, self.answer)


_COMMON_SCRIPT = "pgm_python_common_function.pyc"

_ZKY = Value("zky", "text", ".zky", "zky.empty() || (PGM_COMMON::match_extension(zky.c_str(), { \".zky\" }) && "
             "FIO_FILE_SYSTEM::exists(zky.c_str()))")
_PEM = Value("pem", "text", ".pem", "pem.empty() || (PGM_COMMON::match_extension(pem.c_str(), { \".pem\" }) && "
             "FIO_FILE_SYSTEM::exists(pem.c_str()))")


def _content(name, null="nullptr"):
    return Value(name, "bytes", "certificate", "%s != %s && %s_size > 0 && (%s_size %% 8) == 0" %
                 (name, null, name, name))


_ALL = (
    Operation(
        "get_username", "the name of a user", "common", _COMMON_SCRIPT, "get_username",
        (Value("user", "text"),),
        (Argument("user", "text", "the user's account; empty: the one that the program runs under",
                  "pArg != NULL"),),
        "text_or_bytes", "", "path"),
    Operation(
        "query_opn_enum", "the name that belongs to an OPN code", "common", _COMMON_SCRIPT, "query_opn_enum",
        (Value("opn_code", "number"),),
        (Argument("opn_code", "number", "the code; codes from 0x80000000 come negative"),),
        "text", "", "path"),
    Operation(
        "query_opn_name", "the code that belongs to an OPN name", "common", _COMMON_SCRIPT, "query_opn_name",
        (Value("opn_name", "text"),),
        (Argument("opn_name", "text", "the name", "pArg != NULL"),),
        "number", "", "path"),
    Operation(
        "read_mif", "image, width and depth in a memory-initialisation file", "common", _COMMON_SCRIPT, "read_mif",
        (Value("file", "text"), Value("continuous", "flag")),
        (Argument("file", "text", "the path of the file", "pArg != NULL"),
         Argument("continuous", "flag", "whether the words follow one another without padding")),
        "memory", "", "path"),
    Operation(
        "generate_compact_cert", "makes a compact certificate of a content", "common", "compact_cert_sign.pyc",
        "external_sign_function",
        (Value("first_number", "number"), Value("second_number", "number"), _content("content", "NULL"), _ZKY, _PEM),
        (Argument("first_number", "number", "the first number of the certificate"),
         Argument("second_number", "number", "the second number of the certificate"),
         Argument("content", "hex", "the content"),
         Argument("zky", "text", "the path of a .zky key file, or empty", "pArg3 != NULL"),
         Argument("pem", "text", "the path of a .pem key file, or empty", "pArg4 != NULL")),
        "bytes", "late", "path"),
    Operation(
        "sign_compact_ccert", "signs a compact certificate", "common", "norvane_sign.py",
        "external_ccert_sign_function",
        (_content("unsign_content"), _ZKY, _PEM),
        (Argument("unsign_content", "hex", "the certificate that is to be signed"),),
        "bytes", "early", "options"),
    Operation(
        "verify_compact_cert_keychain", "verifies the key chain of a certificate", "common", "compact_cert_sign.pyc",
        "external_verify_function",
        (_content("content"),),
        (Argument("content", "hex", "the certificate"),),
        "ignored", "late", "path"),
    Operation(
        "verify_compact_cert_keychain_script", "the same with a script that the program names", "common", None,
        "external_verify_ccert_function",
        (Value("script", "script", "filled", "!script.empty()"), _content("content")),
        (Argument("content", "hex", "the certificate"),),
        "ignored", "early", "path"),
    Operation(
        "get_zek_root_key", "the root key in a key file", "common", _COMMON_SCRIPT, "get_zek_root_key",
        (Value("zek_file", "text", "filled", "No ZEK file is specified"), Value("text_argument", "text")),
        (Argument("zek_file", "text", "the path of the key file", "pArg0 != nullptr"),
         Argument("text_argument", "text", "what the program adds, such as a passphrase; may be empty",
                  "pArg1 != nullptr"),
         Argument("key", "key", "where the key goes")),
        "key", "early", "path"),
    Operation(
        "modify_bitstream", "has a script change a bitstream", "catalogue", None, None,
        (Value("data", "bytes"), Value("python_file", "script", "filled", "Python file must be specified"),
         Value("function_name", "function", "filled", "Python function must be specified"),
         Value("script_args", "texts")),
        (Argument("data", "bytes", "the bitstream, the script's to change"),),
        "bytes", "early", "texts"),
    Operation(
        "get_nwfmt_data", "block-RAM or transceiver data in network format", "network", None, None,
        (Value("python_file", "script", "filled", "Python file must be specified"),
         Value("python_function", "function", "filled", "Python function must be specified"),
         Value("text_1", "text"), Value("dict_1", "map"), Value("dict_2", "map"), Value("text_2", "text"),
         Value("dict_3", "map"), Value("dict_4", "map")),
        (Argument("text_1", "text", "a text, such as the path of the design", "pArg != nullptr"),
         Argument("dict_1", "map", "settings"), Argument("dict_2", "map", "settings"),
         Argument("text_2", "text", "a text, such as the name of a hash", "pArg != nullptr"),
         Argument("dict_3", "map", "settings"), Argument("dict_4", "map", "settings")),
        "chunks", "late", "", suite_folders=False,
        functions=(("get_bram_chunks", "chunks"), ("get_bram_hash_and_size", "hash_and_size"),
                   ("get_xcvr_chunks", "chunks"), ("get_xcvr_hash_and_size", "hash_and_size")),
        call_failure="Fail to call nwfmt function", arguments_first=True),
    Operation(
        "generate_rim", "makes a reference-integrity manifest", "common", "rim_generator.pyc",
        "external_make_rim_function",
        (Value("rbf_file", "text", "filled", "!rbf_file.empty()"),
         Value("family", "text", "filled", "!family.empty()"), Value("rim_number", "number"),
         Value("output_file", "text", "filled", "!output_file.empty()")),
        (Argument("rbf_file", "text", "the path of the raw binary configuration file", "pArg0 != nullptr"),
         Argument("family", "text", "the device family", "pArg1 != nullptr"),
         Argument("rim_number", "number", "the number of the manifest"),
         Argument("output_file", "text", "the path of the file that is to be written", "pArg3 != nullptr")),
        "ignored", "early", "path"),
    Operation(
        "execute_mysql", "asks a database", "database", "mysql.pyc", "mysql",
        (Value("arguments", "texts"),), (),
        "text_or_bytes", "", "texts", suite_folders=False, call_failure="Fail to call mysql function",
        lookup_failure="Fail to find mysql function", posts=False, may_be_missing=True),
    Operation(
        "sync_p4file", "fetches a depot file into a folder", "common", _COMMON_SCRIPT, "sync_p4file",
        (Value("folder", "text", "filled", "folder must be specified"),
         Value("p4source", "text", "filled", "p4source must be specified")),
        (Argument("folder", "text", "the folder that the file goes into", "pArg0 != NULL"),
         Argument("p4source", "text", "the file's place in the depot", "pArg1 != NULL")),
        "text", "late", "path"),
)

OPERATIONS = {operation.name: operation for operation in _ALL}  # type: Dict[str, Operation]

# The operation that runs a whole script: no function, the script is the main program.
RUNNER = "run_python_file"


class Default(NamedTuple):
    """A row of the catalogue of default scripts."""

    name: str
    file: str
    # "common" or "unshipped": python below that folder.
    folder: str


# In the order in which it is searched.
CATALOGUE = (
    Default("tarn_card_sign", "tarn_card_sign.py", "common"),
    Default("norvane_sign", "norvane_sign.py", "common"),
    Default("pelimor_sign", "pelimor_sign.py", "common"),
    Default("norvane_encrypt", "norvane_encrypt.py", "common"),
    Default("ostrel_encrypt", "ostrel_encrypt.pyc", "unshipped"),
    Default("norvane_writeback_protobuf", "norvane_writeback_protobuf.py", "unshipped"),
    Default("pelimor_firmware_attestation", "pelimor_firmware_attestation.py", "common"),
    Default("itool", "pgm_internal_tool.pyc", "unshipped"),
    Default("norvane_asic_database", "norvane_asic_database.py", "unshipped"),
    Default("re_sign", "rom_extension_sign.pyc", "unshipped"),
    Default("compact_cert_sign", "compact_cert_sign.pyc", "common"),
    Default("rim_generator", "rim_generator.pyc", "common"),
)
