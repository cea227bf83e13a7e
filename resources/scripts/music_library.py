"""What the Apple Music import scripts share: reading the library XML that
Music (or iTunes) exports, opening the catalogue, and finding a Music track's
row in it.

A track is found first by its persistent id (recorded by an earlier run), then
by its file's path key; a track found by path gets the persistent id recorded,
so a later run still finds it after the file has moved.
"""

import argparse
import os
import plistlib
import sqlite3
import sys
import unicodedata
import urllib.parse

class MigrationError(Exception):
    """A failure the user is told about in one line."""


def parse_args(description):
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--db", required=True, help="the Orvel catalogue")
    parser.add_argument("--xml", required=True, help="the library XML Music exported")
    return parser.parse_args()


def run(main):
    """Runs main(args) and turns its outcome into the exit status."""
    try:
        main()
    except MigrationError as error:
        print(error, file=sys.stderr)
        return 1
    except (sqlite3.Error, OSError) as error:
        print(f"failed: {error}", file=sys.stderr)
        return 1
    return 0


def progress(line):
    print(line, flush=True)


def load_library(path):
    if not os.path.isfile(path):
        raise MigrationError(f"no Music library file at {path}")
    try:
        with open(path, "rb") as f:
            library = plistlib.load(f)
    except Exception as error:  # plistlib lets expat's own errors through, too
        raise MigrationError(f"cannot read the Music library {path}: {error}") from None
    if not isinstance(library, dict) or not isinstance(library.get("Tracks"), dict):
        raise MigrationError(f"{path} is not a Music library")
    return library


def pid_text(value):
    """Music writes persistent ids as hex text; the catalogue keeps 16
    upper-case digits so ids from different exports compare equal."""
    if isinstance(value, int):
        number = value
    else:
        try:
            number = int(str(value), 16)
        except ValueError:
            return None
    if number < 0 or number >= 1 << 64:
        return None
    return f"{number:016X}"


def location_path(url):
    if not isinstance(url, str) or not url.startswith("file://"):
        return None
    parsed = urllib.parse.urlsplit(url)
    return urllib.parse.unquote(parsed.path) or None


def tracks(library):
    """(track id, persistent id, path, the track's dict) of every track."""
    for key, track in library["Tracks"].items():
        if not isinstance(track, dict):
            continue
        track_id = track.get("Track ID", key)
        yield (str(track_id), pid_text(track.get("Persistent ID", "")),
               location_path(track.get("Location")), track)


def path_key(path):
    # The catalogue's key: NFC, then full lower-casing, as its orvel_norm does.
    return unicodedata.normalize("NFC", path).lower()


def open_catalogue(path):
    if not os.path.isfile(path):
        raise MigrationError(f"no catalogue at {path}")
    try:
        conn = sqlite3.connect(path, isolation_level=None)
        conn.create_function("orvel_norm", 1,
                             lambda s: None if s is None else path_key(s),
                             deterministic=True)
        conn.execute("PRAGMA busy_timeout = 10000")
        conn.execute("SELECT music_pid FROM tracks LIMIT 1").fetchall()
    except sqlite3.Error as error:
        raise MigrationError(f"cannot read the catalogue {path}: {error}") from None
    return conn


LIVE = "merged_into IS NULL AND COALESCE(removed, 0) = 0"


class Matcher:
    """Finds catalogue rows for Music tracks inside the caller's transaction."""

    def __init__(self, conn):
        self.conn = conn

    def find(self, pid, path):
        if pid:
            row = self.conn.execute(
                f"SELECT id FROM tracks WHERE music_pid = ? AND {LIVE} LIMIT 1", (pid,)
            ).fetchone()
            if row:
                return row[0]
        if not path:
            return None
        row = self.conn.execute(
            f"SELECT id FROM tracks WHERE path_norm = ? AND {LIVE} LIMIT 1", (path_key(path),)
        ).fetchone()
        if row is None:
            return None
        if pid:
            self.conn.execute("UPDATE tracks SET music_pid = ? WHERE id = ?", (pid, row[0]))
        return row[0]


def in_transaction(conn, work):
    conn.execute("BEGIN IMMEDIATE")
    try:
        result = work()
    except BaseException:
        conn.execute("ROLLBACK")
        raise
    conn.execute("COMMIT")
    return result
