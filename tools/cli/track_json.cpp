#include "tools/cli/track_json.h"

#include <algorithm>
#include <functional>
#include <map>
#include <variant>

#include "core/text/path_norm.h"
#include "core/text/split.h"
#include "tools/cli/commands.h"
#include "tools/cli/context.h"

namespace orvel::cli {
namespace {

using nlohmann::json;

template <typename T>
json opt(const std::optional<T>& v) {
  return v ? json(*v) : json(nullptr);
}

// A sortable value: missing numbers sort before every number; texts compare
// case-insensitively.
using SortValue = std::variant<std::monostate, int64_t, double, std::string>;
using Getter = std::function<SortValue(const TrackRow&)>;

template <typename T>
SortValue optValue(const std::optional<T>& v) {
  if (!v) return std::monostate{};
  return *v;
}

const std::map<std::string, Getter>& getters() {
  static const std::map<std::string, Getter> kGetters = {
      {"id", [](const TrackRow& r) -> SortValue { return r.id; }},
      {"title", [](const TrackRow& r) -> SortValue { return lowerUnicode(r.title()); }},
      {"artist", [](const TrackRow& r) -> SortValue { return lowerUnicode(r.artist()); }},
      {"album", [](const TrackRow& r) -> SortValue { return lowerUnicode(r.album()); }},
      {"genre", [](const TrackRow& r) -> SortValue { return lowerUnicode(r.genre()); }},
      {"bpm", [](const TrackRow& r) { return optValue(r.bpm); }},
      {"key", [](const TrackRow& r) -> SortValue { return std::string(r.key()); }},
      {"durationMs", [](const TrackRow& r) { return optValue(r.durationMs); }},
      {"path", [](const TrackRow& r) -> SortValue { return std::string(r.path()); }},
      {"cueCount", [](const TrackRow& r) -> SortValue { return r.cueCount; }},
      {"sizeBytes", [](const TrackRow& r) -> SortValue { return r.sizeBytes; }},
      {"year", [](const TrackRow& r) -> SortValue { return std::string(r.year()); }},
      {"comment", [](const TrackRow& r) -> SortValue { return lowerUnicode(r.comment()); }},
      {"grouping", [](const TrackRow& r) -> SortValue { return lowerUnicode(r.grouping()); }},
      {"label", [](const TrackRow& r) -> SortValue { return lowerUnicode(r.label()); }},
      {"dateAdded", [](const TrackRow& r) { return optValue(r.dateAdded); }},
      {"dateCreated", [](const TrackRow& r) { return optValue(r.dateCreated); }},
      {"bitrateKbps", [](const TrackRow& r) { return optValue(r.bitrateKbps); }},
      {"playCount", [](const TrackRow& r) { return optValue(r.playCount); }},
      {"rating", [](const TrackRow& r) { return optValue(r.rating); }},
  };
  return kGetters;
}

}  // namespace

json toJson(const TrackRow& r) {
  return json{
      {"id", r.id},
      {"title", r.title()},
      {"artist", r.artist()},
      {"album", r.album()},
      {"genre", r.genre()},
      {"bpm", opt(r.bpm)},
      {"key", r.key()},
      {"durationMs", opt(r.durationMs)},
      {"path", r.path()},
      {"missing", r.missing},
      {"cueCount", r.cueCount},
      {"sizeBytes", r.sizeBytes},
      {"isProduction", r.isProduction},
      {"year", r.year()},
      {"comment", r.comment()},
      {"grouping", r.grouping()},
      {"label", r.label()},
      {"dateAdded", opt(r.dateAdded)},
      {"dateCreated", opt(r.dateCreated)},
      {"bitrateKbps", opt(r.bitrateKbps)},
      {"playCount", opt(r.playCount)},
      {"rating", opt(r.rating)},
      {"flags", r.flags},
      // Kept as the one object scripts already read, though the row no longer
      // groups these fields.
      {"extras",
       {{"albumArtist", r.albumArtist()},
        {"compilation", static_cast<int64_t>(r.compilation)},
        {"composer", r.composer()},
        {"trackNumber", opt(r.trackNumber)},
        {"discNumber", opt(r.discNumber)},
        {"sampleRate", opt(r.sampleRate)},
        {"albumRating", opt(r.albumRating)},
        {"dateModified", opt(r.dateModified)},
        {"lastPlayed", opt(r.lastPlayed)},
        {"lastSkipped", opt(r.lastSkipped)},
        {"skips", opt(r.skips)},
        {"releaseDate", opt(r.releaseDate)},
        {"work", r.work()},
        {"equalizer", r.equalizer()},
        {"seratoColor", r.seratoColor()},
        {"musicPID", r.musicPID()},
        {"sortArtist", r.sortArtist()},
        {"sortAlbum", r.sortAlbum()},
        {"sortAlbumArtist", r.sortAlbumArtist()},
        {"hasVideo", static_cast<int64_t>(r.hasVideo)}}},
  };
}

std::vector<SortKey> parseSort(const std::string& columns) {
  std::vector<SortKey> keys;
  for (std::string_view piece : split(columns, ',')) {
    std::string name(trim(piece));
    if (name.empty()) continue;
    SortKey key;
    if (name[0] == '-' || name[0] == '+') {
      key.ascending = name[0] == '+';
      name.erase(0, 1);
    }
    if (!getters().contains(name)) {
      std::string known;
      for (const auto& [k, g] : getters()) {
        if (!known.empty()) known += ", ";
        known += k;
      }
      throw CliError(kBadUsage, "cannot sort by '" + name + "' (one of: " + known + ")");
    }
    key.field = name;
    keys.push_back(key);
  }
  return keys;
}

void sortTracks(std::vector<TrackRow>& rows, const std::vector<SortKey>& keys) {
  if (keys.empty()) return;
  std::vector<const Getter*> get;
  get.reserve(keys.size());
  for (const auto& k : keys) get.push_back(&getters().at(k.field));
  // Decorate once: the keys of a 100,000-row list are computed 100,000 times, not n log n.
  std::vector<std::pair<std::vector<SortValue>, size_t>> decorated(rows.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    decorated[i].second = i;
    for (const auto* g : get) decorated[i].first.push_back((*g)(rows[i]));
  }
  std::stable_sort(decorated.begin(), decorated.end(), [&](const auto& a, const auto& b) {
    for (size_t k = 0; k < keys.size(); ++k) {
      if (a.first[k] == b.first[k]) continue;
      return keys[k].ascending ? a.first[k] < b.first[k] : b.first[k] < a.first[k];
    }
    return false;
  });
  std::vector<TrackRow> sorted;
  sorted.reserve(rows.size());
  for (auto& [values, index] : decorated) sorted.push_back(std::move(rows[index]));
  rows = std::move(sorted);
}

nlohmann::json toJson(const CueRow& c) {
  using nlohmann::json;
  return {{"id", c.id},
          {"trackId", c.trackId},
          {"sourceId", c.sourceId ? json(*c.sourceId) : json(nullptr)},
          {"bank", c.bank},
          {"index", c.index},
          {"positionMs", c.positionMs},
          {"lengthMs", c.lengthMs ? json(*c.lengthMs) : json(nullptr)},
          {"color", c.color},
          {"name", c.name},
          {"kind", c.kind}};
}

}  // namespace orvel::cli

namespace orvel::cli {

std::string jsonText(const nlohmann::json& j, int indent) {
  return j.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace orvel::cli
