#include "core/testing/serato_bytes.h"

#include <bit>
#include <fstream>
#include <stdexcept>

#include "core/formats/serato_tlv.h"

namespace orvel::testing {

Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

Bytes u32be(uint32_t v) {
  return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
          static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
}

Bytes f32be(float v) {
  return u32be(std::bit_cast<uint32_t>(v));
}

Bytes synchsafe(uint32_t v) {
  return {static_cast<uint8_t>(v >> 21 & 0x7F), static_cast<uint8_t>(v >> 14 & 0x7F),
          static_cast<uint8_t>(v >> 7 & 0x7F), static_cast<uint8_t>(v & 0x7F)};
}

Bytes encodedText(std::string_view ascii, uint8_t encoding) {
  Bytes out;
  if (encoding == 1) {
    out = {0xFF, 0xFE};
    for (char c : ascii) out.insert(out.end(), {static_cast<uint8_t>(c), 0});
    out.insert(out.end(), {0, 0});
  } else if (encoding == 2) {
    for (char c : ascii) out.insert(out.end(), {0, static_cast<uint8_t>(c)});
    out.insert(out.end(), {0, 0});
  } else {
    out = bytesOf(ascii);
    out.push_back(0);
  }
  return out;
}

Bytes geobBody(uint8_t encoding, const Bytes& fileName, const Bytes& description,
               const Bytes& object, std::string_view mime) {
  Bytes out{encoding};
  const Bytes m = bytesOf(mime);
  out.insert(out.end(), m.begin(), m.end());
  out.push_back(0);
  return concat({out, fileName, description, object});
}

Bytes id3Tag(uint8_t version, const std::vector<Id3Frame>& frames, uint8_t flags,
             const Bytes& extendedHeader, size_t padding) {
  Bytes body = extendedHeader;
  for (const Id3Frame& f : frames) {
    const uint32_t size = f.declaredSize.value_or(static_cast<uint32_t>(f.body.size()));
    body.insert(body.end(), f.id.begin(), f.id.end());
    if (version == 2) {
      body.insert(body.end(), {static_cast<uint8_t>(size >> 16), static_cast<uint8_t>(size >> 8),
                               static_cast<uint8_t>(size)});
    } else {
      const Bytes s = version == 4 ? synchsafe(size) : u32be(size);
      body.insert(body.end(), s.begin(), s.end());
      body.insert(body.end(), {0, f.flags2});
    }
    body.insert(body.end(), f.body.begin(), f.body.end());
  }
  body.insert(body.end(), padding, 0);
  Bytes header{'I', 'D', '3', version, 0, flags};
  const Bytes size = synchsafe(static_cast<uint32_t>(body.size()));
  return concat({header, size, body});
}

Bytes markersEntry(std::string_view type, const Bytes& body) {
  Bytes out = bytesOf(type);
  out.push_back(0);
  return concat({out, u32be(static_cast<uint32_t>(body.size())), body});
}

Bytes cueBody(uint8_t index, uint32_t positionMs, uint8_t r, uint8_t g, uint8_t b,
              std::optional<std::string> name) {
  Bytes out = concat({{0, index}, u32be(positionMs), {0, r, g, b, 0, 0}});
  if (name) {
    const Bytes n = bytesOf(*name);
    out.insert(out.end(), n.begin(), n.end());
    out.push_back(0);
  }
  return out;
}

Bytes loopBody(uint8_t index, uint32_t startMs, uint32_t endMs, std::optional<std::string> name) {
  Bytes out = concat({{0, index}, u32be(startMs), u32be(endMs), Bytes(11, 0xFF)});
  if (name) {
    const Bytes n = bytesOf(*name);
    out.insert(out.end(), n.begin(), n.end());
    out.push_back(0);
  }
  return out;
}

std::string base64(const Bytes& data) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  size_t i = 0;
  for (; i + 2 < data.size(); i += 3) {
    const uint32_t v = uint32_t{data[i]} << 16 | uint32_t{data[i + 1]} << 8 | data[i + 2];
    for (int s = 18; s >= 0; s -= 6) out += kAlphabet[v >> s & 0x3F];
  }
  if (data.size() - i == 1) {
    const uint32_t v = uint32_t{data[i]} << 16;
    out += kAlphabet[v >> 18 & 0x3F];
    out += kAlphabet[v >> 12 & 0x3F];
    out += "==";
  } else if (data.size() - i == 2) {
    const uint32_t v = uint32_t{data[i]} << 16 | uint32_t{data[i + 1]} << 8;
    out += kAlphabet[v >> 18 & 0x3F];
    out += kAlphabet[v >> 12 & 0x3F];
    out += kAlphabet[v >> 6 & 0x3F];
    out += '=';
  }
  return out;
}

Bytes markers2Object(const std::vector<Bytes>& entries, size_t nulPadding) {
  Bytes payload{0x01, 0x01};
  for (const Bytes& e : entries) payload.insert(payload.end(), e.begin(), e.end());
  payload.push_back(0);
  std::string text = base64(payload);
  while (!text.empty() && text.back() == '=') text.pop_back();
  Bytes out{0x01, 0x01};
  for (size_t i = 0; i < text.size(); i += 72) {
    if (i != 0) out.push_back('\n');
    const std::string line = text.substr(i, 72);
    out.insert(out.end(), line.begin(), line.end());
  }
  out.insert(out.end(), nulPadding, 0);
  return out;
}

Bytes beatGridObject(const std::vector<std::pair<float, float>>& markers,
                     std::optional<uint32_t> declaredCount) {
  Bytes out =
      concat({{0x01, 0x00}, u32be(declaredCount.value_or(static_cast<uint32_t>(markers.size())))});
  for (const auto& [position, tail] : markers) out = concat({out, f32be(position), f32be(tail)});
  out.push_back(0);  // footer
  return out;
}

Bytes seratoTrackRecord(const SeratoFields& fields, std::optional<uint32_t> dateAdded) {
  Bytes inner;
  for (const auto& [tag, text] : fields) SeratoTLV::appendString(inner, tag, text);
  if (dateAdded) SeratoTLV::appendU32(inner, "uadd", *dateAdded);
  Bytes out;
  SeratoTLV::appendBytes(out, "otrk", inner);
  return out;
}

Bytes seratoDatabase(const std::vector<Bytes>& trackRecords) {
  Bytes out;
  SeratoTLV::appendString(out, "vrsn", "2.0/Serato Scratch LIVE Database");
  for (const Bytes& r : trackRecords) out.insert(out.end(), r.begin(), r.end());
  return out;
}

Bytes seratoCrate(const std::vector<std::string>& paths) {
  Bytes out;
  SeratoTLV::appendString(out, "vrsn", "1.0/Serato ScratchLive Crate");
  for (const std::string& p : paths) {
    Bytes inner;
    SeratoTLV::appendString(inner, "ptrk", p.starts_with("/") ? p.substr(1) : p);
    SeratoTLV::appendBytes(out, "otrk", inner);
  }
  return out;
}

Bytes seratoSmartCrate(const std::vector<SeratoRuleSpec>& rules, bool matchAll, bool live) {
  Bytes out;
  SeratoTLV::appendString(out, "vrsn", "1.0/Serato ScratchLive Smart Crate");
  auto flag = [&](std::string_view tag, bool on) {
    Bytes inner;
    SeratoTLV::appendBytes(inner, "brut", Bytes{static_cast<uint8_t>(on ? 1 : 0)});
    SeratoTLV::appendBytes(out, tag, inner);
  };
  flag("rart", matchAll);
  flag("rlut", live);
  for (const SeratoRuleSpec& r : rules) {
    Bytes inner;
    SeratoTLV::appendU32(inner, "urkt", r.field);
    SeratoTLV::appendString(inner, "trft", r.condition);
    if (r.text) SeratoTLV::appendString(inner, "trpt", *r.text);
    if (r.number) SeratoTLV::appendU32(inner, "urpt", *r.number);
    SeratoTLV::appendBytes(out, "rurt", inner);
  }
  return out;
}

void writeBytes(const std::filesystem::path& file, const Bytes& bytes) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + file.string());
}

}  // namespace orvel::testing
