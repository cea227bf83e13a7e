// Plain-text tables for terminal listings: columns sized to their content up
// to a limit, long cells cut with "…", widths counted in characters (UTF-8).
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace orvel::cli {

struct Column {
  std::string header;
  size_t maxWidth = 40;
  bool right = false;
};

class Table {
 public:
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
  // Cells hold text from tags and file names: control characters in them
  // are shown as escapes, never sent to the terminal.
  void add(std::vector<std::string> cells);
  void print(std::ostream& out) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

// Characters (code points) in a UTF-8 text.
size_t displayWidth(const std::string& s);
// The text cut to `width` characters, ending in "…" when cut.
std::string fit(const std::string& s, size_t width);

}  // namespace orvel::cli
