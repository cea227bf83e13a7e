// Finding Serato's payloads in a whole file of any container (ID3 at the
// start, FLAC and Ogg Vorbis comments, MP4 atoms, AIFF and WAV chunks), read
// from memory the way a file is read. Every payload found goes on to both
// tag parsers; the bytes are also taken as a Vorbis comment block and as an
// envelope's text, the two decoders the containers share.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "core/formats/serato_payloads.h"
#include "core/formats/serato_tags.h"
#include "core/text/path_norm.h"
#include "fuzz/fuzz_checks.h"

namespace orvel::fuzz {
namespace {

void checkFile(std::span<const uint8_t> bytes) {
  const MemorySource source(bytes);
  const std::vector<GEOBFrame> frames = SeratoPayloads::find(source);
  const std::vector<GEOBFrame> again = SeratoPayloads::find(source);
  require(frames.size() == again.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    require(frames[i].description == again[i].description && frames[i].object == again[i].object);
    require(frames[i].description == SeratoFileTags::kMarkers2 ||
            frames[i].description == SeratoFileTags::kBeatGrid);
    // Payloads come from the file's own bytes, never from nowhere: an
    // object is at most as long as the file (base64 only shrinks).
    require(frames[i].object.size() <= bytes.size());
    checkMarkers2(frames[i].object);
    checkBeatGrid(frames[i].object);
  }
}

void checkComments(std::span<const uint8_t> block) {
  size_t total = 0;
  for (const auto& [key, value] : SeratoPayloads::vorbisComments(block)) {
    require(key.find('=') == std::string::npos);
    total += key.size() + 1 + value.size() + 4;
  }
  require(total <= block.size());
}

void checkEnvelope(std::span<const uint8_t> bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (const auto frame = SeratoPayloads::fromEnvelope(text, SeratoFileTags::kMarkers2))
    require(frame->object.size() <= bytes.size());
  if (const auto data = SeratoPayloads::seratoBase64(text))
    require(data->size() * 4 <= bytes.size() * 3 + 3);
}

}  // namespace
}  // namespace orvel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orvel::fuzz;
  const std::span<const uint8_t> input(data, size);
  checkFile(input);
  checkComments(input);
  checkEnvelope(input);
  return 0;
}
