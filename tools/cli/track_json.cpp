#include "tools/cli/track_json.h"

#include "tools/cli/commands.h"
#include "tools/cli/context.h"

namespace orvel::cli {
namespace {

using nlohmann::json;

template <typename T>
json opt(const std::optional<T>& v) {
  return v ? json(*v) : json(nullptr);
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
