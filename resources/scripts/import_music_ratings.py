#!/usr/bin/env python3
"""Brings Music's star ratings, loved marks and play counts into the catalogue.

    import_music_ratings.py --db DB --xml LIBRARY_XML

Ratings Music computed from an album's rating are not the user's and are
skipped. A play count only ever grows: plays counted here since are kept.

Exit status: 0 done, 1 failed (one line on stderr saying why), 2 bad usage.
"""

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import music_library as ml  # noqa: E402


def number(value):
    return value if isinstance(value, int) and not isinstance(value, bool) else None


def main():
    args = ml.parse_args("Import Music's ratings, loved marks and play counts")
    library = ml.load_library(args.xml)
    conn = ml.open_catalogue(args.db)

    def work():
        matcher = ml.Matcher(conn)
        total = matched = 0
        for _, pid, path, track in ml.tracks(library):
            total += 1
            row = matcher.find(pid, path)
            if row is None:
                continue
            matched += 1
            rating = number(track.get("Rating"))
            if rating is not None and not track.get("Rating Computed"):
                conn.execute("UPDATE tracks SET rating = ? WHERE id = ?",
                             (max(0, min(100, rating)), row))
            if track.get("Loved") is True or track.get("Favorited") is True:
                conn.execute("UPDATE tracks SET loved = 1 WHERE id = ?", (row,))
            plays = number(track.get("Play Count"))
            if plays:
                conn.execute(
                    "UPDATE tracks SET play_count = ? WHERE id = ? AND COALESCE(play_count, 0) < ?",
                    (plays, row, plays))
        return total, matched

    total, matched = ml.in_transaction(conn, work)
    ml.progress(f"ratings: {matched} of {total} tracks matched")


if __name__ == "__main__":
    sys.exit(ml.run(main))
