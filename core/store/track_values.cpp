#include "core/store/track_values.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace orvel {

bool isTempo(double bpm) {
  return std::isfinite(bpm) && bpm >= kMinBpm && bpm <= kMaxBpm;
}

Status checkTrackValue(const Connection& conn, std::string_view column, std::string_view field,
                       std::string_view value) {
  if (value.empty()) return Status::ok();
  Statement st = conn.prepare("SELECT type FROM pragma_table_info('tracks') WHERE name = ?");
  st.bind(1, column);
  const std::string type = st.step() ? st.text(0) : std::string();
  const std::string f(field), v(value);
  const char* end = v.data() + v.size();
  if (column == "year") {
    // Kept as text, but a year all the same: what sorts and filters as one.
    int64_t year = -1;
    const auto [at, ec] = std::from_chars(v.data(), end, year);
    if (ec != std::errc() || at != end || year < 0 || year > 9999)
      return Status::invalid("a year is a whole number from 0 to 9999, not '" + v + "'");
  } else if (type == "INTEGER") {
    int64_t n = 0;
    const auto [at, ec] = std::from_chars(v.data(), end, n);
    if (ec == std::errc::result_out_of_range)
      return Status::invalid("'" + f + "' takes a whole number, and '" + v + "' is far too big");
    if (ec != std::errc() || at != end)
      return Status::invalid("'" + f + "' takes a whole number, not '" + v + "'");
    if (column == "rating" && (n < 0 || n > 100 || n % 20 != 0))
      return Status::invalid(
          "a rating is 0 to 100 in steps of 20, one star each (or: orvel rate STARS ID…)");
  } else if (type == "REAL") {
    // strtod wants the terminating NUL a std::string has; it also reads
    // "inf" and "nan", which are no value a track can have.
    char* stop = nullptr;
    const double n = std::strtod(v.c_str(), &stop);
    if (stop != end || !std::isfinite(n))
      return Status::invalid("'" + f + "' takes a number, not '" + v + "'");
    if (column == "bpm" && !isTempo(n))
      return Status::invalid(fmt::format("a tempo is {} to {} BPM, not '{}'", kMinBpm, kMaxBpm, v));
  }
  return Status::ok();
}

}  // namespace orvel
