#include "core/store/track_row.h"

#include <fmt/format.h>

#include <cmath>
#include <cstring>
#include <ctime>

#include "core/text/split.h"

namespace orvel {

TrackRow::TrackRow(const TrackRow& other)
    : id(other.id),
      bpm(other.bpm),
      durationMs(other.durationMs),
      sizeBytes(other.sizeBytes),
      dateAdded(other.dateAdded),
      dateCreated(other.dateCreated),
      dateModified(other.dateModified),
      lastPlayed(other.lastPlayed),
      lastSkipped(other.lastSkipped),
      releaseDate(other.releaseDate),
      bitrateKbps(other.bitrateKbps),
      playCount(other.playCount),
      rating(other.rating),
      trackNumber(other.trackNumber),
      discNumber(other.discNumber),
      sampleRate(other.sampleRate),
      albumRating(other.albumRating),
      skips(other.skips),
      cueCount(other.cueCount),
      flags(other.flags),
      hasVideo(other.hasVideo),
      compilation(other.compilation),
      missing(other.missing),
      isProduction(other.isProduction),
      loved(other.loved),
      disliked(other.disliked),
      master(other.master),
      ends_(other.ends_) {
  const size_t size = ends_.back();
  if (size == 0) return;
  buffer_ = std::make_unique_for_overwrite<char[]>(size);
  std::memcpy(buffer_.get(), other.buffer_.get(), size);
}

TrackRow& TrackRow::operator=(const TrackRow& other) {
  if (this != &other) *this = TrackRow(other);
  return *this;
}

std::string_view TrackRow::text(Text field) const {
  const auto i = static_cast<size_t>(field);
  const uint32_t begin = i == 0 ? 0 : ends_[i - 1];
  if (ends_[i] == begin) return {};
  return {buffer_.get() + begin, ends_[i] - begin};
}

void TrackRow::setTexts(const std::array<std::string_view, kTexts>& values) {
  size_t total = 0;
  for (const auto& v : values) total += v.size();
  buffer_ = total == 0 ? nullptr : std::make_unique_for_overwrite<char[]>(total);
  uint32_t at = 0;
  for (size_t i = 0; i < kTexts; ++i) {
    if (!values[i].empty()) std::memcpy(buffer_.get() + at, values[i].data(), values[i].size());
    at += static_cast<uint32_t>(values[i].size());
    ends_[i] = at;
  }
}

void TrackRow::setText(Text field, std::string_view value) {
  std::array<std::string, kTexts> copies;
  std::array<std::string_view, kTexts> values;
  for (size_t i = 0; i < kTexts; ++i) {
    copies[i] = i == static_cast<size_t>(field) ? std::string(value)
                                                : std::string(text(static_cast<Text>(i)));
    values[i] = copies[i];
  }
  setTexts(values);
}

std::string TrackRow::fileName() const {
  return std::string(lastPathComponent(path()));
}

std::string TrackRow::ext() const {
  return extensionOf(path());
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
