// What a defect scan left in the catalogue: its findings per track and what
// the user decided about them. The store knows nothing of audio; the scanner
// in app/audio names the kinds.
#pragma once

#include <string>

namespace orvel {

struct DefectRow {
  std::string kind;  // "click" | "dropout"
  double positionMs{};
  double severity{};  // a click's height over the local level; a dropout's length in ms
};

// The user's verdict on a track's findings. Any other text is kept as it is
// but means nothing to the program.
inline constexpr const char* kDefectFixed = "fixed";      // a repaired copy was made
inline constexpr const char* kDefectIgnored = "ignored";  // heard, and left as it is

}  // namespace orvel
