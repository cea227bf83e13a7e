#include "core/text/path_norm.h"

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

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

std::string normalizePathKey(std::string_view utf8) {
  if (isAscii(utf8)) return asciiLower(utf8);
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
  if (isAscii(utf8)) return asciiLower(utf8);
  icu::UnicodeString u = icu::UnicodeString::fromUTF8(
      icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
  u.toLower(icu::Locale::getRoot());
  return toUtf8(u);
}

}  // namespace orvel
