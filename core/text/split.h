// Splitting and trimming of plain text.
#pragma once

#include <string_view>
#include <vector>

namespace orvel {

// The pieces between separators, empty pieces included ("a,,b" -> "a", "", "b").
std::vector<std::string_view> split(std::string_view text, char separator);

// The text without leading and trailing blanks (space, tab, CR, LF).
std::string_view trim(std::string_view text);

}  // namespace orvel
