#include "core/import/folder_watcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <ctime>
#include <fstream>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "core/testing/temp_dir.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

void writeFile(const fs::path& path, const char* text = "x") {
  std::ofstream(path, std::ios::binary | std::ios::app) << text;
}

size_t openFds() {
  return static_cast<size_t>(std::distance(fs::directory_iterator("/dev/fd"), {}));
}

// Batches as the watcher's thread hands them over, for the test thread to wait on.
class Batches {
 public:
  struct Received {
    Clock::time_point at;
    std::vector<std::string> paths;
  };

  FolderWatcher::Batch sink() {
    return [this](std::vector<std::string> paths) {
      std::lock_guard lock(mutex_);
      got_.push_back({Clock::now(), std::move(paths)});
      changed_.notify_all();
    };
  }
  // The batch numbered `index` (from 0), once it has come.
  std::optional<Received> at(size_t index, std::chrono::milliseconds timeout = 5s) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [&] { return got_.size() > index; })) return {};
    return got_[index];
  }
  // True once every one of `paths` has been reported, in any batch.
  bool waitFor(const std::set<std::string>& paths, std::chrono::milliseconds timeout = 5s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
      const auto seen = allLocked();
      return std::includes(seen.begin(), seen.end(), paths.begin(), paths.end());
    });
  }
  std::set<std::string> all() {
    std::lock_guard lock(mutex_);
    return allLocked();
  }

 private:
  std::set<std::string> allLocked() const {
    std::set<std::string> seen;
    for (const auto& batch : got_) seen.insert(batch.paths.begin(), batch.paths.end());
    return seen;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Received> got_;
};

class FolderWatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(root_);
    fs::create_directories(outside_);
    ASSERT_NE(watcher_, nullptr);
  }
  bool start(std::chrono::milliseconds latency = 200ms) {
    return watcher_->start(root_, latency, batches_.sink());
  }
  std::string in(const fs::path& rel) const { return (root_ / rel).string(); }

  testing::TempDir dir_;
  const fs::path root_ = dir_ / "music";
  const fs::path outside_ = dir_ / "elsewhere";
  Batches batches_;
  // Declared last so it stops before what its callback uses goes away.
  std::unique_ptr<FolderWatcher> watcher_ = FolderWatcher::create();
};

TEST_F(FolderWatcherTest, FilesInFoldersMadeAfterStartAreReported) {
  ASSERT_TRUE(start()) << watcher_->lastError();
  // Written straight after mkdir: most land before the watcher has seen the
  // new folder, so they are only found by looking into it.
  std::set<std::string> wanted;
  for (int i = 0; i < 20; ++i) {
    const fs::path folder = root_ / ("new" + std::to_string(i)) / "sub";
    fs::create_directories(folder);
    writeFile(folder / "track.mp3");
    wanted.insert((folder / "track.mp3").string());
  }
  // A whole tree moved in raises no event for the files inside it.
  fs::create_directories(outside_ / "album" / "cd1");
  writeFile(outside_ / "album" / "cd1" / "a.flac");
  fs::rename(outside_ / "album", root_ / "album");
  wanted.insert(in("album/cd1/a.flac"));
  ASSERT_TRUE(batches_.waitFor(wanted));
  // The moved-in tree is watched from now on.
  writeFile(root_ / "album" / "cd1" / "b.flac");
  wanted.insert(in("album/cd1/b.flac"));
  ASSERT_TRUE(batches_.waitFor(wanted));
  EXPECT_EQ(batches_.all(), wanted);  // files only, no folders
}

TEST_F(FolderWatcherTest, RenamesAndFolderMovesReportCurrentPaths) {
  writeFile(outside_ / "in.mp3");
  fs::create_directories(root_ / "a" / "deep");
  writeFile(root_ / "a" / "deep" / "f.mp3");
  ASSERT_TRUE(start());
  fs::rename(outside_ / "in.mp3", root_ / "in.mp3");
  ASSERT_TRUE(batches_.at(0));
  EXPECT_EQ(batches_.at(0)->paths, std::vector{in("in.mp3")});
  fs::rename(root_ / "in.mp3", root_ / "renamed.mp3");
  ASSERT_TRUE(batches_.at(1));
  EXPECT_EQ(batches_.at(1)->paths, std::vector{in("renamed.mp3")});

  fs::rename(root_ / "a", root_ / "b");
  writeFile(root_ / "b" / "deep" / "g.mp3");
  ASSERT_TRUE(batches_.waitFor({in("b/deep/f.mp3"), in("b/deep/g.mp3")}));
  // Moved out: its changes no longer count. The marker comes after them in
  // the same event stream, so once it is in they would have been too.
  fs::rename(root_ / "b", outside_ / "b");
  writeFile(outside_ / "b" / "deep" / "h.mp3");
  writeFile(root_ / "marker.mp3");
  ASSERT_TRUE(batches_.waitFor({in("marker.mp3")}));
  EXPECT_EQ(batches_.all().count(in("b/deep/h.mp3")), 0u);
}

TEST_F(FolderWatcherTest, FirstChangeComesAtOnceThenABurstAsOneBatchAfterTheLatency) {
  ASSERT_TRUE(start(2000ms));
  const auto t0 = Clock::now();
  writeFile(root_ / "first.mp3");
  const auto first = batches_.at(0);
  ASSERT_TRUE(first);
  EXPECT_LT(first->at - t0, 1000ms);
  std::vector<std::string> burst;
  for (int i = 0; i < 8; ++i) {
    const fs::path file = root_ / ("burst" + std::to_string(i) + ".mp3");
    writeFile(file, "a");
    writeFile(file, "b");  // closed twice: two events, one report
    burst.push_back(file.string());
  }
  const auto second = batches_.at(1);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->paths, burst);
  EXPECT_GE(second->at - first->at, 1900ms);
}

TEST_F(FolderWatcherTest, RestartReplacesTheWatchAndRefusesWhatIsNotAFolder) {
  const fs::path other = dir_ / "other";
  fs::create_directories(other);
  ASSERT_TRUE(start());
  ASSERT_TRUE(watcher_->start(other, 200ms, batches_.sink()));
  writeFile(root_ / "old.mp3");
  writeFile(other / "new.mp3");
  ASSERT_TRUE(batches_.waitFor({(other / "new.mp3").string()}));
  EXPECT_EQ(batches_.all().count(in("old.mp3")), 0u);

  const fs::path missing = dir_ / "missing";
  EXPECT_FALSE(watcher_->start(missing, 200ms, batches_.sink()));
  EXPECT_EQ(watcher_->lastError(), "cannot watch " + missing.string() + ": no such folder");
  EXPECT_FALSE(watcher_->running());  // the earlier watch is gone too
  EXPECT_FALSE(watcher_->start(other / "new.mp3", 200ms, batches_.sink()));
  EXPECT_TRUE(watcher_->lastError().ends_with(": not a folder")) << watcher_->lastError();
}

TEST_F(FolderWatcherTest, StopIsPromptFinalAndReleasesEverything) {
  const size_t fdsBefore = openFds();
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(start(1000ms));
    watcher_->stop();
  }
  EXPECT_EQ(openFds(), fdsBefore);

  ASSERT_TRUE(start(1000ms));
  writeFile(root_ / "a.mp3");
  ASSERT_TRUE(batches_.at(0));
  writeFile(root_ / "b.mp3");  // held back for the latency
  const auto t0 = Clock::now();
  watcher_->stop();
  EXPECT_LT(Clock::now() - t0, 500ms);
  EXPECT_FALSE(watcher_->running());
  watcher_->stop();
  EXPECT_FALSE(batches_.at(1, 1200ms));
}

TEST_F(FolderWatcherTest, StopDuringOrFromInsideTheCallback) {
  // From another thread, stop() waits for the callback under way.
  std::atomic<bool> inside{false};
  ASSERT_TRUE(watcher_->start(root_, 100ms, [&](std::vector<std::string> paths) {
    inside = true;
    batches_.sink()(std::move(paths));
    std::this_thread::sleep_for(300ms);
    inside = false;
  }));
  writeFile(root_ / "a.mp3");
  ASSERT_TRUE(batches_.at(0));
  watcher_->stop();
  EXPECT_FALSE(inside);

  // From inside, stop() ends the watch once the callback returns.
  ASSERT_TRUE(watcher_->start(root_, 100ms, [&](std::vector<std::string> paths) {
    EXPECT_FALSE(watcher_->start(root_, 100ms, {}));  // refused, not a deadlock
    watcher_->stop();
    batches_.sink()(std::move(paths));
  }));
  writeFile(root_ / "b.mp3");
  ASSERT_TRUE(batches_.at(1));
  EXPECT_FALSE(watcher_->running());
  writeFile(root_ / "c.mp3");
  EXPECT_FALSE(batches_.at(2, 400ms));

  ASSERT_TRUE(watcher_->start(root_, 100ms, [&](std::vector<std::string> paths) {
    watcher_.reset();
    batches_.sink()(std::move(paths));
  }));
  writeFile(root_ / "d.mp3");
  ASSERT_TRUE(batches_.at(2));
  EXPECT_EQ(watcher_, nullptr);
}

TEST_F(FolderWatcherTest, OverflowReportsEverythingByLookingAgain) {
  // The queue is only emptied by the watcher's thread; held in the first
  // callback, it lets the kernel's queue of events overflow.
  size_t queueSize = 16384;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queueSize;
  fs::create_directories(root_ / "many");  // watched from the start
  std::mutex gateMutex;
  std::unique_lock gate(gateMutex);
  ASSERT_TRUE(watcher_->start(root_, 100ms, [&, sink = batches_.sink()](auto paths) {
    std::lock_guard wait(gateMutex);
    sink(std::move(paths));
  }));
  writeFile(root_ / "first.mp3");
  std::this_thread::sleep_for(200ms);  // the thread is now held at the gate
  std::set<std::string> wanted;
  for (size_t i = 0; i < queueSize / 2 + 500; ++i) {
    const fs::path file = root_ / "many" / (std::to_string(i) + ".mp3");
    writeFile(file);  // two events each: created, closed
    wanted.insert(file.string());
  }
  gate.unlock();
  EXPECT_TRUE(batches_.waitFor(wanted, 20s));
  watcher_->stop();  // the callback uses this test's locals
}

TEST_F(FolderWatcherTest, RootMovedAwayLeavesAnIdleWatcher) {
  ASSERT_TRUE(start());
  fs::rename(root_, outside_ / "moved");
  writeFile(outside_ / "moved" / "x.mp3");
  fs::remove_all(outside_ / "moved");
  std::this_thread::sleep_for(100ms);
  const std::clock_t cpuBefore = std::clock();
  EXPECT_FALSE(batches_.at(0, 400ms));
  EXPECT_LT(std::clock() - cpuBefore, CLOCKS_PER_SEC / 10);  // not spinning
  EXPECT_TRUE(watcher_->running());
  watcher_->stop();
}

}  // namespace
}  // namespace orvel
