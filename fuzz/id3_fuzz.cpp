// The ID3 reader on a tag as it sits at the start of a file: the first ten
// bytes are the header, the rest the body. Every GEOB object found goes on to
// both Serato tag parsers, whatever its description says, because a file can
// put any bytes under a familiar name.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "core/formats/id3_reader.h"
#include "core/formats/serato_tags.h"
#include "core/text/path_norm.h"
#include "fuzz/fuzz_checks.h"

namespace orvel::fuzz {
namespace {

bool sameFrames(const std::vector<GEOBFrame>& a, const std::vector<GEOBFrame>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i].description != b[i].description || a[i].object != b[i].object) return false;
  return true;
}

void checkTag(std::span<const uint8_t> header, std::span<const uint8_t> body) {
  const auto size = ID3Reader::tagSize(header);
  if (size) {
    require(header.size() == ID3Reader::kHeaderSize);
    require(header[0] == 'I' && header[1] == 'D' && header[2] == '3');
    require(*size > 0 && *size < ID3Reader::kMaxTagSize);
  }

  const std::vector<GEOBFrame> frames = ID3Reader::geobFrames(header, body);
  require(sameFrames(frames, ID3Reader::geobFrames(header, body)));
  if (!size || body.empty()) {
    require(frames.empty());
    return;
  }

  // Frames never overlap and undoing unsynchronisation only drops bytes, so
  // all objects together fit in the part of the body the header declares.
  const size_t tagBytes = std::min<size_t>(body.size(), *size);
  size_t objectBytes = 0;
  for (const GEOBFrame& frame : frames) {
    objectBytes += frame.object.size();
    require(isValidUtf8(frame.description));
  }
  require(objectBytes <= tagBytes);
  // The smallest frame is a 6-byte ID3v2.2 header and a 5-byte GEOB body.
  require(frames.size() * 11 <= tagBytes);

  for (const GEOBFrame& frame : frames) {
    checkMarkers2(frame.object);
    checkBeatGrid(frame.object);
  }
}

void checkGeobBody(std::span<const uint8_t> body) {
  const auto frame = ID3Reader::parseGEOB(body);
  const auto again = ID3Reader::parseGEOB(body);
  require(frame.has_value() == again.has_value());
  if (!frame) return;
  require(frame->description == again->description && frame->object == again->object);
  require(isValidUtf8(frame->description));
  // The object is everything after the description, so it is the body's own
  // tail, behind at least the encoding byte and the MIME type's terminator.
  const size_t n = frame->object.size();
  require(n + 2 <= body.size());
  require(std::equal(frame->object.begin(), frame->object.end(), body.end() - n));
}

void checkReadString(std::span<const uint8_t> data) {
  if (data.size() < 2) return;
  // The first two bytes choose the start, now and then past the end, and the
  // encoding, now and then one ID3 does not define.
  const size_t offset = data[0] % (data.size() + 2);
  const uint8_t encoding = data[1] % 6;
  const auto [text, next] = ID3Reader::readString(data, offset, encoding);
  require(next <= data.size());
  require(offset >= data.size() || next > offset);
  require(isValidUtf8(text));
}

void checkDeunsync(std::span<const uint8_t> data) {
  size_t stuffed = 0;
  for (size_t i = 1; i < data.size(); ++i)
    if (data[i - 1] == 0xFF && data[i] == 0x00) ++stuffed;
  require(ID3Reader::deunsync(data).size() + stuffed == data.size());
}

}  // namespace
}  // namespace orvel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orvel::fuzz;
  const std::span<const uint8_t> input(data, size);
  const size_t headerSize = std::min(size, orvel::ID3Reader::kHeaderSize);
  checkTag(input.first(headerSize), input.subspan(headerSize));
  checkGeobBody(input);
  checkReadString(input);
  checkDeunsync(input);
  return 0;
}
