// Whether a value may go into a track column as the user typed it: a number
// column only takes a number, since text there would sort above every number
// for good. The command line and the desktop window's editors ask the same
// question and give the same answer.
#pragma once

#include <string_view>

#include "core/store/connection.h"
#include "core/store/status.h"

namespace orvel {

// Ok for a value `column` can hold (an empty value clears, so it always can);
// otherwise Status::invalid naming the field as the user called it. Ratings
// are 0–100 in steps of 20 here, one star each. Reads the table's column
// types through `conn`, on its owner thread.
Status checkTrackValue(const Connection& conn, std::string_view column, std::string_view field,
                       std::string_view value);

}  // namespace orvel
