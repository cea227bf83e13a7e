#include "core/import/production.h"

#include <array>
#include <string>
#include <vector>

#include "core/text/split.h"

namespace orvel::Importer {
namespace {

// Phrases as word pairs; a missing second word means a single word.
struct Term {
  std::string_view first, second;
};

constexpr std::array kPhrases{
    Term{"sample", "pack"},      Term{"sample", "packs"},      Term{"one", "shot"},
    Term{"one", "shots"},        Term{"oneshot", ""},          Term{"oneshots", ""},
    Term{"construction", "kit"}, Term{"construction", "kits"}, Term{"drum", "kit"},
    Term{"drum", "kits"},        Term{"drum", "hit"},          Term{"drum", "hits"},
};
constexpr std::array kRoyaltyFree{Term{"royalty", "free"}};
constexpr std::array<std::string_view, 7> kWords{"samples", "loop",    "loops",   "stem",
                                                 "stems",   "oneshot", "oneshots"};

template <size_t N>
bool hasPhrase(const std::vector<std::string>& words, const std::array<Term, N>& terms) {
  for (size_t i = 0; i < words.size(); ++i)
    for (const Term& t : terms) {
      if (words[i] != t.first) continue;
      if (t.second.empty() || (i + 1 < words.size() && words[i + 1] == t.second)) return true;
    }
  return false;
}

bool isWord(std::string_view w) {
  for (auto k : kWords)
    if (w == k) return true;
  return false;
}

bool tagSaysProduction(std::string_view text) {
  const auto words = asciiWords(text);
  if (hasPhrase(words, kPhrases)) return true;
  for (const auto& w : words)
    if (isWord(w)) return true;
  return false;
}

bool commentSaysProduction(std::string_view text) {
  const auto words = asciiWords(text);
  return hasPhrase(words, kPhrases) || hasPhrase(words, kRoyaltyFree);
}

bool folderSaysProduction(std::string_view folder) {
  size_t start = 0;
  while (start <= folder.size()) {
    size_t end = folder.find('/', start);
    if (end == std::string_view::npos) end = folder.size();
    const auto words = asciiWords(folder.substr(start, end - start));
    if (!words.empty() && (hasPhrase(words, kPhrases) || isWord(words.back()))) return true;
    start = end + 1;
  }
  return false;
}

}  // namespace

bool isProductionMaterial(const ProductionHints& h) {
  return tagSaysProduction(h.genre) || tagSaysProduction(h.grouping) ||
         commentSaysProduction(h.comment) || folderSaysProduction(h.folder);
}

}  // namespace orvel::Importer
