#!/usr/bin/env python3
"""Marks the tracks disliked in Music as disliked in the catalogue.

    import_music_dislikes.py --db DB --xml LIBRARY_XML

A dislike is only ever added: one the user set here stays.

Exit status: 0 done, 1 failed (one line on stderr saying why), 2 bad usage.
"""

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import music_library as ml  # noqa: E402


def main():
    args = ml.parse_args("Import the tracks disliked in Music")
    library = ml.load_library(args.xml)
    conn = ml.open_catalogue(args.db)

    def work():
        matcher = ml.Matcher(conn)
        disliked = marked = 0
        for _, pid, path, track in ml.tracks(library):
            if track.get("Disliked") is not True:
                continue
            disliked += 1
            row = matcher.find(pid, path)
            if row is not None:
                conn.execute("UPDATE tracks SET disliked = 1 WHERE id = ?", (row,))
                marked += 1
        return disliked, marked

    disliked, marked = ml.in_transaction(conn, work)
    ml.progress(f"dislikes: {marked} of {disliked} disliked tracks matched")


if __name__ == "__main__":
    sys.exit(ml.run(main))
