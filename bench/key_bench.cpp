// Key accuracy: generated music in all 24 keys (two pieces a key, 30 s each,
// float WAV at 44.1 kHz), named by the built-in detector and by the
// orvel-keyfinder helper, each reading the file itself. Prints a Markdown
// table per set of pieces: exact matches, the MIREX weighted score, and the
// time a file takes, beside decoding alone as the baseline. The plain set is
// the music generator's own balance of drums and chords; the harder sets
// bury the chords under the drums and white noise, where the two detectors
// part ways.
#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/audio/audio_file_writer.h"
#include "app/audio/decoder.h"
#include "app/audio/key_detect.h"
#include "app/audio/key_finder_helper.h"
#include "app/audio/testing/synth.h"
#include "core/testing/temp_dir.h"
#include "core/text/key_names.h"

namespace orvel {
namespace {

constexpr int kRate = 44100;
constexpr double kSeconds = 30;

struct Piece {
  int tonic = 0;
  bool minor = false;
};

// The generator's drums and chords as separate stems, so every set mixes
// the same music at its own balance.
struct Stems {
  std::vector<float> drums;
  std::vector<float> chords;
};

Stems makeStems(const Piece& piece, int take) {
  audio::testing::MusicPiece music{
      .bpm = take == 0 ? 100.0 + 2 * piece.tonic : 128.0,
      .tonic = piece.tonic,
      .minor = piece.minor,
      .seconds = kSeconds,
      .rate = kRate,
      .seed = uint32_t(1 + piece.tonic * 7 + take * 101 + int(piece.minor) * 13),
      .drums = true,
      .chords = false};
  Stems stems;
  stems.drums = audio::testing::music(music);
  music.drums = false;
  music.chords = true;
  stems.chords = audio::testing::music(music);
  return stems;
}

struct PieceSet {
  const char* name = "";
  double chordGain = 1;
  double noise = 0;  // white noise, peak amplitude
};

// MIREX's weighting: exact 1, a fifth either way in the same mode 0.5, the
// relative major or minor 0.3, the parallel one 0.2.
double mirexScore(const std::optional<std::string>& found, const Piece& truth) {
  const auto key = found ? MusicKey::parse(*found) : std::nullopt;
  if (!key) return 0;
  const auto [tonic, minor] = *key;
  const int up = (tonic - truth.tonic + 12) % 12;
  if (minor == truth.minor) return up == 0 ? 1 : up == 7 || up == 5 ? 0.5 : 0;
  const int relative = truth.minor ? 3 : 9;  // Am → C, C → Am
  if (up == relative) return 0.3;
  return up == 0 ? 0.2 : 0;
}

struct Score {
  double exact = 0;
  double mirex = 0;
  double seconds = 0;
};

using Detector = std::function<std::optional<std::string>(const std::filesystem::path&)>;

void run() {
  const testing::TempDir dir;
  const PieceSet sets[] = {{"plain", 1, 0}, {"hard", 0.3, 0.05}, {"harder", 0.15, 0.1}};
  const auto decode = [](const std::filesystem::path& file) {
    return audio::Decoder::decodeMono(file, {.rate = kRate});
  };
  std::vector<std::pair<const char*, Detector>> detectors = {
      {"decoding alone (baseline)",
       [&](const std::filesystem::path& file) -> std::optional<std::string> {
         if (!decode(file)) throw std::runtime_error("cannot decode " + file.string());
         return std::nullopt;
       }},
      {"built-in detectKey",
       [&](const std::filesystem::path& file) {
         const auto audio = decode(file);
         return audio ? audio::detectKey(audio->samples, audio->rate) : std::nullopt;
       }},
  };
  // Without qm-dsp there is no helper to compare with.
#ifdef ORVEL_KEYFINDER
  detectors.emplace_back("orvel-keyfinder", [](const std::filesystem::path& file) {
    return audio::KeyFinderHelper::key(file, ORVEL_KEYFINDER);
  });
#endif
  constexpr size_t kSets = std::size(sets);
  std::vector<std::vector<Score>> scores(kSets, std::vector<Score>(detectors.size()));

  // Piece by piece, so only one file is on disk at a time.
  int files = 0;
  uint32_t noise = 0x9E3779B9u;
  for (bool minor : {false, true})
    for (int tonic = 0; tonic < 12; ++tonic)
      for (int take = 0; take < 2; ++take, ++files) {
        const Piece piece{tonic, minor};
        const Stems stems = makeStems(piece, take);
        for (size_t s = 0; s < kSets; ++s) {
          std::vector<float> mix(stems.drums.size());
          for (size_t i = 0; i < mix.size(); ++i) {
            noise = noise * 1664525u + 1013904223u;
            const double white = double(noise >> 8) / double(1u << 23) - 1.0;
            mix[i] =
                float(stems.drums[i] + sets[s].chordGain * stems.chords[i] + sets[s].noise * white);
          }
          const auto file = dir.path() / "piece.wav";
          if (!audio::writeWav(file, mix, kRate, audio::WavSample::float32))
            throw std::runtime_error("cannot write " + file.string());
          for (size_t d = 0; d < detectors.size(); ++d) {
            const auto start = std::chrono::steady_clock::now();
            const auto key = detectors[d].second(file);
            scores[s][d].seconds +=
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            const double score = mirexScore(key, piece);
            scores[s][d].exact += score == 1;
            scores[s][d].mirex += score;
          }
        }
      }

  for (size_t s = 0; s < kSets; ++s) {
    fmt::print("\n{} set: {} pieces of {:.0f} s, 4/4 drums", sets[s].name, files, kSeconds);
    if (sets[s].noise > 0)
      fmt::print(", chords at {:.2f}, white noise at {:.2f}", sets[s].chordGain, sets[s].noise);
    fmt::print("\n\n| detector | exact % | MIREX weighted score | seconds per file |\n");
    fmt::print("|---|---:|---:|---:|\n");
    const double base = scores[s][0].seconds / files;
    fmt::print("| {} | | | {:.3f} |\n", detectors[0].first, base);
    for (size_t d = 1; d < detectors.size(); ++d) {
      const Score& sc = scores[s][d];
      fmt::print("| {} | {:.1f} | {:.3f} | {:.3f} ({:.1f}x decoding) |\n", detectors[d].first,
                 100 * sc.exact / files, sc.mirex / files, sc.seconds / files,
                 sc.seconds / files / base);
    }
  }
}

}  // namespace
}  // namespace orvel

int main() {
  try {
    orvel::run();
  } catch (const std::exception& e) {
    fmt::print(stderr, "orvel_key_bench: {}\n", e.what());
    return 1;
  }
}
