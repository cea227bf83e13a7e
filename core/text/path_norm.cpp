#include "core/text/path_norm.h"

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <cstdint>

namespace orvel {
namespace {

bool isAscii(std::string_view s) {
  for (unsigned char c : s)
    if (c >= 0x80) return false;
  return true;
}

// Pure ASCII text is already NFC and lower-cases byte by byte; most paths are
// ASCII, so this keeps bulk imports and the path-norm repair off ICU.
std::string asciiLower(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

std::string toUtf8(const icu::UnicodeString& u) {
  std::string out;
  u.toUTF8String(out);
  return out;
}

}  // namespace

// Linux file names are bytes; one that is not UTF-8 keeps its bytes (ASCII
// lower-cased) so two such names never collapse into one replacement character.
bool isValidUtf8(std::string_view s) {
  size_t i = 0;
  while (i < s.size()) {
    const auto c = static_cast<unsigned char>(s[i]);
    size_t len = 0;
    uint32_t cp = 0;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      len = 2;
      cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      len = 3;
      cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      len = 4;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (i + len > s.size()) return false;
    for (size_t k = 1; k < len; ++k) {
      const auto cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    const uint32_t minimum = len == 2 ? 0x80 : len == 3 ? 0x800 : 0x10000;
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += len;
  }
  return true;
}

std::string normalizePathKey(std::string_view utf8) {
  if (isAscii(utf8) || !isValidUtf8(utf8)) return asciiLower(utf8);
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
  icu::UnicodeString u = icu::UnicodeString::fromUTF8(
      icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
  if (U_SUCCESS(status)) {
    icu::UnicodeString composed = nfc->normalize(u, status);
    if (U_SUCCESS(status)) u = composed;
  }
  // The root locale gives the language-neutral full mapping ("İ" -> "i̇", "ẞ" -> "ß").
  u.toLower(icu::Locale::getRoot());
  return toUtf8(u);
}

std::string lowerUnicode(std::string_view utf8) {
  std::string out;
  appendLowerUnicode(out, utf8);
  return out;
}

void appendLowerUnicode(std::string& out, std::string_view utf8) {
  if (isAscii(utf8)) {
    const size_t at = out.size();
    out.append(utf8);
    for (size_t i = at; i < out.size(); ++i)
      if (out[i] >= 'A' && out[i] <= 'Z') out[i] = static_cast<char>(out[i] - 'A' + 'a');
    return;
  }
  icu::UnicodeString u = icu::UnicodeString::fromUTF8(
      icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
  u.toLower(icu::Locale::getRoot());
  u.toUTF8String(out);
}

}  // namespace orvel
