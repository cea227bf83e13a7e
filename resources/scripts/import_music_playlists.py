#!/usr/bin/env python3
"""Brings Music's playlists and playlist folders into the catalogue.

    import_music_playlists.py --db DB --xml LIBRARY_XML --op-id ID --op-name NAME

They land under the source "music", nested as in Music: folders as crates,
playlists as playlists, each remembered by its persistent id so that running
this again updates them in place. A playlist's members are replaced by the
ones Music has, in Music's order; tracks missing from the catalogue are left
out. Lists Music keeps itself (Library, Music, Downloaded…) are skipped, and
playlists removed from Music since are kept. Only what differs is written,
and every change is recorded in the history under the given operation.

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


def music_source(conn, history):
    row = conn.execute("SELECT id FROM sources WHERE name = 'music' ORDER BY id LIMIT 1").fetchone()
    if row:
        return row[0]
    return history.create(
        "sources", "INSERT INTO sources(name, imported_at) VALUES('music', strftime('%s','now'))")


def break_cycles(parents, order):
    # A damaged export can make folders each other's parents; such a loop
    # would hide its lists from every tree, so its first list goes to the top.
    for start in order:
        seen = {start}
        current = start
        while parents.get(current) is not None:
            parent = parents[current]
            if parent in seen:
                parents[current] = None
                break
            seen.add(parent)
            current = parent


def main():
    args = ml.parse_args("Import Music's playlists and folders")
    library = ml.load_library(args.xml)
    conn = ml.open_catalogue(args.db)

    def work(history):
        lists = user_playlists(library)
        if not lists:
            return 0, 0
        source = music_source(conn, history)
        track_rows = {}
        matcher = ml.Matcher(conn, history)
        for track_id, pid, path, _ in ml.tracks(library):
            row = matcher.find(pid, path)
            if row is not None:
                track_rows[track_id] = row

        ids = {}
        for order, (pid, entry) in enumerate(lists):
            kind = "crate" if entry.get("Folder") else "playlist"
            row = conn.execute(
                "SELECT id FROM playlists WHERE music_pid = ? AND source_id = ? LIMIT 1",
                (pid, source)).fetchone()
            if row:
                ids[pid] = row[0]
                for field, value in (("name", entry["Name"]), ("kind", kind), ("sort_order", order)):
                    history.fill("playlists", row[0], field, value)
            else:
                ids[pid] = history.create(
                    "playlists",
                    "INSERT INTO playlists(source_id, name, kind, sort_order, music_pid) "
                    "VALUES(?, ?, ?, ?, ?)", (source, entry["Name"], kind, order, pid))

        # Parents once every list has its row: Music may list a child before its folder.
        parents = {}
        for pid, entry in lists:
            parent = ml.pid_text(entry.get("Parent Persistent ID", "")) if entry.get(
                "Parent Persistent ID") is not None else None
            parents[ids[pid]] = ids.get(parent) if parent != pid else None
        break_cycles(parents, list(ids.values()))
        for row, parent in parents.items():
            history.fill("playlists", row, "parent_id", parent)

        members = 0
        for pid, entry in lists:
            wanted = []
            items = entry.get("Playlist Items")
            # A folder holds lists, never tracks.
            if not entry.get("Folder") and isinstance(items, list):
                for item in items:
                    row = track_rows.get(str(item.get("Track ID"))) if isinstance(item, dict) else None
                    if row is not None:
                        wanted.append(row)
            history.set_members(ids[pid], wanted)
            members += len(wanted)
        return len(lists), members

    in_music, members = ml.journaled(conn, args, work)
    ml.progress(f"playlists: {in_music} in Music, {members} entries")


if __name__ == "__main__":
    sys.exit(ml.run(main))
