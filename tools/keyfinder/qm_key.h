// The key of a whole recording from qm-dsp's key estimator. The estimator
// answers block by block (about 0.74 s each at 44.1 kHz) with how strongly
// that block suggests each of the 24 keys; the recording's key is the one
// the blocks suggest most, counted so that a block pointing clearly at one
// key outweighs one that fits several keys about equally.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <vector>

namespace orvel::keyfinder {

struct QmKeySettings {
  double tuningHz = 440;
  // Seconds of chroma the estimator averages before it correlates. Shorter
  // than a block, so every block is judged on its own notes: measured on
  // generated music in all 24 keys, averaging here only blurred the changes
  // of chord that give a key away, and the decision below already looks at
  // every block.
  double hpcpAverage = 0.1;
  // Seconds of answers the estimator median-filters; the decision does not
  // use those answers, so the least work is best.
  double medianAverage = 0.1;
  // How much a clear block outweighs a vague one: each block adds
  // exp(sharpness × strength) to each key.
  double sharpness = 3;
};

// One block: the correlation of its chroma with each key, 0…11 major from C
// then 12…23 minor from C, and how loud it was.
struct BlockStrengths {
  std::array<double, 24> strengths{};
  double rms = 0;
};

std::vector<BlockStrengths> analyseBlocks(std::span<const float> mono, int rate,
                                          const QmKeySettings& settings = {});

struct KeyChoice {
  int pitchClass = 0;  // C = 0
  bool minor = false;
  bool operator==(const KeyChoice&) const = default;
};

// None when every block is (near) silent.
std::optional<KeyChoice> decideKey(std::span<const BlockStrengths> blocks,
                                   const QmKeySettings& settings = {});

inline std::optional<KeyChoice> findKey(std::span<const float> mono, int rate,
                                        const QmKeySettings& settings = {}) {
  return decideKey(analyseBlocks(mono, rate, settings), settings);
}

}  // namespace orvel::keyfinder
