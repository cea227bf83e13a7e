// The byte-to-text decoders every reader leans on, fed directly: through the
// readers they only ever see what a frame or record lets through (Markers2,
// for one, never hands base64Decode a text of the wrong length).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/formats/serato_tlv.h"
#include "core/store/unicode_like.h"
#include "core/text/encoding.h"
#include "core/text/path_norm.h"
#include "core/text/visible.h"
#include "fuzz/fuzz_checks.h"

namespace orvel::fuzz {
namespace {

void checkLatin1(std::span<const uint8_t> bytes) {
  const std::string text = latin1ToUtf8(bytes);
  require(isValidUtf8(text));
  // ASCII stays one byte; the upper half of Latin-1 takes two.
  size_t upper = 0;
  for (uint8_t b : bytes) upper += b >= 0x80;
  require(text.size() == bytes.size() + upper);
}

void checkUtf16(std::span<const uint8_t> bytes) {
  const auto big = utf16ToUtf8(bytes, Utf16::bigEndian);
  if (bytes.size() % 2 != 0) require(!big);
  if (big) {
    require(isValidUtf8(*big));
    // Well-formed UTF-16 has exactly one UTF-8 spelling and back, and
    // SeratoTLV writes its texts the other way round.
    std::vector<uint8_t> record;
    SeratoTLV::appendString(record, "tsng", *big);
    require(record.size() == 8 + bytes.size());
    require(std::equal(bytes.begin(), bytes.end(), record.begin() + 8));
  }

  // With a byte-order mark the rest reads in the order it names; without
  // one the text is big-endian.
  const auto marked = utf16ToUtf8(bytes, Utf16::withBom);
  if (bytes.size() >= 2 && bytes[0] == 0xFE && bytes[1] == 0xFF) {
    require(marked == utf16ToUtf8(bytes.subspan(2), Utf16::bigEndian));
  } else if (bytes.size() >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE) {
    std::vector<uint8_t> swapped(bytes.begin() + 2, bytes.end());
    for (size_t i = 0; i + 1 < swapped.size(); i += 2) std::swap(swapped[i], swapped[i + 1]);
    require(marked == utf16ToUtf8(swapped, Utf16::bigEndian));
  } else {
    require(marked == big);
  }
}

void checkUtf8AndAscii(std::span<const uint8_t> bytes) {
  const std::string_view raw(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const auto utf8 = utf8Text(bytes);
  require(utf8.has_value() == isValidUtf8(raw));
  if (utf8) require(*utf8 == raw);

  bool ascii = true;
  for (uint8_t b : bytes) ascii = ascii && b < 0x80;
  const auto seven = asciiText(bytes);
  require(seven.has_value() == ascii);
  if (seven) require(seven->data() == raw.data() && seven->size() == raw.size());
}

// What base64Decode's header allows: a length that is a multiple of four,
// the alphabet throughout, "=" only as the last one or two characters.
bool isStrictBase64(std::string_view text, size_t& padding) {
  if (text.size() % 4 != 0) return false;
  padding = 0;
  while (padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  if (padding > 2) return false;
  for (size_t i = 0; i + padding < text.size(); ++i) {
    const char c = text[i];
    const bool inAlphabet = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                            (c >= '0' && c <= '9') || c == '+' || c == '/';
    if (!inAlphabet) return false;
  }
  return true;
}

void checkBase64(std::span<const uint8_t> bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const auto decoded = base64Decode(text);
  size_t padding = 0;
  const bool strict = isStrictBase64(text, padding);
  require(decoded.has_value() == strict);
  if (!decoded) return;
  require(decoded->size() == text.size() / 4 * 3 - padding);
  require(base64Decode(base64Encode(*decoded)) == decoded);
}

// What is printed of a tag: nothing a terminal acts on, and text unchanged
// when it had nothing to hide.
void checkVisible(std::span<const uint8_t> bytes) {
  const std::string_view raw(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const std::string shown = visible(raw);
  require(isValidUtf8(shown));
  for (size_t i = 0; i < shown.size(); ++i) {
    const auto c = static_cast<unsigned char>(shown[i]);
    require(c >= 0x20 && c != 0x7f);
    // U+0080–U+009F, the 8-bit controls, spelled in UTF-8.
    require(
        !(c == 0xC2 && i + 1 < shown.size() && static_cast<unsigned char>(shown[i + 1]) < 0xA0));
  }
  require((shown == raw) == !needsEscaping(raw));
}

// The smart rules' LIKE over a pattern and a text split at the first NUL:
// it ends, "%" takes anything, and a text matches itself spelled with every
// character escaped.
void checkLike(std::span<const uint8_t> bytes) {
  const std::string_view raw(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const size_t cut = raw.find('\0');
  const std::string_view pattern = raw.substr(0, cut);
  const std::string_view text = cut == std::string_view::npos ? raw : raw.substr(cut + 1);
  (void)unicodeLike(pattern, text);
  require(unicodeLike("%", text));
  if (!isValidUtf8(text)) return;
  std::string literal;
  for (size_t i = 0; i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) literal += '!';
    literal += text[i];
  }
  require(unicodeLike(literal, text, std::string_view("!")));
}

}  // namespace
}  // namespace orvel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orvel::fuzz;
  const std::span<const uint8_t> input(data, size);
  checkLatin1(input);
  checkUtf16(input);
  checkUtf8AndAscii(input);
  checkBase64(input);
  checkVisible(input);
  checkLike(input);
  return 0;
}
