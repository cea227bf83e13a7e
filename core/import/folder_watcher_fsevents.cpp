// FolderWatcher on macOS: one FSEvents stream with file-level events for the
// whole tree, scheduled on a private serial dispatch queue. The queue only
// hands the events over; the watcher's own thread makes sense of them, looks
// into folders that were made or moved in, and delivers the batches, so the
// callback runs where folder_watcher.h says and stop() joins it as on Linux.
#ifdef __APPLE__

#include <CoreServices/CoreServices.h>
#include <dispatch/dispatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/import/folder_watcher.h"
#include "core/import/threaded_watcher.h"
#include "core/store/log.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// The system dropped events or could not say which item changed: the folder
// named in the event has to be looked through again.
constexpr FSEventStreamEventFlags kLost = kFSEventStreamEventFlagMustScanSubDirs |
                                          kFSEventStreamEventFlagUserDropped |
                                          kFSEventStreamEventFlagKernelDropped;
// A file counts as finished once written and closed (the system raises the
// content change when a writer closes it, so a bare ItemCreated is a file
// still being written), renamed or moved in, or made as a clone of another.
constexpr FSEventStreamEventFlags kFileArrived = kFSEventStreamEventFlagItemModified |
                                                 kFSEventStreamEventFlagItemRenamed |
                                                 kFSEventStreamEventFlagItemCloned;
constexpr FSEventStreamEventFlags kFolderArrived =
    kFSEventStreamEventFlagItemCreated | kFSEventStreamEventFlagItemRenamed;

// The stream's own coalescing; the batching the caller asked for is done on
// the thread, so the stream only has to be prompt.
constexpr std::chrono::milliseconds kStreamLatency{50};

// Events handed over but not yet looked at, at most; beyond that (a callback
// that takes long during a large copy) they are dropped and the whole folder
// is looked through instead.
constexpr size_t kMaxQueued = 16384;

// Owns one Core Foundation object.
template <class Ref>
class CfOwned {
 public:
  explicit CfOwned(Ref ref) : ref_(ref) {}
  CfOwned(const CfOwned&) = delete;
  CfOwned& operator=(const CfOwned&) = delete;
  ~CfOwned() {
    if (ref_ != nullptr) CFRelease(ref_);
  }
  Ref get() const { return ref_; }

 private:
  Ref ref_;
};

struct Event {
  std::string path;  // as the system reports it: the real path
  FSEventStreamEventFlags flags;
};

// Everything one start() sets up. The stream's queue and the watcher's
// thread meet only in the incoming events, under one mutex.
class Run {
 public:
  Run(fs::path root, std::chrono::milliseconds latency, FolderWatcher::Batch onBatch)
      : root_(std::move(root)), latency_(latency), onBatch_(std::move(onBatch)) {}
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  // Never on the stream's queue: only the watcher and its thread own a Run.
  ~Run() { closeStream(); }

  std::optional<std::string> open() {
    const std::string cannot = "cannot watch " + root_.string() + ": ";
    // The system reports real paths (/private/var/… for /var/…, the target
    // of a symlinked root); they are turned back into paths under the root
    // as it was given.
    std::error_code ec;
    realRoot_ = fs::canonical(root_, ec);
    if (ec) return cannot + ec.message();
    struct stat st {};
    if (::stat(realRoot_.c_str(), &st) != 0) return cannot + std::strerror(errno);
    rootDevice_ = st.st_dev;
    rootInode_ = st.st_ino;

    const CfOwned<CFStringRef> path(
        CFStringCreateWithFileSystemRepresentation(kCFAllocatorDefault, realRoot_.c_str()));
    if (path.get() == nullptr) return cannot + "the system cannot take this path";
    const void* paths[] = {path.get()};
    const CfOwned<CFArrayRef> watched(
        CFArrayCreate(kCFAllocatorDefault, paths, 1, &kCFTypeArrayCallBacks));
    if (watched.get() == nullptr) return cannot + "out of memory";

    FSEventStreamContext context{0, this, nullptr, nullptr, nullptr};
    const double latency =
        std::chrono::duration<double>(std::min(latency_, kStreamLatency)).count();
    stream_ =
        FSEventStreamCreate(kCFAllocatorDefault, &Run::received, &context, watched.get(),
                            kFSEventStreamEventIdSinceNow, latency,
                            kFSEventStreamCreateFlagFileEvents | kFSEventStreamCreateFlagNoDefer |
                                kFSEventStreamCreateFlagWatchRoot);
    if (stream_ == nullptr) return cannot + "the system refused to watch it";
    queue_ = dispatch_queue_create("orvel.folder-watcher", DISPATCH_QUEUE_SERIAL);
    FSEventStreamSetDispatchQueue(stream_, queue_);
    if (!FSEventStreamStart(stream_)) return cannot + "the system refused to watch it";
    started_ = true;
    return std::nullopt;
  }

  void requestStop() {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
    woken_.notify_all();
  }

  void loop() {
    std::unique_lock lock(mutex_);
    const auto hasWork = [this] {
      return stopRequested_ || !incoming_.empty() || overflowed_ || rootChanged_;
    };
    while (!stopRequested_) {
      if (deadline_) {
        woken_.wait_until(lock, *deadline_, hasWork);
      } else {
        woken_.wait(lock, hasWork);
      }
      if (stopRequested_) break;
      std::vector<Event> events;
      events.swap(incoming_);
      const bool overflowed = std::exchange(overflowed_, false);
      const bool rootChanged = std::exchange(rootChanged_, false);
      // No lock is held from here on: the queue goes on handing events over,
      // and a stop() from another thread waits for the callback, not for it.
      lock.unlock();
      if (overflowed) lookAgain(root_, "too many changes at once under ");
      for (const Event& event : events) handle(event);
      if (rootChanged) checkRoot();
      deliverWhenDue();
      lock.lock();
    }
  }

 private:
  // On the stream's queue.
  static void received(ConstFSEventStreamRef, void* info, size_t count, void* paths,
                       const FSEventStreamEventFlags flags[], const FSEventStreamEventId[]) {
    static_cast<Run*>(info)->take(count, static_cast<char**>(paths), flags);
  }

  void take(size_t count, char** paths, const FSEventStreamEventFlags flags[]) {
    std::lock_guard lock(mutex_);
    if (stopRequested_) return;
    for (size_t i = 0; i < count; ++i) {
      if ((flags[i] & kFSEventStreamEventFlagRootChanged) != 0) {
        rootChanged_ = true;
      } else if (overflowed_) {
        // The whole folder is looked through anyway.
      } else if (incoming_.size() >= kMaxQueued) {
        overflowed_ = true;
        incoming_.clear();
      } else {
        incoming_.push_back({paths[i], flags[i]});
      }
    }
    woken_.notify_all();
  }

  void handle(const Event& event) {
    if (rootGone_) return;
    const std::optional<fs::path> path = underRoot(event.path);
    if ((event.flags & kLost) != 0) {
      // Named above the root when the loss was not confined to one folder.
      lookAgain(path.value_or(root_), "changes were lost under ");
      return;
    }
    if (!path) return;           // an old path of something moved out
    if (*path == root_) return;  // the root's own changes name no file
    // What is there now decides: the flags of one event may sum up several
    // changes (made, written, removed) in any order.
    std::error_code ec;
    const fs::file_status own = fs::symlink_status(*path, ec);
    if (ec) return;  // removed or moved away since
    if (fs::is_directory(own)) {
      // A folder made or moved in: what was written into it before its
      // events came, and everything a move brought along, is found by looking.
      if ((event.flags & kFolderArrived) != 0) reportTree(*path);
      return;
    }
    if ((event.flags & kFileArrived) != 0 && fs::is_regular_file(*path, ec))
      pending_.insert(path->string());
  }

  // The path under the root as it was given, for a real path the system
  // reported; nothing for a path outside the tree.
  std::optional<fs::path> underRoot(std::string_view reported) const {
    while (reported.size() > 1 && reported.back() == '/') reported.remove_suffix(1);
    std::string_view real = realRoot_.native();
    if (reported == real) return root_;
    if (real == "/") real = "";
    if (reported.size() <= real.size() + 1 || reported.substr(0, real.size()) != real ||
        reported[real.size()] != '/')
      return std::nullopt;
    return root_ / fs::path(reported.substr(real.size() + 1));
  }

  // Nothing is known about what changed under `folder`: every file is reported.
  void lookAgain(const fs::path& folder, const char* why) {
    if (rootGone_) return;
    note("watcher: " + std::string(why) + folder.string() + "; looking through it again");
    reportTree(folder);
  }

  // Reports the regular files in `top` and below it. Symlinked folders are
  // not followed; unreadable ones are skipped.
  void reportTree(const fs::path& top) {
    std::vector<fs::path> todo{top};
    while (!todo.empty()) {
      const fs::path folder = std::move(todo.back());
      todo.pop_back();
      std::error_code ec;
      fs::directory_iterator it(folder, fs::directory_options::skip_permission_denied, ec);
      for (; !ec && it != fs::directory_iterator(); it.increment(ec)) {
        std::error_code statEc;
        if (!it->is_symlink(statEc) && it->is_directory(statEc)) {
          todo.push_back(it->path());
        } else if (it->is_regular_file(statEc)) {
          pending_.insert(it->path().string());
        }
      }
    }
  }

  // The system says something happened to the root's path. When the folder
  // watched is no longer there, the stream (which follows paths) would go on
  // reporting whatever takes its place; the watcher idles instead.
  void checkRoot() {
    if (rootGone_) return;
    struct stat st {};
    if (::stat(realRoot_.c_str(), &st) == 0 && st.st_dev == rootDevice_ && st.st_ino == rootInode_)
      return;  // only a folder above it was touched
    rootGone_ = true;
    note("watcher: " + root_.string() +
         " was deleted or moved away; nothing is watched until watching starts again");
  }

  void deliverWhenDue() {
    if (pending_.empty()) return;
    const auto now = Clock::now();
    if (!deadline_) {
      const bool quiet = !lastDelivery_ || now - *lastDelivery_ >= latency_;
      deadline_ = quiet ? now : *lastDelivery_ + latency_;
    }
    if (now < *deadline_) return;
    std::vector<std::string> batch(pending_.begin(), pending_.end());
    pending_.clear();
    deadline_.reset();
    lastDelivery_ = now;
    onBatch_(std::move(batch));
  }

  void closeStream() {
    if (stream_ != nullptr) {
      if (started_) FSEventStreamStop(stream_);
      FSEventStreamInvalidate(stream_);
    }
    if (queue_ != nullptr) {
      // A hand-over under way on the queue ends before this Run, which it
      // points to, goes away; none starts after the invalidation.
      dispatch_sync_f(queue_, nullptr, [](void*) {});
    }
    if (stream_ != nullptr) FSEventStreamRelease(stream_);
    if (queue_ != nullptr) dispatch_release(queue_);
    stream_ = nullptr;
    queue_ = nullptr;
  }

  const fs::path root_;
  const std::chrono::milliseconds latency_;
  FolderWatcher::Batch onBatch_;
  fs::path realRoot_;
  dev_t rootDevice_ = 0;
  ino_t rootInode_ = 0;
  FSEventStreamRef stream_ = nullptr;
  dispatch_queue_t queue_ = nullptr;
  bool started_ = false;

  // Shared with the stream's queue.
  std::mutex mutex_;
  std::condition_variable woken_;
  std::vector<Event> incoming_;
  bool overflowed_ = false;
  bool rootChanged_ = false;
  bool stopRequested_ = false;

  // Everything below is the thread's own once the thread runs.
  std::set<std::string> pending_;
  std::optional<Clock::time_point> deadline_;
  std::optional<Clock::time_point> lastDelivery_;
  bool rootGone_ = false;
};

}  // namespace

std::unique_ptr<FolderWatcher> FolderWatcher::create() {
  return std::make_unique<watcher::ThreadedWatcher<Run>>();
}

}  // namespace orvel

#endif  // __APPLE__
