#!/usr/bin/env python3
"""Writes crates of the Orvel catalogue into Serato's library folder.

    serato_crates.py send DB CRATE [--serato-dir DIR] [--replace]

DB is the catalogue (opened read-only); CRATE a playlist id or the names from
the top level down joined by " / ". The crate becomes
DIR/Subcrates/<names joined by "%%">.crate, replaced whole, its file mode kept.

A crate file this program did not write (Serato's own, or one whose tracks
were changed in Serato since) is only replaced with --replace, which first
keeps the old file as <name>.crate.bak. A crate whose file name another crate
or playlist of the catalogue would also get, or that Serato would read back as
a different crate, is never written.

Exit status: 0 sent, 1 failed, 2 bad usage, 3 refused with nothing written
(each failure and refusal is one line on stderr saying why and what to do).
"""

import argparse
import hashlib
import json
import os
import sqlite3
import stat
import struct
import sys
import tempfile
import unicodedata
import urllib.parse

# The columns a crate we write shows in Serato, in this order.
COLUMNS = ("song", "artist", "bpm", "key", "album", "length")
VERSION = "1.0/Serato ScratchLive Crate"
PATH_SEPARATOR = " / "


class SendError(Exception):
    """A failure the user is told about in one line."""


class Refused(SendError):
    """Nothing was written, and the user has a choice to make."""


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


def records(data):
    """The (tag, payload) records of TLV bytes, or None when they do not
    parse whole."""
    out, at = [], 0
    while at < len(data):
        if at + 8 > len(data):
            return None
        tag = data[at:at + 4]
        (length,) = struct.unpack(">I", data[at + 4:at + 8])
        if at + 8 + length > len(data):
            return None
        out.append((tag, data[at + 8:at + 8 + length]))
        at += 8 + length
    return out


def crate_tracks(data):
    """The track paths of a crate file in order, or None when it is not one."""
    top = records(data)
    if not top or top[0][0] != b"vrsn":
        return None
    paths = []
    for tag, payload in top:
        if tag != b"otrk":
            continue
        for inner_tag, value in records(payload) or []:
            if inner_tag == b"ptrk":
                try:
                    paths.append(value.decode("utf-16-be"))
                except UnicodeDecodeError:
                    return None
    return paths


def track_fingerprint(paths):
    return hashlib.sha256("\0".join(paths).encode("utf-8")).hexdigest()


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


def playlist_tree(conn):
    """id -> (name, parent id) of every playlist and crate."""
    return {row[0]: (row[1], row[2])
            for row in conn.execute("SELECT id, name, parent_id FROM playlists")}


def name_chain(tree, crate_id):
    names, seen = [], set()
    at = crate_id
    # A damaged tree could hold a cycle; each node is visited once.
    while at in tree and at not in seen:
        seen.add(at)
        name, at = tree[at]
        names.append(name)
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


# ---- the file name -------------------------------------------------------------

SEPARATOR = "%%"  # Serato's: Parent%%Child.crate is the crate Child inside Parent


def level_name(name):
    # A "/" cannot be part of a file name. It is written as ":", the way macOS
    # itself keeps a "/" typed into a name in the Finder, rather than replaced
    # by a character a name may hold anyway ("a/b" and "a-b" stay apart).
    return name.replace("/", ":")


def crate_file_name(names):
    return SEPARATOR.join(level_name(name) for name in names) + ".crate"


def read_back(file_name):
    """The chain of names Serato reads from a crate's file name."""
    return file_name[:-len(".crate")].split(SEPARATOR)


def same_file(file_name, folds_case):
    # What the volume cannot tell apart names one file: composed and
    # decomposed accents everywhere, upper and lower case where it folds them.
    key = unicodedata.normalize("NFC", file_name)
    return key.casefold() if folds_case else key


def folds_case(folder):
    flipped = os.path.join(os.path.dirname(folder), os.path.basename(folder).swapcase())
    return flipped != folder and os.path.isdir(flipped)


def check_name(tree, crate_id, names, file_name, subcrates):
    """Refuses a crate Serato would not read back as itself, or whose file
    another crate or playlist of the catalogue would be written to."""
    path = PATH_SEPARATOR.join(names)
    if any(name == "" for name in names):
        raise Refused(f'"{path}" has a crate without a name; name it in Orvel, then send again')
    if read_back(file_name) != [level_name(name) for name in names]:
        raise Refused(
            f'Serato would read {file_name} as "{PATH_SEPARATOR.join(read_back(file_name))}", not '
            f'"{path}": rename it in Orvel so no name holds "%%" or begins or ends with "%", '
            "then send again")
    fold = folds_case(subcrates)
    key = same_file(file_name, fold)
    for other in sorted(tree):
        if other != crate_id and same_file(crate_file_name(name_chain(tree, other)), fold) == key:
            raise Refused(
                f'"{path}" and "{PATH_SEPARATOR.join(name_chain(tree, other))}" (#{other}) would '
                f"both be written as {os.path.join(subcrates, file_name)}; rename one of them in "
                "Orvel, then send again")


# ---- what this program wrote --------------------------------------------------
#
# A crate file is replaced without asking only when nothing in it would be
# lost: it holds exactly what would be written now, or it holds the tracks
# this program last wrote to that file name. The second test looks at the
# track list, not the bytes, because Serato rewrites crate files as it quits
# (column widths, sort order) without the user changing anything; a crate
# whose tracks the user changed in Serato, or one Serato made itself, reads
# as foreign. What was written is kept beside the crates, where it travels
# with the folder (an external drive has its own _Serato_), one fingerprint
# of the track list per file name: a record kept in the catalogue would
# vouch for a folder it no longer matches once the drive moves to another
# computer.

RECORD = ".orvel-sent.json"


def load_record(subcrates):
    try:
        with open(os.path.join(subcrates, RECORD), encoding="utf-8") as f:
            record = json.load(f)
    except (OSError, ValueError):
        return {}
    files = record.get("files") if isinstance(record, dict) else None
    return files if isinstance(files, dict) else {}


def save_record(subcrates, file_name, paths):
    files = load_record(subcrates)
    files[file_name] = {"tracks": track_fingerprint(paths)}
    data = json.dumps({"files": files}, ensure_ascii=False, indent=1, sort_keys=True)
    target = os.path.join(subcrates, RECORD)
    write_whole(target, (data + "\n").encode("utf-8"), file_mode(target))


def written_here(old, new, entry):
    if old == new:
        return True
    if not isinstance(entry, dict):
        return False
    tracks = crate_tracks(old)
    return tracks is not None and track_fingerprint(tracks) == entry.get("tracks")


# ---- writing -----------------------------------------------------------------


def file_mode(target):
    """The mode of the file there, else what a new file gets under the umask."""
    try:
        return stat.S_IMODE(os.stat(target).st_mode)
    except FileNotFoundError:
        mask = os.umask(0)
        os.umask(mask)
        return 0o666 & ~mask


def write_whole(target, data, mode):
    # Serato may read the folder at any moment: it sees the old crate or the
    # new one, never half of one. The temporary file is made private; it gets
    # the mode the crate should have before it takes the crate's name.
    folder = os.path.dirname(target)
    fd, temp = tempfile.mkstemp(prefix=".orvel-", suffix=".tmp", dir=folder)
    try:
        with os.fdopen(fd, "wb") as out:
            out.write(data)
            out.flush()
            os.fchmod(out.fileno(), mode)
            os.fsync(out.fileno())
        os.replace(temp, target)
    except BaseException:
        try:
            os.unlink(temp)
        except OSError:
            pass
        raise


def backup_name(target):
    # An earlier backup may be the only copy of what Serato had; it stays.
    candidate, n = target + ".bak", 1
    while os.path.lexists(candidate):
        n += 1
        candidate = f"{target}.{n}.bak"
    return candidate


def send(db, crate, serato_dir, replace=False):
    subcrates = os.path.join(os.path.abspath(serato_dir), "Subcrates")
    if not os.path.isdir(subcrates):
        raise SendError(f"no Serato crate folder at {subcrates}")
    conn = open_catalogue(db)
    try:
        crate_id = find_crate(conn, crate)
        tree = playlist_tree(conn)
        paths = member_paths(conn, crate_id)
    except sqlite3.Error as error:
        raise SendError(f"cannot read the catalogue {db}: {error}") from None
    finally:
        conn.close()
    names = name_chain(tree, crate_id)
    file_name = crate_file_name(names)
    check_name(tree, crate_id, names, file_name, subcrates)
    target = os.path.join(subcrates, file_name)
    data = crate_bytes(paths)
    written = [path.lstrip("/") for path in paths]

    try:
        with open(target, "rb") as f:
            old = f.read()
    except FileNotFoundError:
        old = None
    except OSError as error:
        raise SendError(f"cannot read {target}: {error.strerror or error}") from None
    kept = None
    if old is not None and not written_here(old, data, load_record(subcrates).get(file_name)):
        if not replace:
            raise Refused(
                f"{target} was not written by Orvel (Serato made it, or its tracks were changed "
                "in Serato since); send again with --replace to replace it (the old file is kept "
                "as a .bak copy)")
        kept = backup_name(target)
    mode = file_mode(target)
    try:
        if kept:
            write_whole(kept, old, mode)
        write_whole(target, data, mode)
    except OSError as error:
        raise SendError(f"cannot write {target}: {error.strerror or error}") from None
    try:
        save_record(subcrates, file_name, written)
    except OSError as error:
        # The crate is there; only the next send will ask for --replace.
        print(f"could not note what was written in {RECORD}: {error.strerror or error}",
              file=sys.stderr)
    noun = "track" if len(paths) == 1 else "tracks"
    also = f" (the old file is kept as {os.path.basename(kept)})" if kept else ""
    return f'Sent "{PATH_SEPARATOR.join(names)}": {len(paths)} {noun} -> {target}{also}'


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
    send_parser.add_argument(
        "--replace",
        action="store_true",
        help="replace a crate file Orvel did not write, keeping it as a .bak copy",
    )
    args = parser.parse_args(argv)
    try:
        print(send(args.db, args.crate, args.serato_dir, args.replace))
    except Refused as refusal:
        print(str(refusal), file=sys.stderr)
        return 3
    except SendError as error:
        print(str(error), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
