#include "core/text/visible.h"

#include <cstdint>

namespace orvel {
namespace {

// The length of the well-formed UTF-8 sequence at `at`, or 0 when the bytes
// there are not one (overlong forms, surrogates and values past U+10FFFF
// included).
size_t sequenceLength(std::string_view s, size_t at, uint32_t& code) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(s[i]); };
  const uint8_t b0 = byte(at);
  size_t n = 0;
  if (b0 < 0x80) {
    code = b0;
    return 1;
  }
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    n = 2;
    code = b0 & 0x1F;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    n = 3;
    code = b0 & 0x0F;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    n = 4;
    code = b0 & 0x07;
  } else {
    return 0;
  }
  if (at + n > s.size()) return 0;
  for (size_t i = 1; i < n; ++i) {
    const uint8_t b = byte(at + i);
    if ((b & 0xC0) != 0x80) return 0;
    code = code << 6 | (b & 0x3F);
  }
  if ((n == 3 && (code < 0x800 || (code >= 0xD800 && code <= 0xDFFF))) ||
      (n == 4 && (code < 0x10000 || code > 0x10FFFF)))
    return 0;
  return n;
}

bool isControl(uint32_t code) {
  return code < 0x20 || code == 0x7F || (code >= 0x80 && code <= 0x9F);
}

void appendHex(std::string& out, std::string_view bytes) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (char c : bytes) {
    const auto b = static_cast<uint8_t>(c);
    out += "\\x";
    out += kHex[b >> 4];
    out += kHex[b & 15];
  }
}

}  // namespace

std::string visible(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    uint32_t code = 0;
    const size_t n = sequenceLength(text, i, code);
    if (n == 0) {
      appendHex(out, text.substr(i, 1));
      ++i;
      continue;
    }
    if (!isControl(code)) {
      out.append(text.substr(i, n));
    } else if (code == '\t') {
      out += "\\t";
    } else if (code == '\n') {
      out += "\\n";
    } else if (code == '\r') {
      out += "\\r";
    } else {
      appendHex(out, text.substr(i, n));
    }
    i += n;
  }
  return out;
}

bool needsEscaping(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    uint32_t code = 0;
    const size_t n = sequenceLength(text, i, code);
    if (n == 0 || isControl(code)) return true;
    i += n;
  }
  return false;
}

}  // namespace orvel
