#include "tools/cli/table.h"

#include <algorithm>

#include "core/text/visible.h"

namespace orvel::cli {

size_t displayWidth(const std::string& s) {
  return static_cast<size_t>(std::count_if(
      s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string fit(const std::string& s, size_t width) {
  if (displayWidth(s) <= width) return s;
  if (width == 0) return {};
  std::string out;
  size_t chars = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    const bool starts = (static_cast<unsigned char>(s[i]) & 0xC0) != 0x80;
    if (starts && ++chars == width) break;
    out += s[i];
  }
  return out + "…";
}

void Table::add(std::vector<std::string> cells) {
  for (std::string& cell : cells)
    if (needsEscaping(cell)) cell = visible(cell);
  rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const {
  std::vector<size_t> widths;
  for (const auto& c : columns_) widths.push_back(std::min(displayWidth(c.header), c.maxWidth));
  for (const auto& row : rows_)
    for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
      widths[i] = std::max(widths[i], std::min(displayWidth(row[i]), columns_[i].maxWidth));

  const auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (size_t i = 0; i < columns_.size(); ++i) {
      const std::string cell = fit(i < cells.size() ? cells[i] : std::string(), widths[i]);
      const std::string pad(widths[i] - displayWidth(cell), ' ');
      if (i != 0) text += "  ";
      text += columns_[i].right ? pad + cell : cell + pad;
    }
    out << text.substr(0, text.find_last_not_of(' ') + 1) << '\n';
  };
  std::vector<std::string> headers;
  for (const auto& c : columns_) headers.push_back(c.header);
  line(headers);
  for (const auto& row : rows_) line(row);
}

}  // namespace orvel::cli
