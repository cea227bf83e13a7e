#include "core/testing/serato_bytes.h"

#include <algorithm>
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

Bytes loopBody(uint8_t index, uint32_t startMs, uint32_t endMs, std::optional<std::string> name,
               uint32_t rgb, bool locked) {
  Bytes out = concat({{0, index},
                      u32be(startMs),
                      u32be(endMs),
                      {0xFF, 0xFF, 0xFF, 0xFF},
                      u32be(rgb & 0xFFFFFF),
                      {0, static_cast<uint8_t>(locked ? 1 : 0)}});
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
  const uint32_t count = declaredCount.value_or(static_cast<uint32_t>(markers.size()));
  Bytes out = concat({{0x01, 0x00}, u32be(count)});
  for (size_t i = 0; i < markers.size(); ++i) {
    const auto [position, tail] = markers[i];
    const bool terminal = i + 1 == count;
    out =
        concat({out, f32be(position), terminal ? f32be(tail) : u32be(static_cast<uint32_t>(tail))});
  }
  out.push_back(0);  // footer
  return out;
}

std::string seratoEnvelope(std::string_view description, const Bytes& object) {
  const Bytes inner =
      concat({bytesOf("application/octet-stream"), {0, 0}, bytesOf(description), {0}, object});
  std::string text = base64(inner);
  while (!text.empty() && text.back() == '=') text.pop_back();
  std::string wrapped;
  for (size_t i = 0; i < text.size(); i += 72) {
    if (i != 0) wrapped += '\n';
    wrapped += text.substr(i, 72);
  }
  return wrapped;
}

namespace {

Bytes u32le(uint32_t v) {
  return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
          static_cast<uint8_t>(v >> 24)};
}

Bytes vorbisCommentBlock(const Comments& comments) {
  const std::string vendor = "orvel test";
  Bytes out = concat({u32le(static_cast<uint32_t>(vendor.size())), bytesOf(vendor),
                      u32le(static_cast<uint32_t>(comments.size()))});
  for (const auto& [key, value] : comments) {
    const std::string c = key + "=" + value;
    out = concat({out, u32le(static_cast<uint32_t>(c.size())), bytesOf(c)});
  }
  return out;
}

// One Ogg page holding `segments` (each under 256 bytes) of the stream.
Bytes oggPage(uint8_t flags, uint32_t sequence, const std::vector<Bytes>& segments) {
  Bytes out = bytesOf("OggS");
  out.insert(out.end(), {0, flags});
  out.insert(out.end(), 8, 0);  // granule position
  out = concat(
      {out, u32le(0x4F52), u32le(sequence), u32le(0), {static_cast<uint8_t>(segments.size())}});
  for (const Bytes& s : segments) out.push_back(static_cast<uint8_t>(s.size()));
  for (const Bytes& s : segments) out.insert(out.end(), s.begin(), s.end());
  return out;
}

Bytes box(std::string_view type, const Bytes& body) {
  return concat({u32be(static_cast<uint32_t>(body.size() + 8)), bytesOf(type), body});
}

}  // namespace

Bytes flacFile(const Comments& comments) {
  const Bytes block = vorbisCommentBlock(comments);
  const auto n = static_cast<uint32_t>(block.size());
  return concat(
      {bytesOf("fLaC"),
       {0x00, 0, 0, 34},  // STREAMINFO, not the last block
       Bytes(34, 0x11),
       {0x84, static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)},
       block,
       {0xFF, 0xF8, 0x69, 0x08, 0x00}});
}

Bytes oggVorbisFile(const Comments& comments) {
  const Bytes identification = concat({{0x01}, bytesOf("vorbis"), Bytes(23, 0)});
  const Bytes comment = concat({{0x03}, bytesOf("vorbis"), vorbisCommentBlock(comments), {1}});
  // The comment packet in lacing segments of 255 and a shorter last one,
  // at most ten segments to a page, so a long packet spans pages.
  std::vector<Bytes> segments;
  for (size_t at = 0;; at += 255) {
    const size_t n = std::min<size_t>(255, comment.size() - at);
    segments.emplace_back(comment.begin() + static_cast<ptrdiff_t>(at),
                          comment.begin() + static_cast<ptrdiff_t>(at + n));
    if (n < 255) break;
  }
  Bytes out = oggPage(0x02, 0, {identification});
  uint32_t sequence = 1;
  for (size_t at = 0; at < segments.size(); at += 10) {
    const std::vector<Bytes> page(
        segments.begin() + static_cast<ptrdiff_t>(at),
        segments.begin() + static_cast<ptrdiff_t>(std::min(at + 10, segments.size())));
    out = concat({out, oggPage(at == 0 ? 0 : 0x01, sequence++, page)});
  }
  return concat({out, oggPage(0, sequence, {Bytes(40, 0x55)})});
}

Bytes mp4File(const std::vector<std::tuple<std::string, std::string, std::string>>& items) {
  Bytes list;
  for (const auto& [mean, name, value] : items)
    list =
        concat({list, box("----",
                          concat({box("mean", concat({Bytes(4, 0), bytesOf(mean)})),
                                  box("name", concat({Bytes(4, 0), bytesOf(name)})),
                                  box("data", concat({u32be(1), Bytes(4, 0), bytesOf(value)}))}))});
  const Bytes hdlr = box("hdlr", concat({Bytes(8, 0), bytesOf("mdirappl"), Bytes(9, 0)}));
  const Bytes meta = box("meta", concat({Bytes(4, 0), hdlr, box("ilst", list)}));
  return concat({box("ftyp", concat({bytesOf("M4A "), u32be(0), bytesOf("M4A isom")})),
                 box("mdat", Bytes(64, 0x42)),
                 box("moov", concat({box("mvhd", Bytes(100, 0)), box("udta", meta)}))});
}

Bytes aiffFile(const Bytes& id3) {
  Bytes chunks =
      concat({bytesOf("COMM"), u32be(18), Bytes(18, 0), bytesOf("SSND"), u32be(16), Bytes(16, 0),
              bytesOf("ID3 "), u32be(static_cast<uint32_t>(id3.size())), id3});
  if (id3.size() % 2) chunks.push_back(0);
  return concat(
      {bytesOf("FORM"), u32be(static_cast<uint32_t>(chunks.size() + 4)), bytesOf("AIFF"), chunks});
}

Bytes wavFile(const Bytes& id3) {
  Bytes chunks =
      concat({bytesOf("fmt "), u32le(16), Bytes(16, 0), bytesOf("data"), u32le(8), Bytes(8, 0),
              bytesOf("id3 "), u32le(static_cast<uint32_t>(id3.size())), id3});
  if (id3.size() % 2) chunks.push_back(0);
  return concat(
      {bytesOf("RIFF"), u32le(static_cast<uint32_t>(chunks.size() + 4)), bytesOf("WAVE"), chunks});
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
