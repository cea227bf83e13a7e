// Telling production material (sample packs, one-shots, loops, stems) from
// finished songs at import, so that a sample library dropped in with the
// music does not end up in a DJ's song lists. The rule is deliberately small
// and errs towards "song":
//
//  - genre or grouping containing a production term anywhere:
//    "sample pack(s)", "samples", "one shot(s)" / "one-shot(s)" / "oneshot(s)",
//    "loop(s)", "stem(s)", "drum hit(s)", "drum kit(s)", "construction kit(s)";
//  - a comment containing one of the phrases only (a comment is free text,
//    where "loop" or "stem" turn up in passing): "sample pack", "one shot",
//    "construction kit", "royalty free";
//  - a folder on the file's path whose name contains one of the phrases, or
//    whose last word is "samples", "loop(s)", "stem(s)" or "oneshot(s)"
//    ("Vocal Loops", "Samples", "Drum Kits" — but not "Loops and Grooves").
//
// Words are compared case-insensitively, split at anything that is not a
// letter or a digit, so "ONE-SHOTS" and "one_shots" are both "one shots".
#pragma once

#include <string_view>

namespace orvel::Importer {

struct ProductionHints {
  std::string_view genre{}, grouping{}, comment{};
  std::string_view folder{};  // the folder that holds the file
};

bool isProductionMaterial(const ProductionHints& hints);

}  // namespace orvel::Importer
