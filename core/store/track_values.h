// Whether a value may go into a track column as the user typed it: a number
// column only takes a number, since text there would sort above every number
// for good. The command line and the desktop window's editors ask the same
// question and give the same answer.
#pragma once

#include <string_view>

#include "core/store/connection.h"
#include "core/store/status.h"

namespace orvel {

// The tempi a track may have; anything else is a mistake or a misread tag.
inline constexpr double kMinBpm = 20;
inline constexpr double kMaxBpm = 999;
bool isTempo(double bpm);

// Ok for a value `column` can hold (an empty value clears, so it always can);
// otherwise Status::invalid naming the field as the user called it. Numbers
// must be finite and whole numbers fit 64 bits; ratings are 0–100 in steps
// of 20, one star each; tempi kMinBpm–kMaxBpm; years 0–9999. Reads the
// table's column types through `conn`, on its owner thread.
Status checkTrackValue(const Connection& conn, std::string_view column, std::string_view field,
                       std::string_view value);

}  // namespace orvel
