// Finding the tracks of a library that hold the same recording: by their
// Chromaprint fingerprints where both have one, else by artist, title and
// duration. Plain values in, groups of track ids out; no store, no audio.
// Pure functions: safe on any thread, over data the caller keeps alive.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace orvel::library {

// A track as the search sees it. The texts and words are borrowed for the
// call.
struct DuplicateCandidate {
  int64_t id = 0;                           // unique among the candidates
  std::optional<int64_t> durationMs{};      // none, or not above 0: never a duplicate
  std::string_view artist{}, title{};       // as stored; may be empty
  std::span<const uint32_t> fingerprint{};  // raw Chromaprint words; empty when none
};

struct DuplicateOptions {
  // Generated songs encoded as MP3 128k and 320k, FLAC and AAC 128k, decoded
  // and fingerprinted again, differ by at most 0.012 of their bits; different
  // songs of the same tempo and key by 0.19 or more, and one backing with
  // and without its lead line by 0.13. Halfway between, rounded down
  // (bench/duplicates_bench.cpp measures it).
  double maxBitErrorRate = 0.07;
  // Versions of one recording agree on their length to a few hundredths of
  // a second (encoder delay and padding, rounding in the container); the
  // rest is room for a rip with a longer silence at its end. The time a
  // large library takes grows in step with it.
  int64_t durationToleranceMs = 2000;
};

// Groups of two or more ids that hold the same recording: ids ascending
// within a group, groups ordered by their first id. Two tracks match when
// their durations are within the tolerance and
//  - both have fingerprints, and these differ by less than maxBitErrorRate
//    (see bitErrorRate); tags then play no part, or
//  - one of them has none (or one too short to compare), and their artists
//    and titles are equal once trimmed, lower-cased and composed (NFC). An
//    empty title matches nothing.
// Matches chain: A like B and B like C put all three in one group.
//
// So that a large library takes well under a second, a pair of fingerprints
// is compared in full only when coarse sketches of the two (bit majorities
// over runs of words near their start) are close. The allowance follows
// maxBitErrorRate and is set so that even for random prints shifted to the
// edge of the alignment, a pair at the threshold is passed over a few times
// in a million; prints of real music keep their sketches closer.
std::vector<std::vector<int64_t>> findDuplicateGroups(std::span<const DuplicateCandidate> tracks,
                                                      const DuplicateOptions& options = {});

// How far two fingerprints may be shifted against each other, in words
// (Chromaprint gives one per 4096/3 samples at 11,025 Hz: 0.124 s). Decoders
// already take out the encoder's delay; this covers a rip that starts a
// fraction of a second earlier or later.
inline constexpr int kAlignmentWords = 4;
// The fewest words two fingerprints must share to be compared (about 5 s):
// over less, the share of differing bits says too little.
inline constexpr size_t kMinCommonWords = 40;

// The share of differing bits between two raw fingerprints over their common
// length, at the shift within ±kAlignmentWords that gives the least; none
// when they share fewer than kMinCommonWords words.
std::optional<double> bitErrorRate(std::span<const uint32_t> a, std::span<const uint32_t> b);

// The words of a stored raw fingerprint (little-endian 32-bit words, as
// analysis writes track_fingerprints.fp_raw); a trailing partial word is
// dropped.
std::vector<uint32_t> fingerprintWords(std::span<const uint8_t> blob);

}  // namespace orvel::library
