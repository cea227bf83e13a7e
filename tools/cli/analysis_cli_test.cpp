#include <sqlite3.h>

#include <QImage>
#include <algorithm>
#include <fstream>

#include "app/audio/audio_file_writer.h"
#include "app/audio/testing/synth.h"
#include "tools/cli/cli_fixture.h"

namespace orvel::cli {
namespace {

using ::testing::HasSubstr;

// Two real tracks: 124 BPM music in A minor with a dropout, and a tagged one
// whose tempo and key are the user's; the fixture's other tracks have no file.
class AnalysisCliTest : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    audio::testing::MusicPiece piece;
    piece.bpm = 124;
    piece.tonic = 9;
    piece.minor = true;
    piece.seconds = 12;
    auto music = audio::testing::music(piece);
    audio::testing::addDropout(music, 44100 * 5, 44100 / 20);
    music_ = (dir_ / "music.wav").string();
    ASSERT_TRUE(audio::writeWav(music_, music, piece.rate));
    tagged_ = (dir_ / "tagged.wav").string();
    ASSERT_TRUE(audio::writeWav(tagged_, audio::testing::music(piece), piece.rate));
    m_ = add(music_, "Music");
    t_ = add(tagged_, "Tagged");
    const Status set = db().analysis().setAnalysis(t_, std::string("F#"), 100.0);
    ASSERT_TRUE(set) << set.message();
    db().execChecked("UPDATE tracks SET file_missing = 1 WHERE path LIKE '/music/%'");
    db_.reset();
  }
  std::string music_, tagged_;
  int64_t m_ = 0, t_ = 0;
};

TEST_F(AnalysisCliTest, AnalyzeFillsWhatIsMissingOnceAndKeepsTheUsersValues) {
  const json results = orvelJson({"analyze", "--jobs", "2"});
  ASSERT_EQ(results.size(), 2u);
  const Result again = orvel({"analyze"});
  EXPECT_EQ(again.code, 0);
  EXPECT_THAT(again.out, HasSubstr("Every track is analysed"));

  const json m = track(m_);
  EXPECT_NEAR(m["bpm"].get<double>(), 124, 124 * 0.02);
  EXPECT_EQ(m["key"], "Am");
  ASSERT_EQ(m["defects"].size(), 1u);
  EXPECT_EQ(m["defects"][0]["kind"], "dropout");
  EXPECT_NEAR(m["defects"][0]["positionMs"].get<double>(), 5000, 1);
  bool autoIn = false, autoOut = false;
  for (const json& c : m["cues"]) {
    autoIn |= c["name"] == "AUTO IN";
    autoOut |= c["name"] == "AUTO OUT";
  }
  EXPECT_TRUE(autoIn && autoOut) << m["cues"].dump();

  const json t = track(t_);
  EXPECT_EQ(t["key"], "F#");
  EXPECT_EQ(t["bpm"], 100.0);

  // Reading the store directly: one waveform and one fingerprint per analysed file.
  EXPECT_EQ(db().scalarInt("SELECT COUNT(*) FROM waveforms"), 2);
  EXPECT_EQ(db().scalarInt("SELECT COUNT(*) FROM track_fingerprints WHERE length(fp_raw) > 0"), 2);
  EXPECT_EQ(db().scalarInt("SELECT COUNT(*) FROM defect_scans"), 2);
}

TEST_F(AnalysisCliTest, UnknownOrUnreadableTargetsFail) {
  Result r = orvel({"analyze", "/nowhere/else.mp3"});
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("not in the catalogue"));
  r = orvel({"analyze", std::to_string(a_)});  // its file does not exist
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("could not be read"));
  EXPECT_FALSE(db().analysis().waveform(a_));
}

TEST_F(AnalysisCliTest, WaveformPictureAndScan) {
  const std::string png = (dir_ / "w.png").string();
  Result r =
      orvel({"waveform", std::to_string(m_), "--png", png, "--width", "400", "--height", "100"});
  ASSERT_EQ(r.code, 0) << r.err;
  QImage image(QString::fromStdString(png));
  ASSERT_FALSE(image.isNull());
  EXPECT_EQ(image.width(), 400);
  EXPECT_EQ(image.height(), 100);
  // The middle row is drawn across the music; the top rows stay background.
  EXPECT_NE(image.pixel(200, 50), image.pixel(200, 2));
  // Computed once and kept.
  EXPECT_TRUE(db().analysis().waveform(m_));
  EXPECT_EQ(orvelJson({"waveform", music_})["columns"].size(), 800u);

  r = orvel({"scan", std::to_string(m_)});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("1 dropout"));
  // "Nothing damaged" only for audio that was read and scanned.
  r = orvel({"repair", std::to_string(t_)});
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("has not been scanned yet"));
  ASSERT_EQ(orvel({"scan", std::to_string(t_)}).code, 0);
  r = orvel({"repair", std::to_string(t_)});
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("Nothing damaged to repair"));
  std::ofstream(tagged_) << "not audio any more";
  r = orvel({"repair", std::to_string(t_)});
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("as audio; nothing to repair"));
}

TEST_F(AnalysisCliTest, ARunIsOneOperationAndALockedCatalogueStopsItWithOneLine) {
  // Another program holds the catalogue: nothing is claimed, one line says why.
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(dbPath().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  const Result locked = orvel({"--busy-timeout", "100", "analyze", "--jobs", "1"});
  sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(other);
  EXPECT_EQ(locked.code, 1);
  EXPECT_THAT(locked.out, HasSubstr("Analysed 0 tracks"));
  EXPECT_EQ(std::count(locked.err.begin(), locked.err.end(), '\n'), 1) << locked.err;
  EXPECT_THAT(locked.err, HasSubstr("another program is writing the catalogue"));
  EXPECT_THAT(locked.err, HasSubstr("0 of 2 stored"));
  EXPECT_EQ(db().scalarInt("SELECT COUNT(*) FROM waveforms"), 0);
  db_.reset();

  // Both tracks' automatic cues are one operation, undone at once.
  ASSERT_EQ(orvel({"analyze"}).code, 0);
  const json history = orvelJson({"history"});
  const auto cueOps = std::count_if(history.begin(), history.end(),
                                    [](const json& op) { return op["opName"] == "Analyze Cues"; });
  EXPECT_EQ(cueOps, 1);
  ASSERT_EQ(orvel({"undo"}).code, 0);
  for (int64_t id : {m_, t_}) {
    const json shown = track(id);
    for (const json& c : shown["cues"]) EXPECT_NE(c["name"], "AUTO IN") << id;
  }
}

TEST_F(AnalysisCliTest, KeyLabelsAndTransposing) {
  EXPECT_EQ(orvel({"key", "label", "Abm", "--notation", "camelot"}).out, "1A\n");
  EXPECT_EQ(orvel({"key", "label", "8A", "--notation", "both"}).out, "Am  \u00b7  8A\n");
  EXPECT_EQ(orvel({"key", "transpose", "Am", "-2"}).out, "Gm\n");
  EXPECT_EQ(orvel({"key", "label", "H"}).code, 1);
  EXPECT_EQ(orvel({"key", "label", "C", "--notation", "roman"}).code, 2);
}

}  // namespace
}  // namespace orvel::cli
