#include <gmock/gmock.h>

#include <limits>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class DefectsTest : public testing::StoreTest {
 protected:
  std::vector<std::string> findings(int64_t track) {
    std::vector<std::string> out;
    for (const DefectRow& d : db().defects(track))
      out.push_back(d.kind + " @" + std::to_string(int(d.positionMs)) + " " +
                    std::to_string(int(d.severity)));
    return out;
  }
  int64_t scanColumn(int64_t track, const char* column) {
    return db()
        .scalarInt(std::string("SELECT ") + column +
                   " FROM defect_scans WHERE track_id = " + std::to_string(track))
        .value_or(-1);
  }
};

TEST_F(DefectsTest, AScanReplacesTheTracksFindingsAndIsRememberedEvenWhenClean) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  // Tables appear on first use, in a catalogue that never had them.
  EXPECT_THAT(db().defects(a), IsEmpty());
  EXPECT_THAT(db().scannedTracks(), IsEmpty());

  const std::vector<DefectRow> first = {
      {"dropout", 9000, 40}, {"click", 1500.5, 300}, {"click", 200, 800}};
  ASSERT_TRUE(db().recordDefectScan(a, first, 1000));
  ASSERT_TRUE(db().recordDefectScan(b, std::vector<DefectRow>{{"click", 10, 260}}, 1000));
  EXPECT_THAT(findings(a), ElementsAre("click @200 800", "click @1500 300", "dropout @9000 40"));
  EXPECT_EQ(scanColumn(a, "found"), 3);

  // A rescan drops what the last one found; the other track keeps its rows.
  ASSERT_TRUE(db().recordDefectScan(a, std::vector<DefectRow>{{"dropout", 50, 12}}, 2000));
  EXPECT_THAT(findings(a), ElementsAre("dropout @50 12"));
  EXPECT_EQ(scanColumn(a, "found"), 1);
  EXPECT_EQ(scanColumn(a, "scanned_at"), 2000);
  EXPECT_THAT(findings(b), ElementsAre("click @10 260"));

  // Clean: no findings left, but the track counts as scanned.
  ASSERT_TRUE(db().recordDefectScan(b, {}, 3000));
  EXPECT_THAT(findings(b), IsEmpty());
  EXPECT_THAT(db().tracksWithDefects(), ElementsAre(a));
  EXPECT_THAT(reopen().scannedTracks(), ::testing::UnorderedElementsAre(a, b));
  EXPECT_EQ(scanColumn(b, "found"), 0);
}

TEST_F(DefectsTest, AFailedScanWriteLeavesTheEarlierFindings) {
  const int64_t a = add("/m/a.mp3");
  ASSERT_TRUE(db().recordDefectScan(a, std::vector<DefectRow>{{"click", 100, 400}}, 1000));
  // SQLite stores NaN as NULL, which the NOT NULL column refuses mid-write.
  const std::vector<DefectRow> bad = {{"click", 5, 300},
                                      {"click", std::numeric_limits<double>::quiet_NaN(), 1}};
  EXPECT_FALSE(db().recordDefectScan(a, bad, 2000));
  EXPECT_THAT(findings(a), ElementsAre("click @100 400"));
  EXPECT_EQ(scanColumn(a, "scanned_at"), 1000);
  EXPECT_EQ(scanColumn(a, "found"), 1);
}

TEST_F(DefectsTest, TheLatestVerdictPerTrackIsKept) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  EXPECT_THAT(db().defectStatuses(), IsEmpty());
  ASSERT_TRUE(db().setDefectStatus(a, kDefectFixed, 10));
  ASSERT_TRUE(db().setDefectStatus(b, kDefectFixed, 11));
  ASSERT_TRUE(db().setDefectStatus(a, kDefectIgnored, 12));
  EXPECT_THAT(reopen().defectStatuses(), ElementsAre(Pair(a, "ignored"), Pair(b, "fixed")));
}

}  // namespace
}  // namespace orvel
