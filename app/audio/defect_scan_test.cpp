#include "app/audio/defect_scan.h"

#include <gmock/gmock.h>

#include <fstream>

#include "app/audio/audio_file_writer.h"
#include "app/audio/testing/synth.h"
#include "core/testing/store_fixture.h"

namespace orvel::audio {
namespace {

using Defect = DefectScan::Defect;
using Kind = Defect::Kind;
using testing::addClick;
using testing::addDropout;
using testing::music;
using testing::MusicPiece;
using testing::sine;

std::vector<Defect> ofKind(const std::vector<Defect>& all, Kind kind) {
  std::vector<Defect> out;
  for (const Defect& d : all)
    if (d.kind == kind) out.push_back(d);
  return out;
}

Defect click(double at) {
  return {Kind::click, at, 300};
}

// Clicks at the running sums of `gaps`, starting at one second.
std::vector<Defect> clicksWithGaps(const std::vector<double>& gaps) {
  std::vector<Defect> out = {click(1.0)};
  for (double g : gaps) out.push_back(click(out.back().atSeconds + g));
  return out;
}

TEST(DefectScanTest, LengthLimitsAndDropoutBounds) {
  // Too short to judge: the same click is ignored in 4,096 samples and found
  // in one more.
  const int low = 8000;
  auto tone = sine(50, 4097.0 / low, low);
  ASSERT_EQ(tone.size(), 4097u);
  addClick(tone, 2000, 0.5, 1);
  EXPECT_EQ(DefectScan::analyse(tone, low).size(), 1u);
  tone.pop_back();
  EXPECT_TRUE(DefectScan::analyse(tone, low).empty());

  // Two seconds may hold clicks but no dropout: the first and last second
  // are not searched for silence.
  const int rate = 44100;
  auto twoSeconds = sine(330, 2.0, rate);
  addDropout(twoSeconds, size_t(0.95 * rate), size_t(0.1 * rate));
  addClick(twoSeconds, size_t(0.5 * rate), 0.5, 2);
  const auto shortFindings = DefectScan::analyse(twoSeconds, rate);
  EXPECT_TRUE(ofKind(shortFindings, Kind::dropout).empty());
  EXPECT_FALSE(ofKind(shortFindings, Kind::click).empty());

  // A dropout is longer than 10 ms and shorter than 250 ms, both strictly.
  const auto dropoutsWithRun = [&](size_t run) {
    auto samples = sine(330, 4.0, rate);
    addDropout(samples, size_t(1.5 * rate), run);
    return ofKind(DefectScan::analyse(samples, rate), Kind::dropout);
  };
  EXPECT_TRUE(dropoutsWithRun(441).empty());
  const auto justLonger = dropoutsWithRun(442);
  ASSERT_EQ(justLonger.size(), 1u);
  EXPECT_DOUBLE_EQ(justLonger[0].atSeconds, 1.5);
  EXPECT_NEAR(justLonger[0].severity, 442 / 44.1, 1e-9);
  EXPECT_EQ(dropoutsWithRun(11024).size(), 1u);
  // Its edges are steps the click detector would flag; they belong to the
  // dropout and are not listed again as clicks.
  auto stepped = sine(330, 4.0, rate);
  addDropout(stepped, size_t(1.5 * rate) + 17, 2000);
  EXPECT_EQ(DefectScan::analyse(stepped, rate).size(), 1u);
  EXPECT_TRUE(dropoutsWithRun(11025).empty());

  // Silence that runs into the last second is judged by the part before it.
  auto ending = sine(330, 3.0, rate);
  const size_t walkEnd = ending.size() - size_t(rate);
  std::fill(ending.begin() + long(walkEnd - 1000), ending.end(), 0.0f);
  const auto tail = ofKind(DefectScan::analyse(ending, rate), Kind::dropout);
  ASSERT_EQ(tail.size(), 1u);
  EXPECT_NEAR(tail[0].atSeconds, double(walkEnd - 1000) / rate, 1e-9);
  EXPECT_NEAR(tail[0].severity, 1000 / 44.1, 1e-9);
}

TEST(DefectScanTest, FindsAClickInMusicWhereItIsAndNothingInCleanMusic) {
  for (const MusicPiece& piece :
       {MusicPiece{.bpm = 124, .seconds = 8, .seed = 3},
        MusicPiece{.bpm = 98, .tonic = 9, .minor = true, .seconds = 8, .rate = 48000, .seed = 11},
        MusicPiece{.seconds = 8, .seed = 5, .drums = false}}) {
    SCOPED_TRACE(piece.rate + piece.seed);
    auto samples = music(piece);
    EXPECT_THAT(DefectScan::analyse(samples, piece.rate), ::testing::IsEmpty());

    // A third of a beat after a kick: drums leave room there for a click to
    // stand out (on a hi-hat or a snare it would not, and need not).
    const double at = (6 + 0.3) * 60 / piece.bpm;
    addClick(samples, size_t(at * piece.rate), 0.3, 2);
    const auto found = DefectScan::dropRhythmic(DefectScan::analyse(samples, piece.rate));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].kind, Kind::click);
    EXPECT_NEAR(found[0].atSeconds, at, 0.001);
    EXPECT_GT(found[0].severity, 250);
  }
}

TEST(DefectScanTest, ClicksOnAGridArePercussionAndAreDropped) {
  // Every half second, each up to 5 ms early or late: the intervals stay
  // within 6 % of the shortest.
  std::vector<Defect> steady;
  const double jitter[] = {0.004, -0.003, 0.0, 0.005, -0.005, 0.002, -0.001, 0.003};
  for (int k = 0; k < 12; ++k) steady.push_back(click(1.0 + 0.5 * k + jitter[k % 8]));
  steady.push_back({Kind::dropout, 2.2, 40});
  steady.push_back({Kind::dropout, 0.3, 20});
  const auto kept = DefectScan::dropRhythmic(steady);
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].atSeconds, 0.3);  // in time order
  EXPECT_EQ(kept[1].kind, Kind::dropout);

  // A missed beat is still on the grid.
  EXPECT_TRUE(DefectScan::dropRhythmic(clicksWithGaps({0.5, 1.0, 0.5, 1.5, 0.5})).empty());
  // Three clicks are enough to show a rhythm; two are not.
  EXPECT_TRUE(DefectScan::dropRhythmic(clicksWithGaps({0.6, 0.6})).empty());
  EXPECT_EQ(DefectScan::dropRhythmic(clicksWithGaps({0.6})).size(), 2u);

  // At least 70 % of the intervals must fit; 0.77 s is 1.54 beats of 0.5 s.
  const std::vector<double> seventy = {0.5, 0.77, 0.5, 0.5, 0.77, 0.5, 0.5, 0.77, 0.5, 0.5};
  EXPECT_TRUE(DefectScan::dropRhythmic(clicksWithGaps(seventy)).empty());
  const std::vector<double> sixty = {0.5, 0.77, 0.5, 0.77, 0.5, 0.5, 0.77, 0.5, 0.77, 0.5};
  EXPECT_EQ(DefectScan::dropRhythmic(clicksWithGaps(sixty)).size(), 11u);

  // Irregular damage, a grid slower than 2.5 s, and a grid drawn by one
  // crackle's close pairs are all damage.
  EXPECT_EQ(DefectScan::dropRhythmic(clicksWithGaps({0.7, 1.13, 0.41, 2.3, 0.97})).size(), 6u);
  EXPECT_EQ(DefectScan::dropRhythmic(clicksWithGaps({3.0, 3.0, 3.0})).size(), 4u);
  EXPECT_EQ(DefectScan::dropRhythmic(clicksWithGaps({0.05, 0.05, 0.05})).size(), 4u);
}

TEST(DefectScanTest, DropsRhythmicClicksFoundInMusic) {
  const int rate = 44100;
  auto samples = music({.bpm = 120, .seconds = 10, .seed = 2, .drums = false});
  // A rim shot on every beat that the click detector takes for damage.
  for (int beat = 2; beat < 18; ++beat) addClick(samples, size_t(beat * 0.5 * rate), 0.4, 1);
  addDropout(samples, size_t(4.2 * rate), size_t(0.05 * rate));
  const auto raw = DefectScan::analyse(samples, rate);
  EXPECT_GE(ofKind(raw, Kind::click).size(), 16u);
  const auto kept = DefectScan::dropRhythmic(raw);
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(kept[0].kind, Kind::dropout);
  EXPECT_NEAR(kept[0].atSeconds, 4.2, 1e-6);
}

TEST(DefectScanTest, JsonKeepsItsKeyOrder) {
  EXPECT_EQ((Defect{Kind::dropout, 1.5, 20}.toJson().dump()),
            R"({"kind":"dropout","atSeconds":1.5,"severity":20.0})");
  EXPECT_EQ((Defect{Kind::click, 0.25, 612.5}.toJson().dump()),
            R"({"kind":"click","atSeconds":0.25,"severity":612.5})");
}

class DefectScanStoreTest : public orvel::testing::StoreTest {};

TEST_F(DefectScanStoreTest, ScansAreStoredAndUnreadableFilesLeaveNoScan) {
  const int rate = 44100;
  const MusicPiece piece{.seconds = 6, .seed = 4, .drums = false};
  auto samples = music(piece);
  addClick(samples, size_t(2.5 * rate), 0.2, 2);
  addClick(samples, size_t(4.25 * rate), 0.4, 1);
  const auto wav = dir_ / "damaged.wav";
  ASSERT_TRUE(writeWav(wav, samples, rate, WavSample::float32));
  const int64_t track = add(wav.string());

  const auto found = DefectScan::scanTrack(db(), track, wav);
  ASSERT_TRUE(found) << found.error();
  ASSERT_EQ(found->size(), 2u);
  const auto rows = db().analysis().defects(track);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].kind, "click");
  EXPECT_NEAR(rows[0].positionMs, 2500, 1);
  EXPECT_NEAR(rows[1].positionMs, 4250, 1);
  EXPECT_DOUBLE_EQ(rows[1].severity, (*found)[1].severity);

  // The file mended: its rescan clears the findings but stays on record.
  ASSERT_TRUE(writeWav(wav, music(piece), rate, WavSample::float32));
  const auto clean = DefectScan::scanTrack(db(), track, wav);
  ASSERT_TRUE(clean) << clean.error();
  EXPECT_TRUE(clean->empty());
  EXPECT_TRUE(db().analysis().defects(track).empty());
  EXPECT_THAT(db().analysis().scannedTracks(), ::testing::ElementsAre(track));

  // Findings made elsewhere (the one-pass analysis) come back as they went in.
  const std::vector<Defect> made = {{Kind::dropout, 3.5, 42.5}, {Kind::click, 1.25, 310}};
  const Status recorded = DefectScan::record(db(), track, made);
  ASSERT_TRUE(recorded) << recorded.message();
  EXPECT_EQ(db().analysis().defects(track)[1].kind, "dropout");
  EXPECT_DOUBLE_EQ(db().analysis().defects(track)[1].positionMs, 3500);
  const auto back = DefectScan::stored(db(), track);
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].kind, Kind::click);
  EXPECT_DOUBLE_EQ(back[0].atSeconds, 1.25);
  EXPECT_EQ(back[1].kind, Kind::dropout);
  EXPECT_DOUBLE_EQ(back[1].severity, 42.5);

  const auto junk = dir_ / "junk.mp3";
  std::ofstream(junk) << "not audio at all";
  const int64_t other = add(junk.string());
  EXPECT_EQ(DefectScan::scanTrack(db(), other, junk).error(), "the audio could not be read");
  EXPECT_FALSE(DefectScan::scanTrack(db(), other, dir_ / "gone.flac"));
  EXPECT_THAT(db().analysis().scannedTracks(), ::testing::ElementsAre(track));
}

}  // namespace
}  // namespace orvel::audio
