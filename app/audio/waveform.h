// The overview waveform: 800 columns of four bytes (level, low, mid, high)
// computed once per track and stored, and the loupe: a short stretch around
// the playhead decoded afresh and cut into as many columns as the view asks
// for, with the same band split.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

namespace orvel::audio {

class WaveformLoader {
 public:
  WaveformLoader() = delete;
  static constexpr int kColumns = 800;
  static constexpr size_t kBytes = 3200;
  // The two one-pole low-pass coefficients, computed for 44,100 Hz (200 Hz
  // and 2 kHz) and used unchanged whatever the file's rate, so that a stored
  // blob always means the same thing.
  static constexpr float kLowCoefficient = 0.028093012f;
  static constexpr float kMidCoefficient = 0.24794944f;

  // Decodes the file to mono 16-bit at its own rate and computes the blob;
  // none for an unreadable file, a file without audio or under 801 samples.
  static std::optional<std::vector<uint8_t>> compute(const std::filesystem::path& path);
  static std::optional<std::vector<uint8_t>> compute(std::span<const int16_t> samples);
  // From mono float, taking each sample as the 16-bit value the decoder's
  // 16-bit output would hold: the same blob as compute(path) for the same file.
  static std::optional<std::vector<uint8_t>> computeFromFloat(std::span<const float> samples);
};

class LoupeAudio {
 public:
  // Seconds decoded around the centre, and how close to an edge the centre
  // may come before a new stretch is decoded.
  static constexpr double kSpanSeconds = 10.0;
  static constexpr double kLeadSeconds = 5.0;
  static constexpr double kMarginSeconds = 0.5;
  static constexpr int kRate = 44100;

  struct Column {
    float level = 0;  // 0…1 on the overview's 30 dB scale
    float low = 0, mid = 0, high = 0;
  };

  // Makes sure the samples around `centerSec` are decoded: nothing is done
  // while the same file's stretch covers the time with half a second to
  // spare; otherwise ten seconds from five before it are decoded at 44.1 kHz
  // mono and replace the old stretch. Returns whether samples are held.
  bool ensure(const std::filesystem::path& path, double centerSec);

  // `count` columns over `spanMs` milliseconds centred on `centerMs`; empty
  // when nothing is decoded or count < 1. Time outside the stretch is silent.
  std::vector<Column> columns(double centerMs, double spanMs, int count) const;

  const std::vector<float>& samples() const { return samples_; }
  double startSec() const { return startSec_; }
  int rate() const { return rate_; }
  const std::filesystem::path& path() const { return path_; }
  // How many times ensure() decoded; lets a caller see the cache working.
  int decodes() const { return decodes_; }

  // Installs a decoded stretch directly (what ensure() does after decoding).
  void set(std::vector<float> samples, double startSec, int rate, std::filesystem::path path);

 private:
  std::vector<float> samples_;
  double startSec_ = 0;
  int rate_ = 0;
  std::filesystem::path path_;
  int decodes_ = 0;
};

}  // namespace orvel::audio
