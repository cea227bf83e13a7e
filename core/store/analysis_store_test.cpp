#include <gmock/gmock.h>

#include <limits>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using Need = AnalysisStore::Need;

class AnalysisTest : public testing::StoreTest {
 protected:
  std::vector<std::string> findings(int64_t track) {
    std::vector<std::string> out;
    for (const DefectRow& d : db().analysis().defects(track))
      out.push_back(d.kind + " @" + std::to_string(int(d.positionMs)) + " " +
                    std::to_string(int(d.severity)));
    return out;
  }
  std::vector<std::string> present(Need need) {
    std::vector<std::string> out;
    for (const auto& t : db().analysis().presentTracks(need))
      out.push_back(std::to_string(t.id) + " " + t.path);
    return out;
  }
  static std::string item(int64_t id, const std::string& path) {
    return std::to_string(id) + " " + path;
  }
  int64_t scanColumn(int64_t track, const char* column) {
    return db()
        .scalarInt(std::string("SELECT ") + column +
                   " FROM defect_scans WHERE track_id = " + std::to_string(track))
        .value_or(-1);
  }
};

TEST_F(AnalysisTest, AScanReplacesTheTracksFindingsAndIsRememberedEvenWhenClean) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  // A catalogue that was never scanned has no findings.
  EXPECT_THAT(db().analysis().defects(a), IsEmpty());
  EXPECT_THAT(db().analysis().scannedTracks(), IsEmpty());

  const std::vector<DefectRow> first = {
      {"dropout", 9000, 40}, {"click", 1500.5, 300}, {"click", 200, 800}};
  ASSERT_TRUE(db().analysis().recordDefectScan(a, first, 1000));
  ASSERT_TRUE(
      db().analysis().recordDefectScan(b, std::vector<DefectRow>{{"click", 10, 260}}, 1000));
  EXPECT_THAT(findings(a), ElementsAre("click @200 800", "click @1500 300", "dropout @9000 40"));
  EXPECT_EQ(scanColumn(a, "found"), 3);

  // A rescan drops what the last one found; the other track keeps its rows.
  ASSERT_TRUE(
      db().analysis().recordDefectScan(a, std::vector<DefectRow>{{"dropout", 50, 12}}, 2000));
  EXPECT_THAT(findings(a), ElementsAre("dropout @50 12"));
  EXPECT_EQ(scanColumn(a, "found"), 1);
  EXPECT_EQ(scanColumn(a, "scanned_at"), 2000);
  EXPECT_THAT(findings(b), ElementsAre("click @10 260"));

  // Clean: no findings left, but the track counts as scanned.
  ASSERT_TRUE(db().analysis().recordDefectScan(b, {}, 3000));
  EXPECT_THAT(findings(b), IsEmpty());
  EXPECT_THAT(db().analysis().tracksWithDefects(), ElementsAre(a));
  EXPECT_THAT(reopen().analysis().scannedTracks(), ::testing::UnorderedElementsAre(a, b));
  EXPECT_EQ(scanColumn(b, "found"), 0);
}

TEST_F(AnalysisTest, AFailedScanWriteLeavesTheEarlierFindings) {
  const int64_t a = add("/m/a.mp3");
  ASSERT_TRUE(
      db().analysis().recordDefectScan(a, std::vector<DefectRow>{{"click", 100, 400}}, 1000));
  // SQLite stores NaN as NULL, which the NOT NULL column refuses mid-write.
  const std::vector<DefectRow> bad = {{"click", 5, 300},
                                      {"click", std::numeric_limits<double>::quiet_NaN(), 1}};
  EXPECT_FALSE(db().analysis().recordDefectScan(a, bad, 2000));
  EXPECT_THAT(findings(a), ElementsAre("click @100 400"));
  EXPECT_EQ(scanColumn(a, "scanned_at"), 1000);
  EXPECT_EQ(scanColumn(a, "found"), 1);
}

TEST_F(AnalysisTest, RawFingerprintsAreReadForEveryLiveTrackThatHasOne) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  const int64_t removed = add("/m/removed.mp3");
  const int64_t merged = add("/m/merged.mp3");
  const int64_t missing = add("/m/missing.mp3");
  const int64_t blank = add("/m/blank.mp3");
  add("/m/never.mp3");
  EXPECT_THAT(db().analysis().rawFingerprints(), IsEmpty());
  const std::vector<uint8_t> first = {1, 2, 3, 4}, second = {9, 8, 7, 6, 5, 4, 3, 2};
  for (int64_t id : {b, a, removed, merged, missing})
    ASSERT_TRUE(db().analysis().setRawFingerprint(id, first));
  // A second analysis replaces the print; an empty one is no print.
  ASSERT_TRUE(db().analysis().setRawFingerprint(b, second));
  ASSERT_TRUE(db().analysis().setRawFingerprint(blank, {}));
  ASSERT_TRUE(db().tracks().softRemove(std::vector<int64_t>{removed}));
  ASSERT_TRUE(db().tracks().mergeTrack(merged, a));
  ASSERT_TRUE(db().tracks().markMissing(missing));
  EXPECT_THAT(reopen().analysis().rawFingerprints(),
              ElementsAre(Pair(a, first), Pair(b, second), Pair(missing, first)));
}

TEST_F(AnalysisTest, TheLatestVerdictPerTrackIsKept) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  EXPECT_THAT(db().analysis().defectStatuses(), IsEmpty());
  ASSERT_TRUE(db().analysis().setDefectStatus(a, kDefectFixed, 10));
  ASSERT_TRUE(db().analysis().setDefectStatus(b, kDefectFixed, 11));
  ASSERT_TRUE(db().analysis().setDefectStatus(a, kDefectIgnored, 12));
  EXPECT_THAT(reopen().analysis().defectStatuses(),
              ElementsAre(Pair(a, "ignored"), Pair(b, "fixed")));
}

TEST_F(AnalysisTest, TempoAndKeyFillOnlyWhatTheUserLeftEmpty) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  ASSERT_TRUE(db().tracks().setField("key", "1A", std::vector<int64_t>{b}, "Edit Key"));
  const Status first = db().analysis().setAnalysis(a, "8A", 124.5);
  ASSERT_TRUE(first) << first.message();
  ASSERT_TRUE(db().analysis().setAnalysis(a, "3B", 90.0));
  ASSERT_TRUE(db().analysis().setAnalysis(b, "5A", 128.0));
  const auto row = db().tracks().loadTrack(a);
  EXPECT_EQ(row->key(), "8A");
  EXPECT_EQ(row->bpm, 124.5);
  EXPECT_EQ(row->bpmText(), "124.5");
  // The user's key stays; the tempo they never set is filled in.
  EXPECT_EQ(db().tracks().loadTrack(b)->key(), "1A");
  EXPECT_EQ(db().tracks().loadTrack(b)->bpm, 128.0);
}

TEST_F(AnalysisTest, APassTakesOnlyPresentLiveTracksThatLackWhatItMakes) {
  const int64_t fresh = add("/m/fresh.mp3");
  const int64_t removed = add("/m/removed.mp3");
  const int64_t merged = add("/m/merged.mp3");
  const int64_t missing = add("/m/missing.mp3");
  const int64_t drawn = add("/m/drawn.mp3");      // waveform, no scan
  const int64_t scanned = add("/m/scanned.mp3");  // scan, no waveform
  const int64_t done = add("/m/done.mp3");
  ASSERT_TRUE(db().tracks().softRemove(std::vector<int64_t>{removed}));
  ASSERT_TRUE(db().tracks().mergeTrack(merged, fresh));
  ASSERT_TRUE(db().tracks().markMissing(missing));
  const std::vector<uint8_t> peaks(3200, 7);
  ASSERT_TRUE(db().analysis().setWaveform(drawn, peaks));
  ASSERT_TRUE(db().analysis().setWaveform(done, peaks));
  ASSERT_TRUE(db().analysis().recordDefectScan(scanned, {}, 1000));
  ASSERT_TRUE(db().analysis().recordDefectScan(done, {}, 1000));
  EXPECT_EQ(db().analysis().waveform(done), peaks);
  EXPECT_EQ(db().analysis().waveform(fresh), std::nullopt);

  EXPECT_THAT(present(Need::everything),
              ElementsAre(item(fresh, "/m/fresh.mp3"), item(drawn, "/m/drawn.mp3"),
                          item(scanned, "/m/scanned.mp3"), item(done, "/m/done.mp3")));
  EXPECT_THAT(present(Need::analysis),
              ElementsAre(item(fresh, "/m/fresh.mp3"), item(drawn, "/m/drawn.mp3"),
                          item(scanned, "/m/scanned.mp3")));
  EXPECT_THAT(present(Need::defectScan),
              ElementsAre(item(fresh, "/m/fresh.mp3"), item(drawn, "/m/drawn.mp3")));
}

}  // namespace
}  // namespace orvel
