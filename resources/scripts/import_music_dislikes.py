#!/usr/bin/env python3
"""Marks the tracks disliked in Music as disliked in the catalogue.

    import_music_dislikes.py --db DB --xml LIBRARY_XML --op-id ID --op-name NAME

A dislike only fills a track whose disliked mark was never set (NULL; a 0 is
the user clearing it here) and that the user has not loved. Every change is
recorded in the history under the given operation.

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

    def work(history):
        matcher = ml.Matcher(conn, history)
        disliked = marked = 0
        for _, pid, path, track in ml.tracks(library):
            if track.get("Disliked") is not True:
                continue
            disliked += 1
            row = matcher.find(pid, path)
            if row is not None:
                history.fill("tracks", row, "disliked", 1,
                             when="disliked IS NULL AND COALESCE(loved, 0) = 0")
                marked += 1
        return disliked, marked

    disliked, marked = ml.journaled(conn, args, work)
    ml.progress(f"dislikes: {marked} of {disliked} disliked tracks matched")


if __name__ == "__main__":
    sys.exit(ml.run(main))
