#include "core/store/track_values.h"

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace orvel {

Status checkTrackValue(const Connection& conn, std::string_view column, std::string_view field,
                       std::string_view value) {
  if (value.empty()) return Status::ok();
  Statement st = conn.prepare("SELECT type FROM pragma_table_info('tracks') WHERE name = ?");
  st.bind(1, column);
  const std::string type = st.step() ? st.text(0) : std::string();
  const std::string f(field), v(value);
  const char* end = v.data() + v.size();
  if (type == "INTEGER") {
    int64_t n = 0;
    const auto [at, ec] = std::from_chars(v.data(), end, n);
    if (ec != std::errc() || at != end)
      return Status::invalid("'" + f + "' takes a whole number, not '" + v + "'");
    if (column == "rating" && (n < 0 || n > 100 || n % 20 != 0))
      return Status::invalid(
          "a rating is 0 to 100 in steps of 20, one star each (or: orvel rate STARS ID…)");
  } else if (type == "REAL") {
    // strtod wants the terminating NUL a std::string has.
    char* stop = nullptr;
    std::strtod(v.c_str(), &stop);
    if (stop != end) return Status::invalid("'" + f + "' takes a number, not '" + v + "'");
  }
  return Status::ok();
}

}  // namespace orvel
