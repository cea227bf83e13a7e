// Serato's tag-length-value records, the one encoding of "database V2",
// ".crate" and ".scrate" files: a 4-character ASCII tag, a big-endian 32-bit
// length, then the payload. The tag's first letter says how to read the
// payload. Truncated data ends the parse quietly with what came before.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvel {

struct SeratoField;

struct SeratoValue {
  enum class Kind { string, u32, u16, byte, container, raw };
  Kind kind = Kind::raw;
  std::string text;                 // string
  uint32_t number = 0;              // u32, u16, byte
  std::vector<SeratoField> fields;  // container
  std::vector<uint8_t> bytes;       // raw

  const std::string* asString() const { return kind == Kind::string ? &text : nullptr; }
  const std::vector<SeratoField>* asContainer() const {
    return kind == Kind::container ? &fields : nullptr;
  }
};

struct SeratoField {
  std::string tag;  // 4 ASCII characters
  SeratoValue value;
};

struct SeratoTLV {
  // Containers nest at most this deep; a deeper one is kept as raw bytes, so
  // a hostile file cannot recurse without end.
  static constexpr int kMaxDepth = 16;

  static std::vector<SeratoField> parse(std::span<const uint8_t> data);

  // The first field with `tag`, or nullptr.
  static const SeratoField* find(std::span<const SeratoField> fields, std::string_view tag);

  // Writing, for the tests and the benchmark's generated libraries.
  static void appendString(std::vector<uint8_t>& out, std::string_view tag, std::string_view utf8);
  static void appendU32(std::vector<uint8_t>& out, std::string_view tag, uint32_t value);
  static void appendBytes(std::vector<uint8_t>& out, std::string_view tag,
                          std::span<const uint8_t> payload);
};

}  // namespace orvel
