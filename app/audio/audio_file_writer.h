// Writes plain PCM files the rest of the system and other programs read back:
// WAV as 16-bit integers or 32-bit float, AIFF as 24-bit integers. Channels
// come planar (one vector each, same length). The file is written to a
// temporary name beside the target and renamed into place, so a reader never
// sees half a file. Returns false when the file could not be written.
#pragma once

#include <filesystem>
#include <span>
#include <vector>

namespace orvel::audio {

enum class WavSample { int16, float32 };

bool writeWav(const std::filesystem::path& path, std::span<const std::vector<float>> channels,
              int rate, WavSample sample = WavSample::int16);
bool writeWav(const std::filesystem::path& path, std::span<const float> mono, int rate,
              WavSample sample = WavSample::int16);

bool writeAiff(const std::filesystem::path& path, std::span<const std::vector<float>> channels,
               int rate);

}  // namespace orvel::audio
