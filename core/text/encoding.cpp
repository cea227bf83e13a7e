#include "core/text/encoding.h"

#include <array>
#include <bit>
#include <cstring>

#include "core/text/path_norm.h"

namespace orvel {
namespace {

void appendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | cp >> 6);
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | cp >> 12);
    out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | cp >> 18);
    out += static_cast<char>(0x80 | (cp >> 12 & 0x3F));
    out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

constexpr std::array<int8_t, 256> kBase64Values = [] {
  std::array<int8_t, 256> v{};
  v.fill(-1);
  constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (size_t i = 0; i < alphabet.size(); ++i)
    v[static_cast<uint8_t>(alphabet[i])] = static_cast<int8_t>(i);
  return v;
}();

}  // namespace

std::string latin1ToUtf8(std::span<const uint8_t> bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (uint8_t b : bytes) appendUtf8(out, b);
  return out;
}

std::optional<std::string> utf16ToUtf8(std::span<const uint8_t> bytes, Utf16 form) {
  if (bytes.size() % 2 != 0) return std::nullopt;
  bool big = true;
  size_t i = 0;
  if (form == Utf16::withBom && bytes.size() >= 2) {
    if (bytes[0] == 0xFF && bytes[1] == 0xFE) {
      big = false;
      i = 2;
    } else if (bytes[0] == 0xFE && bytes[1] == 0xFF) {
      i = 2;
    }
  }
  auto unit = [&](size_t at) -> uint32_t {
    return big ? uint32_t{bytes[at]} << 8 | bytes[at + 1]
               : uint32_t{bytes[at + 1]} << 8 | bytes[at];
  };
  std::string out;
  out.resize((bytes.size() - i) / 2);
  // Most of what we decode is ASCII: one byte per unit, written in place.
  size_t n = 0;
  for (; i < bytes.size(); i += 2, ++n) {
    const uint32_t u = unit(i);
    if (u >= 0x80) break;
    out[n] = static_cast<char>(u);
  }
  out.resize(n);
  for (; i < bytes.size(); i += 2) {
    uint32_t u = unit(i);
    if (u >= 0xD800 && u <= 0xDBFF) {
      if (i + 3 >= bytes.size()) return std::nullopt;
      const uint32_t low = unit(i + 2);
      if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
      u = 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00);
      i += 2;
    } else if (u >= 0xDC00 && u <= 0xDFFF) {
      return std::nullopt;
    }
    appendUtf8(out, u);
  }
  return out;
}

std::optional<std::string> utf8Text(std::span<const uint8_t> bytes) {
  std::string text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (!isValidUtf8(text)) return std::nullopt;
  return text;
}

std::optional<std::string_view> asciiText(std::span<const uint8_t> bytes) {
  for (uint8_t b : bytes)
    if (b > 0x7F) return std::nullopt;
  return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

std::optional<std::vector<uint8_t>> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  size_t padding = 0;
  if (!text.empty() && text.back() == '=')
    padding = text.size() >= 2 && text[text.size() - 2] == '=' ? 2 : 1;
  std::vector<uint8_t> out;
  out.reserve(text.size() / 4 * 3);
  uint32_t acc = 0;
  for (size_t i = 0; i < text.size() - padding; ++i) {
    const int8_t v = kBase64Values[static_cast<uint8_t>(text[i])];
    if (v < 0) return std::nullopt;
    acc = acc << 6 | static_cast<uint32_t>(v);
    if (i % 4 == 3) {
      out.push_back(static_cast<uint8_t>(acc >> 16));
      out.push_back(static_cast<uint8_t>(acc >> 8));
      out.push_back(static_cast<uint8_t>(acc));
      acc = 0;
    }
  }
  if (padding == 1) {  // three characters: 18 bits, two bytes
    out.push_back(static_cast<uint8_t>(acc >> 10));
    out.push_back(static_cast<uint8_t>(acc >> 2));
  } else if (padding == 2) {  // two characters: 12 bits, one byte
    out.push_back(static_cast<uint8_t>(acc >> 4));
  }
  return out;
}

float readF32BE(const uint8_t* p) {
  return std::bit_cast<float>(readU32BE(p));
}

}  // namespace orvel
