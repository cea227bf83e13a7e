// Tempo from decoded samples: an onset envelope from the energy of 512-sample
// frames, scored by autocorrelation over the lags of 60…200 BPM, then folded
// into the range DJs expect.
#pragma once

#include <optional>
#include <span>

namespace orvel::audio {

// The user's "bpmCeiling" counts only from this value up; below it, and when
// unset, tempos above kDefaultCeiling are halved.
inline constexpr double kMinUserCeiling = 100.0;
inline constexpr double kDefaultCeiling = 140.0;

// Mono samples at `rate`. None when the audio is shorter than 257 envelope
// frames or than the longest lag, or has no onsets at all.
std::optional<double> detectBPM(std::span<const float> samples, int rate, double bpmCeiling = 0);

// The folding alone: doubled while below 70, then halved while above the
// ceiling in force, rounded to two decimals.
double foldBPM(double bpm, double bpmCeiling);

}  // namespace orvel::audio
