// The Serato file-tag parsers on one GEOB object: as "Serato Markers2", as
// "Serato BeatGrid", and as a single cue or loop entry body.
//
// Markers2 hides its entries behind base64, which random bytes rarely are,
// so the input is also taken as the decoded entries themselves and stored
// twice over, once as plain padded base64 and once the way Serato writes it
// (no "=", lines of 72, NULs behind). Both must read the same.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "core/formats/serato_tags.h"
#include "fuzz/fuzz_checks.h"

namespace orvel::fuzz {
namespace {

std::vector<uint8_t> versioned(std::string_view text) {
  std::vector<uint8_t> object{0x01, 0x01};
  object.insert(object.end(), text.begin(), text.end());
  return object;
}

std::vector<uint8_t> asSeratoWritesIt(std::string base64, size_t nulPadding) {
  while (!base64.empty() && base64.back() == '=') base64.pop_back();
  std::string wrapped;
  for (size_t i = 0; i < base64.size(); i += 72) {
    if (i > 0) wrapped += '\n';
    wrapped.append(base64, i, 72);
  }
  wrapped.append(nulPadding, '\0');
  return versioned(wrapped);
}

void checkStoredForms(std::span<const uint8_t> entries) {
  const std::string base64 = base64Encode(entries);
  const size_t nulPadding = entries.empty() ? 1 : 1 + entries.back() % 16;
  const SeratoFileTags plain = checkMarkers2(versioned(base64));
  const SeratoFileTags serato = checkMarkers2(asSeratoWritesIt(base64, nulPadding));
  require(sameTags(plain, serato));
}

void checkEntryBodies(std::span<const uint8_t> body) {
  const auto cue = SeratoFileTags::parseCue(body);
  const auto cueAgain = SeratoFileTags::parseCue(body);
  require(cue.has_value() == cueAgain.has_value());
  if (cue) {
    checkCue(*cue);
    require(sameCue(*cue, *cueAgain));
  }

  const auto loop = SeratoFileTags::parseLoop(body);
  const auto loopAgain = SeratoFileTags::parseLoop(body);
  require(loop.has_value() == loopAgain.has_value());
  if (loop) {
    checkLoop(*loop);
    require(sameLoop(*loop, *loopAgain));
  }
}

}  // namespace
}  // namespace orvel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orvel::fuzz;
  const std::span<const uint8_t> input(data, size);
  checkMarkers2(input);
  checkBeatGrid(input);
  checkEntryBodies(input);
  checkStoredForms(input);
  return 0;
}
