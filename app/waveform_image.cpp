#include "app/waveform_image.h"

#include <algorithm>
#include <cmath>

#include "app/file_output.h"

namespace orvel::app {
namespace {

constexpr size_t kColumns = 800;
constexpr QRgb kBackground = qRgb(18, 18, 22);
constexpr QRgb kCentre = qRgb(60, 60, 70);

}  // namespace

QImage WaveformImage::render(std::span<const uint8_t> blob, int width, int height) {
  if (blob.size() != kColumns * 4 || width < 1 || height < 2) return {};
  QImage image(width, height, QImage::Format_RGB32);
  image.fill(kBackground);
  const int mid = height / 2;
  for (int x = 0; x < width; ++x) {
    // Each pixel column shows the loudest source column under it, so narrow
    // pictures keep their peaks.
    const size_t from = size_t(x) * kColumns / size_t(width);
    const size_t to = std::max(from + 1, size_t(x + 1) * kColumns / size_t(width));
    size_t pick = from;
    for (size_t c = from; c < to && c < kColumns; ++c)
      if (blob[c * 4] > blob[pick * 4]) pick = c;
    const uint8_t* col = blob.data() + pick * 4;
    const double level = col[0] / 255.0;
    const int strongest = std::max({int(col[1]), int(col[2]), int(col[3]), 1});
    // The band shares scaled so the strongest is at full brightness.
    const auto channel = [&](uint8_t band) { return std::clamp(band * 255 / strongest, 0, 255); };
    const QRgb colour = qRgb(channel(col[1]), channel(col[2]), channel(col[3]));
    const int half = int(std::lround(level * (mid - 1)));
    image.setPixel(x, mid, kCentre);
    for (int y = mid - half; y <= mid + half; ++y)
      if (y >= 0 && y < height) image.setPixel(x, y, colour);
  }
  return image;
}

std::string WaveformImage::savePng(std::span<const uint8_t> blob, const std::filesystem::path& file,
                                   int width, int height) {
  const QImage image = render(blob, width, height);
  if (image.isNull()) return "the waveform is not whole";
  return writeWholeFile(file, [&image](QIODevice& out) { return image.save(&out, "PNG"); });
}

}  // namespace orvel::app
