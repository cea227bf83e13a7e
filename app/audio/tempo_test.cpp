#include "app/audio/tempo.h"

#include <gtest/gtest.h>

#include <cmath>

#include "app/audio/tap_tempo.h"
#include "app/audio/testing/synth.h"

namespace orvel::audio {
namespace {

TEST(Tempo, FoldsIntoTheRangeDJsExpect) {
  EXPECT_DOUBLE_EQ(foldBPM(150, 0), 75);
  EXPECT_DOUBLE_EQ(foldBPM(150, 99), 75);  // a ceiling under 100 does not count
  EXPECT_DOUBLE_EQ(foldBPM(150, 160), 150);
  EXPECT_DOUBLE_EQ(foldBPM(65, 0), 130);
  EXPECT_DOUBLE_EQ(foldBPM(340, 160), 85);
  EXPECT_DOUBLE_EQ(foldBPM(123.456, 0), 123.46);
}

TEST(Tempo, FindsTheBeatOfGeneratedMusic) {
  for (double bpm : {84.0, 98.0, 112.0, 124.0, 128.0, 138.0}) {
    testing::MusicPiece piece;
    piece.bpm = bpm;
    piece.seconds = 30;
    piece.seed = uint32_t(bpm);
    auto audio = testing::music(piece);
    auto found = detectBPM(audio, piece.rate);
    ASSERT_TRUE(found) << bpm;
    // Whole-frame lags at 86 frames a second: about 1.5 % resolution.
    EXPECT_NEAR(*found, bpm, bpm * 0.02) << bpm;
  }
  // A metronome at 150 BPM is halved under the default ceiling.
  std::vector<float> clicks(44100 * 20, 0.0f);
  for (double t = 0; t < 19.9; t += 60.0 / 150)
    for (size_t i = 0; i < 441; ++i)
      clicks[size_t(t * 44100) + i] = 0.5f * float(std::sin(i * 0.3));
  EXPECT_NEAR(*detectBPM(clicks, 44100), 75, 1.5);
  EXPECT_NEAR(*detectBPM(clicks, 44100, 99), 75, 1.5);
  // With a ceiling of 160 a 150 may stand; whole-frame lags make two beats
  // score as well as one, so either reading is the beat.
  const double raised = *detectBPM(clicks, 44100, 160);
  EXPECT_TRUE(std::abs(raised - 150) < 3 || std::abs(raised - 75) < 1.5) << raised;
}

TEST(Tempo, NoBeatNoTempo) {
  EXPECT_FALSE(detectBPM(std::vector<float>(256 * 512, 0.3f), 44100));  // 256 frames
  EXPECT_FALSE(detectBPM(std::vector<float>(44100 * 10, 0.0f), 44100));
  EXPECT_FALSE(detectBPM(testing::sine(440, 0.5, 44100), 44100));  // shorter than the longest lag
  EXPECT_FALSE(detectBPM(testing::sine(440, 5, 44100), 0));
}

TEST(TapTempo, TapsBecomeATempo) {
  double now = 100;
  TapTempo taps([&] { return now; });
  auto tapEvery = [&](double gap, int n, std::optional<int64_t> track = 1) {
    for (int i = 0; i < n; ++i) {
      now += gap;
      taps.tap(track);
    }
  };
  tapEvery(0.5, 3);
  EXPECT_FALSE(taps.bpm());  // three taps are not enough
  tapEvery(0.5, 1);
  EXPECT_EQ(taps.bpm(), 120.0);
  taps.clear();
  tapEvery(0.25, 4);
  EXPECT_EQ(taps.bpm(), 120.0);  // 240 halved
  taps.clear();
  tapEvery(1.0, 4);
  EXPECT_EQ(taps.bpm(), 120.0);  // 60 doubled

  // A pause over two seconds, or another track, starts over.
  tapEvery(2.5, 1);
  EXPECT_EQ(taps.taps(), 1u);
  EXPECT_FALSE(taps.bpm());
  tapEvery(0.5, 3);
  tapEvery(0.5, 1, 2);
  EXPECT_EQ(taps.taps(), 1u);
  EXPECT_EQ(taps.target(), 2);

  // With five intervals or more the slowest and fastest are left out;
  // only sixteen taps are kept.
  taps.clear();
  for (double gap : {0.5, 0.5, 0.2, 0.5, 1.9, 0.5}) tapEvery(gap, 1);
  EXPECT_EQ(taps.bpm(), 120.0);
  tapEvery(0.46, 30);
  EXPECT_EQ(taps.taps(), 16u);
  EXPECT_EQ(taps.bpm(), 130.4);

  // Taps closer than 50 ms are not a tempo.
  taps.clear();
  tapEvery(0.04, 5);
  EXPECT_FALSE(taps.bpm());
}

}  // namespace
}  // namespace orvel::audio
