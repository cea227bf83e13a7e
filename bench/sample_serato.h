// A Serato library beside the demo's audio files, as Serato would leave it:
// "_Serato_" with "database V2" listing the songs, two crates (one nested)
// and a smart crate, and hot cues, a loop and a beat grid in the MP3s' tags.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "bench/sample_catalogue.h"

namespace orvel::sample {

// The track's "otrk" record of "database V2", with every field Serato writes.
std::vector<uint8_t> seratoRecordOf(const SampleTrack& track, uint32_t dateAdded);

void writeSeratoLibrary(const std::vector<SampleTrack>& tracks,
                        const std::filesystem::path& seratoDir);

}  // namespace orvel::sample
