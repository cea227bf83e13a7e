// Store benchmarks on a generated catalogue of 200,000 tracks (a big DJ
// library). Each figure is
// printed with its baseline from the same run: the bare SQLite work the
// operation cannot avoid (stepping the same query, the same INSERTs or UPDATE
// without the store's bookkeeping).
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <optional>

#include "bench/launch_query_loop.h"
#include "bench/ratio_reporter.h"
#include "bench/sample_catalogue.h"
#include "core/store/log.h"
#include "core/testing/temp_home.h"

// Benchmark functions follow Google Benchmark's BM_ naming.
// NOLINTBEGIN(readability-identifier-naming)
namespace orvel {
namespace {

constexpr int kLibrary = 200'000;

struct Catalogue {
  testing::TempDir dir;
  std::unique_ptr<OrvelDB> db;
  std::vector<int64_t> ids;
};

Catalogue& library() {
  static const std::unique_ptr<Catalogue> c = [] {
    auto made = std::make_unique<Catalogue>();
    made->db = std::make_unique<OrvelDB>((made->dir / "orvel.db").string());
    auto ids = sample::fill(*made->db, sample::makeTracks(kLibrary));
    if (!ids) {
      // Every figure would be measured over a catalogue that is not there.
      fmt::print(stderr, "store_bench: cannot build the catalogue: {}\n", ids.error());
      std::exit(1);
    }
    made->ids = std::move(*ids);
    return made;
  }();
  return *c;
}

const std::vector<sample::SampleTrack>& tenThousand() {
  static const auto tracks = sample::makeTracks(10'000, 7, "/Imports");
  return tracks;
}

// ---- loading -------------------------------------------------------------

void BM_LaunchQueryBareLoop(benchmark::State& state) {
  OrvelDB& db = *library().db;
  for (auto _ : state) benchmark::DoNotOptimize(bench::stepLaunchQuery(db));
  state.counters["rows"] = kLibrary;
}

void BM_LoadAllTracks(benchmark::State& state) {
  OrvelDB& db = *library().db;
  for (auto _ : state) {
    auto rows = db.tracks().loadAllTracks();
    benchmark::DoNotOptimize(rows.data());
    if (rows.size() != static_cast<size_t>(kLibrary)) state.SkipWithError("wrong row count");
  }
  state.counters["rows"] = kLibrary;
}

// What the library model does at launch: the whole library as one shared,
// immutable snapshot.
void BM_LoadSnapshot(benchmark::State& state) {
  OrvelDB& db = *library().db;
  for (auto _ : state) {
    auto snapshot = db.tracks().loadSnapshot();
    benchmark::DoNotOptimize(snapshot.get());
    if (snapshot->rows.size() != static_cast<size_t>(kLibrary))
      state.SkipWithError("wrong row count");
  }
  state.counters["rows"] = kLibrary;
}

// Resident memory now, in bytes; 0 where the system does not say.
int64_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  int64_t pages = 0;
  int64_t resident = 0;
  if (!(statm >> pages >> resident)) return 0;
  return resident * sysconf(_SC_PAGESIZE);
}

// Memory a loaded snapshot holds per track, measured as the growth of the
// resident set while one is alive (not computed from sizeof).
double snapshotBytesPerTrack() {
  OrvelDB& db = *library().db;
  malloc_trim(0);
  const int64_t before = residentBytes();
  auto snapshot = db.tracks().loadSnapshot();
  const int64_t after = residentBytes();
  return static_cast<double>(after - before) / static_cast<double>(snapshot->rows.size());
}

// ---- adding --------------------------------------------------------------

void BM_InsertBare10k(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    testing::TempDir dir;
    {
      OrvelDB db((dir / "orvel.db").string());
      state.ResumeTiming();
      Transaction tx(db.connection());
      if (!tx) state.SkipWithError(tx.status().message().c_str());
      Statement ins = db.prepare(
          "INSERT INTO tracks(path, filename, title, artist, album, genre, duration_ms, "
          "filesize_bytes, date_added, date_created, production) VALUES(?,?,?,?,?,?,?,?,?,?,?)");
      for (const auto& t : tenThousand()) {
        const auto& f = t.file;
        ins.reset();
        ins.bind(1, f.path).bind(2, f.path).bind(3, f.title).bind(4, f.artist).bind(5, f.album);
        ins.bind(6, f.genre).bind(7, f.durationMs).bind(8, f.filesizeBytes).bind(9, f.dateAdded);
        ins.bind(10, f.dateCreated).bind(11, int64_t{0}).stepCode();
      }
      if (Status s = tx.commit(); !s) state.SkipWithError(s.message().c_str());
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
}

void BM_InsertImported10k(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    testing::TempDir dir;
    {
      OrvelDB db((dir / "orvel.db").string());
      const auto source = db.tracks().orvelSourceId();
      if (!source) state.SkipWithError(source.error().c_str());
      state.ResumeTiming();
      Transaction tx(db.connection());
      for (const auto& t : tenThousand())
        if (!db.tracks().insertImported(t.file, source.value_or(0))) break;
      if (Status s = tx.commit(); !s) state.SkipWithError(s.message().c_str());
      state.PauseTiming();
      if (db.count("tracks") != 10'000) state.SkipWithError("wrong row count");
    }
    state.ResumeTiming();
  }
}

// ---- editing -------------------------------------------------------------

std::vector<int64_t> fiveThousandIds() {
  const auto& all = library().ids;
  std::vector<int64_t> ids;
  for (size_t i = 0; i < all.size() && ids.size() < 5000; i += all.size() / 5000)
    ids.push_back(all[i]);
  return ids;
}

void BM_UpdateBare5000(benchmark::State& state) {
  OrvelDB& db = *library().db;
  const auto ids = fiveThousandIds();
  int n = 0;
  for (auto _ : state) {
    Statement up = db.prepare("UPDATE tracks SET genre = ? WHERE id IN (" + joinIds(ids) + ")");
    up.bind(1, fmt::format("Genre {}", n++)).stepCode();
  }
}

void BM_SetFieldJournaled5000(benchmark::State& state) {
  OrvelDB& db = *library().db;
  const auto ids = fiveThousandIds();
  int n = 0;
  for (auto _ : state) {
    if (!db.tracks().setField("genre", fmt::format("Genre {}", n++), ids, "Edit Genre"))
      state.SkipWithError("setField refused");
  }
}

// ---- smart playlists and crates --------------------------------------------

// What every query over the library pays at least: stepping every id.
void BM_SelectIdsBare(benchmark::State& state) {
  OrvelDB& db = *library().db;
  for (auto _ : state) {
    Statement st = db.prepare("SELECT id FROM tracks");
    int64_t sum = 0;
    while (st.step()) sum += st.int64(0);
    benchmark::DoNotOptimize(sum);
  }
}

void runSmart(benchmark::State& state, const SmartPlaylist& p) {
  OrvelDB& db = *library().db;
  size_t found = 0;
  for (auto _ : state) {
    const auto ids = db.smart().smartQueryIds(p);
    found = ids.size();
    benchmark::DoNotOptimize(ids.data());
  }
  if (found == 0) state.SkipWithError("the rules matched nothing");
  state.counters["matches"] = static_cast<double>(found);
}

void BM_SmartQueryThreeRules(benchmark::State& state) {
  SmartPlaylist p;
  p.rules = {SmartRule::make("genre", "contains", "house"), SmartRule::make("bpm", "gt", "118"),
             SmartRule::make("rating", "gt", "40")};
  p.limitBy = "added";
  runSmart(state, p);
}

void BM_SmartQueryRandomLimit(benchmark::State& state) {
  SmartPlaylist p;
  p.rules = {SmartRule::make("artist", "contains", "a")};
  p.limitEnabled = true;
  p.limitCount = 25;
  p.limitBy = "random";
  runSmart(state, p);
}

// "Artist contains a" over the library: the Unicode LIKE the store registers
// against SQLite's own ASCII-only one on a plain connection, same statement.
constexpr const char* kContainsSql =
    "SELECT id FROM tracks WHERE merged_into IS NULL AND COALESCE(removed,0)=0 AND "
    "COALESCE(artist,'') LIKE ?";

int64_t stepContains(sqlite3_stmt* st) {
  sqlite3_reset(st);
  sqlite3_bind_text(st, 1, "%a%", -1, SQLITE_STATIC);
  int64_t found = 0;
  while (sqlite3_step(st) == SQLITE_ROW) ++found;
  return found;
}

void BM_ContainsSqliteLike(benchmark::State& state) {
  library();
  sqlite3* plain = nullptr;
  sqlite3_open_v2((library().dir / "orvel.db").c_str(), &plain, SQLITE_OPEN_READONLY, nullptr);
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(plain, kContainsSql, -1, &st, nullptr);
  int64_t found = 0;
  for (auto _ : state) found = stepContains(st);
  state.counters["matches"] = static_cast<double>(found);
  sqlite3_finalize(st);
  sqlite3_close(plain);
}

void BM_ContainsUnicodeLike(benchmark::State& state) {
  Statement st = library().db->prepare(kContainsSql);
  int64_t found = 0;
  for (auto _ : state) found = stepContains(st.get());
  state.counters["matches"] = static_cast<double>(found);
}

void BM_ReorderPlaylist2000(benchmark::State& state) {
  OrvelDB& db = *library().db;
  static const int64_t crate = [&]() -> int64_t {
    const auto id = db.playlists().create("Bench crate", std::nullopt, "crate");
    const auto& all = library().ids;
    if (!id || !db.playlists().addToPlaylist(std::span<const int64_t>(all.data(), 2000), *id))
      return 0;
    return *id;
  }();
  if (crate == 0) {
    state.SkipWithError("the crate could not be made");
    return;
  }
  std::vector<int64_t> order = db.playlists().orderedTrackIds(crate);
  for (auto _ : state) {
    std::reverse(order.begin(), order.end());
    if (!db.playlists().reorderPlaylist(crate, order)) state.SkipWithError("reorder refused");
  }
  if (db.playlists().orderedTrackIds(crate) != order) state.SkipWithError("wrong order");
}

// Loading is measured three times each and compared by medians: on a shared
// two-core machine single runs of the pair wander by ±10 %.
BENCHMARK(BM_LaunchQueryBareLoop)->Unit(benchmark::kMillisecond)->MinTime(1.0)->Repetitions(3);
BENCHMARK(BM_LoadAllTracks)->Unit(benchmark::kMillisecond)->MinTime(1.0)->Repetitions(3);
BENCHMARK(BM_LoadSnapshot)->Unit(benchmark::kMillisecond)->MinTime(1.0)->Repetitions(3);
BENCHMARK(BM_InsertBare10k)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_InsertImported10k)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_UpdateBare5000)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_SetFieldJournaled5000)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_SelectIdsBare)->Unit(benchmark::kMillisecond)->MinTime(1.0)->Repetitions(3);
BENCHMARK(BM_SmartQueryThreeRules)->Unit(benchmark::kMillisecond)->MinTime(1.0)->Repetitions(3);
BENCHMARK(BM_SmartQueryRandomLimit)->Unit(benchmark::kMillisecond)->MinTime(1.0)->Repetitions(3);
BENCHMARK(BM_ContainsSqliteLike)->Unit(benchmark::kMillisecond)->MinTime(1.0)->Repetitions(3);
BENCHMARK(BM_ContainsUnicodeLike)->Unit(benchmark::kMillisecond)->MinTime(1.0)->Repetitions(3);
BENCHMARK(BM_ReorderPlaylist2000)->Unit(benchmark::kMillisecond)->MinTime(1.0);

// NOLINTEND(readability-identifier-naming)

}  // namespace
}  // namespace orvel

int main(int argc, char** argv) {
  orvel::testing::TempHome home;
  orvel::setNoteEcho(false);
  benchmark::Initialize(&argc, argv);
  orvel::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const auto ratio = [&](const char* what, const char* op, const char* base, double budget) {
    reporter.printRatio(what, op, base, budget);
  };
  fmt::print("\nRatios against the bare SQLite work, same run:\n");
  ratio("loadSnapshot, 200,000 rows / bare launch-query loop", "BM_LoadSnapshot",
        "BM_LaunchQueryBareLoop", 1.3);
  ratio("insertImported x10,000 in one transaction / bare INSERT", "BM_InsertImported10k",
        "BM_InsertBare10k", 0);
  ratio("journaled setField on 5,000 ids / bare UPDATE", "BM_SetFieldJournaled5000",
        "BM_UpdateBare5000", 1.5);
  ratio("smartQueryIds, 3 rules over 200,000 / bare SELECT id", "BM_SmartQueryThreeRules",
        "BM_SelectIdsBare", 0);
  ratio("smartQueryIds, random limit 25 / bare SELECT id", "BM_SmartQueryRandomLimit",
        "BM_SelectIdsBare", 0);
  ratio("artist contains 'a': Unicode LIKE / SQLite's ASCII LIKE", "BM_ContainsUnicodeLike",
        "BM_ContainsSqliteLike", 2.0);
  ratio("reorderPlaylist, 2,000-track crate / bare SELECT id", "BM_ReorderPlaylist2000",
        "BM_SelectIdsBare", 0);
  const double perTrack = orvel::snapshotBytesPerTrack();
  fmt::print("snapshot memory per track: {:.0f} bytes resident (budget 600: {})\n", perTrack,
             perTrack <= 600 ? "ok" : "OVER");
  benchmark::Shutdown();
  return 0;
}
