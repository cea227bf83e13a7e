#include "core/formats/serato_tlv.h"

#include "core/text/encoding.h"

namespace orvel {
namespace {

std::vector<SeratoField> parseAt(std::span<const uint8_t> data, int depth) {
  std::vector<SeratoField> fields;
  size_t p = 0;
  while (data.size() - p >= 8) {
    const auto tag = asciiText(data.subspan(p, 4));
    if (!tag) break;
    const uint32_t length = readU32BE(&data[p + 4]);
    if (length > data.size() - p - 8) break;
    const auto payload = data.subspan(p + 8, length);

    SeratoField field;
    field.tag = std::string(*tag);
    SeratoValue& v = field.value;
    const char kind = field.tag[0];
    if (kind == 't' || kind == 'p' || kind == 'v') {
      v.kind = SeratoValue::Kind::string;
      v.text = utf16ToUtf8(payload, Utf16::bigEndian).value_or("");
    } else if (kind == 'u' && length == 4) {
      v.kind = SeratoValue::Kind::u32;
      v.number = readU32BE(payload.data());
    } else if (kind == 's' && length == 2) {
      v.kind = SeratoValue::Kind::u16;
      v.number = readU16BE(payload.data());
    } else if (kind == 'b' && length == 1) {
      v.kind = SeratoValue::Kind::byte;
      v.number = payload[0];
    } else if (kind == 'o' && depth < SeratoTLV::kMaxDepth) {
      v.kind = SeratoValue::Kind::container;
      v.fields = parseAt(payload, depth + 1);
    } else {
      v.kind = SeratoValue::Kind::raw;
      v.bytes.assign(payload.begin(), payload.end());
    }
    fields.push_back(std::move(field));
    p += 8 + size_t{length};
  }
  return fields;
}

void appendHeader(std::vector<uint8_t>& out, std::string_view tag, size_t length) {
  for (size_t i = 0; i < 4; ++i) out.push_back(i < tag.size() ? static_cast<uint8_t>(tag[i]) : ' ');
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(length >> shift));
}

}  // namespace

std::vector<SeratoField> SeratoTLV::parse(std::span<const uint8_t> data) {
  return parseAt(data, 0);
}

const SeratoField* SeratoTLV::find(std::span<const SeratoField> fields, std::string_view tag) {
  for (const SeratoField& f : fields)
    if (f.tag == tag) return &f;
  return nullptr;
}

void SeratoTLV::appendString(std::vector<uint8_t>& out, std::string_view tag,
                             std::string_view utf8) {
  // UTF-8 to UTF-16 big-endian.
  std::vector<uint8_t> payload;
  payload.reserve(utf8.size() * 2);
  auto unit = [&](uint32_t u) {
    payload.push_back(static_cast<uint8_t>(u >> 8));
    payload.push_back(static_cast<uint8_t>(u));
  };
  for (size_t i = 0; i < utf8.size();) {
    const auto c = static_cast<uint8_t>(utf8[i]);
    const int extra = c < 0x80 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
    uint32_t cp = extra == 0 ? c : c & (0x3F >> extra);
    for (int k = 1; k <= extra && i + static_cast<size_t>(k) < utf8.size(); ++k)
      cp = cp << 6 | (static_cast<uint8_t>(utf8[i + static_cast<size_t>(k)]) & 0x3F);
    i += static_cast<size_t>(extra) + 1;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      unit(0xD800 + (cp >> 10));
      unit(0xDC00 + (cp & 0x3FF));
    } else {
      unit(cp);
    }
  }
  appendBytes(out, tag, payload);
}

void SeratoTLV::appendU32(std::vector<uint8_t>& out, std::string_view tag, uint32_t value) {
  const uint8_t b[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                        static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
  appendBytes(out, tag, b);
}

void SeratoTLV::appendBytes(std::vector<uint8_t>& out, std::string_view tag,
                            std::span<const uint8_t> payload) {
  appendHeader(out, tag, payload.size());
  out.insert(out.end(), payload.begin(), payload.end());
}

}  // namespace orvel
