#include "core/store/track_row.h"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

namespace orvel {

std::string TrackRow::fileName() const {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string TrackRow::ext() const {
  const std::string name = fileName();
  const auto dot = name.find_last_of('.');
  if (dot == std::string::npos || dot == 0) return {};
  std::string e = name.substr(dot + 1);
  for (char& c : e)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return e;
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
