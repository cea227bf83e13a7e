#include "core/formats/serato_payloads.h"

#include <algorithm>
#include <cctype>

#include "core/formats/serato_tags.h"
#include "core/text/encoding.h"

namespace orvel::SeratoPayloads {
namespace {

constexpr size_t kMaxTagBytes = size_t{64} << 20;
// Headers walked before a file is given up on: real files have a handful of
// FLAC blocks and chunks, a few dozen Ogg pages before the comments.
constexpr int kMaxHeaders = 4096;

uint32_t readU32LE(const uint8_t* p) {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

uint64_t readU64BE(const uint8_t* p) {
  return uint64_t{readU32BE(p)} << 32 | readU32BE(p + 4);
}

bool startsWith(std::span<const uint8_t> bytes, std::string_view prefix, size_t at = 0) {
  return bytes.size() >= at + prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), bytes.begin() + static_cast<ptrdiff_t>(at),
                    [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; });
}

std::string upper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

// The frame description a Vorbis comment key stands for; FLAC spells the
// keys in capitals with "_V2", Ogg files in small letters without.
std::optional<std::string_view> descriptionOfComment(std::string_view key) {
  const std::string k = upper(key);
  if (k == "SERATO_MARKERS_V2" || k == "SERATO_MARKERS2") return SeratoFileTags::kMarkers2;
  if (k == "SERATO_BEATGRID") return SeratoFileTags::kBeatGrid;
  return std::nullopt;
}

void fromComments(std::span<const uint8_t> block, std::vector<GEOBFrame>& out) {
  for (const auto& [key, value] : vorbisComments(block))
    if (const auto description = descriptionOfComment(key))
      if (auto frame = fromEnvelope(value, *description)) out.push_back(std::move(*frame));
}

std::vector<GEOBFrame> id3At(const ByteSource& source, uint64_t offset, uint64_t limit) {
  const std::vector<uint8_t> header = source.read(offset, ID3Reader::kHeaderSize);
  const auto size = ID3Reader::tagSize(header);
  if (!size) return {};
  const uint64_t room = limit > ID3Reader::kHeaderSize ? limit - ID3Reader::kHeaderSize : 0;
  const std::vector<uint8_t> body = source.read(
      offset + ID3Reader::kHeaderSize, static_cast<size_t>(std::min<uint64_t>(*size, room)));
  return ID3Reader::geobFrames(header, body);
}

// FLAC metadata blocks from just after "fLaC": 1 byte (last flag, type),
// 24-bit length; type 4 holds the Vorbis comments.
void flac(const ByteSource& source, uint64_t pos, std::vector<GEOBFrame>& out) {
  for (int i = 0; i < kMaxHeaders; ++i) {
    const std::vector<uint8_t> h = source.read(pos, 4);
    if (h.size() < 4) return;
    const bool last = (h[0] & 0x80) != 0;
    const int type = h[0] & 0x7F;
    const uint32_t length = uint32_t{h[1]} << 16 | uint32_t{h[2]} << 8 | h[3];
    if (type == 127) return;  // invalid by definition: not FLAC after all
    if (type == 4) fromComments(source.read(pos + 4, std::min<size_t>(length, kMaxTagBytes)), out);
    if (last) return;
    pos += 4 + uint64_t{length};
  }
}

// Ogg pages of the first logical stream, put together into packets until
// the second (the comment header) is complete.
void ogg(const ByteSource& source, std::vector<GEOBFrame>& out) {
  uint64_t pos = 0;
  std::optional<uint32_t> serial;
  std::vector<uint8_t> packet;
  int packets = 0;
  for (int i = 0; i < kMaxHeaders; ++i) {
    const std::vector<uint8_t> h = source.read(pos, 27);
    if (h.size() < 27 || !startsWith(h, "OggS")) return;
    const uint32_t pageSerial = readU32LE(&h[14]);
    const size_t segments = h[26];
    const std::vector<uint8_t> lacing = source.read(pos + 27, segments);
    if (lacing.size() < segments) return;
    size_t bodySize = 0;
    for (uint8_t l : lacing) bodySize += l;
    const uint64_t bodyAt = pos + 27 + segments;
    pos = bodyAt + bodySize;
    if (!serial) serial = pageSerial;
    if (pageSerial != *serial) continue;  // another stream multiplexed in
    const std::vector<uint8_t> body = source.read(bodyAt, bodySize);
    if (body.size() < bodySize) return;
    size_t at = 0;
    for (uint8_t l : lacing) {
      if (packet.size() + l > kMaxTagBytes) return;
      packet.insert(packet.end(), body.begin() + static_cast<ptrdiff_t>(at),
                    body.begin() + static_cast<ptrdiff_t>(at + l));
      at += l;
      if (l == 255) continue;  // the packet goes on in the next segment
      if (++packets == 2) {
        const std::span<const uint8_t> p(packet);
        if (startsWith(p, "\x03vorbis"))
          fromComments(p.subspan(7), out);
        else if (startsWith(p, "OpusTags"))
          fromComments(p.subspan(8), out);
        return;
      }
      packet.clear();
    }
  }
}

// One MP4 box inside bytes already read: its type and body.
struct Box {
  std::string_view type;
  std::span<const uint8_t> body;
};

std::vector<Box> boxes(std::span<const uint8_t> bytes) {
  std::vector<Box> out;
  size_t pos = 0;
  while (bytes.size() - pos >= 8) {
    uint64_t size = readU32BE(&bytes[pos]);
    size_t header = 8;
    if (size == 1) {
      if (bytes.size() - pos < 16) break;
      size = readU64BE(&bytes[pos + 8]);
      header = 16;
    } else if (size == 0) {
      size = bytes.size() - pos;
    }
    if (size < header || size > bytes.size() - pos) break;
    const std::string_view type(reinterpret_cast<const char*>(&bytes[pos + 4]), 4);
    out.push_back({type, bytes.subspan(pos + header, static_cast<size_t>(size) - header)});
    pos += static_cast<size_t>(size);
  }
  return out;
}

std::optional<std::span<const uint8_t>> child(std::span<const uint8_t> bytes,
                                              std::string_view type) {
  for (const Box& b : boxes(bytes))
    if (b.type == type) return b.body;
  return std::nullopt;
}

// "meta" is a full box (version and flags first) in iTunes files, a plain
// one in QuickTime's; its first child is always "hdlr".
std::span<const uint8_t> metaChildren(std::span<const uint8_t> meta) {
  if (startsWith(meta, "hdlr", 4)) return meta;
  return meta.size() >= 4 ? meta.subspan(4) : meta.subspan(meta.size());
}

std::string_view afterVersion(std::span<const uint8_t> body, size_t skip) {
  if (body.size() < skip) return {};
  return {reinterpret_cast<const char*>(body.data() + skip), body.size() - skip};
}

void ilst(std::span<const uint8_t> list, std::vector<GEOBFrame>& out) {
  for (const Box& item : boxes(list)) {
    if (item.type != "----") continue;
    std::string_view mean, name, value;
    for (const Box& part : boxes(item.body)) {
      if (part.type == "mean") mean = afterVersion(part.body, 4);
      if (part.type == "name") name = afterVersion(part.body, 4);
      // type indicator and locale, then the value
      if (part.type == "data" && value.empty()) value = afterVersion(part.body, 8);
    }
    if (mean != "com.serato.dj") continue;
    std::optional<std::string_view> description;
    if (name == "markersv2") description = SeratoFileTags::kMarkers2;
    if (name == "beatgrid") description = SeratoFileTags::kBeatGrid;
    if (!description) continue;
    if (auto frame = fromEnvelope(value, *description)) out.push_back(std::move(*frame));
  }
}

void mp4(const ByteSource& source, std::vector<GEOBFrame>& out) {
  uint64_t pos = 0;
  for (int i = 0; i < kMaxHeaders && pos < source.size(); ++i) {
    const std::vector<uint8_t> h = source.read(pos, 16);
    if (h.size() < 8) return;
    uint64_t size = readU32BE(h.data());
    uint64_t header = 8;
    if (size == 1) {
      if (h.size() < 16) return;
      size = readU64BE(&h[8]);
      header = 16;
    } else if (size == 0) {
      size = source.size() - pos;
    }
    if (size < header) return;
    if (startsWith(h, "moov", 4)) {
      if (size - header > kMaxTagBytes) return;
      const std::vector<uint8_t> moov =
          source.read(pos + header, static_cast<size_t>(size - header));
      std::vector<std::span<const uint8_t>> metas;
      if (auto udta = child(moov, "udta"))
        if (auto meta = child(*udta, "meta")) metas.push_back(*meta);
      if (auto meta = child(moov, "meta")) metas.push_back(*meta);
      for (const auto& meta : metas)
        if (auto list = child(metaChildren(meta), "ilst")) ilst(*list, out);
      return;
    }
    pos += size;
  }
}

// IFF chunks (AIFF, big-endian sizes) or RIFF chunks (WAV, little-endian),
// from just after the form type; the ID3 tag sits in an "ID3 " chunk.
void chunks(const ByteSource& source, bool bigEndian, std::vector<GEOBFrame>& out) {
  uint64_t pos = 12;
  for (int i = 0; i < kMaxHeaders; ++i) {
    const std::vector<uint8_t> h = source.read(pos, 8);
    if (h.size() < 8) return;
    const uint32_t size = bigEndian ? readU32BE(&h[4]) : readU32LE(&h[4]);
    if (startsWith(h, "ID3 ") || startsWith(h, "id3 ")) {
      auto frames = id3At(source, pos + 8, std::min<uint64_t>(size, kMaxTagBytes));
      std::move(frames.begin(), frames.end(), std::back_inserter(out));
    }
    pos += 8 + uint64_t{size} + (size & 1);  // chunks are padded to an even length
  }
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

}  // namespace

std::optional<std::vector<uint8_t>> seratoBase64(std::string_view text) {
  std::string clean;
  clean.reserve(text.size() + 3);
  for (char c : text)
    if (!isSpace(c)) clean += c;
  const size_t first = clean.find_first_not_of('\0');
  if (first == std::string::npos) return std::nullopt;
  clean = clean.substr(first, clean.find_last_not_of('\0') - first + 1);
  // Serato sometimes leaves one character past the last whole group of
  // four. Six bits make no byte, so it carries nothing and is dropped.
  if (clean.size() % 4 == 1 && clean.back() != '=') clean.pop_back();
  clean.append(((clean.size() + 3) & ~size_t{3}) - clean.size(), '=');
  return base64Decode(clean);
}

std::vector<std::pair<std::string, std::string>> vorbisComments(std::span<const uint8_t> block) {
  std::vector<std::pair<std::string, std::string>> out;
  if (block.size() < 4) return out;
  const uint32_t vendor = readU32LE(block.data());
  if (vendor > block.size() - 4) return out;
  size_t pos = 4 + size_t{vendor};
  if (block.size() - pos < 4) return out;
  const uint32_t count = readU32LE(&block[pos]);
  pos += 4;
  for (uint32_t i = 0; i < count && block.size() - pos >= 4; ++i) {
    const uint32_t length = readU32LE(&block[pos]);
    pos += 4;
    if (length > block.size() - pos) break;
    const std::string_view comment(reinterpret_cast<const char*>(&block[pos]), length);
    pos += length;
    const size_t eq = comment.find('=');
    if (eq == std::string_view::npos) continue;
    out.emplace_back(std::string(comment.substr(0, eq)), std::string(comment.substr(eq + 1)));
  }
  return out;
}

std::optional<GEOBFrame> fromEnvelope(std::string_view value, std::string_view description) {
  auto decoded = seratoBase64(value);
  if (!decoded) {
    // Not base64: the value may be the GEOB object itself.
    if (value.size() >= 2 && value[0] == '\x01' && value[1] == '\x01')
      return GEOBFrame{std::string(description), {value.begin(), value.end()}};
    return std::nullopt;
  }
  const std::span<const uint8_t> bytes(*decoded);
  static constexpr std::string_view kMime = "application/octet-stream";
  if (!startsWith(bytes, kMime) || bytes.size() <= kMime.size() || bytes[kMime.size()] != 0)
    return GEOBFrame{std::string(description), std::move(*decoded)};
  // mime NUL, file name NUL, description NUL, object
  size_t pos = kMime.size() + 1;
  auto field = [&]() -> std::optional<std::string> {
    const auto end = std::find(bytes.begin() + static_cast<ptrdiff_t>(pos), bytes.end(), 0);
    if (end == bytes.end()) return std::nullopt;
    std::string text(bytes.begin() + static_cast<ptrdiff_t>(pos), end);
    pos = static_cast<size_t>(end - bytes.begin()) + 1;
    return text;
  };
  if (!field()) return std::nullopt;
  auto named = field();
  if (!named) return std::nullopt;
  return GEOBFrame{named->empty() ? std::string(description) : std::move(*named),
                   {bytes.begin() + static_cast<ptrdiff_t>(pos), bytes.end()}};
}

std::vector<GEOBFrame> find(const ByteSource& source) {
  std::vector<GEOBFrame> out;
  const std::vector<uint8_t> head = source.read(0, 12);
  if (startsWith(head, "ID3")) {
    out = id3At(source, 0, source.size());
    // A FLAC stream with an ID3 tag in front of it (some taggers do that).
    if (const auto size =
            ID3Reader::tagSize(std::span(head).first(std::min<size_t>(10, head.size())))) {
      const uint64_t after = ID3Reader::kHeaderSize + *size + ((head[5] & 0x10) ? 10 : 0);
      if (startsWith(source.read(after, 4), "fLaC")) flac(source, after + 4, out);
    }
  } else if (startsWith(head, "fLaC")) {
    flac(source, 4, out);
  } else if (startsWith(head, "OggS")) {
    ogg(source, out);
  } else if (startsWith(head, "ftyp", 4)) {
    mp4(source, out);
  } else if (startsWith(head, "FORM") &&
             (startsWith(head, "AIFF", 8) || startsWith(head, "AIFC", 8))) {
    chunks(source, true, out);
  } else if (startsWith(head, "RIFF") && startsWith(head, "WAVE", 8)) {
    chunks(source, false, out);
  }
  std::erase_if(out, [](const GEOBFrame& f) {
    return f.description != SeratoFileTags::kMarkers2 && f.description != SeratoFileTags::kBeatGrid;
  });
  return out;
}

std::vector<GEOBFrame> find(const std::filesystem::path& file) {
  const FileSource source(file);
  if (!source.isOpen()) return {};
  return find(source);
}

}  // namespace orvel::SeratoPayloads
