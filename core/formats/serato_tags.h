// Serato's per-file tags: the hot cues and saved loops of "Serato Markers2"
// and the beat grid of "Serato BeatGrid", two GEOB frames of the file's ID3
// tag. Read only; nothing here writes those frames. A malformed payload
// contributes what was parsed before the fault; nothing throws.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvel {

struct SeratoCue {
  int index = 0;  // slot, 0-based as stored
  double positionMs = 0;
  std::optional<std::string> colorHex;  // "#RRGGBB", upper case
  std::optional<std::string> name;
};

struct SeratoLoop {
  int index = 0;
  double startMs = 0;
  double endMs = 0;
  std::optional<std::string> name;
};

struct SeratoGridAnchor {
  double positionSec = 0;
  std::optional<double> bpm;  // the terminal marker only
  // Non-terminal markers: the beats up to the next marker, from which the
  // tempo of that stretch follows.
  std::optional<double> beatsToNext;
};

struct SeratoFileTags {
  std::vector<SeratoCue> cues;
  std::vector<SeratoLoop> loops;
  std::vector<SeratoGridAnchor> gridAnchors;

  bool empty() const { return cues.empty() && loops.empty() && gridAnchors.empty(); }

  // The two frames of the file's ID3 tag, each frame in the order it stands.
  static SeratoFileTags read(const std::filesystem::path& file);

  // Payload parsers; each appends to `into`.
  static void parseMarkers2(std::span<const uint8_t> object, SeratoFileTags& into);
  static void parseBeatGrid(std::span<const uint8_t> object, SeratoFileTags& into);
  static std::optional<SeratoCue> parseCue(std::span<const uint8_t> body);
  static std::optional<SeratoLoop> parseLoop(std::span<const uint8_t> body);

  static constexpr std::string_view kMarkers2 = "Serato Markers2";
  static constexpr std::string_view kBeatGrid = "Serato BeatGrid";
};

// The eight colours the interface offers for colour labels.
struct SeratoColor {
  std::string_view name;
  std::string_view hex;
};

struct SeratoColors {
  static constexpr std::array<SeratoColor, 8> all{{
      {"Red", "#ff9999"},
      {"Orange", "#ffcc99"},
      {"Yellow", "#ffff99"},
      {"Green", "#99ff99"},
      {"Cyan", "#99ffff"},
      {"Blue", "#9999ff"},
      {"Purple", "#ff99ff"},
      {"Grey", "#999999"},
  }};
};

}  // namespace orvel
