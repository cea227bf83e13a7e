#include "app/audio/analysis_pass.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include "app/audio/waveform.h"
#include "core/testing/store_fixture.h"

namespace orvel::audio {
namespace {

using ::testing::Contains;
using ::testing::Not;

class AnalysisPassTest : public orvel::testing::StoreTest {
 protected:
  static PassResult found() {
    PassResult r;
    r.readable = true;
    r.seconds = 240;
    r.analysis.bpm = 124;
    r.analysis.key = "8A";
    r.analysis.inMs = 500;
    r.analysis.outMs = 230'000;
    r.waveform = std::vector<uint8_t>(WaveformLoader::kBytes, 7);
    r.defects = {{DefectScan::Defect::Kind::click, 12.5, 300}};
    r.fingerprint = std::vector<uint8_t>{1, 2, 3, 4};
    return r;
  }
  static bool anything(const PassStored& s) {
    return s.bpm || s.key || s.cues || s.waveform || s.scanned || s.fingerprint;
  }
};

TEST_F(AnalysisPassTest, ReportsOnlyWhatReachedTheCatalogue) {
  const int64_t fresh = add("/m/fresh.wav");
  const int64_t mine = add("/m/mine.wav");
  ASSERT_TRUE(db().tracks().setField("key", "1A", std::vector<int64_t>{mine}, "Edit Key"));

  const PassStored all = storePass(db(), fresh, found());
  EXPECT_TRUE(all.status) << all.status.message();
  EXPECT_TRUE(all.bpm && all.key && all.cues && all.waveform && all.scanned && all.fingerprint);
  EXPECT_EQ(field(fresh, "bpm"), "124.0");
  EXPECT_EQ(field(fresh, "key"), "8A");
  EXPECT_TRUE(db().analysis().waveform(fresh));
  EXPECT_EQ(db().analysis().defects(fresh).size(), 1u);

  // The user's key stays, and the summary does not count it as filled.
  const PassStored kept = storePass(db(), mine, found());
  EXPECT_FALSE(kept.key);
  EXPECT_TRUE(kept.bpm);
  EXPECT_EQ(field(mine, "key"), "1A");

  // Another writer holds the catalogue past the timeout: nothing is claimed
  // and nothing is written, and the reason comes back.
  const int64_t held = add("/m/held.wav");
  db().connection().setBusyTimeout(50);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(dbPath().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  const PassStored none = storePass(db(), held, found());
  sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(other);
  EXPECT_FALSE(anything(none));
  EXPECT_EQ(none.status.code(), Status::Code::busy) << none.status.message();
  EXPECT_EQ(field(held, "bpm"), "");
  EXPECT_FALSE(db().analysis().waveform(held));
  EXPECT_THAT(db().analysis().scannedTracks(), Not(Contains(held)));

  // A full disk part-way through keeps nothing of the file: a track marked
  // analysed with parts missing would never be tried again.
  const int64_t full = add("/m/full.wav");
  const int64_t pages = *db().scalarInt("PRAGMA page_count");
  db().execChecked("PRAGMA max_page_count = " + std::to_string(pages));
  const PassStored cut = storePass(db(), full, found());
  db().execChecked("PRAGMA max_page_count = 1073741823");
  EXPECT_FALSE(anything(cut));
  EXPECT_EQ(cut.status.code(), Status::Code::full) << cut.status.message();
  EXPECT_EQ(field(full, "bpm"), "");
  EXPECT_TRUE(db().cues().cues(full).empty());
  EXPECT_FALSE(db().analysis().waveform(full));

  // An unreadable file writes nothing, and that is no failure.
  const PassStored unread = storePass(db(), held, PassResult{});
  EXPECT_FALSE(anything(unread));
  EXPECT_TRUE(unread.status);
}

}  // namespace
}  // namespace orvel::audio
