#include "app/audio/decoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "app/audio/audio_file_writer.h"
#include "app/audio/testing/synth.h"
#include "core/testing/audio_files.h"
#include "core/testing/temp_dir.h"

namespace orvel::audio {
namespace {

using testing::sine;

class DecoderTest : public ::testing::Test {
 protected:
  orvel::testing::TempDir dir;
  std::filesystem::path file(const char* name) { return dir.path() / name; }
};

TEST_F(DecoderTest, WavComesBackSampleForSampleAndMixesToTheMean) {
  const int rate = 22050;
  std::vector<std::vector<float>> stereo = {sine(440, 1.0, rate, 0.5), sine(660, 1.0, rate, 0.25)};
  ASSERT_TRUE(writeWav(file("s.wav"), stereo, rate));

  auto info = Decoder::probe(file("s.wav"));
  ASSERT_TRUE(info);
  EXPECT_EQ(info->rate, rate);
  EXPECT_EQ(info->channels, 2);
  EXPECT_TRUE(info->lossless);
  EXPECT_NEAR(info->durationSec, 1.0, 1e-6);

  auto both = Decoder::decodeChannels(file("s.wav"));
  ASSERT_TRUE(both);
  ASSERT_EQ(both->channels.size(), 2u);
  ASSERT_EQ(both->frames(), size_t(rate));
  auto mono = Decoder::decodeMono(file("s.wav"));
  ASSERT_TRUE(mono);
  EXPECT_EQ(mono->rate, rate);
  ASSERT_EQ(mono->samples.size(), size_t(rate));
  for (size_t i = 0; i < mono->samples.size(); i += 97) {
    EXPECT_NEAR(both->channels[0][i], stereo[0][i], 1.0 / 32768);
    EXPECT_NEAR(mono->samples[i], (both->channels[0][i] + both->channels[1][i]) / 2, 1e-6);
  }

  // 16-bit through float and back is exact for a 16-bit mono source.
  ASSERT_TRUE(writeWav(file("m.wav"), stereo[0], rate));
  auto ints = Decoder::decodeMono16(file("m.wav"));
  ASSERT_TRUE(ints);
  for (size_t i = 0; i < ints->size(); i += 31)
    EXPECT_EQ((*ints)[i],
              int16_t(std::lround(std::clamp(stereo[0][i] * 32768.0, -32768.0, 32767.0))));
}

TEST_F(DecoderTest, RangesAndFixedRates) {
  const int rate = 48000;
  // A ramp makes every sample's position readable from its value.
  std::vector<float> ramp(size_t(rate) * 4);
  for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = float(i) / float(ramp.size());
  ASSERT_TRUE(writeWav(file("r.wav"), ramp, rate, WavSample::float32));

  auto part = Decoder::decodeMono(file("r.wav"), {.startSec = 1.5, .maxSeconds = 1.0});
  ASSERT_TRUE(part);
  ASSERT_EQ(part->samples.size(), size_t(rate));
  EXPECT_FLOAT_EQ(part->samples.front(), ramp[size_t(rate * 1.5)]);
  EXPECT_FLOAT_EQ(part->samples.back(), ramp[size_t(rate * 2.5) - 1]);

  auto tail = Decoder::decodeMono(file("r.wav"), {.startSec = 3.5, .maxSeconds = 10});
  ASSERT_TRUE(tail);
  EXPECT_EQ(tail->samples.size(), size_t(rate / 2));

  auto resampled = Decoder::decodeMono(file("r.wav"), {.rate = 44100});
  ASSERT_TRUE(resampled);
  EXPECT_EQ(resampled->rate, 44100);
  EXPECT_NEAR(double(resampled->samples.size()), 4 * 44100.0, 64);
  EXPECT_NEAR(resampled->samples[44100], 0.25, 0.001);
}

TEST_F(DecoderTest, CompressedFormatsDecode) {
  for (auto format : {orvel::testing::AudioFormat::mp3, orvel::testing::AudioFormat::flac,
                      orvel::testing::AudioFormat::m4a, orvel::testing::AudioFormat::ogg,
                      orvel::testing::AudioFormat::aiff}) {
    const auto path = dir.path() / ("t." + std::string(orvel::testing::extensionFor(format)));
    orvel::testing::writeAudioFile(path, format);
    auto mono = Decoder::decodeMono(path);
    ASSERT_TRUE(mono) << path;
    EXPECT_NEAR(mono->seconds(), 2.0, 0.1) << path;
    float peak = 0;
    for (float x : mono->samples) peak = std::max(peak, std::abs(x));
    EXPECT_GT(peak, 0.05) << path;
    auto info = Decoder::probe(path);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->lossless, format == orvel::testing::AudioFormat::flac ||
                                  format == orvel::testing::AudioFormat::aiff)
        << info->codec;
  }
}

TEST_F(DecoderTest, BadFilesGiveNoValue) {
  EXPECT_FALSE(Decoder::decodeMono(file("absent.wav")));
  EXPECT_FALSE(Decoder::probe(file("absent.wav")));

  std::ofstream(file("junk.mp3")) << std::string(5000, 'x');
  EXPECT_FALSE(Decoder::decodeMono(file("junk.mp3")));

  // A FLAC file cut to a third: its header still declares the whole length.
  orvel::testing::writeAudioFile(file("whole.flac"), orvel::testing::AudioFormat::flac);
  ASSERT_TRUE(Decoder::decodeMono(file("whole.flac")));
  const auto size = std::filesystem::file_size(file("whole.flac"));
  std::filesystem::copy_file(file("whole.flac"), file("cut.flac"));
  std::filesystem::resize_file(file("cut.flac"), size / 3);
  EXPECT_FALSE(Decoder::decodeMono(file("cut.flac")));
  EXPECT_FALSE(Decoder::decodeChannels(file("cut.flac")));
  // …while a range inside what is left still decodes.
  EXPECT_TRUE(Decoder::decodeMono(file("cut.flac"), {.maxSeconds = 0.2}));
}

TEST(ToInt16, ScalesRoundsAndClips) {
  EXPECT_EQ(toInt16(0.0f), 0);
  EXPECT_EQ(toInt16(1.0f), 32767);
  EXPECT_EQ(toInt16(-1.0f), -32768);
  EXPECT_EQ(toInt16(2.5f), 32767);
  EXPECT_EQ(toInt16(0.5f), 16384);
  EXPECT_EQ(toInt16(std::nanf("")), 0);
}

}  // namespace
}  // namespace orvel::audio
