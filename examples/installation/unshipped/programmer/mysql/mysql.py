"""Asks a database and returns the rows as text.

    mysql [--no-header] [--database=FILE] SQL
    mysql [--no-header] --host=NAME | --port=NUMBER | --socket=PATH [--user=NAME] [--database=NAME] SQL

With a host, a port or a socket the database is on a MariaDB server, asked through the mariadb (or mysql) command; the
password, if one is needed, is in the environment variable MYSQL_PWD or in the command's own option files. Without
them it is an SQLite file, or, when no file is named, an example in memory: the table devices (name, family, luts,
rams).

The text has a line with the names of the columns and a line for each row, columns separated by tab characters; a tab,
a line break or a backslash within a value is written \\t, \\n or \\\\, and no value as NULL. A statement without rows
gives the empty text.
"""

import argparse
import os
import sys

EXAMPLE = """
CREATE TABLE devices (name TEXT PRIMARY KEY, family TEXT NOT NULL, luts INTEGER NOT NULL, rams INTEGER NOT NULL);
INSERT INTO devices VALUES
    ('NRV010', 'norvane', 10240, 40), ('NRV025', 'norvane', 25600, 96), ('NRV060', 'norvane', 61440, 240),
    ('PLM120', 'pelimor', 122880, 512), ('PLM240', 'pelimor', 245760, 1024), ('TRN04', 'tarn', 4096, 0);
"""

TIMEOUT = 60


class QueryError(Exception):
    pass


class Parser(argparse.ArgumentParser):
    def error(self, message):
        raise QueryError("%s; see --help" % message)


def mysql():
    parser = Parser(prog="mysql", add_help=False, allow_abbrev=False, description="Asks a database.")
    parser.add_argument("--help", action="store_true", help="this text")
    parser.add_argument("--host", metavar="NAME", help="server: its host, 127.0.0.1 with --port alone")
    parser.add_argument("--port", metavar="NUMBER", type=int, help="server: its port")
    parser.add_argument("--socket", metavar="PATH", help="server: its local socket")
    parser.add_argument("--user", metavar="NAME", help="server: the user to log in as")
    parser.add_argument("--database", metavar="NAME", help="SQLite file, or the database on the server")
    parser.add_argument("--no-header", action="store_true", help="leave out the names of the columns")
    parser.add_argument("sql", metavar="SQL", nargs="?", help="the statement")
    options = parser.parse_args(sys.argv[1:])
    if options.help:
        return parser.format_help()
    if not options.sql or not options.sql.strip():
        raise QueryError("no SQL statement is given; see --help")
    if options.host or options.port or options.socket:
        return ask_server(options)
    if options.user:
        raise QueryError("--user is for a server: name it with --host, --port or --socket")
    return ask_file(options)


def escape(value):
    if value is None:
        return "NULL"
    if isinstance(value, bytes):
        return value.hex().upper()
    text = str(value).replace("\\", "\\\\")
    return text.replace("\t", "\\t").replace("\n", "\\n").replace("\0", "\\0")


def ask_file(options):
    import contextlib
    import pathlib
    import sqlite3

    if options.database and not os.path.isfile(options.database):
        raise QueryError("the database file %s does not exist" % options.database)
    place = ":memory:"
    if options.database:
        place = pathlib.Path(options.database).resolve().as_uri() + "?mode=rw"
    try:
        with contextlib.closing(sqlite3.connect(place, uri=True, timeout=10)) as connection:
            if not options.database:
                connection.executescript(EXAMPLE)
            with connection, contextlib.closing(connection.cursor()) as cursor:
                cursor.execute(options.sql)
                if cursor.description is None:
                    return ""
                rows = [] if options.no_header else [[column[0] for column in cursor.description]]
                rows.extend(cursor)
                return "".join("\t".join(escape(value) for value in row) + "\n" for row in rows)
    except (sqlite3.Error, sqlite3.Warning) as error:
        raise QueryError("the database says: %s" % error)


def ask_server(options):
    import shutil
    import subprocess

    command = shutil.which("mariadb") or shutil.which("mysql")
    if not command:
        raise QueryError("neither the command mariadb nor the command mysql is installed, one must ask the server")
    # In binary mode the client takes none of its own commands out of the SQL text, such as one that runs a program.
    arguments = [command, "--batch", "--binary-mode", "--default-character-set=utf8mb4", "--connect-timeout=10"]
    if options.socket:
        arguments += ["--protocol=socket", "--socket=" + options.socket]
    else:
        arguments += ["--protocol=tcp", "--host=" + (options.host or "127.0.0.1")]
        if options.port:
            arguments.append("--port=%d" % options.port)
    if options.user:
        arguments.append("--user=" + options.user)
    if options.database:
        arguments.append("--database=" + options.database)
    if options.no_header:
        arguments.append("--skip-column-names")
    try:
        done = subprocess.run(arguments, input=options.sql.encode("utf-8") + b"\n", stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=TIMEOUT,
                              creationflags=getattr(subprocess, "CREATE_NO_WINDOW", 0))
    except subprocess.TimeoutExpired:
        raise QueryError("the server did not answer within %d seconds" % TIMEOUT)
    if done.returncode != 0:
        lines = done.stderr.decode("utf-8", "replace").strip().splitlines()
        raise QueryError("the server says: %s" % (lines[-1] if lines else "exit status %d" % done.returncode))
    return done.stdout.decode("utf-8", "replace")


if __name__ == "__main__":
    try:
        sys.stdout.write(mysql())
    except QueryError as error:
        sys.exit("error: %s" % error)
