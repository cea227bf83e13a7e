#include "core/text/split.h"

#include <string>

namespace orvel {

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  while (true) {
    const size_t end = text.find(separator, start);
    if (end == std::string_view::npos) {
      pieces.push_back(text.substr(start));
      return pieces;
    }
    pieces.push_back(text.substr(start, end - start));
    start = end + 1;
  }
}

std::string_view trim(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string_view lastLine(std::string_view text) {
  const size_t end = text.find_last_not_of(" \t\r\n");
  if (end == std::string_view::npos) return {};
  const size_t newline = text.find_last_of('\n', end);
  const size_t start = newline == std::string_view::npos ? 0 : newline + 1;
  return text.substr(start, end + 1 - start);
}

std::string_view lastPathComponent(std::string_view path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string extensionOf(std::string_view path) {
  const std::string_view name = lastPathComponent(path);
  const auto dot = name.find_last_of('.');
  if (dot == std::string_view::npos || dot == 0) return {};
  std::string ext(name.substr(dot + 1));
  for (char& c : ext)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return ext;
}

std::vector<std::string> asciiWords(std::string_view text) {
  std::vector<std::string> words;
  std::string word;
  for (const char ch : text) {
    if ((ch >= 'a' && ch <= 'z') || (ch >= '0' && ch <= '9')) {
      word += ch;
    } else if (ch >= 'A' && ch <= 'Z') {
      word += static_cast<char>(ch - 'A' + 'a');
    } else if (!word.empty()) {
      words.push_back(std::move(word));
      word.clear();
    }
  }
  if (!word.empty()) words.push_back(std::move(word));
  return words;
}

std::string_view utf8Prefix(std::string_view text, size_t maxBytes) {
  if (text.size() <= maxBytes) return text;
  size_t cut = maxBytes;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return text.substr(0, cut);
}

}  // namespace orvel
