"""Functions that several programmer tools share.

Every call comes in an interpreter session of its own, so each function imports for itself what only it needs.
"""

from pgm_python_reasons import Refusal, tells_reasons

# Ordering part names and their codes. Codes are 32-bit; 0xFFFFFFFF is no code, it stands for "unknown".
OPN_CODES = {
    "NRV010-C100-I2": 0x00000101,
    "NRV010-C100-E3": 0x00000102,
    "NRV025-F256-I2": 0x00000201,
    "NRV025-F256-E3": 0x00000202,
    "NRV060-F484-I2": 0x00000301,
    "PLM120-F780-I1": 0x00010101,
    "PLM240-F1152-I1": 0x00010201,
    "PLM240-F1152-E2": 0x00010202,
    "TRN04-Q48-C1": 0x7FFFFFFF,
    "NRV060-F484-ES": 0x80000301,
    "PLM240-F1152-ES": 0x80010201,
}


@tells_reasons
def get_username(account):
    """The full name of an account of this computer, or the account's own name when it has none.

    The empty text asks for the account that the program runs under.
    """
    try:
        import pwd
    except ImportError:
        return _get_own_name(account)
    import os

    try:
        entry = pwd.getpwnam(account) if account else pwd.getpwuid(os.getuid())
    except KeyError:
        if not account:
            raise Refusal("user id %d has no account on this computer" % os.getuid())
        raise Refusal("there is no account %s on this computer" % account,
                      "account names are case-sensitive; an empty name asks for the current account")
    full_name = entry.pw_gecos.split(",")[0].strip()
    return full_name or entry.pw_name


def _get_own_name(account):
    import getpass

    own = getpass.getuser()
    if account and account.lower() != own.lower():
        raise Refusal("the name of account %s cannot be looked up, only that of the current account" % account)
    return own


@tells_reasons
def query_opn_enum(code):
    """The ordering part name of a code, which may come as a signed or as an unsigned 32-bit number."""
    wanted = code & 0xFFFFFFFF
    for name, known in OPN_CODES.items():
        if known == wanted:
            return name
    raise Refusal("no ordering part has the code 0x%08X" % wanted)


@tells_reasons
def query_opn_name(name):
    """The code of an ordering part name, as a signed 32-bit number."""
    code = OPN_CODES.get(name)
    if code is None:
        import difflib

        near = difflib.get_close_matches(name, OPN_CODES, 3)
        hint = "near names: %s" % ", ".join(near) if near else "names look like %s" % next(iter(OPN_CODES))
        raise Refusal("there is no ordering part %s" % name, hint)
    return code - 0x100000000 if code & 0x80000000 else code


@tells_reasons
def read_mif(file, continuous):
    """[image, width, depth] of a memory text file; see memory_text."""
    from memory_text import read_memory_text

    return read_memory_text(file, continuous)


@tells_reasons
def get_zek_root_key(zek_file, text_argument, key):
    """Writes the root key of a key file into the 32-byte bytearray key; see zek_key."""
    from zek_key import derive_root_key

    derive_root_key(zek_file, text_argument, key)
    return True


@tells_reasons
def sync_p4file(folder, p4source):
    """Fetches a depot file into a folder and says which revision it is; see depot."""
    from depot import sync_file

    return sync_file(folder, p4source)
