#include <fmt/format.h>
#include <gmock/gmock.h>

#include <cmath>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using ::testing::ElementsAre;

CueRow imported(int index, double positionMs, std::string name, std::string color = "") {
  CueRow c;
  c.index = index;
  c.positionMs = positionMs;
  c.name = std::move(name);
  c.color = std::move(color);
  return c;
}

class CuesTest : public testing::StoreTest {
 protected:
  void SetUp() override { track_ = add("/m/a.mp3"); }
  // "kind idx @ms name" for each cue of the track, in listing order.
  std::vector<std::string> summary() {
    std::vector<std::string> out;
    for (const CueRow& c : db().cues().cues(track_))
      out.push_back(fmt::format("{} {} @{} {}", c.kind, c.index, c.positionMs, c.name));
    return out;
  }
  int64_t track_ = 0;
};

TEST_F(CuesTest, ManualCuesAndLoopsFillTheLowestFreeSlotUpToEight) {
  for (int i = 0; i < 8; ++i) {
    const auto edit = db().cues().addManualCue(track_, 1000.0 * i);
    ASSERT_TRUE(edit);
    EXPECT_EQ(edit->slot, i);
  }
  EXPECT_FALSE(db().cues().addManualCue(track_, 9000));
  const int64_t ops = static_cast<int64_t>(db().journal().operations(100).size());

  // Freeing slot 2 makes it the next one taken; loops count separately.
  const auto third = db().cues().cues(track_)[2];
  ASSERT_TRUE(db().cues().deleteCue(third.id));
  EXPECT_EQ(db().cues().addManualCue(track_, 5)->slot, 2);
  const auto loop = db().cues().addManualLoop(track_, 4000, 2000);
  ASSERT_TRUE(loop);
  EXPECT_EQ(loop->slot, 0);
  const auto row = db().cues().cue(loop->cueId);
  EXPECT_EQ(row->color, kManualLoopColor);
  EXPECT_EQ(row->lengthMs, 2000);
  EXPECT_TRUE(row->name.starts_with("ORVEL "));
  EXPECT_EQ(db().cues().cues(track_)[0].color, kManualCueColor);
  EXPECT_EQ(static_cast<int64_t>(db().journal().operations(100).size()), ops + 3);

  ASSERT_TRUE(  // Undoing the loop's creation deletes it; redo brings back the same row.
      db().journal().undo(loop->opId));
  EXPECT_FALSE(db().cues().cue(loop->cueId));
  ASSERT_TRUE(db().journal().redo(loop->opId));
  EXPECT_EQ(db().cues().cue(loop->cueId)->positionMs, 4000);
  EXPECT_FALSE(db().cues().addManualCue(999, 1));
}

TEST_F(CuesTest, SetCueReplacesItsSlotAndRefusesSlotsAboveSeven) {
  ASSERT_TRUE(db().cues().addManualCue(track_, 100));
  const auto ops = db().journal().operations(100).size();
  EXPECT_FALSE(db().cues().setCue(track_, 8, 1));
  EXPECT_FALSE(db().cues().setCue(track_, -1, 1));
  EXPECT_EQ(db().journal().operations(100).size(), ops);  // no operation opened

  const auto set = db().cues().setCue(track_, 0, 2500.5);
  ASSERT_TRUE(set);
  EXPECT_THAT(summary(), ElementsAre("cue 0 @2500.5 ORVEL CUE 1"));
  ASSERT_TRUE(db().journal().undo(*set));
  EXPECT_THAT(summary(), ElementsAre("cue 0 @100 ORVEL CUE 1"));
  ASSERT_TRUE(db().journal().redo(*set));
  EXPECT_THAT(summary(), ElementsAre("cue 0 @2500.5 ORVEL CUE 1"));
}

TEST_F(CuesTest, MovesAndDeletionUndo) {
  const auto c = db().cues().addManualCue(track_, 1000);
  const auto l = db().cues().addManualLoop(track_, 2000, 500);
  const auto moved = db().cues().moveCue(c->cueId, 1234.25);
  const auto bounds = db().cues().setLoopBounds(l->cueId, 3000, 750);
  ASSERT_TRUE(moved && bounds);
  EXPECT_EQ(db().cues().cue(c->cueId)->positionMs, 1234.25);
  ASSERT_TRUE(db().journal().undo(*bounds));
  EXPECT_EQ(db().cues().cue(l->cueId)->positionMs, 2000);
  EXPECT_EQ(db().cues().cue(l->cueId)->lengthMs, 500);
  ASSERT_TRUE(db().journal().undo(*moved));
  EXPECT_EQ(db().cues().cue(c->cueId)->positionMs, 1000);

  // The newest cue deleted, then a new one made: SQLite would hand it the
  // deleted cue's id and slot. Undoing the deletion keeps both, in two slots.
  const auto last = db().cues().addManualCue(track_, 5000);
  const auto deleted = db().cues().deleteCue(last->cueId);
  ASSERT_TRUE(deleted);
  EXPECT_EQ(db().journal().lastUndoable()->opName, "Delete Cue");
  const auto fresh = db().cues().addManualCue(track_, 7000);
  EXPECT_NE(fresh->cueId, last->cueId);
  EXPECT_EQ(fresh->slot, last->slot);
  ASSERT_TRUE(db().journal().undo(*deleted));
  EXPECT_THAT(summary(), ElementsAre("cue 0 @1000 ORVEL CUE 1", "cue 1 @7000 ORVEL CUE 2",
                                     "cue 2 @5000 ORVEL CUE 2", "loop 0 @2000 ORVEL LOOP 1"));
  EXPECT_FALSE(db().cues().moveCue(424242, 1));
}

TEST_F(CuesTest, AutomaticPairIsReplacedAndNothingElseIsTouched) {
  ASSERT_TRUE(db().cues().addManualCue(track_, 10));
  const CueRow serato = imported(1, 20, "DROP", "#CC0000");
  ASSERT_TRUE(db().cues().replaceSourceCues(track_, 3, std::vector<CueRow>{serato},
                                            std::vector<BeatAnchor>{}));
  ASSERT_TRUE(db().cues().replaceAutoCues(track_, 500, 180000));
  const auto again = db().cues().replaceAutoCues(track_, 600, 170000);
  ASSERT_TRUE(again);
  EXPECT_THAT(summary(), ElementsAre("cue 0 @10 ORVEL CUE 1", "cue 1 @20 DROP",
                                     "cue 90 @600 AUTO IN", "cue 91 @170000 AUTO OUT"));
  EXPECT_EQ(db().scalarInt("SELECT COUNT(*) FROM cues WHERE idx IN (90, 91)"), 2);
  ASSERT_TRUE(db().journal().undo(*again));
  EXPECT_THAT(summary(), ElementsAre("cue 0 @10 ORVEL CUE 1", "cue 1 @20 DROP",
                                     "cue 90 @500 AUTO IN", "cue 91 @180000 AUTO OUT"));
}

TEST_F(CuesTest, ImportedCuesAndGridAreReplacedWholePerSource) {
  ASSERT_TRUE(db().cues().addManualCue(track_, 10));
  const std::vector<BeatAnchor> grid{{0, 124}, {60000, 125.5}};
  std::vector<CueRow> cues(3);
  for (int i = 0; i < 3; ++i) cues[i] = imported(i, 100.0 * i, "S");
  ASSERT_TRUE(db().cues().replaceSourceCues(track_, 3, cues, grid));
  ASSERT_TRUE(db().cues().replaceSourceCues(track_, 4, std::vector<CueRow>{cues[0]}, grid));
  ASSERT_TRUE(db().cues().replaceSourceCues(track_, 3, std::vector<CueRow>{cues[2]},
                                            std::vector<BeatAnchor>{{5, 90}}));
  EXPECT_EQ(db().cues().cues(track_).size(), 3u);  // ours, one of source 4, one of source 3
  const auto g = db().cues().beatGrid(track_, 3);
  ASSERT_EQ(g.size(), 1u);
  EXPECT_EQ(g[0].bpm, 90);
  EXPECT_EQ(db().cues().beatGrid(track_, 4).size(), 2u);
  EXPECT_EQ(db().cues().beatGrid(track_, 4)[1].posMs, 60000);
  ASSERT_TRUE(db().cues().replaceSourceCues(track_, 4, {}, {}));
  EXPECT_TRUE(db().cues().beatGrid(track_, 4).empty());
}

}  // namespace
}  // namespace orvel

namespace orvel {
namespace {

TEST_F(CuesTest, CuesAndLoopsStayInsideTheTrack) {
  ASSERT_TRUE(db().tracks().setDurationMs(track_, 2000));
  const auto cue = db().cues().addManualCue(track_, 1500);
  ASSERT_TRUE(cue);
  // Past the end, before the start, or no number at all: refused, nothing written.
  for (double at : {2000.0, 99999.0 * 60000, -1.0, std::nan(""), double(INFINITY)})
    EXPECT_FALSE(db().cues().addManualCue(track_, at)) << at;
  EXPECT_FALSE(db().cues().setCue(track_, 3, 5000));
  EXPECT_FALSE(db().cues().moveCue(cue->cueId, 2500));
  EXPECT_FALSE(db().cues().addManualLoop(track_, 1000, 1500));
  EXPECT_FALSE(db().cues().addManualLoop(track_, 100, 0));
  const auto loop = db().cues().addManualLoop(track_, 1000, 1000);
  ASSERT_TRUE(loop);
  EXPECT_FALSE(db().cues().setLoopBounds(loop->cueId, 1500, 1000));
  EXPECT_FALSE(db().cues().moveCue(loop->cueId, 1200));  // its end would pass the track's
  EXPECT_EQ(summary(),
            (std::vector<std::string>{"cue 0 @1500 ORVEL CUE 1", "loop 0 @1000 ORVEL LOOP 1"}));
}

}  // namespace
}  // namespace orvel
