// The overview waveform as a picture: a bar per column, its height from the
// level byte, its colour from the three band bytes (lows red, mids green,
// highs blue, so a kick-heavy passage reads warm and hats and vocals cool).
// Uses QImage only, which needs no display or application object.
#pragma once

#include <QImage>
#include <QString>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

namespace orvel::app {

class WaveformImage {
 public:
  WaveformImage() = delete;
  static constexpr int kDefaultWidth = 1600;
  static constexpr int kDefaultHeight = 240;

  // The blob drawn at the given size, bars mirrored about the middle. A blob
  // of the wrong size gives a null image.
  static QImage render(std::span<const uint8_t> blob, int width = kDefaultWidth,
                       int height = kDefaultHeight);
  // render() saved as PNG, whole or not at all; empty on success, else why
  // (a wrong blob, a file that cannot be written, a full disk).
  static std::string savePng(std::span<const uint8_t> blob, const std::filesystem::path& file,
                             int width = kDefaultWidth, int height = kDefaultHeight);
};

}  // namespace orvel::app
