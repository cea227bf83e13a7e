#include "core/import/library_watcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <fstream>

#include "core/import/importer.h"
#include "core/testing/audio_files.h"
#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class LibraryWatcherTest : public testing::StoreTest {
 protected:
  // Waits until the watcher says it has something, or `timeout` passes.
  bool waitForPending(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return woke_.wait_for(lock, timeout, [&] { return std::exchange(pending_, false); });
  }
  std::function<void()> onPending() {
    return [this] {
      {
        std::lock_guard lock(mutex_);
        pending_ = true;
      }
      woke_.notify_all();
    };
  }

  std::mutex mutex_;
  std::condition_variable woke_;
  bool pending_ = false;
};

TEST_F(LibraryWatcherTest, KeepsItsOwnExtensionsAndDrainsOnlyNewFiles) {
  LibraryWatcher watcher(onPending(), nullptr);
  const std::string root = (dir_ / "Media").string();
  add(root + "/Known.mp3");
  watcher.noticed({root + "/Known.mp3", root + "/a.ogg", root + "/b.m4p", root + "/c.MP3",
                   root + "/d.aifc", root + "/e.flac", root + "/cover.jpg"});
  EXPECT_TRUE(waitForPending(std::chrono::milliseconds(0)));
  EXPECT_THAT(watcher.drain(db()), ElementsAre(fs::path(root + "/b.m4p"), fs::path(root + "/c.MP3"),
                                               fs::path(root + "/e.flac")));
  EXPECT_TRUE(watcher.drain(db()).empty());  // drained once

  watcher.noticed({root + "/f.ogg"});
  EXPECT_FALSE(waitForPending(std::chrono::milliseconds(0)));
}

TEST_F(LibraryWatcherTest, WatchesOnlyWhenSwitchedOnWithARoot) {
  const fs::path a = dir_ / "A", b = dir_ / "B";
  fs::create_directories(a);
  fs::create_directories(b);
  LibraryWatcher watcher(onPending());
  testing::LogCapture log;
  EXPECT_FALSE(watcher.start({false, a}));
  EXPECT_FALSE(watcher.start({true, std::nullopt}));
  EXPECT_FALSE(watcher.watching());
  EXPECT_TRUE(watcher.start({true, a}));
  EXPECT_THAT(log.text(), HasSubstr("watcher: watching " + a.string()));
  EXPECT_FALSE(watcher.restartIfChanged({true, a}));
  EXPECT_TRUE(watcher.restartIfChanged({true, b}));
  EXPECT_TRUE(watcher.watching());
  EXPECT_TRUE(watcher.restartIfChanged({false, b}));
  EXPECT_FALSE(watcher.watching());
  EXPECT_FALSE(watcher.start({true, dir_ / "missing"}));
  EXPECT_THAT(watcher.lastError(), HasSubstr("missing"));
}

// The path a user takes: a folder with a song is copied into the media root
// while the watcher runs; the song reaches the catalogue, an Ogg file does not.
TEST_F(LibraryWatcherTest, AFileCopiedIntoANewFolderIsImported) {
  const fs::path root = dir_ / "Media";
  fs::create_directories(root);
  testing::writeAudioFile(dir_ / "outside" / "song.mp3", testing::AudioFormat::mp3);
  testing::writeAudioFile(dir_ / "outside" / "other.ogg", testing::AudioFormat::ogg);
  LibraryWatcher watcher(onPending());
  ASSERT_TRUE(watcher.start({true, root}));

  const auto started = std::chrono::steady_clock::now();
  fs::create_directories(root / "New Album" / "CD1");
  fs::copy_file(dir_ / "outside" / "song.mp3", root / "New Album" / "CD1" / "song.mp3");
  fs::copy_file(dir_ / "outside" / "other.ogg", root / "New Album" / "CD1" / "other.ogg");

  std::vector<fs::path> imported;
  while (imported.empty() && std::chrono::steady_clock::now() - started < std::chrono::seconds(5)) {
    if (!waitForPending(std::chrono::milliseconds(100))) continue;
    const auto fresh = watcher.drain(db());
    Importer::ingest(fresh, db(), {});
    imported.insert(imported.end(), fresh.begin(), fresh.end());
  }
  const auto took = std::chrono::duration<double>(std::chrono::steady_clock::now() - started);
  EXPECT_THAT(imported, ElementsAre(root / "New Album" / "CD1" / "song.mp3"));
  EXPECT_TRUE(db().tracks().liveTrackId((root / "New Album" / "CD1" / "song.mp3").string()));
  EXPECT_LT(took.count(), 3.5) << "the song took " << took.count() << " s to arrive";

  // Anything later in the batch window arrives too, and still no Ogg file.
  fs::copy_file(dir_ / "outside" / "song.mp3", root / "New Album" / "again.mp3");
  ASSERT_TRUE(waitForPending(std::chrono::seconds(4)));
  EXPECT_THAT(watcher.drain(db()), ElementsAre(root / "New Album" / "again.mp3"));
  EXPECT_EQ(db().count("tracks"), 1);
}

}  // namespace
}  // namespace orvel
