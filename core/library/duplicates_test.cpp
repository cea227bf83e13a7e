#include "core/library/duplicates.h"

#include <gmock/gmock.h>

#include <string>

namespace orvel::library {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Groups = std::vector<std::vector<int64_t>>;

// The same words on every machine.
struct Dice {
  uint64_t state;
  uint32_t next() {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return uint32_t(state >> 32);
  }
};

// About two minutes of print, as analysis stores for most tracks.
constexpr size_t kFullPrint = 950;

std::vector<uint32_t> randomPrint(uint64_t seed, size_t words = kFullPrint) {
  Dice dice{seed};
  std::vector<uint32_t> print(words);
  for (uint32_t& w : print) w = dice.next();
  return print;
}

// A copy with exactly `rate` of its bits flipped, each at most once.
std::vector<uint32_t> flipped(std::vector<uint32_t> print, double rate, uint64_t seed = 99) {
  Dice dice{seed};
  const size_t bits = print.size() * 32;
  std::vector<bool> done(bits);
  for (size_t n = 0; n < size_t(rate * double(bits));) {
    const size_t at = dice.next() % bits;
    if (done[at]) continue;
    done[at] = true;
    print[at / 32] ^= 1u << (at % 32);
    ++n;
  }
  return print;
}

// The print of the same audio starting `words` later (a positive shift) or
// earlier, as another rip would give it.
std::vector<uint32_t> shifted(const std::vector<uint32_t>& print, int words) {
  if (words >= 0) return {print.begin() + words, print.end()};
  std::vector<uint32_t> out = randomPrint(7, size_t(-words));
  out.insert(out.end(), print.begin(), print.end());
  return out;
}

DuplicateCandidate printed(int64_t id, int64_t ms, const std::vector<uint32_t>& print) {
  return {.id = id, .durationMs = ms, .fingerprint = print};
}
DuplicateCandidate tagged(int64_t id, std::optional<int64_t> ms, std::string_view artist,
                          std::string_view title) {
  return {.id = id, .durationMs = ms, .artist = artist, .title = title};
}

TEST(BitErrorRate, CountsDifferingBitsAtTheBestShiftOverTheCommonLength) {
  const auto a = randomPrint(1);
  EXPECT_EQ(bitErrorRate(a, a), 0.0);
  EXPECT_DOUBLE_EQ(*bitErrorRate(a, flipped(a, 0.25)), 0.25);
  // Unrelated prints differ in about half their bits.
  EXPECT_NEAR(*bitErrorRate(a, randomPrint(2)), 0.5, 0.01);

  // A rip starting a few words apart lines up; further apart it does not.
  for (int shift : {-4, -1, 1, 4}) EXPECT_EQ(bitErrorRate(a, shifted(a, shift)), 0.0) << shift;
  EXPECT_NEAR(*bitErrorRate(a, shifted(a, 5)), 0.5, 0.01);
  // Only the common length counts: a longer print is not penalised.
  const std::vector<uint32_t> head(a.begin(), a.begin() + 300);
  EXPECT_EQ(bitErrorRate(head, a), 0.0);
}

TEST(BitErrorRate, SaysNothingAboutPrintsThatShareTooLittle) {
  const auto a = randomPrint(3, kMinCommonWords);
  EXPECT_EQ(bitErrorRate(a, a), 0.0);
  const std::vector<uint32_t> shorter(a.begin(), a.end() - 1);
  EXPECT_EQ(bitErrorRate(shorter, a), std::nullopt);
  EXPECT_EQ(bitErrorRate({}, a), std::nullopt);
}

TEST(FingerprintWords, ReadsTheStoredBlobAsLittleEndianWords) {
  const std::vector<uint8_t> blob = {0x01, 0x02, 0x03, 0x04, 0xff, 0x00, 0x00, 0x80, 0x07};
  EXPECT_THAT(fingerprintWords(blob), ElementsAre(0x04030201u, 0x800000ffu));
  EXPECT_THAT(fingerprintWords({}), IsEmpty());
}

TEST(DuplicatesByPrint, AReEncodingJoinsAndADifferentRecordingDoesNot) {
  const auto song = randomPrint(10);
  const auto under = flipped(song, 0.06);  // just under the default 0.07
  const auto over = flipped(song, 0.08, 123);
  const auto other = randomPrint(11);
  const std::vector<DuplicateCandidate> tracks = {
      printed(1, 300000, song), printed(2, 300040, under), printed(3, 299980, over),
      printed(4, 300000, other), printed(5, 300010, song)};
  EXPECT_EQ(findDuplicateGroups(tracks), (Groups{{1, 2, 5}}));
  // A looser threshold takes the farther copy too.
  EXPECT_EQ(findDuplicateGroups(tracks, {.maxBitErrorRate = 0.09}), (Groups{{1, 2, 3, 5}}));
}

TEST(DuplicatesByPrint, ShiftedCopiesJoinWithinTheAlignmentReach) {
  const auto song = randomPrint(20);
  std::vector<std::vector<uint32_t>> copies;
  for (int shift = -kAlignmentWords; shift <= kAlignmentWords; ++shift)
    copies.push_back(flipped(shifted(song, shift), 0.06, uint64_t(shift + 50)));
  copies.push_back(shifted(song, kAlignmentWords + 2));
  // Each copy beside the original on its own, far from the others in length.
  std::vector<DuplicateCandidate> tracks;
  for (size_t c = 0; c < copies.size(); ++c) {
    const int64_t ms = 200000 + int64_t(c) * 10000;
    tracks.push_back(printed(int64_t(2 * c + 1), ms, song));
    tracks.push_back(printed(int64_t(2 * c + 2), ms + 500, copies[c]));
  }
  Groups expected;
  for (int64_t c = 0; c < 2 * kAlignmentWords + 1; ++c) expected.push_back({2 * c + 1, 2 * c + 2});
  EXPECT_EQ(findDuplicateGroups(tracks), expected);
}

TEST(DuplicatesByPrint, DurationsBeyondTheToleranceNeverMeet) {
  const auto song = randomPrint(30);
  const std::vector<DuplicateCandidate> tracks = {
      printed(1, 240000, song),
      printed(2, 242000, song),  // at the tolerance: joined
      printed(3, 244001, song),  // 2,001 ms past the second
      printed(4, 0, song),
      {.id = 5, .fingerprint = song}};
  EXPECT_EQ(findDuplicateGroups(tracks), (Groups{{1, 2}}));
  EXPECT_EQ(findDuplicateGroups(tracks, {.durationToleranceMs = 2001}), (Groups{{1, 2, 3}}));
  EXPECT_THAT(findDuplicateGroups(tracks, {.durationToleranceMs = 1000}), IsEmpty());
}

TEST(DuplicatesByPrint, TagsDoNotJoinTwoDifferentPrints) {
  const auto a = randomPrint(40), b = randomPrint(41);
  std::vector<DuplicateCandidate> tracks = {printed(1, 180000, a), printed(2, 180000, b),
                                            tagged(3, 180500, "Moodymann", "Shades of Jae")};
  for (size_t i : {0, 1}) {
    tracks[i].artist = "Moodymann";
    tracks[i].title = "Shades of Jae";
  }
  // The unprinted copy may join either, and so joins both; without it the
  // two recordings stay apart.
  EXPECT_EQ(findDuplicateGroups(tracks), (Groups{{1, 2, 3}}));
  tracks[2].durationMs = 200000;
  EXPECT_THAT(findDuplicateGroups(tracks), IsEmpty());
}

TEST(DuplicatesByPrint, ShortTracksCompareOverWhatTheirPrintsHold) {
  // Under half a minute the print is shorter than the sketch; two versions
  // may differ by a word or so in length, and one may fall either side of
  // the sketch's end.
  const auto loop = randomPrint(50, 150);
  const auto loopCopy = flipped({loop.begin(), loop.end() - 2}, 0.05);
  const auto otherLoop = randomPrint(52, 150);
  const auto longer = randomPrint(51, 266);  // just long enough for the whole sketch
  const auto longerCopy = flipped({longer.begin(), longer.end() - 4}, 0.05);
  const auto song = randomPrint(53);
  const std::vector<DuplicateCandidate> tracks = {
      printed(1, 20000, loop),   printed(2, 20100, loopCopy),   printed(3, 20050, otherLoop),
      printed(4, 34000, longer), printed(5, 33600, longerCopy), printed(6, 34000, song)};
  EXPECT_EQ(findDuplicateGroups(tracks), (Groups{{1, 2}, {4, 5}}));
}

TEST(DuplicatesByPrint, AmongManyTracksOfOneLengthOnlyTheCopiesJoin) {
  // Every pair of these is within the tolerance, so all are held against
  // each other.
  std::vector<std::vector<uint32_t>> prints;
  std::vector<DuplicateCandidate> tracks;
  prints.reserve(3010);
  for (uint64_t i = 0; i < 3000; ++i) prints.push_back(randomPrint(1000 + i));
  for (uint64_t k = 0; k < 10; ++k) prints.push_back(flipped(prints[k * 300], 0.03, k));
  for (size_t i = 0; i < prints.size(); ++i)
    tracks.push_back(printed(int64_t(i), 400000 + int64_t(i % 7) * 250, prints[i]));
  Groups expected;
  for (int64_t k = 0; k < 10; ++k) expected.push_back({k * 300, 3000 + k});
  EXPECT_EQ(findDuplicateGroups(tracks), expected);
}

TEST(DuplicatesByTags, TracksWithoutAPrintMatchByArtistTitleAndDuration) {
  const std::vector<DuplicateCandidate> tracks = {
      tagged(1, 200000, "Beyonc\u00e9", "Halo"),
      tagged(2, 201500, "  BEYONCE\u0301 ", "halo\t"),  // decomposed é, case, blanks
      tagged(3, 203600, "Beyonc\u00e9", "Halo"),        // too long after the others
      tagged(4, 200000, "Beyonc\u00e9", "Halo (Radio Edit)"),
      tagged(5, 200000, "Someone Else", "Halo"),
      tagged(6, 200000, "", "  "),
      tagged(7, 200000, "", ""),
      tagged(8, std::nullopt, "Beyonc\u00e9", "Halo")};
  EXPECT_EQ(findDuplicateGroups(tracks), (Groups{{1, 2}}));
}

TEST(DuplicatesByTags, APrintedTrackMeetsAnUnprintedOneByItsTags) {
  const auto song = randomPrint(60);
  const auto tooShort = randomPrint(61, kMinCommonWords - 1);
  std::vector<DuplicateCandidate> tracks = {printed(1, 300000, song),
                                            tagged(2, 300500, "Floorplan", "Never Grow Old"),
                                            printed(3, 301000, tooShort)};
  tracks[0].artist = tracks[2].artist = "floorplan";
  tracks[0].title = tracks[2].title = "never grow old";
  // A print too short to compare counts as none.
  EXPECT_EQ(findDuplicateGroups(tracks), (Groups{{1, 2, 3}}));
}

TEST(DuplicateGroups, MatchesChainIntoOneGroupInIdOrder) {
  const auto song = randomPrint(70);
  const auto copy = flipped(song, 0.02);
  std::vector<DuplicateCandidate> tracks = {
      // 40 ↔ 12 by print; 12 ↔ 33 by tags; 33 ↔ 7 by tags only 1.9 s apart,
      // though 7 is 3.8 s from 12.
      printed(40, 300000, song), printed(12, 301900, copy),
      tagged(33, 303800, "Theo Parrish", "Summertime Is Here"),
      tagged(7, 305700, "Theo Parrish", "Summertime Is Here"),
      // An unrelated pair whose first id sorts between.
      tagged(9, 100000, "A", "B"), tagged(50, 100000, "a", "b")};
  tracks[1].artist = "Theo Parrish";
  tracks[1].title = "Summertime Is Here";
  EXPECT_EQ(findDuplicateGroups(tracks), (Groups{{7, 12, 33, 40}, {9, 50}}));
  EXPECT_THAT(findDuplicateGroups({}), IsEmpty());
}

}  // namespace
}  // namespace orvel::library
