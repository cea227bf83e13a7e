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
    for (const auto& r : db().loadAllTracks()) ids.push_back(r.id);
    return ids;
  }
};

TEST_F(TracksTest, RemovedFileDroppedInAgainComesBackWithItsIdAndCues) {
  const int64_t id = add("/Music/Caf\xC3\xA9.mp3", "Caf\xC3\xA9");
  db().execChecked("INSERT INTO cues(track_id, bank, idx, position_ms) VALUES(" +
                   std::to_string(id) + ", 'hot', 0, 1500)");
  db().execChecked("UPDATE tracks SET file_missing = 1 WHERE id = " + std::to_string(id));
  ASSERT_TRUE(db().softRemove(std::vector<int64_t>{id}));
  EXPECT_TRUE(db().loadAllTracks().empty());

  // Same file, other spelling: decomposed é and different case.
  EXPECT_EQ(add("/MUSIC/Cafe\xCC\x81.mp3"), id);
  const auto rows = db().loadAllTracks();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].id, id);
  EXPECT_EQ(rows[0].cueCount, 1);
  EXPECT_FALSE(rows[0].missing);
  EXPECT_EQ(field(id, "removed"), "");
  // A live file dropped again is reused, not duplicated.
  EXPECT_EQ(add("/music/caf\xC3\xA9.mp3"), id);
  EXPECT_EQ(db().count("tracks"), 1);
  EXPECT_EQ(db().scalarInt("SELECT COUNT(*) FROM track_sources"), 1);
  EXPECT_TRUE(db().hasTrack("/MUSIC/CAF\xC3\x89.MP3"));
}

TEST_F(TracksTest, ALiveRowWinsOverARemovedRowOfTheSameFile) {
  const int64_t old = add("/m/a.mp3");
  ASSERT_TRUE(db().softRemove(std::vector<int64_t>{old}));
  ASSERT_EQ(db().execChecked("INSERT INTO tracks(path) VALUES('/m/A.mp3')"), std::nullopt);
  const int64_t live = db().connection().lastInsertId();
  EXPECT_EQ(add("/M/a.mp3"), live);
  EXPECT_EQ(field(old, "removed"), "1");
  EXPECT_EQ(db().loadAllTracks().size(), 1u);
}

TEST_F(TracksTest, LaunchOrderIsNewestFirstThenHigherIdAndTitlesFallBackToFileNames) {
  const int64_t a = add("/m/Old Tune.mp3", "Old", 100);
  const int64_t b = add("/m/No Title.wav", "", 200);
  const int64_t c = add("/m/Same Second.mp3", "Same", 200);
  EXPECT_THAT(listedIds(), ElementsAre(c, b, a));
  const auto rows = db().loadAllTracks();
  EXPECT_EQ(rows[1].title, "No Title.wav");
  EXPECT_EQ(rows[1].ext(), "wav");
  EXPECT_EQ(rows[1].flags, -1);
  EXPECT_EQ(rows[1].extras.hasVideo, -1);
  EXPECT_EQ(db().loadAllTracks(1).size(), 1u);
}

TEST_F(TracksTest, SetFieldIsJournaledAndUnknownColumnsChangeNothing) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  std::vector<std::string> seen;
  db().onFieldWritten = [&](const std::string& f, const std::optional<std::string>& v,
                            const std::vector<int64_t>& ids) {
    seen.push_back(f + "=" + v.value_or("NULL") + " x" + std::to_string(ids.size()));
  };
  const auto op = db().setField("genre", "Deep House", std::vector<int64_t>{a, b}, "Edit Genre");
  ASSERT_TRUE(op);
  EXPECT_EQ(field(a, "genre"), "Deep House");
  EXPECT_THAT(seen, ElementsAre("genre=Deep House x2"));

  LogCapture log;
  const auto historyBefore = db().count("history");
  EXPECT_FALSE(db().setField("gnere", "x", std::vector<int64_t>{a}, "Edit Genre"));
  EXPECT_THAT(log.text(),
              HasSubstr("setField REFUSED: no tracks column named gnere (asked for Edit Genre"));
  EXPECT_EQ(db().count("history"), historyBefore);
  EXPECT_FALSE(db().writeField("id = 0; --", "1", std::vector<int64_t>{a}));
  EXPECT_EQ(field(a, "genre"), "Deep House");

  EXPECT_EQ(db().journal().undo(*op), 2);
  EXPECT_EQ(field(b, "genre"), "");
}

TEST_F(TracksTest, AnEditThatFailsLeavesNoHistoryEvenInsideALargerTransaction) {
  const int64_t a = add("/m/a.mp3");
  add("/m/b.mp3");
  const auto historyBefore = db().count("history");
  // Giving a the path of b would make two live rows of one file.
  EXPECT_FALSE(db().setField("path", "/M/B.mp3", std::vector<int64_t>{a}, "Edit Path"));
  db().begin();
  EXPECT_FALSE(db().setField("path", "/M/B.mp3", std::vector<int64_t>{a}, "Edit Path"));
  EXPECT_TRUE(db().setField("genre", "Dub", std::vector<int64_t>{a}, "Edit Genre"));
  db().commit();
  EXPECT_EQ(db().count("history"), historyBefore + 1);
  EXPECT_EQ(field(a, "path"), "/m/a.mp3");
  EXPECT_EQ(field(a, "genre"), "Dub");
}

TEST_F(TracksTest, RatingsFlagsAndAnalysisRespectTheUsersValues) {
  const int64_t a = add("/m/a.mp3");
  db().setRating(std::vector<int64_t>{a}, 9);
  EXPECT_EQ(field(a, "rating"), "100");
  db().setRating(std::vector<int64_t>{a}, 3);
  EXPECT_EQ(db().loadTrack(a)->stars(), 3);
  db().setLoved(std::vector<int64_t>{a}, true);
  db().setDisliked(std::vector<int64_t>{a}, true);
  EXPECT_THAT(db().lovedIds(), ElementsAre(a));
  EXPECT_THAT(db().dislikedIds(), ElementsAre(a));
  db().journal().undo(db().journal().lastUndoable()->id);
  EXPECT_TRUE(db().dislikedIds().empty());

  db().setAnalysis(a, "8A", 124.5);
  db().setAnalysis(a, "3B", 90.0);  // never overwrites
  const auto row = db().loadTrack(a);
  EXPECT_EQ(row->key, "8A");
  EXPECT_EQ(row->bpm, 124.5);
  EXPECT_EQ(row->bpmText(), "124.5");
}

TEST_F(TracksTest, ColumnForMapsEditorKeys) {
  EXPECT_EQ(OrvelDB::columnFor("albumartist"), "album_artist");
  EXPECT_EQ(OrvelDB::columnFor("Track Number"), "track_number");
  EXPECT_EQ(OrvelDB::columnFor("samplerate"), "samplerate_hz");
  EXPECT_EQ(OrvelDB::columnFor("lastplayed"), "last_played");
  EXPECT_EQ(OrvelDB::columnFor("Genre"), "genre");
}

}  // namespace
}  // namespace orvel
