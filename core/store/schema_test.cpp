// Upgrades of catalogues made by older versions.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sqlite3.h>

#include <fstream>
#include <iterator>
#include <set>

#include "core/testing/damage.h"
#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using ::testing::HasSubstr;
using testing::LogCapture;
using testing::StoreTest;

// Writes a catalogue as an old version left it: UNIQUE on path, no path_norm,
// none of the later columns, `rows` tracks with a cue each.
void makeLegacy(const std::string& path, int rows, const char* pathNormTriggerBody = nullptr) {
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
  std::string sql = R"(
    CREATE TABLE sources (id INTEGER PRIMARY KEY, name TEXT NOT NULL, detail TEXT, imported_at INTEGER NOT NULL);
    CREATE TABLE tracks (
      id INTEGER PRIMARY KEY,
      path TEXT NOT NULL UNIQUE,
      filename TEXT, title TEXT, artist TEXT, album TEXT, genre TEXT,
      bpm REAL, key TEXT, duration_ms INTEGER, date_added INTEGER, rating INTEGER,
      file_missing INTEGER NOT NULL DEFAULT 0,
      merged_into INTEGER REFERENCES tracks(id));
    CREATE TABLE cues (id INTEGER PRIMARY KEY, track_id INTEGER NOT NULL, source_id INTEGER,
      bank TEXT NOT NULL, idx INTEGER NOT NULL, position_ms REAL NOT NULL, length_ms REAL,
      color TEXT, name TEXT, kind TEXT NOT NULL DEFAULT 'cue');
    CREATE INDEX idx_tracks_artist ON tracks(artist);
    BEGIN;)";
  for (int i = 1; i <= rows; ++i)
    sql += fmt::format(
        "INSERT INTO tracks(id, path, filename, title, artist, rating, date_added) "
        "VALUES({0}, '/Music/Artist {1}/Track {0}.mp3', 'Track {0}.mp3', 'Track {0}', 'Artist "
        "{1}', 60, {0});"
        "INSERT INTO cues(track_id, bank, idx, position_ms) VALUES({0}, 'hot', 0, {0}.5);",
        i, i % 50);
  sql += "COMMIT;";
  if (pathNormTriggerBody != nullptr) sql += pathNormTriggerBody;
  char* err = nullptr;
  ASSERT_EQ(sqlite3_exec(raw, sql.c_str(), nullptr, nullptr, &err), SQLITE_OK) << err;
  sqlite3_close(raw);
}

std::set<std::string> schemaShape(OrvelDB& db) {
  std::set<std::string> shape;
  Statement st = db.prepare(
      "SELECT m.type || ' ' || m.name || COALESCE(' ' || p.name || ' ' || p.type, '') "
      "FROM sqlite_master m LEFT JOIN pragma_table_info(m.name) p ON m.type = 'table' "
      "WHERE m.name NOT LIKE 'sqlite_%'");
  while (st.step()) shape.insert(st.text(0));
  return shape;
}

std::string dump(OrvelDB& db) {
  std::string out;
  Statement st = db.prepare("SELECT type, name, sql FROM sqlite_master ORDER BY type, name");
  while (st.step()) out += st.text(0) + " " + st.text(1) + " " + st.text(2) + "\n";
  Statement rows = db.prepare("SELECT id, path, path_norm, removed FROM tracks ORDER BY id");
  while (rows.step()) out += rows.text(0) + rows.text(1) + rows.text(2) + rows.text(3) + "\n";
  return out + std::to_string(db.userVersion());
}

class SchemaTest : public StoreTest {};

TEST_F(SchemaTest, LegacyCatalogueKeepsEveryRowAndEndsWithTheWholeSchema) {
  makeLegacy(dbPath(), 3000);
  LogCapture log;
  OrvelDB& store = db();

  EXPECT_THAT(log.text(), HasSubstr("tracks: dropping the UNIQUE on path, rebuilding 3000 rows"));
  EXPECT_THAT(log.text(), HasSubstr("tracks: rebuilt, 3000 rows kept"));
  EXPECT_THAT(log.text(), HasSubstr("path_norm repair: 3000 rewritten, 0 left as they were"));
  EXPECT_EQ(store.count("tracks"), 3000);
  EXPECT_EQ(store.count("cues"), 3000);
  EXPECT_EQ(store.userVersion(), OrvelDB::kSchemaVersion);
  EXPECT_EQ(store.scalarInt("SELECT COUNT(*) FROM sqlite_master WHERE name='tracks' AND sql LIKE "
                            "'%UNIQUE%'"),
            0);
  EXPECT_EQ(store.scalarInt("SELECT COUNT(*) FROM tracks WHERE path_norm IS NULL"), 0);
  EXPECT_EQ(store.tracks().trackId("/music/artist 7/track 7.MP3"), 7);
  EXPECT_EQ(store.scalarInt("SELECT COUNT(*) FROM sqlite_master WHERE type='trigger' AND sql LIKE "
                            "'%orvel_norm(NEW.path)%'"),
            2);

  // Every table, column and index a fresh catalogue has.
  OrvelDB fresh((dir_ / "fresh.db").string());
  const auto want = schemaShape(fresh);
  const auto got = schemaShape(store);
  for (const auto& item : want) EXPECT_TRUE(got.contains(item)) << "missing: " << item;

  // The launch query works on the upgraded rows, newest first.
  const auto rows = store.tracks().loadAllTracks(2);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].id, 3000);
  EXPECT_EQ(rows[0].cueCount, 1);
  EXPECT_EQ(rows[0].rating, 60);
}

std::string fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

int64_t schemaVersionOf(const std::string& path) {
  sqlite3* raw = nullptr;
  sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(raw, "PRAGMA schema_version", -1, &st, nullptr);
  const int64_t version = sqlite3_step(st) == SQLITE_ROW ? sqlite3_column_int64(st, 0) : -1;
  sqlite3_finalize(st);
  sqlite3_close(raw);
  return version;
}

TEST_F(SchemaTest, AnUpToDateCatalogueOpensWithoutASingleWrite) {
  makeLegacy(dbPath(), 20);
  const std::string upgraded = dump(db());
  db_.reset();  // closing folds the WAL back into the file
  const std::string bytes = fileBytes(dbPath());
  const int64_t schemaVersion = schemaVersionOf(dbPath());

  LogCapture log;
  for (int open = 0; open < 2; ++open) {
    OrvelDB again(dbPath());
    EXPECT_EQ(dump(again), upgraded);
    EXPECT_EQ(again.tracks().loadAllTracks().size(), 20u);
  }
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(schemaVersionOf(dbPath()), schemaVersion);
  EXPECT_TRUE(fileBytes(dbPath()) == bytes) << "opening changed the file";

  // Read-only opens work on it too; a catalogue that needs an upgrade is refused there.
  EXPECT_NO_THROW(OrvelDB(dbPath(), OpenMode::readOnly));
  const std::string old = (dir_ / "old.db").string();
  makeLegacy(old, 1);
  const std::string oldBytes = fileBytes(old);
  EXPECT_THROW(OrvelDB(old, OpenMode::readOnly), StoreError);
  EXPECT_TRUE(fileBytes(old) == oldBytes);
}

TEST_F(SchemaTest, VersionOneCataloguesGainTheTablesOnceMadeOnFirstUse) {
  db();
  db_.reset();
  {
    sqlite3* raw = nullptr;
    sqlite3_open(dbPath().c_str(), &raw);
    sqlite3_exec(raw,
                 "DROP TABLE defects; DROP TABLE defect_scans; DROP TABLE smart_playlists;"
                 "DROP TABLE track_tags; PRAGMA user_version = 1;",
                 nullptr, nullptr, nullptr);
    sqlite3_close(raw);
  }
  OrvelDB& store = db();
  EXPECT_EQ(store.userVersion(), OrvelDB::kSchemaVersion);
  for (const char* table : {"history", "defects", "defect_scans", "defect_status",
                            "smart_playlists", "track_tags", "release_fields"})
    EXPECT_TRUE(store.hasTable(table)) << table;
}

TEST_F(SchemaTest, CaseTwinsKeepTheUniqueIndexAwayUntilOneIsRemoved) {
  // Keys made by the old ASCII lower-casing trigger: the two spellings of one
  // file already share a key, so the unique index cannot be built.
  makeLegacy(dbPath(), 0);
  {
    sqlite3* raw = nullptr;
    sqlite3_open(dbPath().c_str(), &raw);
    sqlite3_exec(raw,
                 "ALTER TABLE tracks ADD COLUMN path_norm TEXT;"
                 "INSERT INTO tracks(id, path, path_norm) VALUES(1, '/M/Song.mp3', '/m/song.mp3');"
                 "INSERT INTO tracks(id, path, path_norm) VALUES(2, '/m/song.MP3', '/m/song.mp3');",
                 nullptr, nullptr, nullptr);
    sqlite3_close(raw);
  }
  OrvelDB& store = db();
  EXPECT_FALSE(store.hasIndex("idx_tracks_path_norm_unique"));
  const auto twins = store.pathNormCollisions();
  ASSERT_EQ(twins.size(), 1u);
  EXPECT_EQ(twins[0], (std::pair<std::string, int64_t>{"/m/song.mp3", 2}));

  ASSERT_TRUE(store.tracks().softRemove(std::vector<int64_t>{2}));
  EXPECT_TRUE(reopen().hasIndex("idx_tracks_path_norm_unique"));
}

TEST_F(SchemaTest, CompositionTwinsAreCountedAsCollided) {
  // Keys made by the old trigger lower-cased ASCII only and kept the
  // composition, so "CAFÉ" and "cafe"+U+0301 had different keys; the repair
  // gives both the same one and must refuse it to the second live row.
  makeLegacy(dbPath(), 0);
  {
    sqlite3* raw = nullptr;
    sqlite3_open(dbPath().c_str(), &raw);
    sqlite3_exec(raw,
                 "ALTER TABLE tracks ADD COLUMN path_norm TEXT;"
                 "INSERT INTO tracks(id, path, path_norm) VALUES(1, '/M/CAF\xC3\x89.mp3', "
                 "'/m/caf\xC3\x89.mp3');"
                 "INSERT INTO tracks(id, path, path_norm) VALUES(2, '/m/cafe\xCC\x81.mp3', "
                 "'/m/cafe\xCC\x81.mp3');",
                 nullptr, nullptr, nullptr);
    sqlite3_close(raw);
  }
  LogCapture log;
  OrvelDB& store = db();
  EXPECT_THAT(log.text(), HasSubstr("path_norm repair: 1 rewritten, 1 left as they were (another "
                                    "live row has that file)"));
  // A new live row with the same key as a live row is refused by the index.
  EXPECT_THAT(
      store.execChecked("INSERT INTO tracks(path) VALUES('/M/CAF\xC3\x89.mp3')").value_or(""),
      HasSubstr("UNIQUE"));
}

TEST_F(SchemaTest, RemovedAndMergedRowsMayShareAKeyWithALiveRow) {
  const int64_t a = add("/m/x.mp3");
  ASSERT_TRUE(db().tracks().softRemove(std::vector<int64_t>{a}));
  EXPECT_EQ(db().execChecked("INSERT INTO tracks(path) VALUES('/M/X.mp3')"), std::nullopt);
  const int64_t b = db().connection().lastInsertId();
  ASSERT_TRUE(db().tracks().mergeTrack(b, a));
  EXPECT_EQ(db().execChecked("INSERT INTO tracks(path) VALUES('/m/x.MP3')"), std::nullopt);
  EXPECT_TRUE(reopen().hasIndex("idx_tracks_path_norm_unique"));
}

}  // namespace
}  // namespace orvel

namespace orvel {
namespace {

void makeForeign(const std::string& path, const char* sql) {
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(raw, sql, nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(raw);
}

TEST_F(SchemaTest, AnotherProgramsDatabaseIsRefusedAndLeftAsItWas) {
  const std::string photos = (dir_ / "photos.db").string();
  makeForeign(photos, "CREATE TABLE photos(id INTEGER PRIMARY KEY, file TEXT)");
  // A music player's own "tracks" table, without our path column.
  const std::string player = (dir_ / "player.db").string();
  makeForeign(player,
              "CREATE TABLE tracks(id INTEGER PRIMARY KEY, name TEXT); PRAGMA user_version = 7");
  for (const std::string& file : {photos, player}) {
    const std::string bytes = fileBytes(file);
    EXPECT_THROW(OrvelDB{file}, StoreError) << file;
    EXPECT_TRUE(fileBytes(file) == bytes) << file;
    EXPECT_FALSE(std::filesystem::exists(file + "-wal")) << file;
  }
  // An empty file is a catalogue yet to be made.
  const std::string empty = (dir_ / "empty.db").string();
  std::ofstream{empty};
  EXPECT_NO_THROW(OrvelDB{empty});
}

TEST_F(SchemaTest, ADamagedTablePageIsNoticedNotTakenForFewerRows) {
  for (int i = 0; i < 400; ++i)
    add(fmt::format("/music/{:03} {}.mp3", i, std::string(120, 'x')), "t", 1000 + i);
  db_.reset();
  ASSERT_TRUE(testing::damageLastPageOf(dbPath(), "tracks"));
  OrvelDB& damaged = db();
  EXPECT_TRUE(damaged.connection().damage().isOk());
  const auto rows = damaged.tracks().loadAllTracks();
  EXPECT_LT(rows.size(), 400u);
  EXPECT_EQ(damaged.connection().damage().code(), Status::Code::corrupt);
}

}  // namespace
}  // namespace orvel
