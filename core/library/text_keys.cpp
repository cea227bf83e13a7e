#include "core/library/text_keys.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <unordered_set>

#include "core/text/path_norm.h"
#include "core/text/split.h"

namespace orvel::library {
namespace {

// Base letters of U+00C0…U+017F, lower case; "" where a letter has none.
constexpr std::string_view kLatin1[64] = {
    "a", "a", "a", "a", "a", "a", "ae", "c", "e", "e", "e", "e", "i", "i", "i", "i",   // C0
    "d", "n", "o", "o", "o", "o", "o",  "",  "o", "u", "u", "u", "u", "y", "th", "ss",  // D0
    "a", "a", "a", "a", "a", "a", "ae", "c", "e", "e", "e", "e", "i", "i", "i", "i",   // E0
    "d", "n", "o", "o", "o", "o", "o",  "",  "o", "u", "u", "u", "u", "y", "th", "y",  // F0
};
// Latin Extended-A, U+0100…U+017F, in pairs of upper and lower case.
constexpr std::string_view kExtendedA[128] = {
    "a",  "a",  "a",  "a",  "a",  "a",  "c", "c", "c", "c", "c", "c", "c", "c", "d", "d",
    "d",  "d",  "e",  "e",  "e",  "e",  "e", "e", "e", "e", "e", "e", "g", "g", "g", "g",
    "g",  "g",  "g",  "g",  "h",  "h",  "h", "h", "i", "i", "i", "i", "i", "i", "i", "i",
    "i",  "i",  "ij", "ij", "j",  "j",  "k", "k", "k", "l", "l", "l", "l", "l", "l", "l",
    "l",  "l",  "l",  "n",  "n",  "n",  "n", "n", "n", "n", "n", "n", "o", "o", "o", "o",
    "o",  "o",  "oe", "oe", "r",  "r",  "r", "r", "r", "r", "s", "s", "s", "s", "s", "s",
    "s",  "s",  "t",  "t",  "t",  "t",  "t", "t", "u", "u", "u", "u", "u", "u", "u", "u",
    "u",  "u",  "u",  "u",  "w",  "w",  "y", "y", "y", "z", "z", "z", "z", "z", "z", "s",
};

}  // namespace

std::string_view sortKey(std::string_view text) {
  int32_t i = 0;
  const auto n = static_cast<int32_t>(text.size());
  while (i < n) {
    const int32_t start = i;
    UChar32 c = 0;
    U8_NEXT(reinterpret_cast<const uint8_t*>(text.data()), i, n, c);
    if (c >= 0 && u_isalnum(c)) return text.substr(static_cast<size_t>(start));
  }
  return {};
}

std::string folded(std::string_view text) {
  return lowerUnicode(text);
}

std::string orderKey(std::string_view text) {
  const std::string lower = lowerUnicode(text);
  std::string base;
  base.reserve(lower.size());
  bool changed = false;
  int32_t i = 0;
  const auto n = static_cast<int32_t>(lower.size());
  while (i < n) {
    const int32_t start = i;
    UChar32 c = 0;
    U8_NEXT(reinterpret_cast<const uint8_t*>(lower.data()), i, n, c);
    std::string_view letter;
    if (c >= 0xC0 && c < 0x100)
      letter = kLatin1[c - 0xC0];
    else if (c >= 0x100 && c < 0x180)
      letter = kExtendedA[c - 0x100];
    if (!letter.empty()) {
      base += letter;
      changed = true;
    } else {
      base.append(lower, static_cast<size_t>(start), static_cast<size_t>(i - start));
    }
  }
  if (!changed) return lower;
  // A separator below every printable byte keeps "emile" before "émile"
  // and both before "emilea".
  base += '\x01';
  base += lower;
  return base;
}

std::vector<std::string> foldedUnique(const std::vector<std::string_view>& values) {
  std::vector<std::pair<std::string, std::string>> entries;  // order key, display
  std::unordered_set<std::string> seen;
  for (std::string_view v : values) {
    const std::string_view t = trim(v);
    if (t.empty() || !seen.insert(folded(t)).second) continue;
    entries.emplace_back(orderKey(sortKey(t)), std::string(t));
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> out;
  out.reserve(entries.size());
  for (auto& e : entries) out.push_back(std::move(e.second));
  return out;
}

}  // namespace orvel::library
