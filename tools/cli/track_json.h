// Tracks as JSON for --json output: the keys are TrackRow's field names.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "core/store/cue_row.h"
#include "core/store/track_row.h"

namespace orvel::cli {

nlohmann::json toJson(const TrackRow& row);
nlohmann::json toJson(const CueRow& cue);

// A field of a TrackRow by its JSON name, for sorting; nullopt for an unknown name.
struct SortKey {
  std::string field;
  bool ascending = true;
};
// "artist,-bpm" -> keys; throws CliError (bad usage) naming an unknown field.
std::vector<SortKey> parseSort(const std::string& columns);
void sortTracks(std::vector<TrackRow>& rows, const std::vector<SortKey>& keys);

}  // namespace orvel::cli
