// Acoustic fingerprints through Chromaprint, for finding the same recording
// under two files. Like the usual fpcalc tool, only the first two minutes
// count: enough to tell recordings apart, and the cost stays flat for long
// mixes.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace orvel::audio {

inline constexpr double kFingerprintSeconds = 120.0;

// The raw fingerprint (32-bit words, little-endian bytes) of mono audio at
// `rate`; none when the audio is too short to give one.
std::optional<std::vector<uint8_t>> rawFingerprint(std::span<const float> mono, int rate);

}  // namespace orvel::audio
