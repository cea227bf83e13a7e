// What the fuzz targets hold the readers to. A broken promise traps, so
// libFuzzer keeps the input that broke it; a check here only asserts what a
// reader's header says, never how it happens to get there.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/formats/serato_tags.h"
#include "core/text/path_norm.h"

namespace orvel::fuzz {

inline void require(bool ok) {
  if (!ok) __builtin_trap();
}

// Positions come from IEEE floats and may be NaN; two runs must agree bit for bit.
inline bool sameBits(double a, double b) {
  return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}

inline bool sameBits(const std::optional<double>& a, const std::optional<double>& b) {
  return a.has_value() == b.has_value() && (!a || sameBits(*a, *b));
}

inline bool sameCue(const SeratoCue& a, const SeratoCue& b) {
  return a.index == b.index && sameBits(a.positionMs, b.positionMs) && a.colorHex == b.colorHex &&
         a.name == b.name;
}

inline bool sameLoop(const SeratoLoop& a, const SeratoLoop& b) {
  return a.index == b.index && sameBits(a.startMs, b.startMs) && sameBits(a.endMs, b.endMs) &&
         a.colorHex == b.colorHex && a.locked == b.locked && a.name == b.name;
}

inline bool sameAnchor(const SeratoGridAnchor& a, const SeratoGridAnchor& b) {
  return sameBits(a.positionSec, b.positionSec) && sameBits(a.bpm, b.bpm) &&
         a.beatsToNext == b.beatsToNext;
}

template <typename T, typename Same>
bool sameList(std::span<const T> a, std::span<const T> b, Same same) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (!same(a[i], b[i])) return false;
  return true;
}

inline bool sameTags(const SeratoFileTags& a, const SeratoFileTags& b) {
  return sameList<SeratoCue>(a.cues, b.cues, sameCue) &&
         sameList<SeratoLoop>(a.loops, b.loops, sameLoop) &&
         sameList<SeratoGridAnchor>(a.gridAnchors, b.gridAnchors, sameAnchor) &&
         a.trackColorHex == b.trackColorHex && a.bpmLocked == b.bpmLocked;
}

// A whole number a 32-bit field can hold: milliseconds are stored that way.
inline bool isU32(double v) {
  return v >= 0 && v <= 4294967295.0 && v == static_cast<uint64_t>(v);
}

inline bool isUpperHexColor(const std::string& s) {
  if (s.size() != 7 || s[0] != '#') return false;
  for (size_t i = 1; i < s.size(); ++i)
    if (!((s[i] >= '0' && s[i] <= '9') || (s[i] >= 'A' && s[i] <= 'F'))) return false;
  return true;
}

inline void checkCue(const SeratoCue& cue) {
  require(cue.index >= 0 && cue.index <= 255);
  require(isU32(cue.positionMs));
  require(!cue.colorHex || isUpperHexColor(*cue.colorHex));
  require(!cue.name || isValidUtf8(*cue.name));
}

inline void checkLoop(const SeratoLoop& loop) {
  require(loop.index >= 0 && loop.index <= 255);
  require(isU32(loop.startMs) && isU32(loop.endMs));
  require(!loop.colorHex || isUpperHexColor(*loop.colorHex));
  require(!loop.name || isValidUtf8(*loop.name));
}

// Parses twice, the second time into tags that already hold an entry of each
// kind: the parsers append, so that entry must stay in front and the rest
// must equal the first parse.
template <typename Parse>
SeratoFileTags parseTwice(std::span<const uint8_t> object, Parse parse) {
  SeratoFileTags first;
  parse(object, first);

  SeratoFileTags again;
  const SeratoCue cue{.index = -1, .positionMs = -1, .colorHex = std::nullopt, .name = "kept"};
  const SeratoLoop loop{.index = -1, .startMs = -1, .endMs = -2, .name = std::nullopt};
  const SeratoGridAnchor anchor{.positionSec = -1, .bpm = std::nullopt, .beatsToNext = 7u};
  again.cues.push_back(cue);
  again.loops.push_back(loop);
  again.gridAnchors.push_back(anchor);
  parse(object, again);
  require(sameCue(again.cues.front(), cue) && sameLoop(again.loops.front(), loop) &&
          sameAnchor(again.gridAnchors.front(), anchor));
  again.cues.erase(again.cues.begin());
  again.loops.erase(again.loops.begin());
  again.gridAnchors.erase(again.gridAnchors.begin());
  require(sameTags(first, again));
  return first;
}

inline SeratoFileTags checkMarkers2(std::span<const uint8_t> object) {
  const SeratoFileTags tags = parseTwice(object, SeratoFileTags::parseMarkers2);
  require(tags.gridAnchors.empty());
  for (const SeratoCue& cue : tags.cues) checkCue(cue);
  for (const SeratoLoop& loop : tags.loops) checkLoop(loop);
  require(!tags.trackColorHex || isUpperHexColor(*tags.trackColorHex));
  // An entry takes at least 16 bytes (a type letter, its NUL, the length, a
  // 10-byte loop body) behind the 2 version bytes, and base64 yields fewer
  // bytes than its text.
  require((tags.cues.size() + tags.loops.size()) * 16 + 2 <= object.size() ||
          tags.cues.size() + tags.loops.size() == 0);
  return tags;
}

inline SeratoFileTags checkBeatGrid(std::span<const uint8_t> object) {
  const SeratoFileTags tags = parseTwice(object, SeratoFileTags::parseBeatGrid);
  require(tags.cues.empty() && tags.loops.empty());
  // Six bytes of version and count, then eight bytes per marker.
  require(tags.gridAnchors.size() <= (object.size() < 6 ? 0 : (object.size() - 6) / 8));
  for (size_t i = 0; i < tags.gridAnchors.size(); ++i) {
    const SeratoGridAnchor& a = tags.gridAnchors[i];
    require(a.bpm.has_value() != a.beatsToNext.has_value());
    require(!a.bpm || i + 1 == tags.gridAnchors.size());
    // A tempo, where there is one, is a finite positive number.
    if (const auto tempo = SeratoFileTags::tempoAt(tags.gridAnchors, i))
      require(std::isfinite(*tempo) && *tempo > 0);
  }
  return tags;
}

// Standard base64 with "=" padding, for building the text Serato stores.
inline std::string base64Encode(std::span<const uint8_t> bytes) {
  static constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t n = std::min<size_t>(3, bytes.size() - i);
    uint32_t acc = uint32_t{bytes[i]} << 16;
    if (n > 1) acc |= uint32_t{bytes[i + 1]} << 8;
    if (n > 2) acc |= bytes[i + 2];
    for (size_t k = 0; k < 4; ++k) out += k <= n ? alphabet[acc >> (18 - 6 * k) & 0x3F] : '=';
  }
  return out;
}

}  // namespace orvel::fuzz
