#include "core/store/track_row.h"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

#include "core/text/split.h"

namespace orvel {

std::string TrackRow::fileName() const {
  return std::string(lastPathComponent(path));
}

std::string TrackRow::ext() const {
  return extensionOf(path);
}

std::string TrackRow::durationText() const {
  if (!durationMs || *durationMs < 0) return {};
  const int64_t s = *durationMs / 1000;
  if (s >= 3600) return fmt::format("{}:{:02}:{:02}", s / 3600, (s / 60) % 60, s % 60);
  return fmt::format("{}:{:02}", s / 60, s % 60);
}

std::string TrackRow::bpmText() const {
  if (!bpm || *bpm <= 0) return {};
  if (std::fabs(*bpm - std::round(*bpm)) < 0.05) return fmt::format("{:.0f}", *bpm);
  return fmt::format("{:.1f}", *bpm);
}

std::string TrackRow::sizeText() const {
  if (sizeBytes <= 0) return {};
  const double mb = static_cast<double>(sizeBytes) / 1e6;
  if (mb >= 1000) return fmt::format("{:.2f} GB", mb / 1000);
  if (mb >= 1) return fmt::format("{:.1f} MB", mb);
  return fmt::format("{:.0f} KB", static_cast<double>(sizeBytes) / 1e3);
}

std::string TrackRow::bitrateText() const {
  if (!bitrateKbps || *bitrateKbps <= 0) return {};
  return fmt::format("{} kbps", *bitrateKbps);
}

std::string TrackRow::ratingText() const {
  const int64_t n = stars();
  if (n <= 0) return {};
  std::string out;
  for (int64_t i = 0; i < 5; ++i) out += i < n ? "★" : "☆";
  return out;
}

std::string TrackRow::dateAddedText() const {
  if (!dateAdded) return {};
  const std::time_t t = *dateAdded;
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[16];
  std::strftime(buf, sizeof buf, "%Y-%m-%d", &tm);
  return buf;
}

}  // namespace orvel
