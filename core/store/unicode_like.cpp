#include "core/store/unicode_like.h"

#include <string>
#include <vector>

#include "core/text/path_norm.h"

namespace orvel {
namespace {

// The byte length of the UTF-8 sequence that starts with `lead` (1 for a
// stray continuation byte, so broken text still moves on).
size_t sequenceLength(unsigned char lead) {
  if (lead >= 0xF0) return 4;
  if (lead >= 0xE0) return 3;
  if (lead >= 0xC0) return 2;
  return 1;
}

struct Token {
  enum Kind { literal, one, many } kind;
  std::string text;  // a literal's lower-cased bytes
};

// The pattern, lower-cased once, as literals and wildcards.
std::vector<Token> tokenize(std::string_view pattern, std::optional<std::string_view> escape) {
  const std::string lowered = lowerUnicode(pattern);
  const std::string esc = escape ? lowerUnicode(*escape) : std::string();
  std::vector<Token> tokens;
  for (size_t i = 0; i < lowered.size();) {
    const size_t n =
        std::min(sequenceLength(static_cast<unsigned char>(lowered[i])), lowered.size() - i);
    const std::string_view c(lowered.data() + i, n);
    i += n;
    if (!esc.empty() && c == esc && i < lowered.size()) {
      const size_t m =
          std::min(sequenceLength(static_cast<unsigned char>(lowered[i])), lowered.size() - i);
      tokens.push_back({Token::literal, lowered.substr(i, m)});
      i += m;
    } else if (c == "%") {
      if (tokens.empty() || tokens.back().kind != Token::many) tokens.push_back({Token::many, {}});
    } else if (c == "_") {
      tokens.push_back({Token::one, {}});
    } else {
      tokens.push_back({Token::literal, std::string(c)});
    }
  }
  return tokens;
}

// Greedy matching with one point to come back to: the latest '%' and where
// its run began. Linear in practice, never worse than the two lengths' product.
bool matches(const std::vector<Token>& tokens, std::string_view text) {
  size_t t = 0, s = 0;
  std::optional<size_t> starToken;
  size_t starText = 0;
  while (s < text.size()) {
    const size_t n = std::min(sequenceLength(static_cast<unsigned char>(text[s])), text.size() - s);
    if (t < tokens.size() && tokens[t].kind == Token::many) {
      starToken = t++;
      starText = s;
      continue;
    }
    if (t < tokens.size() &&
        (tokens[t].kind == Token::one || text.substr(s, n) == tokens[t].text)) {
      ++t;
      s += n;
      continue;
    }
    if (!starToken) return false;
    // Let the last '%' take one more character and try again after it.
    t = *starToken + 1;
    starText += std::min(sequenceLength(static_cast<unsigned char>(text[starText])),
                         text.size() - starText);
    s = starText;
  }
  while (t < tokens.size() && tokens[t].kind == Token::many) ++t;
  return t == tokens.size();
}

std::string_view textOf(sqlite3_value* v) {
  const auto* p = reinterpret_cast<const char*>(sqlite3_value_text(v));
  return p == nullptr ? std::string_view() : std::string_view(p, sqlite3_value_bytes(v));
}

void likeSql(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  for (int i = 0; i < argc; ++i) {
    if (sqlite3_value_type(argv[i]) == SQLITE_NULL) {
      sqlite3_result_null(ctx);
      return;
    }
  }
  // A statement runs LIKE with one pattern over many rows: the pattern is
  // lowered and split once and kept with the statement.
  auto* tokens = static_cast<std::vector<Token>*>(sqlite3_get_auxdata(ctx, 0));
  if (tokens == nullptr) {
    std::optional<std::string_view> escape;
    if (argc == 3) {
      escape = textOf(argv[2]);
      const size_t n =
          escape->empty() ? 0 : sequenceLength(static_cast<unsigned char>((*escape)[0]));
      if (escape->size() != n || n == 0) {
        sqlite3_result_error(ctx, "ESCAPE expression must be a single character", -1);
        return;
      }
    }
    tokens = new std::vector<Token>(tokenize(textOf(argv[0]), escape));  // NOLINT
    sqlite3_set_auxdata(ctx, 0, tokens,
                        [](void* p) { delete static_cast<std::vector<Token>*>(p); });  // NOLINT
    tokens = static_cast<std::vector<Token>*>(sqlite3_get_auxdata(ctx, 0));
    if (tokens == nullptr) {  // SQLite dropped it at once: keep this row's own copy
      const std::vector<Token> once =
          tokenize(textOf(argv[0]), argc == 3 ? std::optional(textOf(argv[2])) : std::nullopt);
      sqlite3_result_int(ctx, matches(once, lowerUnicode(textOf(argv[1]))) ? 1 : 0);
      return;
    }
  }
  sqlite3_result_int(ctx, matches(*tokens, lowerUnicode(textOf(argv[1]))) ? 1 : 0);
}

}  // namespace

bool unicodeLike(std::string_view pattern, std::string_view text,
                 std::optional<std::string_view> escape) {
  return matches(tokenize(pattern, escape), lowerUnicode(text));
}

int registerUnicodeLike(sqlite3* db) {
  const int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC;
  int rc =
      sqlite3_create_function_v2(db, "like", 2, flags, nullptr, likeSql, nullptr, nullptr, nullptr);
  if (rc == SQLITE_OK)
    rc = sqlite3_create_function_v2(db, "like", 3, flags, nullptr, likeSql, nullptr, nullptr,
                                    nullptr);
  return rc;
}

}  // namespace orvel
