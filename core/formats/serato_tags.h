// Serato's per-file tags: the hot cues, saved loops, track colour and grid
// lock of "Serato Markers2" and the beat grid of "Serato BeatGrid", found in
// whatever container the file is (serato_payloads.h). Read only; nothing
// here writes them. A malformed payload contributes what was parsed before
// the fault; nothing throws.
//
// The layouts follow the files Serato writes, which differ from what was
// long assumed in two places: a saved loop's name starts at byte 20 of its
// entry (after the colour at 14..17, a byte and the locked flag at 19), and
// a beat-grid marker that is not the last holds its beat count to the next
// marker as an integer, not a float.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/formats/id3_reader.h"

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
  std::optional<std::string> colorHex;  // "#RRGGBB"
  bool locked = false;
  std::optional<std::string> name;  // "" for a loop saved without one
};

struct SeratoGridAnchor {
  double positionSec = 0;
  std::optional<double> bpm;  // the terminal marker only
  // Every other marker: the beats up to the next marker, from which the
  // tempo of that stretch follows (beats × 60 ÷ seconds to the next).
  std::optional<uint32_t> beatsToNext;
};

struct SeratoFileTags {
  std::vector<SeratoCue> cues;
  std::vector<SeratoLoop> loops;
  std::vector<SeratoGridAnchor> gridAnchors;
  std::optional<std::string> trackColorHex;  // the colour of the track's row in Serato
  std::optional<bool> bpmLocked;             // the beat grid locked against edits

  bool empty() const {
    return cues.empty() && loops.empty() && gridAnchors.empty() && !trackColorHex && !bpmLocked;
  }

  // The payloads of the file, whatever its container, in the order they stand.
  static SeratoFileTags read(const std::filesystem::path& file);
  static SeratoFileTags fromPayloads(std::span<const GEOBFrame> payloads);

  // The tempo of the stretch from anchor `i` to the next: its own for the
  // last, else beats × 60 ÷ the seconds between them; none when that is not
  // a finite positive number.
  static std::optional<double> tempoAt(std::span<const SeratoGridAnchor> anchors, size_t i);

  // Payload parsers; each appends to `into`.
  static void parseMarkers2(std::span<const uint8_t> object, SeratoFileTags& into);
  // The decoded entries ("\x01\x01" then type, length, body each).
  static void parseMarkers2Entries(std::span<const uint8_t> data, SeratoFileTags& into);
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
