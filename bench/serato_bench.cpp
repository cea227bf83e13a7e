// Serato benchmark: a generated "_Serato_" folder of 100,000 tracks (every
// field Serato writes) and 200 crates of 50, parsed, then folded into an
// empty catalogue. Baselines from the same run: reading the database file's
// bytes for the parse, and a bare prepared INSERT of the same rows in one
// transaction for the fold.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <fstream>
#include <memory>

#include "bench/ratio_reporter.h"
#include "bench/sample_catalogue.h"
#include "bench/sample_serato.h"
#include "core/formats/serato_library.h"
#include "core/store/log.h"
#include "core/store/orvel_db.h"
#include "core/testing/serato_bytes.h"
#include "core/testing/temp_dir.h"
#include "core/testing/temp_home.h"

// Benchmark functions follow Google Benchmark's BM_ naming.
// NOLINTBEGIN(readability-identifier-naming)
namespace orvel {
namespace {

constexpr int kTracks = 100'000;
constexpr int kCrates = 200;
constexpr int kCrateSize = 50;

struct SeratoFolder {
  testing::TempDir dir;
  std::vector<sample::SampleTrack> tracks = sample::makeTracks(kTracks, 11, "/Users/dj/Music");
  std::filesystem::path serato = dir.path() / "_Serato_";
  size_t databaseBytes = 0;

  SeratoFolder() {
    std::vector<testing::Bytes> records;
    records.reserve(tracks.size());
    for (const auto& t : tracks)
      records.push_back(
          sample::seratoRecordOf(t, 1600000000u + static_cast<uint32_t>(records.size())));
    const testing::Bytes database = testing::seratoDatabase(records);
    databaseBytes = database.size();
    testing::writeBytes(serato / "database V2", database);
    for (int c = 0; c < kCrates; ++c) {
      std::vector<std::string> paths;
      for (int i = 0; i < kCrateSize; ++i)
        paths.push_back(tracks[static_cast<size_t>((c * 7919 + i * 104729) % kTracks)].file.path);
      const std::string name =
          c % 4 == 0 ? fmt::format("Sets%%{}%%Crate {}", c / 40, c) : fmt::format("Crate {}", c);
      testing::writeBytes(serato / "Subcrates" / (name + ".crate"), testing::seratoCrate(paths));
    }
  }
};

SeratoFolder& folder() {
  static SeratoFolder f;
  return f;
}

void BM_ReadDatabaseBytes(benchmark::State& state) {
  const auto file = folder().serato / "database V2";
  for (auto _ : state) {
    std::vector<char> bytes(std::filesystem::file_size(file));
    std::ifstream in(file, std::ios::binary);
    in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    benchmark::DoNotOptimize(bytes.data());
  }
}

void BM_LoadSeratoLibrary(benchmark::State& state) {
  for (auto _ : state) {
    const SeratoLibrary lib = SeratoLibrary::load(folder().serato);
    if (lib.tracks.size() != kTracks) state.SkipWithError("wrong track count");
    benchmark::DoNotOptimize(lib.crates.data());
  }
  state.counters["tracks/s"] =
      benchmark::Counter(kTracks, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_BareInsert(benchmark::State& state) {
  const auto& tracks = folder().tracks;
  for (auto _ : state) {
    state.PauseTiming();
    testing::TempDir dir;
    auto db = std::make_unique<OrvelDB>((dir.path() / "orvel.db").string());
    state.ResumeTiming();
    {
      Transaction tx(db->connection());
      if (!tx) state.SkipWithError(tx.status().message().c_str());
      Statement ins = db->prepare(
          "INSERT INTO tracks(path, filename, title, artist, album, genre, duration_ms, "
          "filesize_bytes, date_added, bpm, key, year, comment, bitrate_kbps, samplerate_hz, "
          "file_type) VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,'mp3')");
      for (const auto& t : tracks) {
        const NewTrack& f = t.file;
        ins.reset();
        ins.bind(1, f.path).bind(2, f.filename).bind(3, f.title).bind(4, f.artist).bind(5, f.album);
        ins.bind(6, f.genre).bind(7, f.durationMs).bind(8, f.filesizeBytes).bind(9, int64_t{1});
        ins.bind(10, t.bpm).bind(11, t.key).bind(12, t.year).bind(13, t.comment);
        ins.bind(14, int64_t{t.bitrate}).bind(15, int64_t{44100});
        ins.stepCode();
      }
      if (Status s = tx.commit(); !s) state.SkipWithError(s.message().c_str());
    }
    state.PauseTiming();
    db.reset();
    state.ResumeTiming();
  }
}

void BM_FoldIntoEmptyCatalogue(benchmark::State& state) {
  const SeratoLibrary lib = SeratoLibrary::load(folder().serato);
  for (auto _ : state) {
    state.PauseTiming();
    testing::TempDir dir;
    auto db = std::make_unique<OrvelDB>((dir.path() / "orvel.db").string());
    state.ResumeTiming();
    const auto counts = db->serato().foldSeratoTracks(lib);
    state.PauseTiming();
    if (!counts || counts->tracksAdded != kTracks) state.SkipWithError("fold failed");
    db.reset();
    state.ResumeTiming();
  }
  state.counters["tracks/s"] =
      benchmark::Counter(kTracks, benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(BM_ReadDatabaseBytes)->Unit(benchmark::kMillisecond)->Iterations(3)->Repetitions(3);
BENCHMARK(BM_LoadSeratoLibrary)->Unit(benchmark::kMillisecond)->Iterations(3)->Repetitions(3);
BENCHMARK(BM_BareInsert)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3);
BENCHMARK(BM_FoldIntoEmptyCatalogue)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3);

}  // namespace
}  // namespace orvel
// NOLINTEND(readability-identifier-naming)

int main(int argc, char** argv) {
  orvel::testing::TempHome home;
  orvel::setNoteEcho(false);
  benchmark::Initialize(&argc, argv);
  fmt::print("Writing a Serato library of {} tracks and {} crates...\n", orvel::kTracks,
             orvel::kCrates);
  fmt::print("database V2: {:.1f} MB\n", static_cast<double>(orvel::folder().databaseBytes) / 1e6);
  orvel::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  fmt::print("\nRatios against baselines from the same run:\n");
  reporter.printRatio("load (read + parse) of database V2 and crates / read bytes",
                      "BM_LoadSeratoLibrary", "BM_ReadDatabaseBytes", 0);
  reporter.printRatio("fold 100,000 tracks + crates / bare INSERT of the rows",
                      "BM_FoldIntoEmptyCatalogue", "BM_BareInsert", 0);
  benchmark::Shutdown();
  return 0;
}
