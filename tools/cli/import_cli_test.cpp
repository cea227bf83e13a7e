// orvel import, watch and config, end to end.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "core/testing/audio_files.h"
#include "tools/cli/cli_fixture.h"

extern char** environ;

namespace orvel::cli {
namespace {

namespace fs = std::filesystem;
using orvel::testing::AudioFormat;
using orvel::testing::AudioTags;
using ::testing::HasSubstr;

class ImportCliTest : public CliTest {
 protected:
  fs::path in(const std::string& rel) { return dir_ / "in" / rel; }
  AudioTags tags(const std::string& artist, const std::string& album) {
    AudioTags t;
    t.artist = artist;
    t.album = album;
    return t;
  }
};

TEST_F(ImportCliTest, ImportsATreeAndReportsWhatIsAlreadyThere) {
  testing::writeAudioFile(in("a/one.mp3"), AudioFormat::mp3);
  testing::writeAudioFile(in("a/b/two.FLAC"), AudioFormat::flac);
  testing::writeAudioFile(in("a/b/c/three.m4a"), AudioFormat::m4a);
  std::ofstream(in("a/clip.m4v")) << "video";

  const Result first = orvel({"import", in("a").string()});
  EXPECT_EQ(first.code, 0) << first.err;
  EXPECT_EQ(first.out, "Added 3\n");
  EXPECT_EQ(first.err, "");  // no progress bar into a stream that is not a terminal

  const json again = orvelJson({"import", in("a").string(), in("a/one.mp3").string()});
  EXPECT_EQ(again["added"].size(), 0u);
  EXPECT_EQ(again["dupes"], 3);
  EXPECT_EQ(orvel({"import", in("a").string()}).out, "Added 0 · 3 already here\n");
  EXPECT_EQ(orvelJson({"ls"}).size(), 6u);  // the fixture's three and these
}

TEST_F(ImportCliTest, BadInputIsRefusedOrReportedFileByFile) {
  const Result missing = orvel({"import", (dir_ / "nowhere").string()});
  EXPECT_EQ(missing.code, 1);
  EXPECT_THAT(missing.err, HasSubstr("no such file or folder"));

  const Result noRoot = orvel({"import", "--copy", dir_.path().string()});
  EXPECT_EQ(noRoot.code, 2);
  EXPECT_THAT(noRoot.err, HasSubstr("--copy needs a media root"));

  testing::writeAudioFile(in("good.mp3"), AudioFormat::mp3);
  std::ofstream(in("empty.mp3")).flush();
  const Result mixed = orvel({"import", in("").parent_path().string()});
  EXPECT_EQ(mixed.code, 1);
  EXPECT_EQ(mixed.out, "Added 1\n");
  EXPECT_THAT(mixed.err,
              HasSubstr("cannot import " + in("empty.mp3").string() + ": the file is empty"));
  EXPECT_THAT(mixed.err, HasSubstr("1 file could not be imported"));

  // A Linux file name need not be UTF-8; the listing must still be JSON.
  testing::writeAudioFile(in("odd/caf\xE9.mp3"), AudioFormat::mp3);
  EXPECT_EQ(orvel({"import", in("odd").string()}).out, "Added 1\n");
  const json all = orvelJson({"ls"});
  EXPECT_EQ(all.size(), 5u);
}

TEST_F(ImportCliTest, WhatHoldsNoAudioIsRefusedWithItsReasonAndALockIsOneLine) {
  fs::create_directories(in("mixed"));
  std::ofstream(in("notes.xml")) << "<plist/>";
  const Result xml = orvel({"import", in("notes.xml").string()});
  EXPECT_EQ(xml.code, 1);
  EXPECT_EQ(xml.out, "Added 0\n");
  EXPECT_THAT(xml.err, HasSubstr("notes.xml: not an audio file Orvel imports"));

  // Text and a database under audio names are not tracks.
  std::ofstream(in("mixed/notes.mp3")) << "these are my set notes, not a song\n";
  fs::copy_file(dbPath(), in("mixed/library.flac"));
  testing::writeAudioFile(in("mixed/real.mp3"), AudioFormat::mp3);
  const Result mixed = orvel({"import", in("mixed").string()});
  EXPECT_EQ(mixed.code, 1);
  EXPECT_EQ(mixed.out, "Added 1\n");
  EXPECT_THAT(mixed.err, HasSubstr("notes.mp3: it holds no audio that can be played"));
  EXPECT_THAT(mixed.err, HasSubstr("library.flac: it holds no audio that can be played"));

  // Another program holds the catalogue: one line with the cause, not one per file.
  for (int i = 0; i < 5; ++i)
    testing::writeAudioFile(in("lots/" + std::to_string(i) + ".wav"), AudioFormat::wav);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(dbPath().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  const Result locked = orvel({"--busy-timeout", "100", "import", in("lots").string()});
  sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(other);
  EXPECT_EQ(locked.code, 1);
  EXPECT_EQ(std::count(locked.err.begin(), locked.err.end(), '\n'), 1) << locked.err;
  EXPECT_THAT(locked.err, HasSubstr("another program is writing the catalogue"));
  EXPECT_THAT(locked.err, HasSubstr("5 files not imported"));
}

TEST_F(ImportCliTest, CopiesIntoTheMediaRootGivenOrConfigured) {
  testing::writeAudioFile(in("x.mp3"), AudioFormat::mp3, tags("AC/DC: Live", "Highway"));
  const fs::path media = dir_ / "Media";
  EXPECT_EQ(orvel({"import", "--copy", "--media-root", media.string(), in("x.mp3").string()}).code,
            0);
  EXPECT_TRUE(fs::exists(media / "AC-DC- Live" / "Highway" / "x.mp3"));

  fs::create_directories(dir_ / "Other");
  EXPECT_EQ(orvel({"config", "mediaRoot", (dir_ / "Other").string()}).code, 0);
  EXPECT_EQ(orvel({"import", "--copy", in("x.mp3").string()}).out, "Added 1\n");
  EXPECT_TRUE(fs::exists(dir_ / "Other" / "AC-DC- Live" / "Highway" / "x.mp3"));
}

TEST_F(ImportCliTest, ConfigShowsChecksAndChangesSettings) {
  fs::create_directories(dir_ / "Music");
  const Result set = orvel({"config", "mediaRoot", (dir_ / "Music").string()});
  EXPECT_EQ(set.code, 0) << set.err;
  EXPECT_EQ(orvel({"config", "mediaRoot"}).out, (dir_ / "Music").string() + "\n");
  EXPECT_EQ(orvel({"config", "watchMusicFolder", "on"}).code, 0);
  EXPECT_EQ(orvelJson({"config"})["watchMusicFolder"], "true");

  EXPECT_EQ(orvel({"config", "watchMusicFolder", "maybe"}).code, 2);
  EXPECT_EQ(orvel({"config", "mediaRoot", (dir_ / "nowhere").string()}).code, 1);
  const Result unknown = orvel({"config", "colour"});
  EXPECT_EQ(unknown.code, 2);
  EXPECT_THAT(unknown.err, HasSubstr("no setting named \"colour\""));
  EXPECT_EQ(orvel({"config", "mediaRoot"}).out, (dir_ / "Music").string() + "\n");  // unchanged

  EXPECT_EQ(orvel({"config", "--unset", "watchMusicFolder"}).out, "watchMusicFolder = false\n");
  const Result off = orvel({"watch"});
  EXPECT_EQ(off.code, 1);
  EXPECT_THAT(off.err, HasSubstr("orvel config watchMusicFolder true"));
}

// `orvel watch` as a user runs it: in the foreground, until Ctrl-C.
TEST_F(ImportCliTest, WatchImportsNewFilesUntilInterrupted) {
  const fs::path media = dir_ / "Media";
  fs::create_directories(media);
  ASSERT_EQ(orvel({"config", "mediaRoot", media.string()}).code, 0);
  ASSERT_EQ(orvel({"config", "watchMusicFolder", "true"}).code, 0);
  testing::writeAudioFile(in("song.mp3"), AudioFormat::mp3, tags("Floorplan", "Victorious"));

  const std::string outFile = (dir_ / "watch.out").string(), db = dbPath();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  const char* argv[] = {ORVEL_BINARY, "--db", db.c_str(), "watch", nullptr};
  pid_t child = 0;
  ASSERT_EQ(posix_spawn(&child, ORVEL_BINARY, &actions, nullptr, const_cast<char**>(argv), environ),
            0);
  posix_spawn_file_actions_destroy(&actions);

  auto output = [&] {
    std::ifstream f(outFile);
    return std::string(std::istreambuf_iterator<char>(f), {});
  };
  const auto until = [](auto done) {
    const auto start = std::chrono::steady_clock::now();
    while (!done() && std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return done();
  };
  ASSERT_TRUE(until([&] { return output().find("Watching") != std::string::npos; })) << output();
  fs::create_directories(media / "Floorplan");
  fs::copy_file(in("song.mp3"), media / "Floorplan" / "song.mp3");
  EXPECT_TRUE(until([&] { return output().find("Added 1") != std::string::npos; })) << output();

  kill(child, SIGINT);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_THAT(output(), HasSubstr("+ Floorplan – song"));
  EXPECT_THAT(output(), HasSubstr("Stopped"));
  EXPECT_EQ(orvelJson({"ls", "--search", "Floorplan"}).size(), 2u);  // with the fixture's own
}

}  // namespace
}  // namespace orvel::cli
