#include "core/store/snapshots.h"

#include <sqlite3.h>

#include <chrono>
#include <fstream>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;

class SnapshotsTest : public testing::StoreTest {
 protected:
  // What a copy holds, read through its own connection.
  static int64_t tracksIn(const fs::path& file) {
    Connection copy(file.string());
    return copy.count("tracks");
  }
};

TEST_F(SnapshotsTest, KeepsTheFourNewestAndReadsTheReasonBack) {
  add("/m/a.mp3", "A");
  Snapshots& snaps = db().snapshots();
  EXPECT_EQ(snaps.dir(), dir_.path() / "Snapshots");
  const std::string reason = "before: deleting \"Sets/2026\" 100% ünïcode";
  std::vector<fs::path> taken;
  for (int i = 0; i < 5; ++i) {
    auto file = snaps.take(i == 4 ? reason : "run " + std::to_string(i), 0);
    ASSERT_TRUE(file) << snaps.lastError();
    taken.push_back(*file);
  }
  const auto list = snaps.list();
  ASSERT_EQ(list.size(), 4u);
  EXPECT_EQ(list.front().file, taken.back());
  EXPECT_EQ(list.front().reason, reason);
  EXPECT_EQ(list.back().reason, "run 1");
  EXPECT_FALSE(fs::exists(taken.front()));
  EXPECT_NEAR(static_cast<double>(list.front().at), static_cast<double>(unixNow()), 5);
  EXPECT_GT(list.front().bytes, 0);
  EXPECT_EQ(tracksIn(list.front().file), 1);
  // Nothing half-written stays behind.
  for (const auto& entry : fs::directory_iterator(snaps.dir()))
    EXPECT_EQ(entry.path().extension(), ".db") << entry.path();
}

TEST_F(SnapshotsTest, MinimumIntervalSkipsAQuickSecondSnapshot) {
  Snapshots& snaps = db().snapshots();
  EXPECT_TRUE(snaps.take("first", 60));
  EXPECT_FALSE(snaps.take("second", 60));
  EXPECT_TRUE(snaps.lastError().empty());  // skipped, not failed
  EXPECT_EQ(snaps.list().size(), 1u);
}

TEST_F(SnapshotsTest, FolderWithASingleQuote) {
  add("/m/it's.mp3");
  Snapshots snaps(db().connection(), dir_.path() / "DJ's snapshots");
  const auto file = snaps.take("o'clock", 0);
  ASSERT_TRUE(file) << snaps.lastError();
  EXPECT_EQ(tracksIn(*file), 1);
  EXPECT_EQ(snaps.list().front().reason, "o'clock");
}

TEST_F(SnapshotsTest, FailureReportsNoSnapshotAndLeavesTheCatalogueAlone) {
  add("/m/a.mp3");
  // A folder that cannot exist: a file stands where its parent should be.
  const fs::path blocker = dir_.path() / "not-a-folder";
  std::ofstream(blocker) << "x";
  Snapshots blocked(db().connection(), blocker / "Snapshots");
  EXPECT_FALSE(blocked.take("x", 0));
  EXPECT_FALSE(blocked.lastError().empty());

  // VACUUM INTO itself failing: it cannot run inside a transaction.
  Snapshots& snaps = db().snapshots();
  {
    Transaction tx(db().connection());
    ASSERT_TRUE(tx);
    add("/m/b.mp3");
    EXPECT_FALSE(snaps.take("inside", 0));
    EXPECT_FALSE(snaps.lastError().empty());
    ASSERT_TRUE(tx.commit());
  }
  EXPECT_TRUE(snaps.list().empty());
  EXPECT_TRUE(fs::is_empty(snaps.dir()));  // no partial copy left
  EXPECT_EQ(db().count("tracks"), 2);
}

TEST_F(SnapshotsTest, PruneKeepsWithinTheSizeBudgetButAlwaysTheNewest) {
  add("/m/a.mp3");
  Snapshots& snaps = db().snapshots();
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(snaps.take("s" + std::to_string(i), 0));
  const int64_t one = snaps.list().front().bytes;
  snaps.prune(4, one * 2);
  auto left = snaps.list();
  ASSERT_EQ(left.size(), 2u);
  EXPECT_EQ(left.front().reason, "s2");
  snaps.prune(4, 1);
  left = snaps.list();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left.front().reason, "s2");
}

TEST_F(SnapshotsTest, AgeComesFromTheFileAndEachCatalogueHasItsOwnNames) {
  Snapshots& snaps = db().snapshots();
  ASSERT_TRUE(snaps.take("older", 0));
  ASSERT_TRUE(snaps.take("newer", 0));
  // The newer copy dated an hour back (as after flying west): it sorts as
  // the older one and is the one pruning drops.
  const fs::path newer = snaps.list().front().file;
  fs::last_write_time(newer, fs::last_write_time(newer) - std::chrono::hours(1));
  EXPECT_EQ(snaps.list().front().reason, "older");
  EXPECT_NEAR(static_cast<double>(snaps.list().back().at), static_cast<double>(unixNow() - 3600),
              5);
  snaps.prune(1, Snapshots::kMaxBytes);
  EXPECT_FALSE(fs::exists(newer));

  // A second catalogue in the same folder neither lists nor prunes these.
  OrvelDB other((dir_ / "orvel-test.db").string());
  EXPECT_TRUE(other.snapshots().list().empty());
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(other.snapshots().take("", 0));
  EXPECT_EQ(snaps.list().size(), 1u);
  EXPECT_EQ(other.snapshots().list().size(), 4u);

  const auto parsed = snaps.parse(snaps.fileName("a--b/c", 1'763'146'000, 3));
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->sequence, 3);
  EXPECT_EQ(parsed->reason, "a--b/c");
  for (const char* name :
       {"orvel.db", "orvel-2026.db", "orvel-20261121-1200.db", "orvel-20261121-120000.db.partial",
        "notes.txt", "orvel-20261121-120000x.db", "orvel-test-20261121-120000.db"})
    EXPECT_FALSE(snaps.parse(name)) << name;
}

}  // namespace
}  // namespace orvel
