// Cue points, loops and beat grids of a track.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orvel {

struct CueRow {
  int64_t id = 0;
  int64_t trackId = 0;
  std::optional<int64_t> sourceId;  // none: made in Orvel
  std::string bank = "hot";         // hot | memory
  int64_t index = 0;                // 0–7 for the user's slots, 90/91 for the automatic pair
  double positionMs = 0;
  std::optional<double> lengthMs;  // loops only
  std::string color;
  std::string name;
  std::string kind = "cue";  // cue | loop
};

// A hot-cue slot the store filled, with the operation that undoes it.
struct CueEdit {
  int slot = 0;
  int64_t cueId = 0;
  std::string opId;
};

struct BeatAnchor {
  double posMs = 0;
  double bpm = 0;
};

// One source's beat grid of a track.
struct SourceGrid {
  std::optional<int64_t> sourceId;  // none: made in Orvel
  std::string sourceName;           // serato, orvel, …; "" without a source row
  std::vector<BeatAnchor> anchors;
};

inline constexpr int kCueSlots = 8;
inline constexpr int kAutoInIndex = 90;
inline constexpr int kAutoOutIndex = 91;
inline constexpr const char* kManualCueColor = "#D9A441";
inline constexpr const char* kManualLoopColor = "#2FB8A6";

}  // namespace orvel
