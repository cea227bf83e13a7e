#include "core/store/orvel_db.h"

#include <gmock/gmock.h>

#include <fstream>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using ::testing::HasSubstr;
using testing::LogCapture;
using testing::StoreTest;

class OrvelDBTest : public StoreTest {};

TEST_F(OrvelDBTest, NewFileIsCreatedWholeAndQuietly) {
  LogCapture log;
  OrvelDB& store = db();
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(store.userVersion(), OrvelDB::kSchemaVersion);
  for (const char* table :
       {"sources", "tracks", "track_sources", "cues", "beatgrids", "playlists", "playlist_tracks",
        "track_fingerprints", "track_options", "waveforms", "play_history", "music_readds",
        "history", "release_fields", "track_tags", "smart_playlists", "defects", "defect_status",
        "defect_scans"})
    EXPECT_EQ(store.scalarInt(std::string("SELECT COUNT(*) FROM sqlite_master WHERE name='") +
                              table + "'"),
              1)
        << table;
  EXPECT_TRUE(store.hasIndex("idx_tracks_path_norm_unique"));
  EXPECT_EQ(store.scalarInt("SELECT COUNT(*) FROM sources WHERE id IN (5, 7)"), 2);
  Statement mode = store.prepare("PRAGMA journal_mode");
  ASSERT_TRUE(mode.step());
  EXPECT_EQ(mode.text(0), "wal");
}

TEST_F(OrvelDBTest, OpeningAFileThatCannotBeOpenedThrowsSQLitesMessage) {
  try {
    OrvelDB bad((dir_ / "no/such/folder/orvel.db").string());
    FAIL() << "opened a catalogue in a missing folder";
  } catch (const StoreError& e) {
    EXPECT_THAT(e.what(), HasSubstr("unable to open"));
  }
  std::ofstream(dir_ / "notes.txt") << "not a catalogue, just some text that is long enough";
  EXPECT_THROW(OrvelDB((dir_ / "notes.txt").string()), StoreError);
}

TEST_F(OrvelDBTest, OrvelNormIsUsableFromSqlAndNullSafe) {
  OrvelDB& store = db();
  Statement st = store.prepare(
      "SELECT orvel_norm('/A/Cafe\xCC\x81.MP3'), orvel_norm(NULL) IS NULL, orvel_norm('a','b') IS "
      "NULL");
  ASSERT_TRUE(st.step());
  EXPECT_EQ(st.text(0), "/a/caf\xC3\xA9.mp3");
  EXPECT_EQ(st.int64(1), 1);
  EXPECT_EQ(st.int64(2), 1);
  EXPECT_EQ(OrvelDB::normalizePath("/A/Cafe\xCC\x81.MP3"), st.text(0));
}

TEST_F(OrvelDBTest, BadSqlIsReportedOnStderrAndReadsAsEmpty) {
  OrvelDB& store = db();
  ::testing::internal::CaptureStderr();
  Statement st = store.prepare("SELECT nope\n    FROM   nowhere");
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_FALSE(st);
  EXPECT_FALSE(st.step());
  EXPECT_THAT(
      err,
      HasSubstr("SQL WOULD NOT COMPILE: no such table: nowhere — SELECT nope FROM   nowhere\n"));
  EXPECT_EQ(store.scalarInt("SELECT broken("), std::nullopt);
  EXPECT_THAT(store.execChecked("INSERT INTO nowhere VALUES(1)").value_or(""),
              HasSubstr("no such table"));
  EXPECT_EQ(store.execChecked("SELECT 1"), std::nullopt);
}

TEST_F(OrvelDBTest, IdsFromSelectAcceptsOnlyOneReadOnlyStatement) {
  const int64_t a = add("/m/a.mp3", "A", 10);
  const int64_t b = add("/m/b.mp3", "B", 20);
  OrvelDB& store = db();
  const auto ok = store.idsFromSelect("SELECT id FROM tracks ORDER BY date_added DESC  ;  \n");
  EXPECT_EQ(ok.error, std::nullopt);
  EXPECT_EQ(ok.ids, (std::vector<int64_t>{b, a}));
  EXPECT_EQ(store.idsFromSelect("SELECT id FROM tracks; SELECT 1").error,
            "more than one statement");
  EXPECT_EQ(store.idsFromSelect("DELETE FROM tracks").error, "that query would write");
  EXPECT_THAT(store.idsFromSelect("SELECT id FROM trax").error.value_or(""),
              HasSubstr("no such table"));
  EXPECT_EQ(store.count("tracks"), 2);
}

TEST_F(OrvelDBTest, BackupIsACompleteReadableCopy) {
  add("/m/a.mp3", "A");
  add("/m/b.mp3", "B");
  const std::string copy = (dir_ / "copy.db").string();
  ASSERT_TRUE(db().backup(copy).isOk());
  OrvelDB restored(copy);
  EXPECT_EQ(restored.tracks().loadAllTracks().size(), 2u);
  EXPECT_FALSE(db().backup((dir_ / "missing/dir/copy.db").string()).isOk());
}

}  // namespace
}  // namespace orvel
