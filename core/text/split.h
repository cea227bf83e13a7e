// Splitting and trimming of plain text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orvel {

// The pieces between separators, empty pieces included ("a,,b" -> "a", "", "b").
std::vector<std::string_view> split(std::string_view text, char separator);

// The text without leading and trailing blanks (space, tab, CR, LF).
std::string_view trim(std::string_view text);

// The last line that has something on it, without its trailing blanks: the
// one a failing program ends with, after any traceback.
std::string_view lastLine(std::string_view text);

// What follows the last "/" of a path (the whole text when there is none).
std::string_view lastPathComponent(std::string_view path);

// At most `maxBytes` of UTF-8 text, cut before a character, never inside one.
std::string_view utf8Prefix(std::string_view text, size_t maxBytes);
// The ASCII words of a text, lower-cased: runs of letters and digits, split
// at anything else (other bytes, UTF-8 letters included, split words too,
// which suits terms that are plain English). "ONE-SHOTS" → "one", "shots".
std::vector<std::string> asciiWords(std::string_view text);

// The lower-cased ASCII extension of a path's file name, without the dot;
// empty when the name has none or only a leading dot.
std::string extensionOf(std::string_view path);

}  // namespace orvel
