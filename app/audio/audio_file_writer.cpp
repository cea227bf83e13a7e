#include "app/audio/audio_file_writer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <system_error>

namespace orvel::audio {
namespace {

void putLE(std::string& out, uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(char((v >> (8 * i)) & 0xFF));
}
void putBE(std::string& out, uint64_t v, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out.push_back(char((v >> (8 * i)) & 0xFF));
}

int32_t scaled(float x, double full) {
  const double v = std::clamp(double(x), -1.0, 1.0) * full;
  return int32_t(std::clamp(std::lround(v), long(-full), long(full - 1)));
}

// AIFF stores its rate as an 80-bit IEEE extended float.
void putExtended(std::string& out, double value) {
  int exponent = 0;
  const double mantissa = std::frexp(value, &exponent);  // value = m * 2^e, m in [0.5, 1)
  const uint16_t biased = uint16_t(exponent - 1 + 16383);
  const uint64_t bits = uint64_t(std::ldexp(mantissa, 64));
  putBE(out, value == 0 ? 0 : biased, 2);
  putBE(out, value == 0 ? 0 : bits, 8);
}

bool writeAtomically(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::path tmp = path;
  tmp += ".part";
  {
    std::ofstream f(tmp, std::ios::binary | std::ios::trunc);
    if (!f) return false;
    f.write(bytes.data(), std::streamsize(bytes.size()));
    if (!f.flush()) {
      std::error_code ec;
      std::filesystem::remove(tmp, ec);
      return false;
    }
  }
  std::error_code ec;
  std::filesystem::rename(tmp, path, ec);
  if (ec) std::filesystem::remove(tmp, ec);
  return !ec;
}

size_t framesOf(std::span<const std::vector<float>> channels) {
  size_t n = channels.empty() ? 0 : channels.front().size();
  for (const auto& c : channels) n = std::min(n, c.size());
  return n;
}

}  // namespace

bool writeWav(const std::filesystem::path& path, std::span<const std::vector<float>> channels,
              int rate, WavSample sample) {
  if (channels.empty() || rate <= 0) return false;
  const size_t frames = framesOf(channels);
  const int bytesPer = sample == WavSample::float32 ? 4 : 2;
  const uint64_t dataBytes = uint64_t(frames) * channels.size() * uint64_t(bytesPer);
  if (dataBytes > 0xFFFFFFF0ull) return false;
  std::string out;
  out.reserve(size_t(dataBytes) + 64);
  out += "RIFF";
  putLE(out, 36 + dataBytes + (sample == WavSample::float32 ? 2 : 0), 4);
  out += "WAVEfmt ";
  const bool isFloat = sample == WavSample::float32;
  putLE(out, isFloat ? 18 : 16, 4);
  putLE(out, isFloat ? 3 : 1, 2);  // IEEE float or integer PCM
  putLE(out, channels.size(), 2);
  putLE(out, uint64_t(rate), 4);
  putLE(out, uint64_t(rate) * channels.size() * uint64_t(bytesPer), 4);
  putLE(out, channels.size() * uint64_t(bytesPer), 2);
  putLE(out, uint64_t(bytesPer) * 8, 2);
  if (isFloat) putLE(out, 0, 2);  // cbSize: float WAVs carry the extension field
  out += "data";
  putLE(out, dataBytes, 4);
  for (size_t i = 0; i < frames; ++i) {
    for (const auto& c : channels) {
      if (isFloat) {
        uint32_t bits;
        std::memcpy(&bits, &c[i], 4);
        putLE(out, bits, 4);
      } else {
        putLE(out, uint16_t(int16_t(scaled(c[i], 32768.0))), 2);
      }
    }
  }
  return writeAtomically(path, out);
}

bool writeWav(const std::filesystem::path& path, std::span<const float> mono, int rate,
              WavSample sample) {
  const std::vector<float> one(mono.begin(), mono.end());
  return writeWav(path, std::span<const std::vector<float>>(&one, 1), rate, sample);
}

bool writeAiff(const std::filesystem::path& path, std::span<const std::vector<float>> channels,
               int rate) {
  if (channels.empty() || rate <= 0) return false;
  const size_t frames = framesOf(channels);
  const uint64_t dataBytes = uint64_t(frames) * channels.size() * 3;
  if (dataBytes > 0xFFFFFFC0ull) return false;
  std::string out;
  out.reserve(size_t(dataBytes) + 64);
  out += "FORM";
  putBE(out, 4 + 26 + 16 + dataBytes, 4);
  out += "AIFFCOMM";
  putBE(out, 18, 4);
  putBE(out, channels.size(), 2);
  putBE(out, frames, 4);
  putBE(out, 24, 2);
  putExtended(out, double(rate));
  out += "SSND";
  putBE(out, 8 + dataBytes, 4);
  putBE(out, 0, 4);  // offset
  putBE(out, 0, 4);  // block size
  for (size_t i = 0; i < frames; ++i)
    for (const auto& c : channels) putBE(out, uint32_t(scaled(c[i], 8388608.0)) & 0xFFFFFF, 3);
  return writeAtomically(path, out);
}

}  // namespace orvel::audio
