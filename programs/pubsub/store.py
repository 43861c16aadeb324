"""What the component keeps, in a database of the private cluster."""

import contextlib
import os
import subprocess
import time
from pathlib import Path

import psycopg2
from psycopg2 import sql

from places import CLUSTER_OWNER, MARKER, SCHEMA, SOCKETS

# The schema that the component finds its tables in, and where the former ones are kept when it begins afresh.
_TABLES, _FORMER = "public", "before_the_change_of_host"
_POLL_SECONDS = 0.02


class StoreProblem(Exception):
    """Why the database cannot be used, for a person."""


def marker_identity(path=MARKER):
    """What tells the marker file from any other that ever had its name; None when there is none. OSError when
    that cannot be told."""
    try:
        inode = os.lstat(path).st_ino
    except FileNotFoundError:
        return None
    # Not the device: its number may be another after the next boot.
    birth = subprocess.run(["/usr/bin/stat", "--format=%.9W", path], capture_output=True, text=True, check=False)
    return f"{inode} {birth.stdout.strip()}"


def open_store(settings, version, identity, say):
    """Makes the role, the database and the tables where they are absent, as soon as the server accepts
    connections, and begins afresh when the store belongs to a marker file that is gone. All of it can be cut off
    anywhere and done again. `version` is the one of the tables that the component knows; `identity` is the marker's, or OSError when it could not be told."""
    _make_database(settings)
    with contextlib.closing(_connect(settings.database)) as connection:
        with connection, connection.cursor() as cursor:
            _take_over(cursor, settings)
            _make_tables(cursor, settings)
            _check_version(cursor, version)
            if isinstance(identity, OSError):
                say.error(f"It cannot be told whether the host has changed: {identity}.")
            else:
                _follow_marker(cursor, settings, identity, say)


def _connect(database):
    """Waits for the server; whoever started it notices when it has ended."""
    while True:
        try:
            return psycopg2.connect(host=SOCKETS, user=CLUSTER_OWNER, dbname=database)
        except psycopg2.OperationalError as problem:
            # The server says why it refuses; where there is none yet, the library does.
            if "FATAL" in str(problem) and "the database system is" not in str(problem):
                raise
        time.sleep(_POLL_SECONDS)


def _make_database(settings):
    if settings.user == CLUSTER_OWNER or settings.user.startswith("pg_"):
        raise StoreProblem(f'the "dbuser" "{settings.user}" is PostgreSQL\'s own')
    if settings.database in ("postgres", "template0", "template1"):
        raise StoreProblem(f'the "dbname" "{settings.database}" is PostgreSQL\'s own')
    user, database = sql.Identifier(settings.user), sql.Identifier(settings.database)
    with contextlib.closing(_connect("postgres")) as connection:
        connection.autocommit = True  # a database is not made in a transaction
        with connection.cursor() as cursor:
            cursor.execute("SELECT FROM pg_roles WHERE rolname = %s", [settings.user])
            if cursor.rowcount == 0:
                cursor.execute(sql.SQL("CREATE ROLE {} LOGIN").format(user))
            cursor.execute("SELECT FROM pg_database WHERE datname = %s", [settings.database])
            if cursor.rowcount == 0:
                cursor.execute(sql.SQL("CREATE DATABASE {} OWNER {} TEMPLATE template0").format(database, user))


def _take_over(cursor, settings):
    """The settings may name another user than the one who made the tables."""
    cursor.execute("SELECT pg_get_userbyid(datdba) FROM pg_database WHERE datname = current_database()")
    owner = cursor.fetchone()[0]
    if owner != settings.user:
        names = sql.Identifier(owner), sql.Identifier(settings.user)
        cursor.execute(sql.SQL("REASSIGN OWNED BY {} TO {}").format(*names))


def _make_tables(cursor, settings):
    cursor.execute("SELECT to_regclass(%s)", [f"{_TABLES}.metadata"])
    if cursor.fetchone()[0] is None:
        _run_schema(cursor, settings)


def _check_version(cursor, version):
    cursor.execute(f"SELECT value FROM {_TABLES}.metadata WHERE key = 'version'")
    row = cursor.fetchone()
    if row is None or row[0] != version:
        raise StoreProblem(f"the tables are of version {row[0] if row else None}, and the component needs {version}")


def _run_schema(cursor, settings):
    cursor.execute(sql.SQL("SET LOCAL ROLE {}").format(sql.Identifier(settings.user)))
    cursor.execute(Path(SCHEMA).read_text(encoding="utf-8"))
    cursor.execute("RESET ROLE")


def _follow_marker(cursor, settings, identity, say):
    """In one transaction with the tables, so that a store never forgets what it belongs to."""
    cursor.execute("CREATE SCHEMA IF NOT EXISTS tessard")
    cursor.execute("CREATE TABLE IF NOT EXISTS tessard.belongs_to (marker text NOT NULL)")
    cursor.execute("SELECT marker FROM tessard.belongs_to")
    row = cursor.fetchone()
    if row is not None and row[0] != identity:
        _begin_afresh(cursor, settings)
        say.info(f'The host has changed ("{MARKER}" is {"another" if identity else "gone"}): nothing is published any '
                 f'more. The former content is in the database schema "{_FORMER}" until the next change.')
    if identity != (row[0] if row else None):
        cursor.execute("DELETE FROM tessard.belongs_to")
        if identity is not None:
            cursor.execute("INSERT INTO tessard.belongs_to VALUES (%s)", [identity])


def _begin_afresh(cursor, settings):
    names = {"tables": sql.Identifier(_TABLES), "former": sql.Identifier(_FORMER),
             "user": sql.Identifier(settings.user)}
    for line in ("DROP SCHEMA IF EXISTS {former} CASCADE", "ALTER SCHEMA {tables} RENAME TO {former}",
                 "CREATE SCHEMA {tables} AUTHORIZATION {user}"):
        cursor.execute(sql.SQL(line).format(**names))
    _run_schema(cursor, settings)
