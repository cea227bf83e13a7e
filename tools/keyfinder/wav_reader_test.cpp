#include "tools/keyfinder/wav_reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "core/testing/temp_dir.h"

namespace orvel::keyfinder {
namespace {

// Little-endian bytes, built field by field.
struct Bytes {
  std::vector<uint8_t> b;
  Bytes& put(uint64_t v, int size) {
    for (int i = 0; i < size; ++i) b.push_back(uint8_t(v >> (8 * i)));
    return *this;
  }
  Bytes& tag(const char* t) {
    b.insert(b.end(), t, t + 4);
    return *this;
  }
  Bytes& f32(float v) {
    uint32_t bits;
    std::memcpy(&bits, &v, 4);
    return put(bits, 4);
  }
  Bytes& chunk(const char* t, const Bytes& body, uint32_t declared = 0) {
    tag(t).put(declared ? declared : body.b.size(), 4);
    b.insert(b.end(), body.b.begin(), body.b.end());
    return *this;
  }
};

Bytes fmt(unsigned encoding, unsigned channels, unsigned rate, unsigned bits) {
  const unsigned block = channels * bits / 8;
  return Bytes{}
      .put(encoding, 2)
      .put(channels, 2)
      .put(rate, 4)
      .put(rate * block, 4)
      .put(block, 2)
      .put(bits, 2);
}

// WAVE_FORMAT_EXTENSIBLE: the real format is the first field of the GUID.
Bytes extensible(unsigned subFormat, unsigned channels, unsigned bits) {
  Bytes f = fmt(0xFFFE, channels, 44100, bits).put(22, 2).put(bits, 2).put(4, 4).put(subFormat, 2);
  f.b.resize(f.b.size() + 14, 0xAA);
  return f;
}

std::vector<uint8_t> wav(const Bytes& format, const Bytes& data, uint32_t declaredData = 0,
                         const Bytes& before = {}) {
  Bytes body = Bytes{}.tag("WAVE");
  body.b.insert(body.b.end(), before.b.begin(), before.b.end());
  body.chunk("fmt ", format).chunk("data", data, declaredData);
  return Bytes{}.chunk("RIFF", body).b;
}

TEST(WavReader, ReadsEachSampleLayoutMixedToMono) {
  // 16-bit stereo: the mean of the channels.
  auto audio =
      parseWav(wav(fmt(1, 2, 22050, 16), Bytes{}.put(16384, 2).put(0, 2).put(0x8000, 2).put(0, 2)));
  ASSERT_TRUE(audio);
  EXPECT_EQ(audio->rate, 22050);
  EXPECT_EQ(audio->channels, 2);
  EXPECT_EQ(audio->mono, (std::vector<float>{0.25f, -0.5f}));

  // 24-bit: negative values keep their sign.
  audio = parseWav(wav(fmt(1, 1, 48000, 24), Bytes{}.put(0xC00000, 3).put(0x7FFFFF, 3)));
  ASSERT_TRUE(audio);
  EXPECT_EQ(audio->rate, 48000);
  ASSERT_EQ(audio->mono.size(), 2u);
  EXPECT_FLOAT_EQ(audio->mono[0], -0.5f);
  EXPECT_NEAR(audio->mono[1], 1.0, 1e-6);

  // Extensible float with three channels, after a chunk of odd length and
  // its pad byte; a sample that is not a number counts as silence.
  const Bytes odd = Bytes{}.tag("junk").put(3, 4).put(0x010203, 3).put(0, 1);
  audio = parseWav(
      wav(extensible(3, 3, 32),
          Bytes{}.f32(0.3f).f32(0.6f).f32(-0.3f).f32(1.0f).f32(std::nanf("")).f32(0.5f), 0, odd));
  ASSERT_TRUE(audio);
  ASSERT_EQ(audio->mono.size(), 2u);
  EXPECT_FLOAT_EQ(audio->mono[0], 0.2f);
  EXPECT_FLOAT_EQ(audio->mono[1], 0.5f);

  // Extensible integer, 24 valid bits in 32-bit containers.
  audio = parseWav(wav(extensible(1, 1, 32), Bytes{}.put(0xC0000000u, 4)));
  ASSERT_TRUE(audio);
  EXPECT_EQ(audio->mono, std::vector<float>{-0.5f});

  // A data chunk that claims more than is there (its writer never filled in
  // the size): the whole frames that are there.
  audio = parseWav(wav(fmt(1, 2, 44100, 16), Bytes{}.put(0, 8).put(7, 2), 0xFFFFFFFFu));
  ASSERT_TRUE(audio);
  EXPECT_EQ(audio->mono.size(), 2u);
}

TEST(WavReader, RefusesWhatItCannotRead) {
  const Bytes someData = Bytes{}.put(0x00020001, 4);
  EXPECT_FALSE(parseWav({}));
  auto notRiff = wav(fmt(1, 1, 44100, 16), someData);
  notRiff[0] = 'X';
  EXPECT_FALSE(parseWav(notRiff));
  // 8-bit, 64-bit float, A-law (plain and extensible), no channels, no rate.
  EXPECT_FALSE(parseWav(wav(fmt(1, 1, 44100, 8), someData)));
  EXPECT_FALSE(parseWav(wav(fmt(3, 1, 44100, 64), someData)));
  EXPECT_FALSE(parseWav(wav(fmt(6, 1, 44100, 8), someData)));
  EXPECT_FALSE(parseWav(wav(extensible(6, 1, 16), someData)));
  EXPECT_FALSE(parseWav(wav(fmt(1, 0, 44100, 16), someData)));
  EXPECT_FALSE(parseWav(wav(fmt(1, 1, 0, 16), someData)));
  // A format chunk cut short; data before any format; a file cut inside its header.
  Bytes shortFmt = fmt(1, 1, 44100, 16);
  shortFmt.b.resize(12);
  EXPECT_FALSE(parseWav(wav(shortFmt, someData)));
  const Bytes dataFirst =
      Bytes{}.tag("WAVE").chunk("data", someData).chunk("fmt ", fmt(1, 1, 44100, 16));
  EXPECT_FALSE(parseWav(Bytes{}.chunk("RIFF", dataFirst).b));
  auto cut = wav(fmt(1, 1, 44100, 16), someData);
  cut.resize(30);
  EXPECT_FALSE(parseWav(cut));

  orvel::testing::TempDir dir;
  EXPECT_FALSE(readWav(dir / "absent.wav"));
  EXPECT_FALSE(readWav(dir.path()));
}

}  // namespace
}  // namespace orvel::keyfinder
