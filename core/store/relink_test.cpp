#include <gmock/gmock.h>

#include <fstream>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using testing::StoreTest;

class RelinkTest : public StoreTest {
 protected:
  std::string touch(const std::string& rel) {
    const auto p = dir_ / rel;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p) << "audio";
    return p.string();
  }
};

TEST_F(RelinkTest, DryRunCountsAndApplyMergesMovedFilesAndMarksTheRest) {
  // moved.mp3 was moved to new/; its old row is dead and the new row survives.
  const int64_t oldRow = add((dir_ / "old/moved.mp3").string());
  const int64_t newRow = add(touch("new/moved.mp3"));
  // twin.mp3 exists twice elsewhere: ambiguous. gone.mp3 nowhere: unmatched.
  const int64_t twin = add((dir_ / "old/twin.mp3").string());
  add(touch("a/twin.mp3"));
  add(touch("b/twin.mp3"));
  const int64_t gone = add((dir_ / "old/gone.mp3").string());
  // On a drive that is not plugged in: not gone, just away.
  const int64_t away = add("/Volumes/Orvel Test Drive 7f3a/Crates/moved.mp3");
  db().execChecked("INSERT INTO playlists(id, name) VALUES(1, 'Set')");
  db().execChecked("INSERT INTO playlist_tracks VALUES(1, " + std::to_string(oldRow) + ", 0)");

  const RelinkStats dry = db().tracks().relink(false);
  EXPECT_EQ(dry.dead, 3);
  EXPECT_EQ(dry.relinked, 1);
  EXPECT_EQ(dry.ambiguous, 1);
  EXPECT_EQ(dry.unmatched, 1);
  EXPECT_EQ(dry.offline, 1);
  EXPECT_EQ(field(oldRow, "merged_into"), "");
  EXPECT_EQ(field(gone, "file_missing"), "0");

  const RelinkStats done = db().tracks().relink(true);
  ASSERT_TRUE(done.status) << done.status.message();
  ASSERT_TRUE(done.snapshot);
  EXPECT_EQ(done.relinked, 1);
  EXPECT_EQ(done.linksMoved, 1);
  EXPECT_EQ(field(oldRow, "merged_into"), std::to_string(newRow));
  EXPECT_EQ(db().scalarInt("SELECT track_id FROM playlist_tracks WHERE playlist_id = 1"), newRow);
  EXPECT_EQ(field(twin, "file_missing"), "1");
  EXPECT_EQ(field(gone, "file_missing"), "1");
  EXPECT_EQ(field(away, "file_missing"), "0");
  EXPECT_EQ(field(away, "merged_into"), "");
  EXPECT_EQ(db().tracks().loadAllTracks().size(), 6u);  // the merged row is no longer listed
}

TEST_F(RelinkTest, AFailedApplySaysWhyWritesNothingAndStillCounts) {
  const int64_t oldRow = add((dir_ / "old/moved.mp3").string());
  add(touch("new/moved.mp3"));
  const int64_t gone = add((dir_ / "old/gone.mp3").string());
  db().execChecked("INSERT INTO playlists(id, name) VALUES(1, 'Set')");
  db().execChecked("INSERT INTO playlist_tracks VALUES(1, " + std::to_string(oldRow) + ", 0)");
  ASSERT_EQ(db().execChecked("CREATE TRIGGER no_merge BEFORE UPDATE OF merged_into ON tracks "
                             "BEGIN SELECT RAISE(ABORT, 'merging is off'); END"),
            std::nullopt);

  const RelinkStats s = db().tracks().relink(true);
  ASSERT_FALSE(s.status);
  EXPECT_EQ(s.status.message(), "merging is off");
  EXPECT_TRUE(s.snapshot);
  EXPECT_EQ(s.dead, 2);
  EXPECT_EQ(s.relinked, 1);
  EXPECT_EQ(s.unmatched, 1);
  EXPECT_EQ(s.linksMoved, 0);
  EXPECT_EQ(field(oldRow, "merged_into"), "");
  EXPECT_EQ(field(gone, "file_missing"), "0");
  EXPECT_EQ(db().scalarInt("SELECT track_id FROM playlist_tracks WHERE playlist_id = 1"), oldRow);
}

}  // namespace
}  // namespace orvel
