#include <gmock/gmock.h>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using ::testing::ElementsAre;
using testing::StoreTest;
using ::testing::UnorderedElementsAre;

class TrackDataTest : public StoreTest {
 protected:
  // The catalogue goes first: it must not tell a listener whose list is gone.
  void TearDown() override { db_.reset(); }
  std::vector<ChangeSet> heard_;
};

TEST_F(TrackDataTest, PlayHistoryKeepsTheNewestAndCountsEveryPlay) {
  const int64_t a = add("/m/a.mp3");
  for (int i = 0; i < 250; ++i) {
    const Status s = db().trackData().recordPlay(a, 1000 + i, 200);
    ASSERT_TRUE(s) << s.message();
  }
  EXPECT_EQ(db().count("play_history"), 200);
  EXPECT_EQ(db().tracks().loadTrack(a)->playCount, 250);
  const auto recent = db().trackData().recentPlays(3);
  ASSERT_EQ(recent.size(), 3u);
  EXPECT_EQ(recent[0].second, 1249);
  EXPECT_EQ(db().scalarInt("SELECT MIN(at) FROM play_history"), 1050);

  // Emptied in one statement, which SQLite does not report row by row: the
  // history view must still hear of it.
  db().connection().subscribe([this](const ChangeSet& set) { heard_.push_back(set); });
  const Status cleared = db().trackData().clearPlayHistory();
  ASSERT_TRUE(cleared) << cleared.message();
  EXPECT_EQ(db().count("play_history"), 0);
  ASSERT_EQ(heard_.size(), 1u);
  ASSERT_TRUE(heard_[0].touches("play_history"));
  EXPECT_TRUE(heard_[0].tables.at("play_history").allRows);
  EXPECT_EQ(db().tracks().loadTrack(a)->playCount, 250);
}

TEST_F(TrackDataTest, TrackOptionsAreJournaledWholeAndFeedTheShuffleExclusion) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  const auto first = db().trackData().setTrackOptions(a, R"({"skipShuffle": true})");
  ASSERT_TRUE(first) << first.error();
  ASSERT_TRUE(db().trackData().setTrackOptions(b, R"({"skipShuffle":false})"));
  EXPECT_THAT(db().trackData().shuffleExcludedIds(), ElementsAre(a));
  const auto second = db().trackData().setTrackOptions(a, R"({"skipShuffle":false,"gain":2})");
  ASSERT_TRUE(second) << second.error();
  EXPECT_TRUE(db().trackData().shuffleExcludedIds().empty());

  ASSERT_TRUE(db().journal().undo(*second));
  EXPECT_EQ(db().trackData().trackOptions(a), R"({"skipShuffle": true})");
  ASSERT_TRUE(db().journal().undo(*first));
  EXPECT_EQ(db().trackData().trackOptions(a), std::nullopt);
  ASSERT_TRUE(db().journal().redo(*first));
  EXPECT_EQ(db().trackData().trackOptions(a), R"({"skipShuffle": true})");
}

TEST_F(TrackDataTest, ATagIsOnATrackOnceAndComesOffOnlyWhereRemoved) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  ASSERT_TRUE(db().trackData().addTag(std::vector<int64_t>{a, b}, "warmup"));
  ASSERT_TRUE(db().trackData().addTag(std::vector<int64_t>{a}, "warmup"));
  ASSERT_TRUE(db().trackData().addTag(std::vector<int64_t>{a}, "vocal"));
  EXPECT_THAT(db().trackData().allTagCounts(),
              UnorderedElementsAre(std::pair<std::string, int64_t>{"warmup", 2},
                                   std::pair<std::string, int64_t>{"vocal", 1}));
  ASSERT_TRUE(db().trackData().removeTag(std::vector<int64_t>{b}, "warmup"));
  EXPECT_THAT(db().trackData().taggedIds("warmup"), ElementsAre(a));
  EXPECT_THAT(db().trackData().tagsOf(a), ElementsAre("vocal", "warmup"));
  EXPECT_TRUE(db().trackData().tagsOf(b).empty());
}

}  // namespace
}  // namespace orvel
