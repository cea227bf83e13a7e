// Builds believable catalogues for benchmarks and the demo: artists, albums,
// titles, genres, tempi, keys and dates drawn from a seeded generator, with a
// share of accented names so path keys take the Unicode route too.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/store/orvel_db.h"

namespace orvel::sample {

struct SampleTrack {
  NewTrack file;
  double bpm = 0;
  std::string key;
  std::string year;
  int rating = 0;  // 0…100
  int bitrate = 320;
  std::string comment;
};

// `count` tracks; the same seed gives the same tracks.
std::vector<SampleTrack> makeTracks(int count, uint32_t seed = 2026,
                                    const std::string& root = "/Music");

// Adds the tracks through insertImported in one transaction and fills in the
// analysed fields the way a used library has them. Returns the new ids, or
// why none were added.
Result<std::vector<int64_t>> fill(OrvelDB& db, const std::vector<SampleTrack>& tracks);

}  // namespace orvel::sample
