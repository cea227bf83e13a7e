"""What the Apple Music import scripts share: reading the library XML that
Music (or iTunes) exports, opening the catalogue, finding a Music track's row
in it, and writing down every change in the catalogue's edit history.

A track is found first by its persistent id (recorded by an earlier run), then
by its file's path key; a track found by path gets the persistent id recorded,
so a later run still finds it after the file has moved.

The three scripts of one migration share one history operation, whose id and
name the program passes in, so the whole migration is undone in one step.
"""

import argparse
import json
import os
import plistlib
import sqlite3
import sys
import time
import unicodedata
import urllib.parse

class MigrationError(Exception):
    """A failure the user is told about in one line."""


def parse_args(description):
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--db", required=True, help="the Orvel catalogue")
    parser.add_argument("--xml", required=True, help="the library XML Music exported")
    parser.add_argument("--op-id", required=True,
                        help="the history operation the changes are recorded under")
    parser.add_argument("--op-name", required=True, help="that operation's name in the history")
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


class History:
    """Makes changes to catalogue rows and writes them down as the program's
    own journal does, so that undoing the operation puts every value back:
    one `history` row per changed field with the old and the new value as
    text (what CAST(... AS TEXT) gives), a row this run created as an "@row"
    entry whose old value is NULL and whose new value is the row as a JSON
    object, and a playlist's member list as an "@members" entry holding JSON
    arrays of track ids.

    Entries are kept until finish(), which writes the created rows first
    (undo deletes them last, redo brings them back before anything that
    refers to them) with their final contents. Call it inside the same
    transaction as the changes, so a failed step leaves neither behind."""

    def __init__(self, conn, op_id, op_name):
        self.conn = conn
        self.op_id = op_id
        self.op_name = op_name
        self.created = []  # (table, id), in order
        self.fresh = set()  # the same, to look up
        self.entries = []  # (entity, id, field, old, new)

    def create(self, table, sql, params=()):
        row_id = self.conn.execute(sql, params).lastrowid
        self.created.append((table, row_id))
        self.fresh.add((table, row_id))
        return row_id

    def fill(self, table, row_id, field, value, when="1", params=()):
        """Sets `field` of a row to `value` when `when` (an SQL condition on
        the row, with `params`) holds and the value differs. Returns whether
        it changed."""
        row = self.conn.execute(
            f"SELECT CAST({field} AS TEXT) FROM {table} "
            f"WHERE id = ? AND {field} IS NOT ? AND ({when})",
            (row_id, value, *params)).fetchone()
        if row is None:
            return False
        self.conn.execute(f"UPDATE {table} SET {field} = ? WHERE id = ?", (value, row_id))
        # A row made by this run is recorded whole, as it ends up, by finish().
        if (table, row_id) not in self.fresh:
            self.entries.append((table, row_id, field, row[0], as_text(value)))
        return True

    def set_members(self, playlist_id, track_ids):
        """Makes a playlist hold exactly `track_ids`, in that order."""
        old = [r[0] for r in self.conn.execute(
            "SELECT track_id FROM playlist_tracks WHERE playlist_id = ? ORDER BY position, rowid",
            (playlist_id,))]
        if old == track_ids:
            return
        self.conn.execute("DELETE FROM playlist_tracks WHERE playlist_id = ?", (playlist_id,))
        self.conn.executemany(
            "INSERT OR IGNORE INTO playlist_tracks(playlist_id, track_id, position) "
            "VALUES(?, ?, ?)", [(playlist_id, t, i) for i, t in enumerate(track_ids)])
        self.entries.append(("playlists", playlist_id, "@members", compact(old),
                             compact(track_ids)))

    def finish(self):
        now = int(time.time())
        rows = [(table, row_id, "@row", None, row_json(self.conn, table, row_id))
                for table, row_id in self.created] + self.entries
        self.conn.executemany(
            "INSERT INTO history(op_id, op_name, entity, entity_id, field, old_value, new_value, "
            "at) VALUES(?, ?, ?, ?, ?, ?, ?, ?)",
            [(self.op_id, self.op_name, *row, now) for row in rows])


def as_text(value):
    if value is None or isinstance(value, str):
        return value
    return str(value)


def compact(value):
    return json.dumps(value, ensure_ascii=False, separators=(",", ":"), sort_keys=True)


def row_json(conn, table, row_id):
    """The row as the journal records it: column name to value, where a blob
    is {"hex": ...} and text that is not UTF-8 {"textHex": ...}."""
    columns = [r[0] for r in conn.execute("SELECT name FROM pragma_table_info(?)", (table,))]
    select = ", ".join(f'typeof("{c}"), "{c}"' for c in columns)
    saved = conn.text_factory
    conn.text_factory = bytes
    try:
        row = conn.execute(f"SELECT {select} FROM {table} WHERE id = ?", (row_id,)).fetchone()
    finally:
        conn.text_factory = saved
    if row is None:
        return None
    out = {}
    for i, column in enumerate(columns):
        kind, value = row[2 * i], row[2 * i + 1]
        if kind == b"text":
            try:
                value = value.decode("utf-8")
            except UnicodeDecodeError:
                value = {"textHex": value.hex()}
        elif kind == b"blob":
            value = {"hex": value.hex()}
        out[column] = value
    return compact(out)


class Matcher:
    """Finds catalogue rows for Music tracks inside the caller's transaction."""

    def __init__(self, conn, history):
        self.conn = conn
        self.history = history

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
            self.history.fill("tracks", row[0], "music_pid", pid)
        return row[0]


def journaled(conn, args, work):
    """Runs work(history) in one transaction with its history entries, under
    the operation named by --op-id and --op-name."""
    history = History(conn, args.op_id, args.op_name)
    conn.execute("BEGIN IMMEDIATE")
    try:
        result = work(history)
        history.finish()
    except BaseException:
        conn.execute("ROLLBACK")
        raise
    conn.execute("COMMIT")
    return result
