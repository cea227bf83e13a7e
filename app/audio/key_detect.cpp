#include "app/audio/key_detect.h"

#include <array>
#include <cmath>
#include <numbers>
#include <vector>

#include "app/audio/fft.h"
#include "core/text/key_names.h"

namespace orvel::audio {
namespace {

constexpr size_t kFrame = 4096;
// Below 110 Hz the bins are wider than a semitone; above 2 kHz harmonics and
// drums outweigh the notes.
constexpr double kLowHz = 110;
constexpr double kHighHz = 2000;

// Krumhansl and Kessler's probe-tone ratings, tonic first.
constexpr std::array<double, 12> kMajorProfile = {6.35, 2.23, 3.48, 2.33, 4.38, 4.09,
                                                  2.52, 5.19, 2.39, 3.66, 2.29, 2.88};
constexpr std::array<double, 12> kMinorProfile = {6.33, 2.68, 3.52, 5.38, 2.60, 3.53,
                                                  2.54, 4.75, 3.98, 2.69, 3.34, 3.17};

using Chroma = std::array<double, 12>;

// Pearson correlation of the chroma with a profile moved up to `tonic`;
// nullopt when either is flat.
std::optional<double> correlation(const Chroma& chroma, const std::array<double, 12>& profile,
                                  int tonic) {
  double meanC = 0, meanP = 0;
  for (int i = 0; i < 12; ++i) {
    meanC += chroma[i];
    meanP += profile[i];
  }
  meanC /= 12;
  meanP /= 12;
  double cov = 0, varC = 0, varP = 0;
  for (int pc = 0; pc < 12; ++pc) {
    const double c = chroma[pc] - meanC;
    const double p = profile[(pc - tonic + 12) % 12] - meanP;
    cov += c * p;
    varC += c * c;
    varP += p * p;
  }
  if (!(varC > 0) || !(varP > 0)) return std::nullopt;
  return cov / std::sqrt(varC * varP);
}

}  // namespace

std::optional<std::string> detectKey(std::span<const float> samples, int rate) {
  if (rate <= 0 || samples.size() < kFrame) return std::nullopt;

  // Each bin's pitch class, worked out once; only the band in use is read.
  std::vector<int> pitchClass;
  size_t firstBin = 0;
  for (size_t bin = 0; bin < kFrame / 2; ++bin) {
    const double hz = double(bin) * rate / double(kFrame);
    if (hz < kLowHz) {
      firstBin = bin + 1;
      continue;
    }
    if (hz > kHighHz) break;
    const long midi = std::lround(12 * std::log2(hz / 440) + 69);
    pitchClass.push_back(int((midi % 12 + 12) % 12));
  }
  if (pitchClass.empty()) return std::nullopt;

  RealFft fft(kFrame);
  if (!fft.valid()) return std::nullopt;
  std::array<float, kFrame> window;
  for (size_t i = 0; i < kFrame; ++i)
    window[i] = float(0.5 - 0.5 * std::cos(2 * std::numbers::pi * double(i) / kFrame));

  Chroma chroma{};
  const std::span<float> in = fft.input();
  for (size_t start = 0; start + kFrame <= samples.size(); start += kFrame) {
    for (size_t i = 0; i < kFrame; ++i) in[i] = samples[start + i] * window[i];
    fft.forward();
    const auto bins = fft.spectrum().subspan(firstBin, pitchClass.size());
    for (size_t i = 0; i < bins.size(); ++i) chroma[size_t(pitchClass[i])] += std::abs(bins[i]);
  }

  std::optional<std::string> best;
  double bestScore = 0;
  for (bool minor : {false, true})
    for (int tonic = 0; tonic < 12; ++tonic) {
      const auto r = correlation(chroma, minor ? kMinorProfile : kMajorProfile, tonic);
      if (r && (!best || *r > bestScore)) {
        best = KeyColor::standardName(tonic, minor);
        bestScore = *r;
      }
    }
  return best;
}

}  // namespace orvel::audio
