#include "core/formats/serato_tags.h"

#include <fmt/format.h>

#include "core/formats/id3_reader.h"
#include "core/text/encoding.h"

namespace orvel {
namespace {

// The UTF-8 text from `offset` up to the first NUL or the end; none when it
// does not decode.
std::optional<std::string> nulTerminated(std::span<const uint8_t> body, size_t offset) {
  size_t end = offset;
  while (end < body.size() && body[end] != 0) ++end;
  return utf8Text(body.subspan(offset, end - offset));
}

bool isSpaceOrNewline(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

}  // namespace

SeratoFileTags SeratoFileTags::read(const std::filesystem::path& file) {
  SeratoFileTags tags;
  for (const GEOBFrame& frame : ID3Reader::geobFrames(file)) {
    if (frame.description == kMarkers2)
      parseMarkers2(frame.object, tags);
    else if (frame.description == kBeatGrid)
      parseBeatGrid(frame.object, tags);
  }
  return tags;
}

void SeratoFileTags::parseMarkers2(std::span<const uint8_t> object, SeratoFileTags& into) {
  if (object.size() < 3) return;
  const auto ascii = asciiText(object.subspan(2));
  if (!ascii) return;
  // Serato wraps the base64 text over lines, pads the frame with NULs and
  // leaves out the "=" padding.
  std::string text;
  text.reserve(ascii->size() + 3);
  for (char c : *ascii)
    if (!isSpaceOrNewline(c)) text += c;
  const size_t first = text.find_first_not_of('\0');
  if (first == std::string::npos) return;
  text = text.substr(first, text.find_last_not_of('\0') - first + 1);
  text.append(((text.size() + 3) & ~size_t{3}) - text.size(), '=');
  const auto data = base64Decode(text);
  if (!data || data->size() < 3) return;

  const std::span<const uint8_t> bytes(*data);
  size_t pos = 2;
  while (pos < bytes.size()) {
    size_t nul = pos;
    while (nul < bytes.size() && bytes[nul] != 0) ++nul;
    if (nul >= bytes.size()) break;
    const auto type = asciiText(bytes.subspan(pos, nul - pos));
    if (!type || type->empty()) break;
    if (bytes.size() - (nul + 1) < 4) break;
    const uint32_t length = readU32BE(&bytes[nul + 1]);
    const size_t bodyStart = nul + 5;
    if (length > bytes.size() - bodyStart) break;
    const auto body = bytes.subspan(bodyStart, length);
    if (*type == "CUE") {
      if (auto cue = parseCue(body)) into.cues.push_back(std::move(*cue));
    } else if (*type == "LOOP") {
      if (auto loop = parseLoop(body)) into.loops.push_back(std::move(*loop));
    }
    pos = bodyStart + length;
  }
}

std::optional<SeratoCue> SeratoFileTags::parseCue(std::span<const uint8_t> body) {
  if (body.size() < 12) return std::nullopt;
  SeratoCue cue;
  cue.index = body[1];
  cue.positionMs = readU32BE(&body[2]);
  cue.colorHex = fmt::format("#{:02X}{:02X}{:02X}", body[7], body[8], body[9]);
  if (body.size() >= 13) cue.name = nulTerminated(body, 12);
  return cue;
}

std::optional<SeratoLoop> SeratoFileTags::parseLoop(std::span<const uint8_t> body) {
  if (body.size() < 14) return std::nullopt;
  SeratoLoop loop;
  loop.index = body[1];
  loop.startMs = readU32BE(&body[2]);
  loop.endMs = readU32BE(&body[6]);
  if (body.size() >= 22) loop.name = nulTerminated(body, 21);
  return loop;
}

void SeratoFileTags::parseBeatGrid(std::span<const uint8_t> object, SeratoFileTags& into) {
  if (object.size() < 6) return;
  const uint32_t count = readU32BE(&object[2]);
  // The count is not trusted: the loop ends where the bytes do.
  for (uint32_t i = 0; i < count; ++i) {
    const size_t at = 6 + size_t{i} * 8;
    if (at + 8 > object.size()) break;
    SeratoGridAnchor anchor;
    anchor.positionSec = readF32BE(&object[at]);
    const double tail = readF32BE(&object[at + 4]);
    if (i == count - 1)
      anchor.bpm = tail;
    else
      anchor.beatsToNext = tail;
    into.gridAnchors.push_back(anchor);
  }
}

}  // namespace orvel
