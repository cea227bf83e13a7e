// Track rows described field by field, for tests of what the library does
// with them: T().title("x").artist("y").bpm(124).row().
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "core/store/track_row.h"

namespace orvel::testing {

struct T {
  int64_t id_ = 0;
  std::string title_, artist_, album_, genre_, key_, path_ = "/m/a.mp3", year_, comment_, grouping_,
                                                     label_, albumArtist_, musicPID_;
  std::optional<double> bpm_;
  std::optional<int64_t> durationMs_ = 300'000, dateAdded_;
  std::optional<int32_t> bitrate_, rating_;
  int64_t size_ = 0;
  int32_t cues_ = 0;
  bool production_ = false, loved_ = false, disliked_ = false, compilation_ = false,
       missing_ = false;

  T& id(int64_t v) { return id_ = v, *this; }
  T& title(std::string v) { return title_ = std::move(v), *this; }
  T& artist(std::string v) { return artist_ = std::move(v), *this; }
  T& album(std::string v) { return album_ = std::move(v), *this; }
  T& genre(std::string v) { return genre_ = std::move(v), *this; }
  T& key(std::string v) { return key_ = std::move(v), *this; }
  T& path(std::string v) { return path_ = std::move(v), *this; }
  T& year(std::string v) { return year_ = std::move(v), *this; }
  T& comment(std::string v) { return comment_ = std::move(v), *this; }
  T& grouping(std::string v) { return grouping_ = std::move(v), *this; }
  T& label(std::string v) { return label_ = std::move(v), *this; }
  T& albumArtist(std::string v) { return albumArtist_ = std::move(v), *this; }
  T& musicPID(std::string v) { return musicPID_ = std::move(v), *this; }
  T& bpm(double v) { return bpm_ = v, *this; }
  T& ms(std::optional<int64_t> v) { return durationMs_ = v, *this; }
  T& added(int64_t v) { return dateAdded_ = v, *this; }
  T& kbps(int32_t v) { return bitrate_ = v, *this; }
  T& rating(int32_t v) { return rating_ = v, *this; }
  T& size(int64_t v) { return size_ = v, *this; }
  T& cues(int32_t v) { return cues_ = v, *this; }
  T& production() { return production_ = true, *this; }
  T& loved() { return loved_ = true, *this; }
  T& disliked() { return disliked_ = true, *this; }
  T& compilation() { return compilation_ = true, *this; }
  T& missing() { return missing_ = true, *this; }

  TrackRow row() const {
    TrackRow r;
    std::array<std::string_view, TrackRow::kTexts> texts{};
    auto set = [&](TrackRow::Text t, const std::string& v) { texts[static_cast<size_t>(t)] = v; };
    set(TrackRow::Text::title, title_);
    set(TrackRow::Text::artist, artist_);
    set(TrackRow::Text::album, album_);
    set(TrackRow::Text::genre, genre_);
    set(TrackRow::Text::key, key_);
    set(TrackRow::Text::path, path_);
    set(TrackRow::Text::year, year_);
    set(TrackRow::Text::comment, comment_);
    set(TrackRow::Text::grouping, grouping_);
    set(TrackRow::Text::label, label_);
    set(TrackRow::Text::albumArtist, albumArtist_);
    set(TrackRow::Text::musicPID, musicPID_);
    r.setTexts(texts);
    r.id = id_;
    r.bpm = bpm_;
    r.durationMs = durationMs_;
    r.dateAdded = dateAdded_;
    r.bitrateKbps = bitrate_;
    r.rating = rating_;
    r.sizeBytes = size_;
    r.cueCount = cues_;
    r.isProduction = production_;
    r.loved = loved_;
    r.disliked = disliked_;
    r.compilation = compilation_;
    r.missing = missing_;
    return r;
  }
};

}  // namespace orvel::testing
