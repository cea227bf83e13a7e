#include "app/audio/key_detect.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "app/audio/testing/synth.h"

namespace orvel::audio {
namespace {

using testing::keyName;
using testing::music;

TEST(DetectKey, NamesTheKeyOfChordProgressions) {
  struct Case {
    int tonic;
    bool minor;
    double bpm;
    int rate;
  };
  // Both modes, tonics round the octave, sharps and flats, and rates other
  // than 44.1 kHz, which move every bin's frequency.
  const Case cases[] = {{0, false, 120, 44100}, {9, true, 128, 44100}, {8, false, 96, 48000},
                        {6, false, 124, 44100}, {4, true, 110, 22050}, {10, true, 140, 44100},
                        {1, true, 100, 48000},  {7, false, 132, 44100}};
  for (const Case& c : cases) {
    const auto samples = music({.bpm = c.bpm,
                                .tonic = c.tonic,
                                .minor = c.minor,
                                .seconds = 12,
                                .rate = c.rate,
                                .seed = uint32_t(c.tonic + 1)});
    EXPECT_EQ(detectKey(samples, c.rate), std::string(keyName(c.tonic, c.minor)))
        << c.rate << " Hz";
  }

  // Without drums and quieter, the key is the same: only the shape of the
  // chroma counts.
  auto quiet = music({.tonic = 5, .seconds = 8, .drums = false});
  for (float& x : quiet) x *= 0.01f;
  EXPECT_EQ(detectKey(quiet, 44100), "F");
}

TEST(DetectKey, NoKeyWithoutAWholeFrameOfSound) {
  const auto piece = music({.tonic = 9, .minor = true, .seconds = 2});
  EXPECT_EQ(detectKey(std::span(piece).first(4096), 44100), "Am");
  EXPECT_FALSE(detectKey(std::span(piece).first(4095), 44100));
  EXPECT_FALSE(detectKey({}, 44100));
  EXPECT_FALSE(detectKey(piece, 0));
  EXPECT_FALSE(detectKey(piece, -44100));
  // At 200 Hz sampling nothing lies between 110 Hz and 2 kHz.
  EXPECT_FALSE(detectKey(piece, 200));

  const std::vector<float> silence(44100 * 3, 0.0f);
  EXPECT_FALSE(detectKey(silence, 44100));
}

TEST(DetectKey, SeveralThreadsAtOnceAgree) {
  // Analysis runs on several threads; FFTW's planner must not be entered twice.
  std::vector<std::vector<float>> pieces;
  for (int tonic : {0, 3, 7, 11})
    pieces.push_back(music({.tonic = tonic, .minor = tonic % 2 == 1, .seconds = 4}));
  std::vector<std::future<std::optional<std::string>>> runs;
  for (int round = 0; round < 4; ++round)
    for (const auto& piece : pieces)
      runs.push_back(std::async(std::launch::async, [&piece] { return detectKey(piece, 44100); }));
  for (size_t i = 0; i < runs.size(); ++i)
    EXPECT_EQ(runs[i].get(), detectKey(pieces[i % pieces.size()], 44100)) << i;
}

}  // namespace
}  // namespace orvel::audio
