#include "app/audio/key_finder_helper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include "app/audio/audio_file_writer.h"
#include "app/audio/decoder.h"
#include "app/audio/subprocess.h"
#include "app/audio/testing/synth.h"
#include "core/testing/temp_dir.h"

namespace orvel::audio {
namespace {

using testing::music;

// Points the system's temporary folder at one of the test's own, so the test
// sees whatever the runner leaves behind.
class ScopedTmpDir {
 public:
  explicit ScopedTmpDir(const std::filesystem::path& dir) {
    if (const char* old = std::getenv("TMPDIR")) old_ = old;
    setenv("TMPDIR", dir.c_str(), 1);
  }
  ~ScopedTmpDir() { old_ ? setenv("TMPDIR", old_->c_str(), 1) : unsetenv("TMPDIR"); }

 private:
  std::optional<std::string> old_;
};

size_t entries(const std::filesystem::path& dir) {
  return size_t(std::distance(std::filesystem::directory_iterator(dir), {}));
}

// Where qm-dsp is missing there is no helper program to run.
#ifdef ORVEL_KEYFINDER
const std::filesystem::path kKeyFinder = ORVEL_KEYFINDER;

TEST(KeyFinderProgram, PrintsTheKeyOfWavFiles) {
  orvel::testing::TempDir dir;
  const auto run = [](std::vector<std::string> args) {
    args.insert(args.begin(), kKeyFinder.string());
    return runProcess(args, 60).value_or(ProcessResult{});
  };
  // Mono float at 44.1 kHz as the app writes it; 16-bit stereo at 48 kHz,
  // each channel voiced differently; and less than one block of the estimator.
  ASSERT_TRUE(writeWav(dir / "a.wav", music({.bpm = 124, .tonic = 6, .seconds = 20}), 44100,
                       WavSample::float32));
  const std::vector<std::vector<float>> stereo = {
      music({.tonic = 3, .minor = true, .seconds = 20, .rate = 48000, .seed = 4}),
      music({.tonic = 3, .minor = true, .seconds = 20, .rate = 48000, .seed = 5, .drums = false})};
  ASSERT_TRUE(writeWav(dir / "b.wav", stereo, 48000));
  ASSERT_TRUE(writeWav(dir / "c.wav", music({.tonic = 9, .minor = true, .seconds = 0.5}), 44100,
                       WavSample::float32));
  for (const auto& [file, key] :
       {std::pair{"a.wav", "F#\n"}, {"b.wav", "Ebm\n"}, {"c.wav", "Am\n"}}) {
    const auto r = run({(dir / file).string()});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(r.out, key);
  }

  // Nothing to hear or nothing readable: one line on stderr, exit 1.
  ASSERT_TRUE(writeWav(dir / "silent.wav", std::vector<float>(44100 * 5, 0.0f), 44100));
  std::ofstream(dir / "junk.wav") << "RIFF, but not really";
  for (const char* name : {"silent.wav", "junk.wav", "absent.wav"}) {
    const auto r = run({(dir / name).string()});
    EXPECT_EQ(r.exitStatus, 1) << name;
    EXPECT_EQ(r.out, "") << name;
    EXPECT_THAT(r.err, ::testing::MatchesRegex("orvel-keyfinder: [^\n]+\n")) << name;
  }

  // Usage: asked for, on stdout; wrong, on stderr with exit 2.
  auto r = run({"--help"});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_THAT(r.out, ::testing::StartsWith("usage: orvel-keyfinder"));
  for (const auto& args : std::vector<std::vector<std::string>>{{}, {"a.wav", "b.wav"}, {""}}) {
    r = run(args);
    EXPECT_EQ(r.exitStatus, 2) << args.size();
    EXPECT_THAT(r.err, ::testing::StartsWith("usage: orvel-keyfinder"));
  }
}

TEST(KeyFinderHelper, RunsTheHelperOnAFileOrDecodedAudio) {
  orvel::testing::TempDir dir;
  const ScopedTmpDir tmp(dir.path());
  // 16-bit at 48 kHz: decoded and resampled before the helper sees it.
  ASSERT_TRUE(writeWav(dir / "track.wav",
                       music({.tonic = 2, .minor = true, .seconds = 20, .rate = 48000}), 48000));
  EXPECT_EQ(KeyFinderHelper::key(dir / "track.wav", kKeyFinder), "Dm");
  EXPECT_EQ(KeyFinderHelper::key(music({.bpm = 100, .tonic = 8, .seconds = 20}), kKeyFinder), "Ab");
  EXPECT_FALSE(KeyFinderHelper::key(dir / "absent.mp3", kKeyFinder));
  EXPECT_FALSE(KeyFinderHelper::key(std::span<const float>{}, kKeyFinder));
  EXPECT_EQ(entries(dir.path()), 1u) << "a temporary file was left behind";
}
#endif

TEST(KeyFinderHelper, TakesOnlyAClearAnswerAndCleansUp) {
  orvel::testing::TempDir dir;
  const ScopedTmpDir tmp(dir.path());
  const auto work = dir / "work";
  std::filesystem::create_directory(work);
  const auto piece = music({.tonic = 0, .seconds = 3});
  ASSERT_TRUE(writeWav(work / "in.wav", piece, 44100));

  // A stand-in helper: notes the path it was given, keeps a copy of the
  // file, then answers as told.
  const auto fake = [&](const std::string& name, const std::string& body, bool executable = true) {
    const auto path = work / name;
    std::ofstream(path) << "#!/bin/sh\nprintf '%s' \"$1\" > '" << (work / "arg").string()
                        << "'\ncp \"$1\" '" << (work / "seen.wav").string() << "'\n"
                        << body << "\n";
    ::chmod(path.c_str(), executable ? 0755 : 0644);
    return path;
  };
  const auto given = [&] {
    std::string path;
    std::ifstream(work / "arg") >> path;
    return std::filesystem::path(path);
  };

  EXPECT_EQ(KeyFinderHelper::key(piece, fake("spaced", "printf '  Am \\n'")), "Am");
  EXPECT_EQ(given().parent_path(), dir.path());
  EXPECT_EQ(given().extension(), ".wav");
  EXPECT_FALSE(std::filesystem::exists(given()));
  // What the helper saw: the audio, as float mono at 44.1 kHz.
  const auto seen = Decoder::decodeMono(work / "seen.wav");
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->rate, 44100);
  ASSERT_EQ(seen->samples.size(), piece.size());
  for (size_t i = 0; i < piece.size(); i += 1001) EXPECT_FLOAT_EQ(seen->samples[i], piece[i]);

  // From a file too; any spelling of a key comes back in the catalogue's.
  EXPECT_EQ(KeyFinderHelper::key(work / "in.wav", fake("camelot", "echo 8A")), "Am");
  EXPECT_FALSE(std::filesystem::exists(given()));

  // Failures, empty or stray answers, helpers that are not programs.
  EXPECT_FALSE(KeyFinderHelper::key(piece, fake("fails", "echo Am; exit 1")));
  EXPECT_FALSE(KeyFinderHelper::key(piece, fake("blank", "echo '   '")));
  EXPECT_FALSE(KeyFinderHelper::key(piece, fake("chatty", "echo 'no idea'")));
  EXPECT_FALSE(KeyFinderHelper::key(piece, fake("killed", "kill -9 $$")));
  std::filesystem::remove(work / "arg");
  EXPECT_FALSE(KeyFinderHelper::key(piece, fake("plain", "echo Am", false)));
  EXPECT_FALSE(KeyFinderHelper::key(work / "in.wav", fake("plain", "echo Am", false)));
  EXPECT_FALSE(KeyFinderHelper::key(piece, work / "absent"));
  EXPECT_FALSE(KeyFinderHelper::key(piece, work));
  EXPECT_FALSE(std::filesystem::exists(work / "arg")) << "a helper that is not a program ran";

  EXPECT_EQ(entries(dir.path()), 1u) << "a temporary file was left behind";
}

}  // namespace
}  // namespace orvel::audio
