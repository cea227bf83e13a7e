// The library in memory on a generated catalogue of 200,000 tracks: one
// refilter must fit in a frame (16 ms) whatever the view asks for, the
// category counts in two, and the first publish after loading must cost
// little more than reading the rows. Each figure is also given as a ratio to
// a bare std::stable_sort of 200,000 integers timed in the same run, so the
// table reads the same on a faster machine.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include "bench/launch_query_loop.h"
#include "bench/ratio_reporter.h"
#include "bench/sample_catalogue.h"
#include "core/library/filter.h"
#include "core/testing/temp_home.h"

// Benchmark functions follow Google Benchmark's BM_ naming.
// NOLINTBEGIN(readability-identifier-naming)
namespace orvel {
namespace {

using namespace library;

constexpr int kLibrary = 200'000;
constexpr int64_t kNow = 1'800'000'000;

struct Catalogue {
  testing::TempDir dir;
  std::unique_ptr<OrvelDB> db;
  std::shared_ptr<const LibraryIndex> index;
};

Catalogue& catalogue() {
  static const std::unique_ptr<Catalogue> c = [] {
    auto made = std::make_unique<Catalogue>();
    made->db = std::make_unique<OrvelDB>((made->dir / "orvel.db").string());
    if (auto ids = sample::fill(*made->db, sample::makeTracks(kLibrary)); !ids) {
      fmt::print(stderr, "library_bench: cannot build the catalogue: {}\n", ids.error());
      std::exit(1);
    }
    made->index = LibraryIndex::build(made->db->tracks().loadSnapshot(), {});
    return made;
  }();
  return *c;
}

void BM_StableSortInts(benchmark::State& state) {
  std::mt19937 g(7);
  std::vector<int> base(kLibrary);
  for (int& v : base) v = static_cast<int>(g() % 100000);
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<int> v = base;
    state.ResumeTiming();
    std::stable_sort(v.begin(), v.end());
    benchmark::DoNotOptimize(v.data());
  }
}

void BM_LaunchQueryBareLoop(benchmark::State& state) {
  OrvelDB& db = *catalogue().db;
  for (auto _ : state) benchmark::DoNotOptimize(bench::stepLaunchQuery(db));
}

// Launch: the rows read, the index built, the first list filtered and sorted.
void BM_FirstPublish(benchmark::State& state) {
  OrvelDB& db = *catalogue().db;
  for (auto _ : state) {
    auto index = LibraryIndex::build(db.tracks().loadSnapshot(), {});
    FilterQuery q;
    q.now = kNow;
    const FilterResult r = runFilter(*index, q);
    if (r.rows.size() != static_cast<size_t>(kLibrary)) state.SkipWithError("wrong row count");
  }
}

void refilter(benchmark::State& state, const FilterQuery& q) {
  const LibraryIndex& index = *catalogue().index;
  size_t rows = runFilter(index, q).rows.size();  // the ranks a sort needs are made once
  for (auto _ : state) {
    const FilterResult r = runFilter(index, q);
    rows = r.rows.size();
    benchmark::DoNotOptimize(r.rows.data());
  }
  state.counters["rows"] = static_cast<double>(rows);
}

void BM_FilterSortArtistBpm(benchmark::State& state) {
  FilterQuery q;
  q.sort = {{SortField::artist}, {SortField::bpm}};
  refilter(state, q);
}

void BM_FilterSearchHouseBrowser(benchmark::State& state) {
  FilterQuery q;
  q.search = "house";
  q.browser.shown = true;
  refilter(state, q);
}

void BM_FilterCategoryScope(benchmark::State& state) {
  FilterQuery q;
  q.source = Source::of(Category::music);
  q.scope = Scope{"bpm", "120-130"};
  refilter(state, q);
}

void BM_FilterSortTitle(benchmark::State& state) {
  FilterQuery q;
  q.sort = {{SortField::title}};
  refilter(state, q);
}

void BM_CategoryCounts(benchmark::State& state) {
  const LibraryIndex& index = *catalogue().index;
  for (auto _ : state) benchmark::DoNotOptimize(categoryCounts(index, kNow));
}

#define RUN(f) BENCHMARK(f)->Unit(benchmark::kMillisecond)->Repetitions(3)->ReportAggregatesOnly()
RUN(BM_StableSortInts);
RUN(BM_LaunchQueryBareLoop)->Iterations(3);
RUN(BM_FirstPublish)->Iterations(3);
RUN(BM_FilterSortArtistBpm);
RUN(BM_FilterSearchHouseBrowser);
RUN(BM_FilterCategoryScope);
RUN(BM_FilterSortTitle);
RUN(BM_CategoryCounts);

}  // namespace
}  // namespace orvel
// NOLINTEND(readability-identifier-naming)

int main(int argc, char** argv) {
  using orvel::bench::RatioReporter;
  orvel::testing::TempHome home;
  benchmark::Initialize(&argc, argv);
  orvel::catalogue();
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const auto base = reporter.timeOf("BM_StableSortInts");
  fmt::print("\n{} tracks; bare std::stable_sort of {} ints: {:.2f} ms\n", orvel::kLibrary,
             orvel::kLibrary, base.value_or(0));
  fmt::print("{:<48} {:>9} {:>8} {:>10}\n", "", "ms", "budget", "x sort");
  auto row = [&](const char* what, const char* name, double budget) {
    const auto t = reporter.timeOf(name);
    if (!t) return;
    fmt::print("{:<48} {:9.2f} {:>8} {:9.2f}x  {}\n", what, *t, fmt::format("{:.0f}", budget),
               base ? *t / *base : 0, *t <= budget ? "ok" : "OVER");
  };
  row("(a) no search, sort by artist then BPM", "BM_FilterSortArtistBpm", 16);
  row("(b) search \"house\", browser shown", "BM_FilterSearchHouseBrowser", 16);
  row("(c) category \"music\" and scope bpm 120-130", "BM_FilterCategoryScope", 16);
  row("(d) sort by title, whole library", "BM_FilterSortTitle", 16);
  row("category counts", "BM_CategoryCounts", 30);
  reporter.printRatio("first publish after load / launch-query step loop", "BM_FirstPublish",
                      "BM_LaunchQueryBareLoop", 1.5);
  benchmark::Shutdown();
  return 0;
}
