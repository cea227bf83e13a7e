// Watches a music folder for files that appear in it, so a running import can
// pick up what is copied, downloaded or moved there. One interface; each
// platform has its own implementation behind FolderWatcher::create().
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace orvel {

// Watches one folder and everything below it, including folders created or
// moved in later, and reports files that appeared there: a file is reported
// once its writer has finished with it (or when it is renamed or moved in),
// and every file inside a folder that is created or moved in is reported too.
// Paths are absolute and start with the root as it was given. Nothing is
// filtered by name; the same file may be reported more than once (the caller
// drops files it already has).
//
// Reports are gathered into batches: after a quiet spell longer than the
// latency the first change is delivered at once; changes that follow within
// the latency of a delivery are collected and delivered together when the
// latency has passed since that delivery. A batch is never empty.
//
// The callback runs on the watcher's own thread. stop() from another thread
// waits for a running callback to return. stop() (and destroying the watcher)
// from inside the callback is allowed: it returns at once, and no further
// callback runs once the current one returns. start() from inside the
// callback is refused.
class FolderWatcher {
 public:
  using Batch = std::function<void(std::vector<std::string> paths)>;

  FolderWatcher() = default;
  FolderWatcher(const FolderWatcher&) = delete;
  FolderWatcher& operator=(const FolderWatcher&) = delete;
  virtual ~FolderWatcher() = default;

  // Starts watching `root` (changes from now on only). Returns false (with
  // lastError()) when the root cannot be watched. A second start() first
  // stops the earlier watch.
  virtual bool start(const std::filesystem::path& root, std::chrono::milliseconds latency,
                     Batch onBatch) = 0;
  // Stops and joins the thread; no callback runs after stop() returns.
  // Idempotent; the destructor calls it.
  virtual void stop() = 0;
  // True from a successful start() until stop(). It stays true when the root
  // itself is deleted or moved away: the watcher then idles until stopped.
  virtual bool running() const = 0;
  // Why the last start() failed; empty after a successful one.
  virtual std::string lastError() const = 0;

  // The platform's watcher; nullptr where there is none.
  static std::unique_ptr<FolderWatcher> create();
};

}  // namespace orvel
