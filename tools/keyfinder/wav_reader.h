// A small reader for the WAV files orvel-keyfinder is given: RIFF WAVE with
// 16-, 24- or 32-bit integer PCM or 32-bit float samples, any number of
// channels, plain or WAVE_FORMAT_EXTENSIBLE. The helper must not need FFmpeg,
// so it reads the one format the app writes for it, and what other programs
// commonly write, itself. Channels are mixed to mono as their mean. Bytes
// that are not such a file give nullopt; nothing here throws.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

namespace orvel::keyfinder {

struct WavAudio {
  std::vector<float> mono;  // in [-1, 1] for integer files
  int rate = 0;
  int channels = 0;  // as stored, before mixing
};

// A data chunk cut short (a file still being written, or one whose writer
// never went back to fill in sizes) gives the whole frames that are there.
std::optional<WavAudio> parseWav(std::span<const uint8_t> bytes);
std::optional<WavAudio> readWav(const std::filesystem::path& path);

}  // namespace orvel::keyfinder
