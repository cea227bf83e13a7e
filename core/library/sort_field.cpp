#include "core/library/sort_field.h"

#include <utility>

namespace orvel::library {
namespace {

constexpr std::array<std::string_view, kSortFieldCount> kNames{
    "title",       "artist",   "album",    "genre",      "bpm",          "key",
    "duration",    "rating",   "loved",    "dateAdded",  "dateCreated",  "size",
    "cues",        "year",     "comment",  "grouping",   "label",        "plays",
    "bitrate",     "sampleRate", "trackNumber", "discNumber", "albumArtist", "composer",
    "lastPlayed",  "fileName", "kind",     "id"};

// The keys of the same fields in the JSON a listing prints.
constexpr std::array<std::pair<std::string_view, SortField>, 7> kAliases{{
    {"durationMs", SortField::duration},
    {"sizeBytes", SortField::size},
    {"cueCount", SortField::cues},
    {"playCount", SortField::plays},
    {"bitrateKbps", SortField::bitrate},
    {"time", SortField::duration},
    {"name", SortField::title},
}};

}  // namespace

std::string_view sortFieldName(SortField field) {
  return kNames[static_cast<size_t>(field)];
}

std::optional<SortField> sortFieldNamed(std::string_view name) {
  for (size_t i = 0; i < kNames.size(); ++i)
    if (kNames[i] == name) return static_cast<SortField>(i);
  for (const auto& [alias, field] : kAliases)
    if (alias == name) return field;
  return std::nullopt;
}

std::string_view sortFieldNames() {
  return "title, artist, album, genre, bpm, key, duration, rating, loved, dateAdded, "
         "dateCreated, size, cues, year, comment, grouping, label, plays, bitrate, sampleRate, "
         "trackNumber, discNumber, albumArtist, composer, lastPlayed, fileName, kind, id";
}

}  // namespace orvel::library
