// The columns a list of tracks sorts by, with the names the table, the
// command line and the JSON output use for them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace orvel::library {

enum class SortField : uint8_t {
  title, artist, album, genre, bpm, key, duration, rating, loved, dateAdded, dateCreated,
  size, cues, year, comment, grouping, label, plays, bitrate, sampleRate, trackNumber,
  discNumber, albumArtist, composer, lastPlayed, fileName, kind, id,
};
inline constexpr size_t kSortFieldCount = static_cast<size_t>(SortField::id) + 1;

std::string_view sortFieldName(SortField field);
// The column's name, or the JSON key of the same field ("durationMs",
// "sizeBytes", "cueCount", "playCount", "bitrateKbps").
std::optional<SortField> sortFieldNamed(std::string_view name);
// Every name sortFieldNamed takes, for help texts.
std::string_view sortFieldNames();

struct SortColumn {
  SortField field = SortField::artist;
  bool ascending = true;
  bool operator==(const SortColumn&) const = default;
};

}  // namespace orvel::library
