// What every platform's FolderWatcher shares: checking the root, one
// platform-specific Run per start() working on a thread of its own, and the
// rules of folder_watcher.h for stop() and start() called from inside the
// callback. Only the platforms' watcher files include this.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "core/import/folder_watcher.h"

namespace orvel::watcher {

// "/music/" and "/music/./" both become "/music", so that reported paths and
// prefix tests on them agree with each other.
inline std::filesystem::path normalRoot(const std::filesystem::path& root) {
  std::error_code ec;
  std::filesystem::path p = std::filesystem::absolute(root, ec);
  if (ec) p = root;
  p = p.lexically_normal();
  if (!p.has_filename() && p != p.root_path()) p = p.parent_path();
  return p;
}

// Why `top` cannot be watched, or nothing when it is a folder.
inline std::optional<std::string> rootProblem(const std::filesystem::path& top) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const auto status = fs::status(top, ec);
  if (status.type() == fs::file_type::not_found)
    return "cannot watch " + top.string() + ": no such folder";
  if (ec) return "cannot watch " + top.string() + ": " + ec.message();
  if (!fs::is_directory(status)) return "cannot watch " + top.string() + ": not a folder";
  return std::nullopt;
}

// A FolderWatcher over one platform's Run, which offers:
//
//   Run(std::filesystem::path root, std::chrono::milliseconds latency,
//       FolderWatcher::Batch onBatch);
//   std::optional<std::string> open();  // the error text when the root cannot be watched
//   void requestStop();                 // any thread; loop() returns soon after
//   void loop();                        // the thread's work; calls onBatch
//
// A Run is shared by the watcher and its thread: a watcher destroyed from
// inside its own callback leaves the rest of the run to the thread, which
// lets go of it when it returns.
template <class Run>
class ThreadedWatcher final : public FolderWatcher {
 public:
  ~ThreadedWatcher() override { stop(); }

  bool start(const std::filesystem::path& root, std::chrono::milliseconds latency,
             Batch onBatch) override {
    if (tOwner == this) {
      setError("start() cannot be called from the watcher's own callback");
      return false;
    }
    std::lock_guard lock(controlMutex_);
    stopLocked();
    const std::filesystem::path top = normalRoot(root);
    if (auto problem = rootProblem(top)) {
      setError(*problem);
      return false;
    }
    auto run = std::make_shared<Run>(top, latency, std::move(onBatch));
    if (auto error = run->open()) {
      setError(*error);
      return false;
    }
    thread_ = std::thread([this, run] {
      tOwner = this;
      tRun = run.get();
      run->loop();
    });
    run_ = std::move(run);
    running_.store(true);
    setError({});
    return true;
  }

  void stop() override {
    if (tOwner == this) {
      stopFromCallback();
      return;
    }
    std::lock_guard lock(controlMutex_);
    stopLocked();
  }

  bool running() const override { return running_.load(); }

  std::string lastError() const override {
    std::lock_guard lock(errorMutex_);
    return lastError_;
  }

 private:
  void stopLocked() {
    if (run_) run_->requestStop();
    if (thread_.joinable()) thread_.join();
    run_.reset();
    running_.store(false);
  }

  // The thread cannot join itself: it is told to end once the callback
  // returns, and is let go of so that nothing waits for it. When another
  // thread holds the control lock it is already stopping this one and will
  // join it.
  void stopFromCallback() {
    tRun->requestStop();
    running_.store(false);
    std::unique_lock lock(controlMutex_, std::try_to_lock);
    if (!lock.owns_lock()) return;
    if (thread_.joinable() && thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
      run_.reset();
    }
  }

  void setError(std::string error) {
    std::lock_guard lock(errorMutex_);
    lastError_ = std::move(error);
  }

  // Which watcher and run the current thread works for: lets stop() and
  // start() tell a call from inside a callback from a call from elsewhere.
  inline static thread_local const ThreadedWatcher* tOwner = nullptr;
  inline static thread_local Run* tRun = nullptr;

  std::mutex controlMutex_;  // start() and stop(); the thread never waits for it
  std::shared_ptr<Run> run_;
  std::thread thread_;
  std::atomic<bool> running_{false};
  mutable std::mutex errorMutex_;
  std::string lastError_;
};

}  // namespace orvel::watcher
