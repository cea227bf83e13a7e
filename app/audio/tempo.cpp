#include "app/audio/tempo.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace orvel::audio {
namespace {

constexpr size_t kFrame = 512;
constexpr size_t kMinFrames = 257;

}  // namespace

double foldBPM(double bpm, double bpmCeiling) {
  if (!(bpm > 0) || !std::isfinite(bpm)) return bpm;
  while (bpm < 70) bpm *= 2;
  const double ceiling = bpmCeiling >= kMinUserCeiling ? bpmCeiling : kDefaultCeiling;
  while (bpm > ceiling) bpm /= 2;
  return std::round(bpm * 100) / 100;
}

std::optional<double> detectBPM(std::span<const float> samples, int rate, double bpmCeiling) {
  if (rate <= 0) return std::nullopt;
  const size_t frames = samples.size() / kFrame;
  if (frames < kMinFrames) return std::nullopt;

  // Onsets: how much the energy rose since the previous frame.
  std::vector<double> env(frames, 0.0);
  double previous = 0;
  for (size_t f = 0; f < frames; ++f) {
    double energy = 0;
    const float* x = samples.data() + f * kFrame;
    for (size_t i = 0; i < kFrame; ++i) energy += double(x[i]) * double(x[i]);
    env[f] = f == 0 ? 0.0 : std::max(0.0, energy - previous);
    previous = energy;
  }

  // A beat rarely falls on a whole frame: spread each onset over its
  // neighbours so a lag a fraction off the beat still scores, instead of the
  // nearest whole-frame multiple (two beats, three) winning outright.
  std::vector<double> smooth(frames, 0.0);
  for (size_t f = 1; f + 1 < frames; ++f)
    smooth[f] = 0.25 * env[f - 1] + 0.5 * env[f] + 0.25 * env[f + 1];
  env.swap(smooth);

  const double envRate = double(rate) / kFrame;
  const auto minLag = std::max<size_t>(1, size_t(std::floor(envRate * 60.0 / 200.0)));
  const auto maxLag = size_t(std::ceil(envRate * 60.0 / 60.0));
  if (frames <= maxLag) return std::nullopt;

  size_t best = 0;
  double bestScore = 0;
  for (size_t lag = minLag; lag <= maxLag; ++lag) {
    double score = 0;
    for (size_t i = 0; i + lag < frames; ++i) score += env[i] * env[i + lag];
    if (score > bestScore) {
      bestScore = score;
      best = lag;
    }
  }
  if (best == 0) return std::nullopt;
  return foldBPM(envRate * 60.0 / double(best), bpmCeiling);
}

}  // namespace orvel::audio
