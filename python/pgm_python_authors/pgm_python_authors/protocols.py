"""The functions that operations call, as types. Made of operations.py by make_protocols.py.

A type checker compares a function with its protocol where the script says so:

    from typing import TYPE_CHECKING

    def change(data: bytearray) -> bytearray:
        ...

    if TYPE_CHECKING:
        from pgm_python_authors.protocols import ModifyBitstream
        _change: ModifyBitstream = change
"""

import sys
from typing import TYPE_CHECKING, Dict, List, Union

if TYPE_CHECKING or sys.version_info >= (3, 8):
    from typing import Protocol
else:
    Protocol = object


class GetUsername(Protocol):
    """get_username: the name of a user.

    user: the user's account; empty: the one that the program runs under
    Returns the text, a str (of no class derived from it) or UTF-8 bytes; it ends at its first zero.
    """

    def __call__(self, __user: str) -> Union[str, bytes]:
        ...


class QueryOpnEnum(Protocol):
    """query_opn_enum: the name that belongs to an OPN code.

    opn_code: the code; codes from 0x80000000 come negative
    Returns the text; it ends at its first zero character.
    """

    def __call__(self, __opn_code: int) -> str:
        ...


class QueryOpnName(Protocol):
    """query_opn_name: the code that belongs to an OPN name.

    opn_name: the name
    Returns a number from -0x80000000 to 0x7FFFFFFF.
    """

    def __call__(self, __opn_name: str) -> int:
        ...


class ReadMif(Protocol):
    """read_mif: image, width and depth in a memory-initialisation file.

    file: the path of the file
    continuous: whether the words follow one another without padding
    Returns a list of three: a bytearray (the image), an int (the width), an int (the depth).
    """

    def __call__(self, __file: str, __continuous: bool) -> List[Union[bytearray, int]]:
        ...


class GenerateCompactCert(Protocol):
    """generate_compact_cert: makes a compact certificate of a content.

    first_number: the first number of the certificate
    second_number: the second number of the certificate
    content: the content
    zky: the path of a .zky key file, or empty
    pem: the path of a .pem key file, or empty
    Returns the bytes.
    """

    def __call__(self, __first_number: int, __second_number: int, __content: str, __zky: str, __pem: str) -> bytearray:
        ...


class SignCompactCcert(Protocol):
    """sign_compact_ccert: signs a compact certificate.

    unsign_content: the certificate that is to be signed
    Returns the bytes.
    """

    def __call__(self, __unsign_content: str) -> bytearray:
        ...


class VerifyCompactCertKeychain(Protocol):
    """verify_compact_cert_keychain: verifies the key chain of a certificate.

    content: the certificate
    Returns anything, None too; to return is success, to raise is failure.
    """

    def __call__(self, __content: str) -> object:
        ...


class VerifyCompactCertKeychainScript(Protocol):
    """verify_compact_cert_keychain_script: the same with a script that the program names.

    content: the certificate
    Returns anything, None too; to return is success, to raise is failure.
    """

    def __call__(self, __content: str) -> object:
        ...


class GetZekRootKey(Protocol):
    """get_zek_root_key: the root key in a key file.

    zek_file: the path of the key file
    text_argument: what the program adds, such as a passphrase; may be empty
    key: where the key goes
    Returns True, and the 32 bytes of the key in the third argument.
    """

    def __call__(self, __zek_file: str, __text_argument: str, __key: bytearray) -> bool:
        ...


class ModifyBitstream(Protocol):
    """modify_bitstream: has a script change a bitstream.

    data: the bitstream, the script's to change
    Returns the bytes.
    """

    def __call__(self, __data: bytearray) -> bytearray:
        ...


class GetBramChunks(Protocol):
    """get_nwfmt_data: block-RAM or transceiver data in network format, function get_bram_chunks.

    text_1: a text, such as the path of the design
    dict_1: settings
    dict_2: settings
    text_2: a text, such as the name of a hash
    dict_3: settings
    dict_4: settings
    Returns a list of bytearrays.
    """

    def __call__(
        self,
        __text_1: str,
        __dict_1: Dict[str, str],
        __dict_2: Dict[str, str],
        __text_2: str,
        __dict_3: Dict[str, str],
        __dict_4: Dict[str, str],
    ) -> List[bytearray]:
        ...


class GetBramHashAndSize(Protocol):
    """get_nwfmt_data: block-RAM or transceiver data in network format, function get_bram_hash_and_size.

    text_1: a text, such as the path of the design
    dict_1: settings
    dict_2: settings
    text_2: a text, such as the name of a hash
    dict_3: settings
    dict_4: settings
    Returns a list of two: a bytearray (the hash) and an int (the size).
    """

    def __call__(
        self,
        __text_1: str,
        __dict_1: Dict[str, str],
        __dict_2: Dict[str, str],
        __text_2: str,
        __dict_3: Dict[str, str],
        __dict_4: Dict[str, str],
    ) -> List[Union[bytearray, int]]:
        ...


class GetXcvrChunks(Protocol):
    """get_nwfmt_data: block-RAM or transceiver data in network format, function get_xcvr_chunks.

    text_1: a text, such as the path of the design
    dict_1: settings
    dict_2: settings
    text_2: a text, such as the name of a hash
    dict_3: settings
    dict_4: settings
    Returns a list of bytearrays.
    """

    def __call__(
        self,
        __text_1: str,
        __dict_1: Dict[str, str],
        __dict_2: Dict[str, str],
        __text_2: str,
        __dict_3: Dict[str, str],
        __dict_4: Dict[str, str],
    ) -> List[bytearray]:
        ...


class GetXcvrHashAndSize(Protocol):
    """get_nwfmt_data: block-RAM or transceiver data in network format, function get_xcvr_hash_and_size.

    text_1: a text, such as the path of the design
    dict_1: settings
    dict_2: settings
    text_2: a text, such as the name of a hash
    dict_3: settings
    dict_4: settings
    Returns a list of two: a bytearray (the hash) and an int (the size).
    """

    def __call__(
        self,
        __text_1: str,
        __dict_1: Dict[str, str],
        __dict_2: Dict[str, str],
        __text_2: str,
        __dict_3: Dict[str, str],
        __dict_4: Dict[str, str],
    ) -> List[Union[bytearray, int]]:
        ...


class GenerateRim(Protocol):
    """generate_rim: makes a reference-integrity manifest.

    rbf_file: the path of the raw binary configuration file
    family: the device family
    rim_number: the number of the manifest
    output_file: the path of the file that is to be written
    Returns anything, None too; to return is success, to raise is failure.
    """

    def __call__(self, __rbf_file: str, __family: str, __rim_number: int, __output_file: str) -> object:
        ...


class ExecuteMysql(Protocol):
    """execute_mysql: asks a database.

    Returns the text, a str (of no class derived from it) or UTF-8 bytes; it ends at its first zero.
    """

    def __call__(self) -> Union[str, bytes]:
        ...


class SyncP4file(Protocol):
    """sync_p4file: fetches a depot file into a folder.

    folder: the folder that the file goes into
    p4source: the file's place in the depot
    Returns the text; it ends at its first zero character.
    """

    def __call__(self, __folder: str, __p4source: str) -> str:
        ...
