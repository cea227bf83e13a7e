#include <fmt/format.h>
#include <gmock/gmock.h>

#include <fstream>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using testing::StoreTest;

class RelinkTest : public StoreTest {
 protected:
  // A file of `bytes` bytes whose content is `seed` repeated.
  std::string write(const std::string& rel, size_t bytes, char seed = 'a') {
    const auto p = dir_ / rel;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p) << std::string(bytes, seed);
    return p.string();
  }
  // A row as an import makes it: duration and size from the file.
  int64_t track(const std::string& rel, int64_t durationMs, int64_t bytes) {
    NewTrack t;
    t.path = (dir_ / rel).string();
    t.durationMs = durationMs;
    t.filesizeBytes = bytes;
    t.dateAdded = 1000;
    const auto id = db().tracks().insertImported(t, *db().tracks().orvelSourceId());
    EXPECT_TRUE(id) << id.error();
    return id.value_or(-1);
  }
  int64_t members(int64_t playlist, int64_t trackId) {
    return db()
        .scalarInt("SELECT COUNT(*) FROM playlist_tracks WHERE playlist_id = " +
                   std::to_string(playlist) + " AND track_id = " + std::to_string(trackId))
        .value_or(-1);
  }
  const std::vector<uint8_t> printA{1, 2, 3, 4, 5, 6, 7, 8}, printB{8, 7, 6, 5, 4, 3, 2, 1};
};

TEST_F(RelinkTest, AMovedFileIsFoundByItsAudioAndTheOldRowKeepsEverything) {
  // The old place of a rated, loved, commented track with two hot cues in a
  // playlist; its file moved and was imported again as a new row.
  const int64_t old = track("a/X/01 Intro.mp3", 200'000, 5000);
  const std::vector<int64_t> ids{old};
  ASSERT_TRUE(db().tracks().setRating(ids, 5));
  ASSERT_TRUE(db().tracks().setLoved(ids, true));
  ASSERT_TRUE(db().tracks().setField("comment", "peak time", ids, "Edit Comment"));
  ASSERT_TRUE(db().cues().addManualCue(old, 1000));
  ASSERT_TRUE(db().cues().addManualCue(old, 2000));
  write("moved/X/01 Intro.mp3", 5000);
  const int64_t arrived = track("moved/X/01 Intro.mp3", 200'400, 5000);
  // An unrelated song of the same file name: never a match.
  write("other/01 Intro.mp3", 7000, 'b');
  const int64_t unrelated = track("other/01 Intro.mp3", 95'000, 7000);
  db().execChecked("INSERT INTO playlists(id, name) VALUES(1, 'Gig'), (2, 'Since')");
  db().execChecked(
      fmt::format("INSERT INTO playlist_tracks VALUES(1, {0}, 0), (2, {1}, 0), (2, {2}, 1)", old,
                  arrived, unrelated));
  // A file name alone, with nothing else alike, is not enough either.
  const int64_t lonely = track("gone/01 Intro.mp3", 31'000, 900);

  const RelinkStats dry = db().tracks().relink(false);
  EXPECT_EQ(dry.dead, 2);
  EXPECT_EQ(dry.relinked, 1);
  EXPECT_EQ(dry.unmatched, 1);
  EXPECT_EQ(field(old, "path"), (dir_ / "a/X/01 Intro.mp3").string());

  const RelinkStats done = db().tracks().relink(true);
  ASSERT_TRUE(done.status) << done.status.message();
  ASSERT_TRUE(done.opId && done.snapshot);
  EXPECT_EQ(field(old, "path"), (dir_ / "moved/X/01 Intro.mp3").string());
  EXPECT_EQ(field(old, "file_missing"), "0");
  EXPECT_EQ(field(old, "merged_into"), "");
  EXPECT_EQ(field(arrived, "merged_into"), std::to_string(old));
  EXPECT_EQ(field(old, "rating"), "100");
  EXPECT_EQ(field(old, "loved"), "1");
  EXPECT_EQ(field(old, "comment"), "peak time");
  EXPECT_EQ(db().cues().cues(old).size(), 2u);
  EXPECT_EQ(members(1, old), 1);
  EXPECT_EQ(members(2, old), 1);  // the place the new row had taken
  EXPECT_EQ(done.linksMoved, 1);
  EXPECT_EQ(field(lonely, "file_missing"), "1");
  EXPECT_EQ(field(lonely, "merged_into"), "");

  // One operation puts it all back, and redoes it.
  ASSERT_TRUE(db().journal().undo(*done.opId));
  EXPECT_EQ(field(old, "path"), (dir_ / "a/X/01 Intro.mp3").string());
  EXPECT_EQ(field(arrived, "merged_into"), "");
  EXPECT_EQ(members(2, arrived), 1);
  EXPECT_EQ(members(2, old), 0);
  ASSERT_TRUE(db().journal().redo(*done.opId));
  EXPECT_EQ(field(old, "path"), (dir_ / "moved/X/01 Intro.mp3").string());
  EXPECT_EQ(field(arrived, "merged_into"), std::to_string(old));
}

TEST_F(RelinkTest, FingerprintsDecideWhereBothHaveOne) {
  // Re-tagged after the move: another size, the same audio.
  const int64_t retagged = track("old/a.mp3", 180'000, 4000);
  write("new/a.mp3", 4100);
  const int64_t retaggedNew = track("new/a.mp3", 180'000, 4100);
  // Same size and length, other audio (an extended mix padded to match).
  const int64_t other = track("old/b.mp3", 240'000, 6000);
  write("new/b.mp3", 6000, 'z');
  const int64_t otherNew = track("new/b.mp3", 240'000, 6000);
  for (const auto& [id, print] : {std::pair{retagged, printA}, std::pair{retaggedNew, printA},
                                  std::pair{other, printA}, std::pair{otherNew, printB}})
    ASSERT_TRUE(db().analysis().setRawFingerprint(id, print));
  // Two dead copies of one song and a single file that could be either.
  const int64_t twin1 = track("old/c1.mp3", 60'000, 3000);
  const int64_t twin2 = track("old/c2.mp3", 60'000, 3000);
  write("new/c.mp3", 3000, 'c');
  track("new/c.mp3", 60'000, 3000);

  const RelinkStats done = db().tracks().relink(true);
  ASSERT_TRUE(done.status) << done.status.message();
  EXPECT_EQ(done.relinked, 1);
  EXPECT_EQ(done.ambiguous, 2);
  EXPECT_EQ(done.unmatched, 1);
  EXPECT_EQ(field(retaggedNew, "merged_into"), std::to_string(retagged));
  EXPECT_EQ(field(otherNew, "merged_into"), "");
  EXPECT_EQ(field(twin1, "file_missing"), "1");
  EXPECT_EQ(field(twin2, "merged_into"), "");
}

TEST_F(RelinkTest, RunsThatMergeNothingTakeNoSnapshotAndAFailedApplyWritesNothing) {
  const int64_t gone = track("old/gone.mp3", 1000, 10);
  for (int run = 0; run < 5; ++run) {
    const RelinkStats s = db().tracks().relink(true);
    ASSERT_TRUE(s.status) << s.status.message();
    EXPECT_FALSE(s.snapshot);
  }
  EXPECT_TRUE(db().snapshots().list().empty());
  EXPECT_EQ(field(gone, "file_missing"), "1");

  const int64_t old = track("old/moved.mp3", 90'000, 100);
  write("new/moved.mp3", 100);
  const int64_t arrived = track("new/moved.mp3", 90'000, 100);
  ASSERT_EQ(db().execChecked("CREATE TRIGGER no_merge BEFORE UPDATE OF merged_into ON tracks "
                             "BEGIN SELECT RAISE(ABORT, 'merging is off'); END"),
            std::nullopt);
  const RelinkStats s = db().tracks().relink(true);
  ASSERT_FALSE(s.status);
  EXPECT_EQ(s.status.message(), "merging is off");
  EXPECT_TRUE(s.snapshot);
  EXPECT_EQ(s.linksMoved, 0);
  EXPECT_FALSE(s.opId);
  EXPECT_EQ(field(old, "path"), (dir_ / "old/moved.mp3").string());
  EXPECT_EQ(field(arrived, "merged_into"), "");
  EXPECT_TRUE(db().journal().operations(5).empty() ||
              db().journal().operations(5).front().opName != "Relink Moved Files");
}

TEST_F(RelinkTest, TracksOnADriveThatIsNotConnectedAreLeftAlone) {
  const int64_t away = track("x.mp3", 1000, 10);
  db().execChecked("UPDATE tracks SET path = '/Volumes/Orvel Test Drive 7f3a/Crates/x.mp3'");
  const RelinkStats s = db().tracks().relink(true);
  EXPECT_EQ(s.offline, 1);
  EXPECT_EQ(s.dead, 0);
  EXPECT_EQ(field(away, "file_missing"), "0");
}

}  // namespace
}  // namespace orvel
