// Duplicate detection benchmark, in two parts.
//
// Where the fingerprint threshold comes from: generated songs are written as
// WAV, encoded by the `ffmpeg` program (MP3 128k and 320k, FLAC, AAC in
// m4a), decoded again and fingerprinted as analysis does it. The bit error
// rate between two versions of one song is what a duplicate looks like; the
// rate between two different songs of the same tempo and key (another
// progression, another melody) is the closest a non-duplicate comes. The
// songs fall in two halves: the threshold is chosen on the tuning half, and
// the test half (other tempi, keys and seeds, not looked at while choosing)
// says how much room it leaves.
//
// How fast grouping is: 200,000 candidates with random fingerprints and
// durations spread as in a DJ library, with a few hundred planted copies,
// grouped by findDuplicateGroups; and the same library without fingerprints,
// grouped by its tags alone.
//
// A plain program (like the key and defect benchmarks): its figures are
// margins and counts, which a timing loop has no place for.
//
//   orvel_duplicates_bench [tuning] [test] [speed]   (default: all three)
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <numbers>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "app/audio/audio_file_writer.h"
#include "app/audio/decoder.h"
#include "app/audio/fingerprint.h"
#include "app/audio/testing/synth.h"
#include "core/library/duplicates.h"
#include "core/testing/audio_files.h"
#include "core/testing/temp_dir.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using audio::testing::MusicPiece;
using library::bitErrorRate;

constexpr double kSongSeconds = 60;

struct Encoding {
  const char* name;
  const char* extension;
  const char* ffmpegOptions;  // none: the WAV itself
};
constexpr Encoding kEncodings[] = {
    {"WAV", "wav", nullptr},
    {"MP3 128k", "mp3", "-c:a libmp3lame -b:a 128k"},
    {"MP3 320k", "mp3", "-c:a libmp3lame -b:a 320k"},
    {"FLAC", "flac", "-c:a flac"},
    {"AAC 128k", "m4a", "-c:a aac -b:a 128k -f ipod"},
};
constexpr size_t kVersions = std::size(kEncodings);

// One tempo and key, and the songs written in it.
struct SongFamily {
  double bpm;
  int tonic;
  bool minor;
  uint32_t firstSeed;
};

struct Song {
  MusicPiece piece;
  std::string label;
  std::vector<std::vector<uint32_t>> prints;  // one per encoding
  std::vector<double> seconds;                // decoded length per encoding
  std::vector<double> declared;               // the container's length per encoding
};

// Six songs per family: the four progressions under one melody, and two
// more melodies over the first progression. Two more share everything but
// the seed and have no melody: the generator then plays the very same notes
// with other velocities and noise, which is one arrangement rather than two
// songs, and is reported on its own.
std::vector<Song> songsOf(const SongFamily& f) {
  std::vector<Song> songs;
  auto add = [&](uint32_t seed, int progression, bool melody) {
    Song s;
    s.piece = MusicPiece{.bpm = f.bpm,
                         .tonic = f.tonic,
                         .minor = f.minor,
                         .seconds = kSongSeconds,
                         .seed = seed,
                         .progression = progression,
                         .melody = melody};
    s.label = fmt::format("{} {} bpm seed {} prog {}{}", audio::testing::keyName(f.tonic, f.minor),
                          f.bpm, seed, progression, melody ? " melody" : "");
    songs.push_back(std::move(s));
  };
  for (int p = 0; p < 4; ++p) add(f.firstSeed, p, true);
  add(f.firstSeed + 1, 0, true);
  add(f.firstSeed + 2, 0, true);
  add(f.firstSeed + 3, 0, false);
  add(f.firstSeed + 4, 0, false);
  return songs;
}

std::vector<uint32_t> fingerprintFile(const fs::path& file, double* seconds) {
  const auto audio = audio::Decoder::decodeMono(file);
  if (!audio) throw std::runtime_error("cannot decode " + file.string());
  *seconds = audio->seconds();
  const auto raw = audio::rawFingerprint(audio->samples, audio->rate);
  if (!raw) throw std::runtime_error("no fingerprint for " + file.string());
  return library::fingerprintWords(*raw);
}

void makeVersions(Song& song, const fs::path& dir) {
  const std::vector<float> mono = audio::testing::music(song.piece);
  const fs::path wav = dir / "song.wav";
  if (!audio::writeWav(wav, std::vector<std::vector<float>>{mono, mono}, song.piece.rate))
    throw std::runtime_error("cannot write " + wav.string());
  for (const Encoding& e : kEncodings) {
    fs::path file = wav;
    if (e.ffmpegOptions) {
      file = dir / fmt::format("song-{}.{}", song.prints.size(), e.extension);
      testing::encodeAudioFile(wav, file, e.ffmpegOptions);
    }
    double seconds = 0;
    song.prints.push_back(fingerprintFile(file, &seconds));
    song.seconds.push_back(seconds);
    const auto info = audio::Decoder::probe(file);
    song.declared.push_back(info ? info->durationSec : 0);
  }
}

struct Extreme {
  double rate = -1;
  std::string what;
};

// How two different songs of one family differ.
enum Kinship { otherProgression, otherMelody, leadOrNot, sameNotes, kKinships };
constexpr const char* kKinshipNames[] = {
    "different songs: another progression", "different songs: another melody",
    "one backing with and without its lead", "the same notes, another seed"};

Kinship kinship(const MusicPiece& a, const MusicPiece& b) {
  if (a.progression != b.progression) return otherProgression;
  if (a.melody && b.melody) return otherMelody;
  return a.melody || b.melody ? leadOrNot : sameNotes;
}

struct HalfFigures {
  Extreme sameMax;  // highest rate between versions of one song
  std::vector<Extreme> closest = std::vector<Extreme>(kKinships);  // lowest rate by kinship
  std::vector<double> sameByEncoding = std::vector<double>(kVersions, 0);
  double decodedGap = 0, declaredGap = 0;  // seconds between versions of one song
  size_t samePairs = 0, otherPairs = 0;
  // The lowest rate between different songs (another progression or melody).
  double otherMin() const {
    return std::min(closest[otherProgression].rate, closest[otherMelody].rate);
  }
};

void note(Extreme& e, double rate, bool higher, std::string what) {
  if (e.rate < 0 || (higher ? rate > e.rate : rate < e.rate)) e = {rate, std::move(what)};
}

// Every version of every song of a half through findDuplicateGroups at
// once, as a library holding them would: which songs come out whole, and
// which groups hold more than one song.
void groupHalf(const std::vector<Song>& songs) {
  std::vector<library::DuplicateCandidate> tracks;
  for (size_t s = 0; s < songs.size(); ++s)
    for (size_t v = 0; v < kVersions; ++v)
      tracks.push_back({.id = int64_t(s * kVersions + v),
                        .durationMs = int64_t(songs[s].seconds[v] * 1000),
                        .fingerprint = songs[s].prints[v]});
  const auto groups = library::findDuplicateGroups(tracks);
  // The group of every file; files in no group have none.
  std::vector<std::optional<size_t>> groupOf(tracks.size());
  for (size_t g = 0; g < groups.size(); ++g)
    for (int64_t id : groups[g]) groupOf[size_t(id)] = g;
  size_t whole = 0;
  for (size_t s = 0; s < songs.size(); ++s) {
    const auto first = groupOf[s * kVersions];
    bool together = first.has_value();
    for (size_t v = 1; v < kVersions; ++v) together &= groupOf[s * kVersions + v] == first;
    whole += together;
  }
  std::vector<std::string> mixed;
  for (const auto& g : groups) {
    std::vector<size_t> members;
    for (int64_t id : g)
      if (members.empty() || members.back() != size_t(id) / kVersions)
        members.push_back(size_t(id) / kVersions);
    if (members.size() < 2) continue;
    std::string what;
    for (size_t m : members) what += (what.empty() ? "" : " + ") + songs[m].label;
    mixed.push_back(fmt::format(
        "{} ({})", what, kKinshipNames[kinship(songs[members[0]].piece, songs[members[1]].piece)]));
  }
  fmt::print(
      "  findDuplicateGroups over the {} files: every version in one group for {} of {} songs; "
      "{} groups hold more than one song\n",
      tracks.size(), whole, songs.size(), mixed.size());
  for (const std::string& m : mixed) fmt::print("    together: {}\n", m);
}

HalfFigures measureHalf(const char* name, std::span<const SongFamily> families) {
  HalfFigures h;
  std::vector<Song> all;
  for (const SongFamily& family : families) {
    std::vector<Song> songs = songsOf(family);
    for (size_t s = 0; s < songs.size(); ++s) {
      const testing::TempDir dir;
      makeVersions(songs[s], dir.path());
    }
    for (size_t s = 0; s < songs.size(); ++s) {
      const Song& a = songs[s];
      for (size_t v = 0; v < kVersions; ++v)
        for (size_t w = v + 1; w < kVersions; ++w) {
          const double rate = bitErrorRate(a.prints[v], a.prints[w]).value_or(1);
          ++h.samePairs;
          note(h.sameMax, rate, true,
               fmt::format("{}: {} vs {}", a.label, kEncodings[v].name, kEncodings[w].name));
          h.sameByEncoding[w] = std::max(h.sameByEncoding[w], v == 0 ? rate : 0.0);
          h.decodedGap = std::max(h.decodedGap, std::abs(a.seconds[v] - a.seconds[w]));
          h.declaredGap = std::max(h.declaredGap, std::abs(a.declared[v] - a.declared[w]));
        }
      for (size_t t = s + 1; t < songs.size(); ++t) {
        const Song& b = songs[t];
        const Kinship k = kinship(a.piece, b.piece);
        for (size_t v = 0; v < kVersions; ++v)
          for (size_t w = 0; w < kVersions; ++w) {
            const double rate = bitErrorRate(a.prints[v], b.prints[w]).value_or(1);
            if (k == otherProgression || k == otherMelody) ++h.otherPairs;
            note(h.closest[k], rate, false,
                 fmt::format("{} ({}) vs {} ({})", a.label, kEncodings[v].name, b.label,
                             kEncodings[w].name));
          }
      }
    }
    all.insert(all.end(), songs.begin(), songs.end());
  }
  fmt::print(
      "\n{} half: {} families, {} pairs of versions of one song, {} pairs of different "
      "songs\n",
      name, families.size(), h.samePairs, h.otherPairs);
  fmt::print("  same song, highest bit error rate:        {:.4f}  ({})\n", h.sameMax.rate,
             h.sameMax.what);
  for (size_t v = 1; v < kVersions; ++v)
    fmt::print("    {:<9} against the WAV, highest:        {:.4f}\n", kEncodings[v].name,
               h.sameByEncoding[v]);
  for (int k = 0; k < kKinships; ++k)
    fmt::print("  {:<40} lowest {:.4f}  ({})\n", kKinshipNames[k], h.closest[k].rate,
               h.closest[k].what);
  fmt::print(
      "  largest gap between versions of one song: decoded {:.3f} s, declared by the "
      "container {:.3f} s\n",
      h.decodedGap, h.declaredGap);
  groupHalf(all);
  std::fflush(stdout);  // a half takes minutes: show it as it comes
  return h;
}

// The songs the threshold is chosen on, and the ones it is checked on.
constexpr SongFamily kTuningHalf[] = {{124, 0, false, 1}, {124, 9, true, 11}, {100, 7, false, 21}};
constexpr SongFamily kTestHalf[] = {{128, 2, true, 101}, {96, 3, false, 111}, {140, 6, true, 121}};

void reportMargins(const HalfFigures& h, double threshold, const char* name) {
  fmt::print(
      "  {} half against the threshold {:.2f}: same song {:+.4f} below it; different songs "
      "{:+.4f} above it, a backing with and without its lead {:+.4f} above it\n",
      name, threshold, threshold - h.sameMax.rate, h.otherMin() - threshold,
      h.closest[leadOrNot].rate - threshold);
}

// The rule the threshold follows, applied to the tuning half: halfway
// between the worst re-encoding and the closest pair that must stay apart
// (an instrumental is not a duplicate of the full version), rounded down.
// Two renders of the very same notes are not held apart: they are one
// arrangement, and no fingerprint threshold above the re-encodings could.
void reportRule(const HalfFigures& tuning, double threshold) {
  const double apart = std::min(tuning.otherMin(), tuning.closest[leadOrNot].rate);
  const double rule = std::floor(50 * (tuning.sameMax.rate + apart)) / 100;
  fmt::print(
      "  threshold by the rule on the tuning half: ({:.4f} + {:.4f}) / 2, rounded down "
      "= {:.2f}; the default is {:.2f}\n",
      tuning.sameMax.rate, apart, rule, threshold);
}

// The same library on every machine: std:: distributions differ between
// standard libraries.
struct Dice {
  uint64_t state;
  uint64_t next() {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return state >> 11;
  }
  double uniform() { return double(next()) / double(1ull << 53); }
  double normal() {
    const double u = std::max(uniform(), 1e-12), v = uniform();
    return std::sqrt(-2 * std::log(u)) * std::cos(2 * std::numbers::pi * v);
  }
};

// Durations of a DJ library: radio edits, extended mixes and a tail of long
// tracks and mixes, in milliseconds.
int64_t libraryDurationMs(Dice& dice) {
  const double pick = dice.uniform();
  double seconds = pick < 0.35  ? 215 + 35 * dice.normal()
                   : pick < 0.9 ? 390 + 75 * dice.normal()
                                : 600 + 240 * std::abs(dice.normal());
  return int64_t(std::clamp(seconds, 60.0, 3600.0) * 1000);
}

// Words Chromaprint gives for a track: one per 1365 samples at 11,025 Hz
// over the first two minutes, less the width of its filters.
size_t printWords(int64_t durationMs) {
  const double seconds = std::min(double(durationMs) / 1000, audio::kFingerprintSeconds);
  return size_t(std::max(0.0, (seconds * 11025 - 4096) / (4096.0 / 3) - 15));
}

struct Library {
  std::vector<std::vector<uint32_t>> prints;
  std::vector<std::string> artists, titles;
  std::vector<library::DuplicateCandidate> tracks;
  size_t plantedPairs = 0;
};

// Random prints, and every 500th track copied once more with 5 % of its
// bits flipped, a shift of up to two words and a duration a little off, as
// a re-encoding would be.
Library makeLibrary(size_t count, bool withPrints) {
  Library lib;
  Dice dice{42};
  lib.prints.reserve(count);
  std::vector<int64_t> durations;
  for (size_t i = 0; i < count; ++i) {
    const bool copy = i % 500 == 499;
    if (copy) {
      const size_t of = i - 1 - dice.next() % 400;
      const int shift = int(dice.next() % 5) - 2;
      std::vector<uint32_t> words = lib.prints[of];
      if (shift > 0) words.erase(words.begin(), words.begin() + shift);
      if (shift < 0) words.insert(words.begin(), size_t(-shift), uint32_t(dice.next()));
      for (uint32_t& w : words)
        for (int b = 0; b < 32; ++b)
          if (dice.next() % 100 < 5) w ^= 1u << b;
      lib.prints.push_back(std::move(words));
      durations.push_back(durations[of] + int64_t(dice.next() % 301) - 150);
      lib.artists.push_back(lib.artists[of]);
      lib.titles.push_back(lib.titles[of]);
      ++lib.plantedPairs;
      continue;
    }
    durations.push_back(libraryDurationMs(dice));
    std::vector<uint32_t> words(printWords(durations.back()));
    for (uint32_t& w : words) w = uint32_t(dice.next());
    lib.prints.push_back(std::move(words));
    lib.artists.push_back(fmt::format("Artist {}", dice.next() % 20000));
    lib.titles.push_back(fmt::format("Title {}", i));
  }
  for (size_t i = 0; i < count; ++i)
    lib.tracks.push_back({.id = int64_t(i + 1),
                          .durationMs = durations[i],
                          .artist = lib.artists[i],
                          .title = lib.titles[i],
                          .fingerprint = withPrints ? std::span<const uint32_t>(lib.prints[i])
                                                    : std::span<const uint32_t>()});
  return lib;
}

// Pairs just inside the threshold, which findDuplicateGroups must group
// although it compares most pairs by their sketches alone: a random print
// (the least favourable kind for a sketch) and a copy shifted by up to the
// alignment's reach, with 95 % of the allowed share of its bits flipped.
// Each pair has a duration of its own, far from the others.
void recallNearThreshold(double threshold) {
  constexpr size_t kPairs = 20000;
  Dice dice{7};
  std::vector<std::vector<uint32_t>> prints;
  std::vector<library::DuplicateCandidate> tracks;
  prints.reserve(2 * kPairs);
  size_t underThreshold = 0;
  for (size_t p = 0; p < kPairs; ++p) {
    std::vector<uint32_t> a(printWords(300000));
    for (uint32_t& w : a) w = uint32_t(dice.next());
    const int shift = int(p % (2 * library::kAlignmentWords + 1)) - library::kAlignmentWords;
    std::vector<uint32_t> b(a.begin() + std::max(shift, 0), a.end());
    for (int k = 0; k < -shift; ++k) b.insert(b.begin(), uint32_t(dice.next()));
    // Flipped among the words the two have in common, each bit at most once.
    const size_t from = size_t(std::max(-shift, 0));
    const size_t bits = (b.size() - from) * 32;
    std::vector<bool> flipped(bits);
    for (size_t f = 0; f < size_t(0.95 * threshold * double(bits));) {
      const size_t at = dice.next() % bits;
      if (flipped[at]) continue;
      flipped[at] = true;
      b[from + at / 32] ^= 1u << (at % 32);
      ++f;
    }
    underThreshold += bitErrorRate(a, b).value_or(1) < threshold;
    prints.push_back(std::move(a));
    prints.push_back(std::move(b));
  }
  for (size_t i = 0; i < prints.size(); ++i)
    tracks.push_back({.id = int64_t(i),
                      .durationMs = int64_t(100000 + (i / 2) * 10000),
                      .fingerprint = prints[i]});
  const size_t grouped = library::findDuplicateGroups(tracks).size();
  fmt::print(
      "  pairs of random prints at 0.95 x the threshold, shifted -{} to +{} words: {} of "
      "{} grouped ({} of them under the threshold by bitErrorRate)\n",
      library::kAlignmentWords, library::kAlignmentWords, grouped, kPairs, underThreshold);
}

void timeGrouping(const char* what, bool withPrints) {
  constexpr size_t kTracks = 200000;
  const Library lib = makeLibrary(kTracks, withPrints);
  std::vector<double> ms;
  size_t groups = 0;
  for (int run = 0; run < 5; ++run) {
    const auto start = std::chrono::steady_clock::now();
    groups = library::findDuplicateGroups(lib.tracks).size();
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                     .count());
  }
  std::sort(ms.begin(), ms.end());
  fmt::print(
      "  {:<44} {:8.1f} ms (median of 5; fastest {:.1f}), {} groups for {} planted "
      "copies\n",
      what, ms[2], ms[0], groups, lib.plantedPairs);
}

int run(bool tuning, bool test, bool speed) {
  fmt::print(
      "Duplicate detection: bit error rates of {} s generated songs, encoded by ffmpeg "
      "and decoded by Orvel\n",
      kSongSeconds);
  const double threshold = library::DuplicateOptions{}.maxBitErrorRate;
  if (tuning) {
    const HalfFigures h = measureHalf("Tuning", kTuningHalf);
    reportRule(h, threshold);
    reportMargins(h, threshold, "Tuning");
  }
  if (test) reportMargins(measureHalf("Test", kTestHalf), threshold, "Test");
  if (speed) {
    fmt::print("\nfindDuplicateGroups on {} tracks (tolerance {} ms, threshold {:.2f}):\n", 200000,
               library::DuplicateOptions{}.durationToleranceMs, threshold);
    recallNearThreshold(threshold);
    timeGrouping("random fingerprints", true);
    timeGrouping("no fingerprints (tags and duration)", false);
  }
  return 0;
}

}  // namespace
}  // namespace orvel

int main(int argc, char** argv) {
  bool tuning = argc < 2, test = argc < 2, speed = argc < 2;
  for (int i = 1; i < argc; ++i) {
    const std::string_view part = argv[i];
    tuning |= part == "tuning";
    test |= part == "test";
    speed |= part == "speed";
  }
  try {
    return orvel::run(tuning, test, speed);
  } catch (const std::exception& e) {
    fmt::print(stderr, "duplicates benchmark failed: {}\n", e.what());
    return 1;
  }
}
