#include "tools/keyfinder/wav_reader.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <string_view>

namespace orvel::keyfinder {
namespace {

constexpr uint16_t kPcm = 1;
constexpr uint16_t kFloat = 3;
constexpr uint16_t kExtensible = 0xFFFE;
// More channels than any real recording has; a guard against nonsense headers.
constexpr int kMaxChannels = 256;

uint16_t u16(const uint8_t* p) {
  return uint16_t(p[0] | p[1] << 8);
}

uint32_t u32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

bool tagIs(const uint8_t* p, std::string_view tag) {
  return std::memcmp(p, tag.data(), 4) == 0;
}

struct Format {
  uint16_t encoding = 0;  // kPcm or kFloat
  int channels = 0;
  int rate = 0;
  int bytesPerSample = 0;
};

std::optional<Format> parseFormat(std::span<const uint8_t> chunk) {
  if (chunk.size() < 16) return std::nullopt;
  Format f;
  f.encoding = u16(&chunk[0]);
  f.channels = u16(&chunk[2]);
  const uint32_t rate = u32(&chunk[4]);
  const int bits = u16(&chunk[14]);
  // The extension's sub-format GUID starts with the plain format tag.
  if (f.encoding == kExtensible) {
    if (chunk.size() < 26) return std::nullopt;
    f.encoding = u16(&chunk[24]);
  }
  if (f.channels < 1 || f.channels > kMaxChannels || rate == 0 || rate > 1'000'000)
    return std::nullopt;
  f.rate = int(rate);
  f.bytesPerSample = bits / 8;
  const bool pcm = f.encoding == kPcm && bits % 8 == 0 && bits >= 16 && bits <= 32;
  const bool ieee = f.encoding == kFloat && bits == 32;
  if (!pcm && !ieee) return std::nullopt;
  return f;
}

float sampleAt(const uint8_t* p, const Format& f) {
  if (f.encoding == kFloat) {
    float x;
    const uint32_t bits = u32(p);
    std::memcpy(&x, &bits, sizeof x);
    return std::isfinite(x) ? x : 0.0f;
  }
  switch (f.bytesPerSample) {
    case 2:
      return float(int16_t(u16(p))) / 32768.0f;
    case 3:
      // Into the top of an int32 so the sign comes along.
      return float(int32_t(uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24)) /
             2147483648.0f;
    default:
      return float(int32_t(u32(p))) / 2147483648.0f;
  }
}

}  // namespace

std::optional<WavAudio> parseWav(std::span<const uint8_t> bytes) {
  if (bytes.size() < 12 || !tagIs(&bytes[0], "RIFF") || !tagIs(&bytes[8], "WAVE"))
    return std::nullopt;
  std::optional<Format> format;
  size_t at = 12;
  while (bytes.size() - at >= 8) {
    const uint8_t* header = &bytes[at];
    const size_t size = u32(header + 4);
    at += 8;
    const size_t available = std::min(size, bytes.size() - at);
    const auto body = bytes.subspan(at, available);
    if (tagIs(header, "fmt ")) {
      format = parseFormat(body);
      if (!format) return std::nullopt;
    } else if (tagIs(header, "data")) {
      if (!format) return std::nullopt;
      const size_t frameBytes = size_t(format->channels) * size_t(format->bytesPerSample);
      const size_t frames = body.size() / frameBytes;
      WavAudio audio;
      audio.rate = format->rate;
      audio.channels = format->channels;
      audio.mono.resize(frames);
      for (size_t i = 0; i < frames; ++i) {
        const uint8_t* frame = body.data() + i * frameBytes;
        // In double: float samples near the top of their range would add up to infinity.
        double sum = 0;
        for (int c = 0; c < format->channels; ++c)
          sum += sampleAt(frame + size_t(c) * size_t(format->bytesPerSample), *format);
        audio.mono[i] = float(sum / format->channels);
      }
      return audio;
    }
    // Chunks are padded to an even length.
    if (size >= bytes.size() - at) break;
    at += size + (size & 1);
  }
  return std::nullopt;
}

std::optional<WavAudio> readWav(const std::filesystem::path& path) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  if (ec) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> bytes(size);
  if (!in.read(reinterpret_cast<char*>(bytes.data()), std::streamsize(size))) return std::nullopt;
  return parseWav(bytes);
}

}  // namespace orvel::keyfinder
