#include "core/formats/id3_reader.h"

#include <cstdio>
#include <functional>
#include <memory>

#include "core/text/encoding.h"

namespace orvel {
namespace {

uint32_t synchsafe(const uint8_t* p) {
  return uint32_t{p[0] & 0x7Fu} << 21 | uint32_t{p[1] & 0x7Fu} << 14 | uint32_t{p[2] & 0x7Fu} << 7 |
         uint32_t{p[3] & 0x7Fu};
}

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }  // a close error changes nothing read
};

// Reads up to `n` bytes; fewer when the file ends first.
std::vector<uint8_t> readUpTo(std::FILE* f, size_t n) {
  std::vector<uint8_t> out(n);
  size_t got = 0;
  while (got < n) {
    const size_t r = std::fread(out.data() + got, 1, n - got, f);
    if (r == 0) break;
    got += r;
  }
  out.resize(got);
  return out;
}

}  // namespace

std::optional<uint32_t> ID3Reader::tagSize(std::span<const uint8_t> header) {
  if (header.size() != kHeaderSize) return std::nullopt;
  if (header[0] != 'I' || header[1] != 'D' || header[2] != '3') return std::nullopt;
  if ((header[6] & 0x7F) > 31) return std::nullopt;  // 64 MiB or more
  const uint32_t size = synchsafe(&header[6]);
  if (size == 0) return std::nullopt;
  return size;
}

std::vector<GEOBFrame> ID3Reader::geobFrames(const std::filesystem::path& file) {
  std::unique_ptr<std::FILE, FileCloser> f(std::fopen(file.c_str(), "rb"));
  if (!f) return {};
  const std::vector<uint8_t> header = readUpTo(f.get(), kHeaderSize);
  const auto size = tagSize(header);
  if (!size) return {};
  const std::vector<uint8_t> body = readUpTo(f.get(), *size);
  return geobFrames(header, body);
}

void ID3Reader::walk(std::span<const uint8_t> header, std::span<const uint8_t> rawBody,
                     const std::function<void(std::string_view, std::span<const uint8_t>)>& visit) {
  const auto size = tagSize(header);
  if (!size || rawBody.empty()) return;
  if (rawBody.size() > *size) rawBody = rawBody.first(*size);
  const uint8_t version = header[3];
  const uint8_t flags = header[5];

  std::vector<uint8_t> deunsynced;
  std::span<const uint8_t> body = rawBody;
  if (flags & 0x80) {
    deunsynced = deunsync(rawBody);
    body = deunsynced;
  }

  size_t pos = 0;
  if ((flags & 0x40) && body.size() >= 4) {
    const uint64_t extended =
        version == 4 ? synchsafe(body.data()) : uint64_t{readU32BE(body.data())} + 4;
    pos = static_cast<size_t>(std::min<uint64_t>(extended, body.size()));
  }

  const bool v2 = version == 2;
  const size_t idLength = v2 ? 3 : 4;
  const size_t headerLength = v2 ? 6 : 10;

  while (pos + headerLength <= body.size()) {
    const uint8_t* h = body.data() + pos;
    if (h[0] == 0) break;  // padding
    const auto id = asciiText(body.subspan(pos, idLength));
    if (!id) break;
    uint64_t frameSize = 0;
    if (v2)
      frameSize = uint32_t{h[3]} << 16 | uint32_t{h[4]} << 8 | h[5];
    else if (version == 4)
      frameSize = synchsafe(h + 4);
    else
      frameSize = readU32BE(h + 4);
    if (frameSize == 0 || pos + headerLength + frameSize > body.size()) break;

    std::span<const uint8_t> frameBody = body.subspan(pos + headerLength, frameSize);
    std::vector<uint8_t> frameDeunsynced;
    if (version == 4 && (h[9] & 0x02)) {
      frameDeunsynced = deunsync(frameBody);
      frameBody = frameDeunsynced;
    }
    visit(*id, frameBody);
    pos += headerLength + frameSize;
  }
}

std::vector<GEOBFrame> ID3Reader::geobFrames(std::span<const uint8_t> header,
                                             std::span<const uint8_t> body) {
  std::vector<GEOBFrame> frames;
  const bool v2 = header.size() > 3 && header[3] == 2;
  const std::string_view wanted = v2 ? "GEO" : "GEOB";
  walk(header, body, [&](std::string_view id, std::span<const uint8_t> frameBody) {
    if (id != wanted) return;
    if (auto frame = parseGEOB(frameBody)) frames.push_back(std::move(*frame));
  });
  return frames;
}

std::vector<ID3Reader::TextFrame> ID3Reader::textFrames(std::span<const uint8_t> header,
                                                        std::span<const uint8_t> body) {
  std::vector<TextFrame> frames;
  walk(header, body, [&](std::string_view id, std::span<const uint8_t> frameBody) {
    if (frameBody.empty()) return;
    const uint8_t encoding = frameBody[0];
    TextFrame frame{std::string(id), {}};
    size_t pos = 1;
    if (id == "COMM" || id == "COM") {
      // language, then a description: only the plain comment is the user's
      if (frameBody.size() < 4) return;
      auto [description, next] = readString(frameBody, 4, encoding);
      if (!description.empty()) return;
      pos = next;
    } else if (id.empty() || id[0] != 'T' || id == "TXXX" || id == "TXX") {
      return;
    }
    // ID3v2.4 separates the values of one frame with the terminator.
    while (pos < frameBody.size()) {
      auto [text, next] = readString(frameBody, pos, encoding);
      if (!text.empty()) frame.values.push_back(std::move(text));
      if (next <= pos) break;
      pos = next;
    }
    if (!frame.values.empty()) frames.push_back(std::move(frame));
  });
  return frames;
}

std::optional<std::vector<ID3Reader::TextFrame>> ID3Reader::textFrames(
    const std::filesystem::path& file) {
  std::unique_ptr<std::FILE, FileCloser> f(std::fopen(file.c_str(), "rb"));
  if (!f) return std::nullopt;
  const std::vector<uint8_t> header = readUpTo(f.get(), kHeaderSize);
  const auto size = tagSize(header);
  if (!size) return std::nullopt;
  const std::vector<uint8_t> body = readUpTo(f.get(), *size);
  return textFrames(header, body);
}

std::optional<GEOBFrame> ID3Reader::parseGEOB(std::span<const uint8_t> body) {
  if (body.size() < 5) return std::nullopt;
  const uint8_t encoding = body[0];
  size_t mimeEnd = 1;
  while (mimeEnd < body.size() && body[mimeEnd] != 0) ++mimeEnd;
  if (mimeEnd >= body.size()) return std::nullopt;
  const size_t afterFileName = readString(body, mimeEnd + 1, encoding).second;
  auto [description, afterDescription] = readString(body, afterFileName, encoding);
  if (afterDescription > body.size()) return std::nullopt;
  GEOBFrame frame;
  frame.description = std::move(description);
  frame.object.assign(body.begin() + static_cast<std::ptrdiff_t>(afterDescription), body.end());
  return frame;
}

std::pair<std::string, size_t> ID3Reader::readString(std::span<const uint8_t> data, size_t offset,
                                                     uint8_t encoding) {
  if (offset >= data.size()) return {std::string(), data.size()};
  const bool wide = encoding == 1 || encoding == 2;
  const size_t step = wide ? 2 : 1;
  size_t end = offset;
  bool terminated = false;
  for (; wide ? end + 1 < data.size() : end < data.size(); end += step) {
    if (data[end] == 0 && (!wide || data[end + 1] == 0)) {
      terminated = true;
      break;
    }
  }
  if (!terminated) end = data.size();
  const std::span<const uint8_t> bytes = data.subspan(offset, end - offset);
  std::string text;
  if (encoding == 1)
    text = utf16ToUtf8(bytes, Utf16::withBom).value_or("");
  else if (encoding == 2)
    text = utf16ToUtf8(bytes, Utf16::bigEndian).value_or("");
  else if (encoding == 3)
    text = utf8Text(bytes).value_or("");
  else
    text = latin1ToUtf8(bytes);
  const size_t next = terminated ? std::min(end + step, data.size()) : data.size();
  return {std::move(text), next};
}

std::vector<uint8_t> ID3Reader::deunsync(std::span<const uint8_t> bytes) {
  std::vector<uint8_t> out;
  out.reserve(bytes.size());
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] == 0x00 && i > 0 && bytes[i - 1] == 0xFF) continue;
    out.push_back(bytes[i]);
  }
  return out;
}

}  // namespace orvel
