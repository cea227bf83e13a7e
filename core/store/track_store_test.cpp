#include <gmock/gmock.h>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::LogCapture;
using testing::StoreTest;

class TracksTest : public StoreTest {
 protected:
  std::vector<int64_t> listedIds() {
    std::vector<int64_t> ids;
    for (const auto& r : db().tracks().loadAllTracks()) ids.push_back(r.id);
    return ids;
  }
};

TEST_F(TracksTest, RemovedFileDroppedInAgainComesBackWithItsIdAndCues) {
  const int64_t id = add("/Music/Caf\xC3\xA9.mp3", "Caf\xC3\xA9");
  db().execChecked("INSERT INTO cues(track_id, bank, idx, position_ms) VALUES(" +
                   std::to_string(id) + ", 'hot', 0, 1500)");
  db().execChecked("UPDATE tracks SET file_missing = 1 WHERE id = " + std::to_string(id));
  ASSERT_TRUE(db().tracks().softRemove(std::vector<int64_t>{id}));
  EXPECT_TRUE(db().tracks().loadAllTracks().empty());

  // Same file, other spelling: decomposed é and different case.
  EXPECT_EQ(add("/MUSIC/Cafe\xCC\x81.mp3"), id);
  const auto rows = db().tracks().loadAllTracks();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].id, id);
  EXPECT_EQ(rows[0].cueCount, 1);
  EXPECT_FALSE(rows[0].missing);
  EXPECT_EQ(field(id, "removed"), "");
  // A live file dropped again is reused, not duplicated.
  EXPECT_EQ(add("/music/caf\xC3\xA9.mp3"), id);
  EXPECT_EQ(db().count("tracks"), 1);
  EXPECT_EQ(db().scalarInt("SELECT COUNT(*) FROM track_sources"), 1);
  EXPECT_TRUE(db().tracks().hasTrack("/MUSIC/CAF\xC3\x89.MP3"));
}

TEST_F(TracksTest, ALiveRowWinsOverARemovedRowOfTheSameFile) {
  const int64_t old = add("/m/a.mp3");
  ASSERT_TRUE(db().tracks().softRemove(std::vector<int64_t>{old}));
  ASSERT_EQ(db().execChecked("INSERT INTO tracks(path) VALUES('/m/A.mp3')"), std::nullopt);
  const int64_t live = db().connection().lastInsertId();
  EXPECT_EQ(add("/M/a.mp3"), live);
  EXPECT_EQ(field(old, "removed"), "1");
  EXPECT_EQ(db().tracks().loadAllTracks().size(), 1u);
}

TEST_F(TracksTest, LaunchOrderIsNewestFirstThenHigherIdAndTitlesFallBackToFileNames) {
  const int64_t a = add("/m/Old Tune.mp3", "Old", 100);
  const int64_t b = add("/m/No Title.wav", "", 200);
  const int64_t c = add("/m/Same Second.mp3", "Same", 200);
  EXPECT_THAT(listedIds(), ElementsAre(c, b, a));
  const auto rows = db().tracks().loadAllTracks();
  EXPECT_EQ(rows[1].title(), "No Title.wav");
  EXPECT_EQ(rows[1].ext(), "wav");
  EXPECT_EQ(rows[1].flags, -1);
  EXPECT_EQ(rows[1].hasVideo, -1);
  EXPECT_EQ(db().tracks().loadAllTracks(1).size(), 1u);
}

TEST_F(TracksTest, SetFieldIsJournaledAndUnknownColumnsChangeNothing) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  const auto op =
      db().tracks().setField("genre", "Deep House", std::vector<int64_t>{a, b}, "Edit Genre");
  ASSERT_TRUE(op);
  EXPECT_EQ(field(a, "genre"), "Deep House");

  LogCapture log;
  const auto historyBefore = db().count("history");
  EXPECT_FALSE(db().tracks().setField("gnere", "x", std::vector<int64_t>{a}, "Edit Genre"));
  EXPECT_THAT(log.text(),
              HasSubstr("setField REFUSED: no tracks column named gnere (asked for Edit Genre"));
  EXPECT_EQ(db().count("history"), historyBefore);
  EXPECT_FALSE(db().tracks().writeField("id = 0; --", "1", std::vector<int64_t>{a}).isOk());
  EXPECT_EQ(field(a, "genre"), "Deep House");

  EXPECT_EQ(db().journal().undo(*op).value_or({-1, 0}).applied, 2);
  EXPECT_EQ(field(b, "genre"), "");
}

TEST_F(TracksTest, AnEditThatFailsSaysWhyAndLeavesNoHistoryEvenInsideALargerTransaction) {
  const int64_t a = add("/m/a.mp3");
  add("/m/b.mp3");
  const auto historyBefore = db().count("history");
  // Giving a the path of b would make two live rows of one file.
  const auto refused =
      db().tracks().setField("path", "/M/B.mp3", std::vector<int64_t>{a}, "Edit Path");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.status().code(), Status::Code::invalid);
  EXPECT_THAT(refused.error(), HasSubstr("UNIQUE"));
  {
    Transaction outer(db().connection());
    ASSERT_TRUE(outer);
    EXPECT_FALSE(db().tracks().setField("path", "/M/B.mp3", std::vector<int64_t>{a}, "Edit Path"));
    EXPECT_TRUE(db().tracks().setField("genre", "Dub", std::vector<int64_t>{a}, "Edit Genre"));
    ASSERT_TRUE(outer.commit().isOk());
  }
  EXPECT_EQ(db().count("history"), historyBefore + 1);
  EXPECT_EQ(field(a, "path"), "/m/a.mp3");
  EXPECT_EQ(field(a, "genre"), "Dub");
}

TEST_F(TracksTest, RatingsAndFlagsAreJournaled) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  ASSERT_TRUE(db().tracks().setRating(std::vector<int64_t>{a}, 9));
  EXPECT_EQ(field(a, "rating"), "100");
  ASSERT_TRUE(db().tracks().setRating(std::vector<int64_t>{a}, 3));
  EXPECT_EQ(db().tracks().loadTrack(a)->stars(), 3);
  ASSERT_TRUE(db().tracks().setLoved(std::vector<int64_t>{a}, true));
  ASSERT_TRUE(db().tracks().setDisliked(std::vector<int64_t>{a}, true));
  ASSERT_TRUE(db().tracks().setMaster(std::vector<int64_t>{b}, true));
  EXPECT_THAT(db().tracks().lovedIds(), ElementsAre(a));
  EXPECT_THAT(db().tracks().dislikedIds(), ElementsAre(a));
  EXPECT_THAT(db().tracks().masterIds(), ElementsAre(b));
  const auto row = db().tracks().loadTrack(a);
  EXPECT_TRUE(row->loved);
  EXPECT_TRUE(row->disliked);
  ASSERT_TRUE(db().journal().undo(db().journal().lastUndoable()->id));
  EXPECT_TRUE(db().tracks().masterIds().empty());
  EXPECT_THAT(db().tracks().dislikedIds(), ElementsAre(a));
}

TEST_F(TracksTest, FiltersSeeOnlyLiveTracks) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  ASSERT_TRUE(db().tracks().setField("genre", "House", std::vector<int64_t>{a, b}, "Edit Genre"));
  ASSERT_TRUE(db().tracks().softRemove(std::vector<int64_t>{b}));
  EXPECT_FALSE(db().tracks().softRemove({}));
  EXPECT_THAT(db().tracks().idsWhereFieldEquals("genre", "House"), ElementsAre(a));
  EXPECT_THAT(db().tracks().valueCounts("genre"),
              ElementsAre(std::pair<std::string, int64_t>{"House", 1}));
  EXPECT_TRUE(db().tracks().idsWhereFieldEquals("genre = genre OR 1", "x").empty());
  EXPECT_THAT(db().tracks().existingIds(std::vector<int64_t>{b, a, 999}), ElementsAre(a));
  EXPECT_EQ(db().tracks().liveTrackId("/M/B.mp3"), std::nullopt);
  EXPECT_EQ(db().tracks().trackId("/M/B.mp3"), b);
}

TEST_F(TracksTest, ColumnForMapsEditorKeys) {
  EXPECT_EQ(TrackStore::columnFor("albumartist"), "album_artist");
  EXPECT_EQ(TrackStore::columnFor("Track Number"), "track_number");
  EXPECT_EQ(TrackStore::columnFor("samplerate"), "samplerate_hz");
  EXPECT_EQ(TrackStore::columnFor("lastplayed"), "last_played");
  EXPECT_EQ(TrackStore::columnFor("Genre"), "genre");
}

}  // namespace
}  // namespace orvel
