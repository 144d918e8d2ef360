"""Gives chunks and counts of what it is asked for in the two texts."""


def get_bram_chunks(text, dict_1, dict_2, kind, dict_3, dict_4):
    count, size = map(int, text.split())
    if kind == "distinct":
        return [bytearray(bytes([index % 251]) * size) for index in range(count)]
    return [bytearray(b"\x07" * size)] * count


def get_bram_hash_and_size(text, dict_1, dict_2, kind, dict_3, dict_4):
    maps = (dict_1, dict_2, dict_3, dict_4)
    if kind == "texts":
        found = "".join(key + value for entries in maps for key, value in entries.items())
        return [bytearray(found.encode()), sum(map(len, maps))]
    return [bytearray(32), sum(map(len, maps))]
