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

}  // namespace orvel::cli
