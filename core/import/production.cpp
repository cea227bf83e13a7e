#include "core/import/production.h"

#include <array>
#include <string>
#include <vector>

namespace orvel::Importer {
namespace {

// ASCII words, lower-cased; other bytes (UTF-8 letters) split words too,
// which is fine for terms that are plain English.
std::vector<std::string> wordsOf(std::string_view text) {
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
  const auto words = wordsOf(text);
  if (hasPhrase(words, kPhrases)) return true;
  for (const auto& w : words)
    if (isWord(w)) return true;
  return false;
}

bool commentSaysProduction(std::string_view text) {
  const auto words = wordsOf(text);
  return hasPhrase(words, kPhrases) || hasPhrase(words, kRoyaltyFree);
}

bool folderSaysProduction(std::string_view folder) {
  size_t start = 0;
  while (start <= folder.size()) {
    size_t end = folder.find('/', start);
    if (end == std::string_view::npos) end = folder.size();
    const auto words = wordsOf(folder.substr(start, end - start));
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
