#!/usr/bin/env python3
"""Writes crates of the Orvel catalogue into Serato's library folder.

    serato_crates.py send DB CRATE [--serato-dir DIR]

DB is the catalogue (opened read-only); CRATE a playlist id or the names from
the top level down joined by " / ". The crate becomes
DIR/Subcrates/<names joined by "%%">.crate, replaced whole.

Exit status: 0 sent, 1 failed (one line on stderr saying why), 2 bad usage.
"""

import argparse
import os
import sqlite3
import struct
import sys
import tempfile
import urllib.parse

# The columns a crate we write shows in Serato, in this order.
COLUMNS = ("song", "artist", "bpm", "key", "album", "length")
VERSION = "1.0/Serato ScratchLive Crate"
PATH_SEPARATOR = " / "


class SendError(Exception):
    """A failure the user is told about in one line."""


# ---- Serato's tag-length-value records ---------------------------------------


def record(tag, payload):
    return tag.encode("ascii") + struct.pack(">I", len(payload)) + payload


def text_record(tag, value):
    # Serato's texts are UTF-16 big-endian with neither BOM nor terminator.
    return record(tag, value.encode("utf-16-be"))


def crate_bytes(paths):
    out = [text_record("vrsn", VERSION)]
    out.append(record("osrt", text_record("tvcn", "song") + record("brev", b"\x00")))
    for column in COLUMNS:
        out.append(record("ovct", text_record("tvcn", column) + text_record("tvcw", "0")))
    for path in paths:
        # Serato keeps paths relative to the root of their volume.
        out.append(record("otrk", text_record("ptrk", path.lstrip("/"))))
    return b"".join(out)


# ---- the catalogue -----------------------------------------------------------


def open_catalogue(path):
    if not os.path.isfile(path):
        raise SendError(f"no catalogue at {path}")
    uri = "file:" + urllib.parse.quote(os.path.abspath(path), safe="/") + "?mode=ro"
    try:
        conn = sqlite3.connect(uri, uri=True)
        # A file name that is not UTF-8 must not stop the whole crate.
        conn.text_factory = lambda raw: raw.decode("utf-8", "replace")
        conn.execute("SELECT 1 FROM playlists LIMIT 1").fetchall()
    except sqlite3.Error as error:
        raise SendError(f"cannot read the catalogue {path}: {error}") from None
    return conn


def find_by_path(conn, crate):
    parent = None
    for name in crate.split(PATH_SEPARATOR):
        row = conn.execute(
            "SELECT id FROM playlists WHERE name = ? AND parent_id IS ? ORDER BY id LIMIT 1",
            (name, parent),
        ).fetchone()
        if row is None:
            return None
        parent = row[0]
    return parent


def find_crate(conn, crate):
    if crate.isdecimal():
        row = conn.execute("SELECT id FROM playlists WHERE id = ?", (int(crate),)).fetchone()
        if row is not None:
            return row[0]
    # A crate may well be called "2024"; a number that is no id is tried as a name.
    found = find_by_path(conn, crate)
    if found is None:
        raise SendError(f'no crate "{crate}" in the catalogue')
    return found


def name_chain(conn, crate_id):
    names, seen = [], set()
    at = crate_id
    # A damaged tree could hold a cycle; each node is visited once.
    while at is not None and at not in seen:
        seen.add(at)
        row = conn.execute("SELECT name, parent_id FROM playlists WHERE id = ?", (at,)).fetchone()
        if row is None:
            break
        names.append(row[0])
        at = row[1]
    names.reverse()
    return names


def member_paths(conn, crate_id):
    rows = conn.execute(
        "SELECT t.path FROM playlist_tracks pt JOIN tracks t ON t.id = pt.track_id "
        "WHERE pt.playlist_id = ? AND t.path IS NOT NULL AND t.path <> '' "
        "AND COALESCE(t.removed, 0) = 0 "
        "ORDER BY pt.position, pt.rowid",
        (crate_id,),
    )
    paths, seen = [], set()
    for (path,) in rows:
        # A crate lists a file once; Serato would show a repeat as two rows.
        if path not in seen:
            seen.add(path)
            paths.append(path)
    return paths


# ---- writing -----------------------------------------------------------------


def crate_file_name(names):
    # "%%" separates the levels of the chain; a "/" would make a folder.
    return "%%".join(name.replace("/", "-") for name in names) + ".crate"


def write_whole(target, data):
    # Serato may read the folder at any moment: it sees the old crate or the
    # new one, never half of one.
    folder = os.path.dirname(target)
    fd, temp = tempfile.mkstemp(prefix=".orvel-", suffix=".tmp", dir=folder)
    try:
        with os.fdopen(fd, "wb") as out:
            out.write(data)
            out.flush()
            os.fsync(out.fileno())
        os.replace(temp, target)
    except BaseException:
        try:
            os.unlink(temp)
        except OSError:
            pass
        raise


def send(db, crate, serato_dir):
    subcrates = os.path.join(os.path.abspath(serato_dir), "Subcrates")
    if not os.path.isdir(subcrates):
        raise SendError(f"no Serato crate folder at {subcrates}")
    conn = open_catalogue(db)
    try:
        crate_id = find_crate(conn, crate)
        names = name_chain(conn, crate_id)
        paths = member_paths(conn, crate_id)
    except sqlite3.Error as error:
        raise SendError(f"cannot read the catalogue {db}: {error}") from None
    finally:
        conn.close()
    target = os.path.join(subcrates, crate_file_name(names))
    try:
        write_whole(target, crate_bytes(paths))
    except OSError as error:
        raise SendError(f"cannot write {target}: {error.strerror or error}") from None
    noun = "track" if len(paths) == 1 else "tracks"
    return f'Sent "{PATH_SEPARATOR.join(names)}": {len(paths)} {noun} -> {target}'


def main(argv=None):
    parser = argparse.ArgumentParser(description="Write Orvel crates into Serato's library.")
    commands = parser.add_subparsers(dest="command", required=True)
    send_parser = commands.add_parser("send", help="write one crate as a Serato crate file")
    send_parser.add_argument("db", metavar="DB", help="the catalogue, orvel.db")
    send_parser.add_argument("crate", metavar="CRATE", help='a playlist id or "Top / Inner"')
    send_parser.add_argument(
        "--serato-dir",
        metavar="DIR",
        default=os.path.join(os.path.expanduser("~"), "Music", "_Serato_"),
        help="Serato's library folder (default: ~/Music/_Serato_)",
    )
    args = parser.parse_args(argv)
    try:
        print(send(args.db, args.crate, args.serato_dir))
    except SendError as error:
        print(str(error), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
