// Byte-to-text decoding for the foreign formats we read: ID3 text encodings,
// Serato's UTF-16 records and its base64 payloads. Every function answers
// "no value" for bytes that do not decode; none throws.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvel {

// ISO-8859-1 to UTF-8; every byte decodes.
std::string latin1ToUtf8(std::span<const uint8_t> bytes);

// UTF-16 to UTF-8. An odd length or an unpaired surrogate does not decode.
// `withBom`: a leading byte-order mark picks the order and is dropped; without
// one the text is big-endian.
enum class Utf16 { bigEndian, withBom };
std::optional<std::string> utf16ToUtf8(std::span<const uint8_t> bytes, Utf16 form);

// UTF-8 bytes as text when they are well-formed UTF-8.
std::optional<std::string> utf8Text(std::span<const uint8_t> bytes);

// The bytes as text when every one is 7-bit ASCII.
std::optional<std::string_view> asciiText(std::span<const uint8_t> bytes);

// Standard base64 (A–Z a–z 0–9 + /), strictly: the length a multiple of four,
// "=" only as the last one or two characters, nothing else in between.
std::optional<std::vector<uint8_t>> base64Decode(std::string_view text);

// Big-endian integers and a big-endian IEEE-754 single; the caller has
// checked that the bytes are there.
inline uint32_t readU32BE(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}
inline uint16_t readU16BE(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
float readF32BE(const uint8_t* p);

}  // namespace orvel
