// Import benchmark: 2,000 generated, tagged files in mixed formats, nested
// artist / album, imported into an empty catalogue. The baseline, measured in
// the same run over the same files, is a bare TagLib loop that opens each
// file and reads the fields an import needs; what the import adds on top
// (walking the folders, the file checks, the classification and the rows)
// should stay within 2x of it.
#include <benchmark/benchmark.h>
#include <fileref.h>
#include <fmt/format.h>
#include <tag.h>

#include <memory>

#include "app/audio/decoder.h"
#include "bench/ratio_reporter.h"
#include "bench/sample_audio.h"
#include "core/import/importer.h"
#include "core/store/log.h"
#include "core/store/orvel_db.h"
#include "core/testing/temp_dir.h"
#include "core/testing/temp_home.h"

// Benchmark functions follow Google Benchmark's BM_ naming.
// NOLINTBEGIN(readability-identifier-naming)
namespace orvel {
namespace {

constexpr int kFiles = 2000;

struct Library {
  testing::TempDir dir;
  std::vector<std::filesystem::path> files;
  Library() {
    const auto tracks = sample::makeTracks(kFiles, 7, (dir.path() / "Music").string());
    sample::writeAudioFiles(tracks);
    for (const auto& t : tracks) files.emplace_back(t.file.path);
  }
};

Library& library() {
  static Library lib;
  return lib;
}

void BM_TagLibBareLoop(benchmark::State& state) {
  const auto& files = library().files;
  for (auto _ : state) {
    size_t seen = 0;
    for (const auto& f : files) {
      TagLib::FileRef ref(f.c_str(), true, TagLib::AudioProperties::Average);
      if (ref.isNull()) continue;
      const TagLib::Tag* tag = ref.tag();
      seen += tag->title().size() + tag->artist().size() + tag->album().size() +
              tag->genre().size() + tag->comment().size() + tag->year();
      if (const auto* p = ref.audioProperties())
        seen += static_cast<size_t>(p->lengthInMilliseconds() + p->bitrate() + p->sampleRate());
    }
    benchmark::DoNotOptimize(seen);
  }
  state.counters["files/s"] =
      benchmark::Counter(kFiles, benchmark::Counter::kIsIterationInvariantRate);
}

void runImport(benchmark::State& state, const Importer::Options& options) {
  const std::vector<std::filesystem::path> root{library().dir.path() / "Music"};
  for (auto _ : state) {
    state.PauseTiming();
    testing::TempDir dir;
    auto db = std::make_unique<OrvelDB>((dir.path() / "orvel.db").string());
    state.ResumeTiming();
    const auto r = Importer::ingest(root, *db, options);
    state.PauseTiming();
    if (static_cast<int>(r.added.size()) != kFiles)
      state.SkipWithError(fmt::format("imported {} of {}", r.added.size(), kFiles).c_str());
    db.reset();
    state.ResumeTiming();
  }
  state.counters["files/s"] =
      benchmark::Counter(kFiles, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_Import(benchmark::State& state) {
  runImport(state, {});
}

// As the command line imports: a file TagLib finds no audio in is asked
// about again through FFmpeg.
void BM_ImportCheckingAudio(benchmark::State& state) {
  Importer::Options options;
  options.whyNotAudio = [](const std::filesystem::path& f) -> std::optional<std::string> {
    if (audio::Decoder::probe(f)) return std::nullopt;
    return "not audio";
  };
  runImport(state, options);
}

BENCHMARK(BM_TagLibBareLoop)->Unit(benchmark::kMillisecond)->Iterations(3)->Repetitions(3);
BENCHMARK(BM_Import)->Unit(benchmark::kMillisecond)->Iterations(3)->Repetitions(3);
BENCHMARK(BM_ImportCheckingAudio)->Unit(benchmark::kMillisecond)->Iterations(3)->Repetitions(3);

}  // namespace
}  // namespace orvel
// NOLINTEND(readability-identifier-naming)

int main(int argc, char** argv) {
  orvel::testing::TempHome home;
  orvel::setNoteEcho(false);
  benchmark::Initialize(&argc, argv);
  fmt::print("Writing {} tagged audio files...\n", orvel::kFiles);
  orvel::library();
  orvel::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  fmt::print("\nRatio against the bare TagLib loop over the same files, same run:\n");
  reporter.printRatio("import of 2,000 files / bare TagLib tag loop", "BM_Import",
                      "BM_TagLibBareLoop", 2.0);
  reporter.printRatio("the same with the audio check of the command line / bare TagLib loop",
                      "BM_ImportCheckingAudio", "BM_TagLibBareLoop", 0);
  benchmark::Shutdown();
  return 0;
}
