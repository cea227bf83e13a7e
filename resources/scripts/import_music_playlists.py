#!/usr/bin/env python3
"""Brings Music's playlists and playlist folders into the catalogue.

    import_music_playlists.py --db DB --xml LIBRARY_XML

They land under the source "music", nested as in Music: folders as crates,
playlists as playlists, each remembered by its persistent id so that running
this again updates them in place. A playlist's members are replaced by the
ones Music has, in Music's order; tracks missing from the catalogue are left
out. Lists Music keeps itself (Library, Music, Downloaded…) are skipped, and
playlists removed from Music since are kept.

Exit status: 0 done, 1 failed (one line on stderr saying why), 2 bad usage.
"""

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import music_library as ml  # noqa: E402


def user_playlists(library):
    lists = library.get("Playlists")
    if not isinstance(lists, list):
        return []
    out = []
    for entry in lists:
        if not isinstance(entry, dict) or any(entry.get(k) for k in ("Master", "Distinguished Kind")):
            continue
        if entry.get("Visible") is False:
            continue
        pid = ml.pid_text(entry.get("Playlist Persistent ID", ""))
        name = entry.get("Name")
        if pid is None or not isinstance(name, str):
            continue
        out.append((pid, entry))
    return out


def music_source(conn):
    row = conn.execute("SELECT id FROM sources WHERE name = 'music' ORDER BY id LIMIT 1").fetchone()
    if row:
        return row[0]
    return conn.execute(
        "INSERT INTO sources(name, imported_at) VALUES('music', strftime('%s','now'))"
    ).lastrowid


def main():
    args = ml.parse_args("Import Music's playlists and folders")
    library = ml.load_library(args.xml)
    conn = ml.open_catalogue(args.db)

    def work():
        source = music_source(conn)
        conn.execute("UPDATE sources SET imported_at = strftime('%s','now') WHERE id = ?", (source,))
        track_rows = {}
        matcher = ml.Matcher(conn)
        for track_id, pid, path, _ in ml.tracks(library):
            row = matcher.find(pid, path)
            if row is not None:
                track_rows[track_id] = row

        lists = user_playlists(library)
        ids = {}
        for order, (pid, entry) in enumerate(lists):
            kind = "crate" if entry.get("Folder") else "playlist"
            row = conn.execute(
                "SELECT id FROM playlists WHERE music_pid = ? AND source_id = ? LIMIT 1",
                (pid, source)).fetchone()
            if row:
                ids[pid] = row[0]
                conn.execute("UPDATE playlists SET name = ?, kind = ?, sort_order = ? WHERE id = ?",
                             (entry["Name"], kind, order, row[0]))
            else:
                ids[pid] = conn.execute(
                    "INSERT INTO playlists(source_id, name, kind, sort_order, music_pid) "
                    "VALUES(?, ?, ?, ?, ?)", (source, entry["Name"], kind, order, pid)).lastrowid

        # Parents after every list exists: Music may list a child before its folder.
        for pid, entry in lists:
            parent = ml.pid_text(entry.get("Parent Persistent ID", "")) if entry.get(
                "Parent Persistent ID") is not None else None
            parent_id = ids.get(parent) if parent != pid else None
            conn.execute("UPDATE playlists SET parent_id = ? WHERE id = ?", (parent_id, ids[pid]))
        break_cycles(conn, list(ids.values()))

        members = 0
        for pid, entry in lists:
            conn.execute("DELETE FROM playlist_tracks WHERE playlist_id = ?", (ids[pid],))
            if entry.get("Folder"):
                continue
            items = entry.get("Playlist Items")
            position = 0
            for item in items if isinstance(items, list) else []:
                if not isinstance(item, dict):
                    continue
                row = track_rows.get(str(item.get("Track ID")))
                if row is None:
                    continue
                conn.execute(
                    "INSERT OR IGNORE INTO playlist_tracks(playlist_id, track_id, position) "
                    "VALUES(?, ?, ?)", (ids[pid], row, position))
                position += 1
            members += position
        return len(lists), members

    written, members = ml.in_transaction(conn, work)
    ml.progress(f"playlists: {written} written, {members} entries")


def break_cycles(conn, ids):
    # A damaged export can make folders each other's parents; such a loop
    # would hide its lists from every tree, so its first list goes to the top.
    for start in ids:
        seen = {start}
        current = start
        while True:
            row = conn.execute("SELECT parent_id FROM playlists WHERE id = ?", (current,)).fetchone()
            if row is None or row[0] is None:
                break
            if row[0] in seen:
                conn.execute("UPDATE playlists SET parent_id = NULL WHERE id = ?", (current,))
                break
            seen.add(row[0])
            current = row[0]


if __name__ == "__main__":
    sys.exit(ml.run(main))
