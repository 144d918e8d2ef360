"""Answers at once."""


def get_username(user):
    return "user " + user


def query_opn_name(name):
    return int(name, 16)
