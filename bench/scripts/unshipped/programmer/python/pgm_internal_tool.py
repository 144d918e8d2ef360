"""Gives back the bitstream that it gets."""


def change_bitstream(data):
    return data
