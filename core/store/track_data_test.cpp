#include <gmock/gmock.h>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using ::testing::ElementsAre;
using testing::StoreTest;
using ::testing::UnorderedElementsAre;

class TrackDataTest : public StoreTest {};

TEST_F(TrackDataTest, PlayHistoryKeepsTheNewestAndCountsEveryPlay) {
  const int64_t a = add("/m/a.mp3");
  for (int i = 0; i < 250; ++i) db().recordPlay(a, 1000 + i, 200);
  EXPECT_EQ(db().count("play_history"), 200);
  EXPECT_EQ(db().loadTrack(a)->playCount, 250);
  const auto recent = db().recentPlays(3);
  ASSERT_EQ(recent.size(), 3u);
  EXPECT_EQ(recent[0].second, 1249);
  EXPECT_EQ(db().scalarInt("SELECT MIN(at) FROM play_history"), 1050);
  db().clearPlayHistory();
  EXPECT_EQ(db().count("play_history"), 0);
  EXPECT_EQ(db().loadTrack(a)->playCount, 250);
}

TEST_F(TrackDataTest, TrackOptionsAreJournaledWholeAndFeedTheShuffleExclusion) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  const auto first = db().setTrackOptions(a, R"({"skipShuffle": true})");
  db().setTrackOptions(b, R"({"skipShuffle":false})");
  EXPECT_THAT(db().shuffleExcludedIds(), ElementsAre(a));
  const auto second = db().setTrackOptions(a, R"({"skipShuffle":false,"gain":2})");
  EXPECT_TRUE(db().shuffleExcludedIds().empty());

  db().journal().undo(*second);
  EXPECT_EQ(db().trackOptions(a), R"({"skipShuffle": true})");
  db().journal().undo(*first);
  EXPECT_EQ(db().trackOptions(a), std::nullopt);
  db().journal().redo(*first);
  EXPECT_EQ(db().trackOptions(a), R"({"skipShuffle": true})");
}

TEST_F(TrackDataTest, TagsFingerprintsAndReleaseFields) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  db().addTag(std::vector<int64_t>{a, b}, "warmup");
  db().addTag(std::vector<int64_t>{a}, "warmup");  // a tag is on a track once
  db().addTag(std::vector<int64_t>{a}, "vocal");
  EXPECT_THAT(db().allTagCounts(),
              UnorderedElementsAre(std::pair<std::string, int64_t>{"warmup", 2},
                                   std::pair<std::string, int64_t>{"vocal", 1}));
  db().removeTag(std::vector<int64_t>{b}, "warmup");
  EXPECT_THAT(db().taggedIds("warmup"), ElementsAre(a));
  EXPECT_THAT(db().tagsOf(a), ElementsAre("vocal", "warmup"));

  EXPECT_EQ(db().tracksNeedingFingerprint(10).size(), 2u);
  db().setRawFingerprint(a, {1, 2, 3});
  const auto need = db().tracksNeedingFingerprint(10);
  ASSERT_EQ(need.size(), 1u);
  EXPECT_EQ(need[0].first, b);

  db().setISRC(a, "GBAYE0000001");
  db().setISRC(a, "GBAYE0000002");
  db().setISRC(b, "");
  EXPECT_THAT(db().idsWithISRC(), ElementsAre(a));
  EXPECT_EQ(db().isrcMap().at(a), "GBAYE0000002");
}

TEST_F(TrackDataTest, FiltersSeeOnlyLiveTracks) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  db().setField("genre", "House", std::vector<int64_t>{a, b}, "Edit Genre");
  db().softRemove(std::vector<int64_t>{b});
  EXPECT_THAT(db().idsWhereFieldEquals("genre", "House"), ElementsAre(a));
  EXPECT_THAT(db().valueCounts("genre"), ElementsAre(std::pair<std::string, int64_t>{"House", 1}));
  EXPECT_THAT(db().idsWhere("genre = 'House'", 10), ElementsAre(a));
  EXPECT_TRUE(db().idsWhereFieldEquals("genre = genre OR 1", "x").empty());
  EXPECT_EQ(db().purgeRows().size(), 1u);
  EXPECT_EQ(db().artistAlbumGenreRows().size(), 1u);
  EXPECT_THAT(db().existingIds(std::vector<int64_t>{b, a, 999}), ElementsAre(a));
}

}  // namespace
}  // namespace orvel
