#!/usr/bin/env python3
"""Brings Music's star ratings, loved marks and play counts into the catalogue.

    import_music_ratings.py --db DB --xml LIBRARY_XML --op-id ID --op-name NAME

What the user set here wins: Music's rating only fills a track without one
(NULL or 0), and its loved mark one whose loved mark was never set (NULL; a
0 is the user's "unloved") and that is not disliked. Ratings Music computed
from an album's rating are not the user's and are skipped. A play count only
ever grows: plays counted here since are kept. Every change is recorded in the
history under the given operation.

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

    def work(history):
        matcher = ml.Matcher(conn, history)
        total = matched = 0
        for _, pid, path, track in ml.tracks(library):
            total += 1
            row = matcher.find(pid, path)
            if row is None:
                continue
            matched += 1
            rating = number(track.get("Rating"))
            # Music's 0 is "no rating", never a value to bring in.
            if rating is not None and rating > 0 and not track.get("Rating Computed"):
                history.fill("tracks", row, "rating", min(100, rating),
                             when="COALESCE(rating, 0) = 0")
            if track.get("Loved") is True or track.get("Favorited") is True:
                history.fill("tracks", row, "loved", 1,
                             when="loved IS NULL AND COALESCE(disliked, 0) = 0")
            plays = number(track.get("Play Count"))
            if plays is not None and plays > 0:
                history.fill("tracks", row, "play_count", plays,
                             when="COALESCE(play_count, 0) < ?", params=(plays,))
        return total, matched

    total, matched = ml.journaled(conn, args, work)
    ml.progress(f"ratings: {matched} of {total} tracks matched")


if __name__ == "__main__":
    sys.exit(ml.run(main))
