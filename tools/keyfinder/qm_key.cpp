#include "tools/keyfinder/qm_key.h"

#include <dsp/keydetection/GetKeyMode.h>

#include <algorithm>
#include <cmath>
#include <memory>

namespace orvel::keyfinder {
namespace {

// About -70 dBFS: quieter blocks are fades, gaps and dither, whose chroma is
// noise. (The estimator reports C major for pure silence.)
constexpr double kSilentRms = 3e-4;

}  // namespace

std::vector<BlockStrengths> analyseBlocks(std::span<const float> mono, int rate,
                                          const QmKeySettings& settings) {
  std::vector<BlockStrengths> blocks;
  if (rate <= 0 || mono.empty()) return blocks;
  auto estimator = std::make_unique<GetKeyMode>(rate, float(settings.tuningHz),
                                                settings.hpcpAverage, settings.medianAverage);
  const size_t blockSize = estimator->getBlockSize();
  const size_t hop = estimator->getHopSize();
  if (blockSize == 0 || hop == 0) return blocks;
  std::vector<double> buffer(blockSize);
  // A recording shorter than one block is read as one block, padded with
  // silence; otherwise a partial last block is left out.
  for (size_t start = 0; start < mono.size() && (start == 0 || start + blockSize <= mono.size());
       start += hop) {
    const size_t n = std::min(blockSize, mono.size() - start);
    double energy = 0;
    for (size_t i = 0; i < n; ++i) {
      buffer[i] = mono[start + i];
      energy += buffer[i] * buffer[i];
    }
    std::fill(buffer.begin() + long(n), buffer.end(), 0.0);
    estimator->process(buffer.data());
    BlockStrengths block;
    const double* strengths = estimator->getKeyStrengths();
    std::copy(strengths, strengths + block.strengths.size(), block.strengths.begin());
    block.rms = std::sqrt(energy / double(blockSize));
    blocks.push_back(block);
  }
  return blocks;
}

std::optional<KeyChoice> decideKey(std::span<const BlockStrengths> blocks,
                                   const QmKeySettings& settings) {
  std::array<double, 24> score{};
  bool heard = false;
  for (const BlockStrengths& b : blocks) {
    if (!(b.rms >= kSilentRms) || !std::all_of(b.strengths.begin(), b.strengths.end(),
                                               [](double s) { return std::isfinite(s); }))
      continue;
    for (size_t k = 0; k < score.size(); ++k)
      score[k] += std::exp(settings.sharpness * b.strengths[k]);
    heard = true;
  }
  if (!heard) return std::nullopt;
  const int best = int(std::max_element(score.begin(), score.end()) - score.begin());
  return KeyChoice{best % 12, best >= 12};
}

}  // namespace orvel::keyfinder
