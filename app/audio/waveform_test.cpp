#include "app/audio/waveform.h"

#include <gtest/gtest.h>

#include <cmath>

#include "app/audio/audio_file_writer.h"
#include "app/audio/decoder.h"
#include "app/audio/testing/synth.h"
#include "core/testing/audio_files.h"
#include "core/testing/temp_dir.h"

namespace orvel::audio {
namespace {

uint8_t at(const std::vector<uint8_t>& blob, int column, int field) {
  return blob[size_t(column) * 4 + size_t(field)];
}

TEST(WaveformLoader, LengthBoundariesAndLevels) {
  EXPECT_FALSE(WaveformLoader::compute(std::vector<int16_t>(800, 1000)));

  // 801 samples: one per column, the last one left out. Each column's level
  // then follows its single sample.
  std::vector<int16_t> ramp(801);
  for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = int16_t(i * 40);
  ramp[800] = 32767;
  auto blob = WaveformLoader::compute(ramp);
  ASSERT_TRUE(blob);
  ASSERT_EQ(blob->size(), 3200u);
  EXPECT_EQ(at(*blob, 0, 0), 0);  // silence
  // 799 * 40 / 32767 = -0.26 dBFS: (29 - 0.26) / 30 * 255 = 244.3.
  EXPECT_EQ(at(*blob, 799, 0), 244);

  // Digital silence: every byte 0, bands included.
  auto silent = WaveformLoader::compute(std::vector<int16_t>(44100, 0));
  ASSERT_TRUE(silent);
  EXPECT_TRUE(std::all_of(silent->begin(), silent->end(), [](uint8_t b) { return b == 0; }));

  // A full-scale square wave reads 246, not 255.
  auto square = testing::square(100, 1.0, 44100, 1.0);
  auto sq = WaveformLoader::computeFromFloat(square);
  ASSERT_TRUE(sq);
  for (int c : {0, 400, 799}) EXPECT_EQ(at(*sq, c, 0), 246) << c;

  // -20 dBFS RMS: (29 - 20) / 30 * 255 = 76.5.
  auto quiet = testing::sine(1000, 10.0, 44100, 0.1 * std::sqrt(2.0));
  auto q = WaveformLoader::computeFromFloat(quiet);
  ASSERT_TRUE(q);
  EXPECT_NEAR(at(*q, 400, 0), 76, 1);
}

TEST(WaveformLoader, BandsFollowTheSound) {
  const int rate = 44100;
  auto bands = [&](double hz) {
    auto blob = WaveformLoader::computeFromFloat(testing::sine(hz, 2.0, rate, 0.5));
    EXPECT_TRUE(blob);
    return std::array<int, 3>{at(*blob, 400, 1), at(*blob, 400, 2), at(*blob, 400, 3)};
  };
  auto bass = bands(60), voice = bands(700), hiss = bands(9000);
  EXPECT_GT(bass[0], bass[1]);
  EXPECT_GT(bass[0], bass[2]);
  EXPECT_GT(voice[1], voice[0]);
  EXPECT_GT(voice[1], voice[2]);
  EXPECT_GT(hiss[2], hiss[0]);
  EXPECT_GT(hiss[2], hiss[1]);
}

TEST(WaveformLoader, FromAFileAndFromItsFloatSamplesAgree) {
  orvel::testing::TempDir dir;
  testing::MusicPiece piece;
  piece.seconds = 6;
  piece.rate = 48000;
  ASSERT_TRUE(writeWav(dir.path() / "m.wav", testing::music(piece), piece.rate));
  auto fromFile = WaveformLoader::compute(dir.path() / "m.wav");
  auto mono = Decoder::decodeMono(dir.path() / "m.wav");
  ASSERT_TRUE(fromFile && mono);
  EXPECT_EQ(*fromFile, *WaveformLoader::computeFromFloat(mono->samples));

  orvel::testing::writeAudioFile(dir.path() / "t.mp3", orvel::testing::AudioFormat::mp3);
  auto mp3 = WaveformLoader::compute(dir.path() / "t.mp3");
  ASSERT_TRUE(mp3);
  EXPECT_GT(at(*mp3, 400, 0), 0);
  EXPECT_FALSE(WaveformLoader::compute(dir.path() / "missing.mp3"));
}

TEST(LoupeAudio, DecodesOnlyWhenThePlayheadLeavesTheStretch) {
  orvel::testing::TempDir dir;
  // Ten seconds of 100 Hz, then ten of 5 kHz.
  auto low = testing::sine(100, 10.0, 48000, 0.5), high = testing::sine(5000, 10.0, 48000, 0.5);
  low.insert(low.end(), high.begin(), high.end());
  ASSERT_TRUE(writeWav(dir.path() / "two.wav", low, 48000));

  LoupeAudio loupe;
  EXPECT_TRUE(loupe.columns(1000, 2000, 10).empty());
  ASSERT_TRUE(loupe.ensure(dir.path() / "two.wav", 2.0));
  EXPECT_EQ(loupe.rate(), 44100);
  EXPECT_DOUBLE_EQ(loupe.startSec(), 0.0);
  EXPECT_NEAR(double(loupe.samples().size()), 10 * 44100.0, 2);
  EXPECT_TRUE(loupe.ensure(dir.path() / "two.wav", 9.4));
  EXPECT_EQ(loupe.decodes(), 1);
  ASSERT_TRUE(loupe.ensure(dir.path() / "two.wav", 12.0));
  EXPECT_EQ(loupe.decodes(), 2);
  EXPECT_DOUBLE_EQ(loupe.startSec(), 7.0);
  EXPECT_TRUE(loupe.columns(12000, 1000, 0).empty());

  // Across the change at 10 s the bands swap from low to high.
  auto cols = loupe.columns(10000, 2000, 20);
  ASSERT_EQ(cols.size(), 20u);
  EXPECT_GT(cols[2].low, cols[2].high);
  EXPECT_GT(cols[17].high, cols[17].low);
  EXPECT_NEAR(cols[5].level, (20 * std::log10(0.5 / std::sqrt(2.0)) + 29) / 30, 0.01);
  // Past the decoded stretch there is nothing to show.
  auto beyond = loupe.columns(20000, 2000, 4);
  EXPECT_EQ(beyond.back().level, 0.0f);
}

}  // namespace
}  // namespace orvel::audio
