#include "app/audio/defect_repair.h"

#include <gmock/gmock.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include "app/audio/audio_file_writer.h"
#include "app/audio/subprocess.h"
#include "app/audio/testing/synth.h"
#include "core/testing/audio_files.h"
#include "core/testing/temp_dir.h"

namespace orvel::audio {
namespace {

using Defect = DefectScan::Defect;
using Kind = Defect::Kind;
using testing::addClick;
using testing::addDropout;
using testing::music;
using testing::sine;
namespace fs = std::filesystem;

RepairTools tools() {
  return {
      "/usr/bin/env", {"python3"}, fs::path(ORVEL_SOURCE_DIR) / "resources/scripts/fix_encode.py"};
}

std::string bytesOf(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

double rmsError(std::span<const float> a, std::span<const float> b, size_t from, size_t to) {
  double sum = 0;
  for (size_t i = from; i < to; ++i) sum += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
  return std::sqrt(sum / double(to - from));
}

// The system's temporary folder is the test's own while it runs, so the test
// sees whether a repair leaves anything behind there.
class DefectRepairTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* old = std::getenv("TMPDIR")) oldTmp = old;
    fs::create_directories(tmp);
    setenv("TMPDIR", tmp.c_str(), 1);
  }
  void TearDown() override {
    if (oldTmp)
      setenv("TMPDIR", oldTmp->c_str(), 1);
    else
      unsetenv("TMPDIR");
  }
  orvel::testing::TempDir dir;
  fs::path tmp = dir / "tmp";
  std::optional<std::string> oldTmp;
};

TEST_F(DefectRepairTest, FixNamesCountUpPastCopiesThatExist) {
  const fs::path source = dir / "Set A.v2.mp3";
  EXPECT_EQ(DefectRepair::fixName(source), dir / "Set A.v2 (fix).mp3");
  std::ofstream(dir / "Set A.v2 (fix).mp3") << "x";
  EXPECT_EQ(DefectRepair::fixName(source), dir / "Set A.v2 (fix 2).mp3");
  std::ofstream(dir / "Set A.v2 (fix 2).mp3") << "x";
  fs::create_symlink(dir / "nowhere", dir / "Set A.v2 (fix 3).mp3");  // a dangling link
  EXPECT_EQ(DefectRepair::fixName(source), dir / "Set A.v2 (fix 4).mp3");
  EXPECT_EQ(DefectRepair::fixName(dir / "Track.flac"), dir / "Track (fix).flac");
}

TEST_F(DefectRepairTest, MendedClicksAreCloserToTheCleanAudio) {
  const int rate = 44100;
  struct Case {
    const char* what;
    std::vector<float> clean;
    double height;
    int width;
  };
  const std::vector<Case> cases = {
      {"sine", sine(440, 2.0, rate), 0.4, 2},
      {"music", music({.bpm = 126, .seconds = 4, .seed = 6}), 0.3, 3},
      {"pads", music({.seconds = 4, .seed = 8, .drums = false}), 0.1, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const size_t at = size_t(1.3 * rate);
    std::vector<float> damaged = c.clean;
    addClick(damaged, at, c.height, c.width);
    // The same click in both channels, the right one quieter, as a scratch
    // on a record lands.
    std::vector<float> right = damaged;
    for (float& x : right) x *= 0.5f;
    MultiChannelAudio audio{{damaged, right}, rate};
    const Defect found{Kind::click, double(at + 1) / rate, 400};  // detection lags a sample

    const auto gap = DefectRepair::gapOf(audio, found);
    EXPECT_LE(gap.begin, at);
    EXPECT_GE(gap.end, at + size_t(c.width));
    EXPECT_LE(gap.end - gap.begin, size_t(c.width) + 4);  // only the damage, not its surroundings

    DefectRepair::mend(audio, std::vector<Defect>{found});
    const size_t from = at - 4, to = at + size_t(c.width) + 4;
    const double before = rmsError(damaged, c.clean, from, to);
    const double after = rmsError(audio.channels[0], c.clean, from, to);
    std::cout << c.what << " click repair error: before " << before << ", after " << after << "\n";
    EXPECT_LT(after, before / 10);
    // Both channels mended, and nothing outside the gap touched.
    for (size_t i = 0; i < damaged.size(); ++i) {
      if (i >= gap.begin && i < gap.end) {
        ASSERT_NEAR(audio.channels[1][i], audio.channels[0][i] / 2, 1e-4) << i;
        continue;
      }
      ASSERT_EQ(audio.channels[0][i], damaged[i]) << i;
      ASSERT_EQ(audio.channels[1][i], right[i]) << i;
    }
    EXPECT_THAT(DefectScan::analyse(audio.channels[0], rate), ::testing::IsEmpty());
  }
}

TEST_F(DefectRepairTest, DropoutsAreBridgedWithinTheNeighboursRange) {
  const int rate = 44100;
  for (const double seconds : {0.012, 0.08, 0.24}) {
    SCOPED_TRACE(seconds);
    const std::vector<float> clean = music({.bpm = 122, .seconds = 5, .seed = 9});
    std::vector<float> damaged = clean;
    const size_t at = size_t(2.1 * rate), length = size_t(seconds * rate);
    addDropout(damaged, at, length);
    const auto findings = DefectScan::analyse(damaged, rate);
    const auto dropouts = std::count_if(findings.begin(), findings.end(),
                                        [](const Defect& d) { return d.kind == Kind::dropout; });
    ASSERT_EQ(dropouts, 1);

    MultiChannelAudio audio{{damaged, damaged}, rate};
    DefectRepair::mend(audio, findings);
    const auto& out = audio.channels[0];
    // The neighbours: as long as the gap on either side, at least 50 ms.
    const size_t around = std::max(length, size_t(0.05 * rate));
    float peak = 0;
    for (size_t i = at - around; i < at + length + around; ++i)
      if (i < at || i >= at + length) peak = std::max(peak, std::abs(out[i]));
    size_t zeros = 0, longestZeros = 0;
    for (size_t i = at; i < at + length; ++i) {
      zeros = out[i] == 0.0f ? zeros + 1 : 0;
      longestZeros = std::max(longestZeros, zeros);
      ASSERT_LE(std::abs(out[i]), peak * 1.05f) << i;
    }
    EXPECT_LE(longestZeros, 2u);
    EXPECT_EQ(audio.channels[1], out);
    // The bridged audio scans clean: no step at either edge, no hole inside.
    EXPECT_THAT(DefectScan::analyse(out, rate), ::testing::IsEmpty());
  }
}

TEST_F(DefectRepairTest, RepairsAWavIntoALosslessCopyAndLeavesTheSourceAlone) {
  const int rate = 44100;
  std::vector<float> left = music({.bpm = 118, .seconds = 4, .seed = 12});
  std::vector<float> right = music({.bpm = 118, .seconds = 4, .seed = 13});
  addClick(left, size_t(1.7 * rate), 0.4, 2);
  addClick(right, size_t(1.7 * rate), 0.4, 2);
  const fs::path source = dir / "Deep Cut.wav";
  ASSERT_TRUE(writeWav(source, std::vector<std::vector<float>>{left, right}, rate));
  const std::string original = bytesOf(source);

  const auto mono = DefectScan::decodeMono(source);
  ASSERT_TRUE(mono);
  const auto findings = DefectScan::analyse(mono->samples, mono->rate);
  ASSERT_EQ(findings.size(), 1u);

  const RepairResult first = DefectRepair::repair(source, findings, tools());
  ASSERT_TRUE(first.ok) << first.message;
  EXPECT_EQ(first.output, dir / "Deep Cut (fix).wav");
  EXPECT_TRUE(first.lossless);
  EXPECT_EQ(first.message, "Saved “Deep Cut (fix).wav” — kept lossless");
  EXPECT_EQ(bytesOf(source), original);
  EXPECT_TRUE(fs::is_empty(tmp));

  const auto info = Decoder::probe(first.output);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->codec, "pcm_s16le");
  EXPECT_EQ(info->rate, rate);
  EXPECT_EQ(info->channels, 2);
  const auto fixed = Decoder::decodeMono(first.output);
  ASSERT_TRUE(fixed);
  EXPECT_EQ(fixed->samples.size(), mono->samples.size());
  EXPECT_THAT(DefectScan::analyse(fixed->samples, fixed->rate), ::testing::IsEmpty());

  const RepairResult second = DefectRepair::repair(source, findings, tools());
  ASSERT_TRUE(second.ok) << second.message;
  EXPECT_EQ(second.output, dir / "Deep Cut (fix 2).wav");
  EXPECT_EQ(bytesOf(source), original);
}

TEST_F(DefectRepairTest, RepairsAnMp3IntoALossyCopyWithItsTags) {
  const fs::path source = dir / "Tune.mp3";
  orvel::testing::AudioTags tags;
  tags.title = "Night Drive";
  tags.artist = "Kazu";
  orvel::testing::writeAudioFile(source, orvel::testing::AudioFormat::mp3, tags);
  const std::string original = bytesOf(source);
  const auto info = Decoder::probe(source);
  ASSERT_TRUE(info);

  const std::vector<Defect> findings = {{Kind::click, 1.0, 300}};
  const RepairResult result = DefectRepair::repair(source, findings, tools());
  ASSERT_TRUE(result.ok) << result.message;
  EXPECT_FALSE(result.lossless);
  EXPECT_EQ(result.message, "Saved “Tune (fix).mp3”");
  EXPECT_EQ(bytesOf(source), original);
  const auto fixed = Decoder::probe(result.output);
  ASSERT_TRUE(fixed);
  EXPECT_THAT(fixed->codec, ::testing::StartsWith("mp3"));  // FFmpeg's decoder: "mp3float"
  EXPECT_EQ(fixed->rate, info->rate);
  EXPECT_EQ(fixed->channels, info->channels);
  EXPECT_TRUE(Decoder::decodeMono(result.output));

  const auto probe =
      runProcess({"/usr/bin/env", "ffprobe", "-v", "error", "-show_entries",
                  "format_tags=title,artist", "-of", "compact=p=0:nk=1", result.output.string()});
  ASSERT_TRUE(probe);
  EXPECT_THAT(probe->out, ::testing::HasSubstr("Night Drive"));
  EXPECT_THAT(probe->out, ::testing::HasSubstr("Kazu"));
}

TEST_F(DefectRepairTest, FailuresSayWhatWentWrongAndWriteNothing) {
  const std::vector<Defect> findings = {{Kind::click, 0.5, 300}};

  std::ofstream(dir / "junk.wav") << "RIFF, but nothing else";
  const RepairResult unreadable = DefectRepair::repair(dir / "junk.wav", findings, tools());
  EXPECT_FALSE(unreadable.ok);
  EXPECT_EQ(unreadable.message, "Could not read the audio");

  const fs::path source = dir / "ok.wav";
  ASSERT_TRUE(writeWav(source, sine(440, 1.0, 22050), 22050));
  const RepairResult clean = DefectRepair::repair(source, {}, tools());
  EXPECT_FALSE(clean.ok);
  EXPECT_EQ(clean.message, "Nothing damaged to repair");

  RepairTools broken = tools();
  broken.script = dir / "missing_script.py";
  const RepairResult failed = DefectRepair::repair(source, findings, broken);
  EXPECT_FALSE(failed.ok);
  EXPECT_EQ(failed.message, "fix_encode failed for " + source.string());
  EXPECT_TRUE(failed.output.empty());
  EXPECT_FALSE(fs::exists(dir / "ok (fix).wav"));
  EXPECT_TRUE(fs::is_empty(tmp));

  // The script on its own: wrong usage, and a copy that already exists.
  const auto script = tools().script.string();
  const auto usage = runProcess({"/usr/bin/env", "python3", script, "only-one"});
  ASSERT_TRUE(usage);
  EXPECT_EQ(usage->exitStatus, 2);
  std::ofstream(dir / "taken.wav") << "mine";
  const auto taken = runProcess({"/usr/bin/env", "python3", script, source.string(),
                                 source.string(), (dir / "taken.wav").string()});
  ASSERT_TRUE(taken);
  EXPECT_EQ(taken->exitStatus, 1);
  EXPECT_EQ(bytesOf(dir / "taken.wav"), "mine");
  EXPECT_EQ(std::count(taken->err.begin(), taken->err.end(), '\n'), 1);
}

}  // namespace
}  // namespace orvel::audio
