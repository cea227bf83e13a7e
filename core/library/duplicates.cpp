// Duplicates by fingerprint are found in three steps. Tracks are sorted by
// duration, so each is held only against those whose duration is within
// the tolerance: in a large library still a few thousand each, some 190
// million pairs for 200,000 tracks. Each such pair is first judged by a
// sketch of the two prints, 256 bits that a small shift or a share of
// flipped bits changes little; only the rare pairs whose sketches are close
// enough to be one recording are compared word by word. Comparing every
// pair in full would take minutes; the sketches keep it well under a second.
#include "core/library/duplicates.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <numeric>
#include <string>

#include "core/text/path_norm.h"
#include "core/text/split.h"

// The pair loop counts bits some 400 million times. Every x86-64 processor
// of the last fifteen years has an instruction for that, but a build for
// the plain architecture may not use it; on Linux the loop is compiled
// twice and the loader picks the version the processor can run.
#if defined(__x86_64__) && defined(__linux__) && (defined(__GNUC__) || defined(__clang__))
#define ORVEL_WITH_POPCNT __attribute__((target_clones("popcnt", "default")))
#else
#define ORVEL_WITH_POPCNT
#endif

namespace orvel::library {
namespace {

// Plain arithmetic, which compilers turn into the instruction where the
// target has one (instead of a call into the runtime library).
inline int bitsSet(uint64_t x) {
  x = x - ((x >> 1) & 0x5555555555555555ull);
  x = (x & 0x3333333333333333ull) + ((x >> 2) & 0x3333333333333333ull);
  x = (x + (x >> 4)) & 0x0f0f0f0f0f0f0f0full;
  return int((x * 0x0101010101010101ull) >> 56);
}

struct Overlap {
  size_t aFrom = 0, bFrom = 0, words = 0;
};
// Where a[i] meets b[i + shift].
Overlap overlapAt(size_t aSize, size_t bSize, int shift) {
  Overlap o;
  o.aFrom = shift < 0 ? size_t(-shift) : 0;
  o.bFrom = shift > 0 ? size_t(shift) : 0;
  if (o.aFrom < aSize && o.bFrom < bSize) o.words = std::min(aSize - o.aFrom, bSize - o.bFrom);
  return o;
}

// Differing bits of two runs of words; stops early, somewhere above
// `stopAbove`, once the count is past it.
uint64_t differingBits(const uint32_t* a, const uint32_t* b, size_t words, uint64_t stopAbove) {
  uint64_t errors = 0;
  size_t i = 0;
  for (; i + 1 < words; i += 2) {
    errors += uint64_t(bitsSet(uint64_t(a[i] ^ b[i]) << 32 | (a[i + 1] ^ b[i + 1])));
    if ((i & 62) == 62 && errors > stopAbove) return errors;
  }
  if (i < words) errors += uint64_t(bitsSet(a[i] ^ b[i]));
  return errors;
}

// Whether some shift gives a bit error rate below `maxRate`. Tries the
// unshifted alignment first, where re-encodings line up, and gives up on a
// shift as soon as its errors can no longer stay below the limit.
bool printsMatch(std::span<const uint32_t> a, std::span<const uint32_t> b, double maxRate) {
  for (int step = 0; step <= 2 * kAlignmentWords; ++step) {
    const int shift = step % 2 ? (step + 1) / 2 : -(step / 2);
    const Overlap o = overlapAt(a.size(), b.size(), shift);
    if (o.words < kMinCommonWords) continue;
    const double allowed = maxRate * 32.0 * double(o.words);
    if (allowed <= 0) continue;
    const uint64_t errors =
        differingBits(a.data() + o.aFrom, b.data() + o.bFrom, o.words, uint64_t(allowed));
    if (double(errors) < allowed) return true;
  }
  return false;
}

// The sketch: for each of eight runs of 32 words laid end to end from about
// the first second of the print, the majority of each of the 32 bits. A
// shift of a few words or a share of flipped bits changes few of these
// votes; unrelated prints disagree on half of them.
constexpr size_t kSketchRuns = 8;
constexpr size_t kRunWords = 32;
constexpr size_t kSketchStart = 8;  // the very start is often near silence

struct Sketch {
  std::array<uint64_t, kSketchRuns / 2> votes{};  // two runs a word
  size_t runs = 0;                                // runs inside the print
};

// Sum and carry of three bits, for 32 columns at once.
inline void fullAdd(uint32_t& carry, uint32_t& sum, uint32_t a, uint32_t b, uint32_t c) {
  const uint32_t u = a ^ b;
  carry = (a & b) | (u & c);
  sum = u ^ c;
}

// For each bit position, whether more than 16 of the 32 words set it:
// counted in bit planes through a tree of adders, not bit by bit.
uint32_t majority32(const uint32_t* w) {
  uint32_t ones = 0, twos = 0, fours = 0, eights = 0, low16 = 0, high16 = 0;
  uint32_t twosA, twosB, foursA, foursB, eightsA, eightsB;
  for (int half = 0; half < 2; ++half, w += 16) {
    fullAdd(twosA, ones, ones, w[0], w[1]);
    fullAdd(twosB, ones, ones, w[2], w[3]);
    fullAdd(foursA, twos, twos, twosA, twosB);
    fullAdd(twosA, ones, ones, w[4], w[5]);
    fullAdd(twosB, ones, ones, w[6], w[7]);
    fullAdd(foursB, twos, twos, twosA, twosB);
    fullAdd(eightsA, fours, fours, foursA, foursB);
    fullAdd(twosA, ones, ones, w[8], w[9]);
    fullAdd(twosB, ones, ones, w[10], w[11]);
    fullAdd(foursA, twos, twos, twosA, twosB);
    fullAdd(twosA, ones, ones, w[12], w[13]);
    fullAdd(twosB, ones, ones, w[14], w[15]);
    fullAdd(foursB, twos, twos, twosA, twosB);
    fullAdd(eightsB, fours, fours, foursA, foursB);
    fullAdd(half ? high16 : low16, eights, eights, eightsA, eightsB);
  }
  // The count is 16 (low16 + high16) + 8 eights + 4 fours + 2 twos + ones.
  return (low16 & high16) | ((low16 ^ high16) & (eights | fours | twos | ones));
}

Sketch sketchOf(std::span<const uint32_t> print) {
  Sketch s;
  for (; s.runs < kSketchRuns; ++s.runs) {
    const size_t from = kSketchStart + s.runs * kRunWords;
    if (from + kRunWords > print.size()) break;
    s.votes[s.runs / 2] |= uint64_t(majority32(print.data() + from)) << (32 * (s.runs % 2));
  }
  return s;
}

// How many of `votes` votes two versions of one recording may disagree on,
// for prints up to `maxRate` apart. Modelled on the hardest case: prints
// whose bits are balanced at random, flipped independently and shifted by
// the most the alignment allows. A vote is then the sign of a sum over 32
// words, and two noisy copies of it disagree with the chance θ/π, θ being
// the angle between the two sums (p below). Real prints hold their bits
// more steadily and disagree less. The allowance is that mean plus 4.5
// standard deviations: a pair at the threshold fails it about once in
// 300,000 times.
int allowedDisagreement(double maxRate, size_t votes) {
  const double h = std::clamp(maxRate, 0.0, 0.5);
  if (h >= 0.5 || votes == 0) return int(votes);
  const double noise = 4 * h * (1 - h) + 2.0 * kAlignmentWords / kRunWords;
  const double p = std::atan(std::sqrt(noise) / (1 - 2 * h)) / std::numbers::pi;
  const double n = double(votes);
  return int(std::ceil(n * p + 4.5 * std::sqrt(n * p * (1 - p))));
}

class UnionFind {
 public:
  explicit UnionFind(size_t n) : parent_(n) { std::iota(parent_.begin(), parent_.end(), 0); }
  size_t find(size_t x) {
    while (parent_[x] != x) x = parent_[x] = parent_[parent_[x]];
    return x;
  }
  void join(size_t a, size_t b) {
    a = find(a);
    b = find(b);
    if (a != b) parent_[std::max(a, b)] = std::min(a, b);
  }

 private:
  std::vector<size_t> parent_;
};

bool timed(const DuplicateCandidate& t) {
  return t.durationMs && *t.durationMs > 0;
}
// A print too short to compare says nothing about the audio: such a track is
// matched by its tags, as one without a print is.
bool printed(const DuplicateCandidate& t) {
  return t.fingerprint.size() >= kMinCommonWords;
}

// Printed tracks in duration order, with their sketches. Those whose print
// holds every run of the sketch, nearly all, sit side by side in plain
// arrays for the pair loop, which then reads memory in order and needs no
// masks; the few short ones are kept whole.
struct ShortPrint {
  int64_t ms = 0;
  size_t track = 0;
  Sketch sketch;
};
// What the pair loop reads of every pair, together in one stream.
struct PairKey {
  int64_t ms = 0;
  std::array<uint64_t, 2> first{};  // the first half of the votes
};
struct PrintIndex {
  std::vector<PairKey> keys;
  std::vector<std::array<uint64_t, 2>> rest;  // the other half
  std::vector<size_t> track;
  std::vector<ShortPrint> shortPrints;
};

PrintIndex indexPrints(std::span<const DuplicateCandidate> tracks) {
  // Sketched in the caller's order, which is usually the order the prints
  // lie in memory: in duration order each print would be a cache miss.
  std::vector<std::pair<int64_t, size_t>> order;
  std::vector<Sketch> sketches(tracks.size());
  order.reserve(tracks.size());
  for (size_t i = 0; i < tracks.size(); ++i)
    if (timed(tracks[i]) && printed(tracks[i])) {
      order.emplace_back(*tracks[i].durationMs, i);
      sketches[i] = sketchOf(tracks[i].fingerprint);
    }
  std::sort(order.begin(), order.end());
  PrintIndex x;
  x.keys.reserve(order.size());
  x.rest.reserve(order.size());
  x.track.reserve(order.size());
  for (const auto& [ms, i] : order) {
    const Sketch& s = sketches[i];
    if (s.runs < kSketchRuns) {
      x.shortPrints.push_back({ms, i, s});
      continue;
    }
    x.keys.push_back({ms, {s.votes[0], s.votes[1]}});
    x.rest.push_back({s.votes[2], s.votes[3]});
    x.track.push_back(i);
  }
  return x;
}

// The pairs of full sketches close enough to compare in full, as positions
// in the index. The first half of the votes rules out nearly every pair; the
// other half only the few the first let through.
ORVEL_WITH_POPCNT
void closeFullPairs(const PrintIndex& x, int64_t tolerance, int firstCut, int fullCut,
                    std::vector<std::pair<size_t, size_t>>& out) {
  const size_t n = x.keys.size();
  const PairKey* keys = x.keys.data();
  for (size_t at = 0; at < n; ++at) {
    const uint64_t a0 = keys[at].first[0], a1 = keys[at].first[1];
    const int64_t last = keys[at].ms + tolerance;
    for (size_t next = at + 1; next < n && keys[next].ms <= last; ++next) {
      int apart = bitsSet(a0 ^ keys[next].first[0]) + bitsSet(a1 ^ keys[next].first[1]);
      if (apart > firstCut) continue;
      apart += bitsSet(x.rest[at][0] ^ x.rest[next][0]) + bitsSet(x.rest[at][1] ^ x.rest[next][1]);
      if (apart <= fullCut) out.emplace_back(at, next);
    }
  }
}

// Whether two sketches, one of them of a short print, are close enough over
// the runs both have.
bool closeSketches(const Sketch& a, const Sketch& b, double maxRate) {
  const size_t runs = std::min(a.runs, b.runs);
  int apart = 0;
  for (size_t r = 0; r < runs; r += 2) {
    const uint64_t mask = runs - r >= 2 ? ~0ull : 0xffffffffull;
    apart += bitsSet((a.votes[r / 2] ^ b.votes[r / 2]) & mask);
  }
  return apart <= allowedDisagreement(maxRate, 32 * runs);
}

void joinByPrints(std::span<const DuplicateCandidate> tracks, const DuplicateOptions& options,
                  int64_t tolerance, UnionFind& sets) {
  const PrintIndex x = indexPrints(tracks);
  const double maxRate = options.maxBitErrorRate;
  auto compare = [&](size_t a, size_t b) {
    if (printsMatch(tracks[a].fingerprint, tracks[b].fingerprint, maxRate)) sets.join(a, b);
  };

  std::vector<std::pair<size_t, size_t>> close;
  closeFullPairs(x, tolerance, allowedDisagreement(maxRate, 32 * kSketchRuns / 2),
                 allowedDisagreement(maxRate, 32 * kSketchRuns), close);
  for (const auto& [a, b] : close) compare(x.track[a], x.track[b]);

  // Short prints (under about 35 s) against every print near them in
  // duration: the full ones on either side, the short ones after them.
  const auto& shorts = x.shortPrints;
  for (size_t at = 0; at < shorts.size(); ++at) {
    const ShortPrint& a = shorts[at];
    Sketch full;
    full.runs = kSketchRuns;
    const auto from = std::lower_bound(x.keys.begin(), x.keys.end(), a.ms - tolerance,
                                       [](const PairKey& key, int64_t ms) { return key.ms < ms; });
    for (auto k = size_t(from - x.keys.begin());
         k < x.keys.size() && x.keys[k].ms - a.ms <= tolerance; ++k) {
      full.votes = {x.keys[k].first[0], x.keys[k].first[1], x.rest[k][0], x.rest[k][1]};
      if (closeSketches(a.sketch, full, maxRate)) compare(a.track, x.track[k]);
    }
    for (size_t next = at + 1; next < shorts.size() && shorts[next].ms - a.ms <= tolerance; ++next)
      if (closeSketches(a.sketch, shorts[next].sketch, maxRate))
        compare(a.track, shorts[next].track);
  }
}

// Tags compare trimmed, in Unicode NFC, lower-cased.
std::string tagText(std::string_view text) {
  return normalizePathKey(trim(text));
}
bool isAscii(std::string_view s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return (unsigned char)c < 0x80; });
}
// A hash of what tagText gives, without building it for ASCII text.
uint64_t hashTag(uint64_t h, std::string_view text) {
  text = trim(text);
  const bool ascii = isAscii(text);
  const std::string folded = ascii ? std::string() : normalizePathKey(text);
  for (char c : ascii ? text : std::string_view(folded)) {
    if (ascii && c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    h = (h ^ (unsigned char)c) * 0x100000001b3ull;  // FNV-1a
  }
  return (h ^ 0x1f) * 0x100000001b3ull;  // ends the field
}

// Tracks with equal tags and durations within the tolerance, when at least
// one of the two has no print to tell them apart by their audio.
void joinByTags(std::span<const DuplicateCandidate> tracks, int64_t tolerance, UnionFind& sets) {
  if (std::none_of(tracks.begin(), tracks.end(),
                   [](const DuplicateCandidate& t) { return timed(t) && !printed(t); }))
    return;
  struct Keyed {
    uint64_t hash;
    int64_t ms;
    size_t track;
  };
  std::vector<Keyed> keyed;
  for (size_t i = 0; i < tracks.size(); ++i) {
    const DuplicateCandidate& t = tracks[i];
    // A title is what names a recording; without one, tags say nothing.
    if (!timed(t) || trim(t.title).empty()) continue;
    keyed.push_back({hashTag(hashTag(0xcbf29ce484222325ull, t.artist), t.title), *t.durationMs, i});
  }
  std::sort(keyed.begin(), keyed.end(), [](const Keyed& a, const Keyed& b) {
    return a.hash != b.hash ? a.hash < b.hash : a.ms < b.ms;
  });
  for (size_t at = 0; at < keyed.size(); ++at) {
    const DuplicateCandidate& a = tracks[keyed[at].track];
    for (size_t next = at + 1; next < keyed.size() && keyed[next].hash == keyed[at].hash &&
                               keyed[next].ms - keyed[at].ms <= tolerance;
         ++next) {
      const DuplicateCandidate& b = tracks[keyed[next].track];
      // Two prints that do not match are two recordings, whatever the tags say.
      if (printed(a) && printed(b)) continue;
      if (tagText(a.title) == tagText(b.title) && tagText(a.artist) == tagText(b.artist))
        sets.join(keyed[at].track, keyed[next].track);
    }
  }
}

}  // namespace

std::optional<double> bitErrorRate(std::span<const uint32_t> a, std::span<const uint32_t> b) {
  std::optional<double> best;
  for (int shift = -kAlignmentWords; shift <= kAlignmentWords; ++shift) {
    const Overlap o = overlapAt(a.size(), b.size(), shift);
    if (o.words < kMinCommonWords) continue;
    const uint64_t errors =
        differingBits(a.data() + o.aFrom, b.data() + o.bFrom, o.words, UINT64_MAX);
    const double rate = double(errors) / (32.0 * double(o.words));
    if (!best || rate < *best) best = rate;
  }
  return best;
}

std::vector<uint32_t> fingerprintWords(std::span<const uint8_t> blob) {
  std::vector<uint32_t> words(blob.size() / 4);
  for (size_t i = 0; i < words.size(); ++i)
    words[i] = uint32_t(blob[4 * i]) | uint32_t(blob[4 * i + 1]) << 8 |
               uint32_t(blob[4 * i + 2]) << 16 | uint32_t(blob[4 * i + 3]) << 24;
  return words;
}

std::vector<std::vector<int64_t>> findDuplicateGroups(std::span<const DuplicateCandidate> tracks,
                                                      const DuplicateOptions& options) {
  // Bounded far beyond any use, so that adding it to a duration cannot overflow.
  const int64_t tolerance = std::clamp<int64_t>(options.durationToleranceMs, 0, int64_t(1) << 40);
  UnionFind sets(tracks.size());
  joinByPrints(tracks, options, tolerance, sets);
  joinByTags(tracks, tolerance, sets);

  std::vector<size_t> members(tracks.size(), 0);
  for (size_t i = 0; i < tracks.size(); ++i) ++members[sets.find(i)];
  std::vector<size_t> slot(tracks.size(), SIZE_MAX);
  std::vector<std::vector<int64_t>> groups;
  for (size_t i = 0; i < tracks.size(); ++i) {
    const size_t root = sets.find(i);
    if (members[root] < 2) continue;
    if (slot[root] == SIZE_MAX) {
      slot[root] = groups.size();
      groups.emplace_back();
    }
    groups[slot[root]].push_back(tracks[i].id);
  }
  for (auto& ids : groups) std::sort(ids.begin(), ids.end());
  std::sort(groups.begin(), groups.end());
  return groups;
}

}  // namespace orvel::library
