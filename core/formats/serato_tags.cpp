#include "core/formats/serato_tags.h"

#include <fmt/format.h>

#include <cmath>

#include "core/formats/serato_payloads.h"
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

std::string rgbHex(const uint8_t* rgb) {
  return fmt::format("#{:02X}{:02X}{:02X}", rgb[0], rgb[1], rgb[2]);
}

}  // namespace

SeratoFileTags SeratoFileTags::read(const std::filesystem::path& file) {
  return fromPayloads(SeratoPayloads::find(file));
}

SeratoFileTags SeratoFileTags::fromPayloads(std::span<const GEOBFrame> payloads) {
  SeratoFileTags tags;
  for (const GEOBFrame& frame : payloads) {
    if (frame.description == kMarkers2)
      parseMarkers2(frame.object, tags);
    else if (frame.description == kBeatGrid)
      parseBeatGrid(frame.object, tags);
  }
  return tags;
}

void SeratoFileTags::parseMarkers2(std::span<const uint8_t> object, SeratoFileTags& into) {
  if (object.size() < 3) return;
  // Two version bytes, then the entries as base64 text (see seratoBase64 for
  // what Serato does to it).
  const std::string_view text(reinterpret_cast<const char*>(object.data() + 2), object.size() - 2);
  if (const auto data = SeratoPayloads::seratoBase64(text)) {
    parseMarkers2Entries(*data, into);
    return;
  }
  // Without the base64 layer the entries stand there as they are.
  parseMarkers2Entries(object, into);
}

void SeratoFileTags::parseMarkers2Entries(std::span<const uint8_t> bytes, SeratoFileTags& into) {
  if (bytes.size() < 3) return;
  size_t pos = 2;  // a second pair of version bytes
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
    } else if (*type == "COLOR" && body.size() >= 4) {
      into.trackColorHex = rgbHex(&body[1]);
    } else if (*type == "BPMLOCK" && !body.empty()) {
      into.bpmLocked = body[0] != 0;
    }
    pos = bodyStart + length;
  }
}

std::optional<SeratoCue> SeratoFileTags::parseCue(std::span<const uint8_t> body) {
  // 0, index, position (4), 0, R G B, two bytes, then the name and its NUL.
  if (body.size() < 12) return std::nullopt;
  SeratoCue cue;
  cue.index = body[1];
  cue.positionMs = readU32BE(&body[2]);
  cue.colorHex = rgbHex(&body[7]);
  if (body.size() > 12) cue.name = nulTerminated(body, 12);
  return cue;
}

std::optional<SeratoLoop> SeratoFileTags::parseLoop(std::span<const uint8_t> body) {
  // 0, index, start (4), end (4), FF FF FF FF, 0 R G B, a byte, locked, then
  // the name and its NUL from byte 20: in the files Serato writes, and in
  // the names they hold, the name starts there and nowhere else.
  if (body.size() < 10) return std::nullopt;
  SeratoLoop loop;
  loop.index = body[1];
  loop.startMs = readU32BE(&body[2]);
  loop.endMs = readU32BE(&body[6]);
  if (body.size() >= 18) loop.colorHex = rgbHex(&body[15]);
  if (body.size() >= 20) loop.locked = body[19] != 0;
  if (body.size() > 20) loop.name = nulTerminated(body, 20);
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
    if (i == count - 1)
      anchor.bpm = readF32BE(&object[at + 4]);
    else
      anchor.beatsToNext = readU32BE(&object[at + 4]);
    into.gridAnchors.push_back(anchor);
  }
}

std::optional<double> SeratoFileTags::tempoAt(std::span<const SeratoGridAnchor> anchors, size_t i) {
  if (i >= anchors.size()) return std::nullopt;
  const SeratoGridAnchor& a = anchors[i];
  std::optional<double> bpm = a.bpm;
  if (!bpm && a.beatsToNext && i + 1 < anchors.size()) {
    const double seconds = anchors[i + 1].positionSec - a.positionSec;
    bpm = *a.beatsToNext * 60.0 / seconds;
  }
  if (!bpm || !std::isfinite(*bpm) || *bpm <= 0) return std::nullopt;
  return bpm;
}

}  // namespace orvel
