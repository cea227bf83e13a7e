// FolderWatcher on Linux: one inotify descriptor with a watch on every folder
// of the tree, read by one thread that also polls an eventfd so stop() can
// wake it at once.
#ifdef __linux__

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <set>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "core/import/folder_watcher.h"
#include "core/import/threaded_watcher.h"
#include "core/store/log.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Owns one file descriptor.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// IN_MOVED_FROM is there for folders only: a folder moved out of the tree must
// lose its watches, or its later changes would be reported under its old path.
// IN_EXCL_UNLINK keeps a file deleted while still open (a scratch file) from
// being reported when it is closed.
constexpr uint32_t kFolderMask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE |
                                 IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;

constexpr const char* kWatchLimit =
    "the system's limit of folder watches is reached (fs.inotify.max_user_watches)";

bool isInside(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
         path[folder.size()] == '/';
}

// Everything one start() sets up; ThreadedWatcher runs it on its thread.
class Run {
 public:
  Run(fs::path root, std::chrono::milliseconds latency, FolderWatcher::Batch onBatch)
      : root_(std::move(root)), latency_(latency), onBatch_(std::move(onBatch)) {}

  // Sets up the descriptors and watches the whole tree; an error text when
  // even the root cannot be watched.
  std::optional<std::string> open() {
    inotify_ = UniqueFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!inotify_) return "cannot watch " + root_.string() + ": " + std::strerror(errno);
    wake_ = UniqueFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!wake_) return "cannot watch " + root_.string() + ": " + std::strerror(errno);
    if (inotify_add_watch(inotify_.get(), root_.c_str(), kFolderMask) < 0) {
      const int error = errno;
      return "cannot watch " + root_.string() + ": " +
             (error == ENOSPC ? kWatchLimit : std::strerror(error));
    }
    watchTree(root_, false);
    return std::nullopt;
  }

  void requestStop() {
    stopRequested_.store(true);
    const uint64_t one = 1;
    // An eventfd only refuses a write that would overflow its 64-bit counter,
    // which a few ones never do.
    [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
  }

  void loop() {
    while (!stopRequested_.load()) {
      int timeout = -1;
      if (deadline_) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline_ - Clock::now());
        timeout = static_cast<int>(std::max<int64_t>(0, left.count()));
      }
      pollfd fds[2] = {{inotify_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
      const int n = ::poll(fds, 2, timeout);
      if (n < 0) {
        if (errno != EINTR) pause("poll", errno);
        continue;
      }
      if (fds[1].revents != 0 || stopRequested_.load()) break;
      if ((fds[0].revents & POLLIN) != 0) {
        readEvents();
      } else if (fds[0].revents != 0) {
        pause("poll", EIO);  // an error state that would otherwise wake poll() forever
      }
      deliverWhenDue();
    }
  }

 private:
  void readEvents() {
    alignas(inotify_event) char buffer[64 * 1024];
    const ssize_t n = ::read(inotify_.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno != EAGAIN && errno != EINTR) pause("read", errno);
      return;
    }
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      handle(*event);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }

  // Neither poll() nor read() fails on a healthy descriptor; should one fail
  // anyway (out of memory), wait a little before trying again rather than
  // spinning or giving up on the watch.
  void pause(const char* what, int error) {
    if (!failureNoted_) {
      failureNoted_ = true;
      note(std::string("watcher: ") + what + " failed while watching " + root_.string() + ": " +
           std::strerror(error));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }

  void handle(const inotify_event& event) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
      note("watcher: too many changes at once under " + root_.string() +
           "; looking through the whole folder again");
      rescan();
      return;
    }
    const auto found = watches_.find(event.wd);
    if (found == watches_.end()) return;  // a watch already dropped
    if ((event.mask & IN_IGNORED) != 0) {
      watches_.erase(found);
      return;
    }
    const fs::path folder = found->second;  // a copy: the map may change below
    if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
      // Subfolders are looked after through their parent's events.
      if (folder == root_) rootGone();
      return;
    }
    if (event.len == 0) return;
    const fs::path path = folder / event.name;
    if ((event.mask & IN_ISDIR) != 0) {
      if ((event.mask & IN_MOVED_FROM) != 0) {
        unwatchTree(path);
      } else if ((event.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
        // Whatever was written into the new folder before its watch existed
        // raised no event, so its files are found by looking.
        watchTree(path, true);
      }
      return;
    }
    // A bare IN_CREATE is a file still being written: it is reported when
    // closed. Hard links only ever raise IN_CREATE and so go unreported.
    if ((event.mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0) pending_.insert(path.string());
  }

  // A moved root keeps its watches, which would go on reporting changes under
  // a path that no longer exists; a deleted one loses them anyway. Either way
  // the watcher idles from here on.
  void rootGone() {
    if (rootGone_) return;
    rootGone_ = true;
    note("watcher: " + root_.string() +
         " was deleted or moved away; nothing is watched until watching starts again");
    for (const auto& [wd, path] : watches_) inotify_rm_watch(inotify_.get(), wd);
    watches_.clear();
  }

  // Adds a watch to `top` and every folder below it, the watch before the
  // listing so that a file written meanwhile is either listed or raises an
  // event. With `report`, the regular files found are reported. Returns the
  // watches it saw. Symlinked folders are not followed; unreadable ones are
  // skipped.
  std::unordered_set<int> watchTree(const fs::path& top, bool report) {
    std::unordered_set<int> seen;
    std::vector<fs::path> todo{top};
    while (!todo.empty()) {
      const fs::path folder = std::move(todo.back());
      todo.pop_back();
      const int wd = addWatch(folder);
      // The same folder met twice (through a bind mount) is listed once.
      if (wd >= 0 && !seen.insert(wd).second) continue;
      std::error_code ec;
      fs::directory_iterator it(folder, fs::directory_options::skip_permission_denied, ec);
      for (; !ec && it != fs::directory_iterator(); it.increment(ec)) {
        std::error_code statEc;
        if (!it->is_symlink(statEc) && it->is_directory(statEc)) {
          todo.push_back(it->path());
        } else if (report && it->is_regular_file(statEc)) {
          pending_.insert(it->path().string());
        }
      }
    }
    return seen;
  }

  int addWatch(const fs::path& folder) {
    // The root may itself be a symlink to the music folder; below it, the
    // flag closes the gap between listing a folder and watching it.
    const uint32_t mask = folder == root_ ? kFolderMask : kFolderMask | IN_DONT_FOLLOW;
    const int wd = inotify_add_watch(inotify_.get(), folder.c_str(), mask);
    if (wd < 0) {
      if (errno == ENOSPC && !limitNoted_) {
        limitNoted_ = true;
        note("watcher: cannot watch every folder under " + root_.string() + ": " + kWatchLimit);
      }
      return -1;
    }
    // A folder moved within the tree keeps its watch; only the path changes.
    watches_[wd] = folder;
    return wd;
  }

  void unwatchTree(const fs::path& top) {
    const std::string topText = top.string();
    for (auto it = watches_.begin(); it != watches_.end();) {
      const std::string& path = it->second.native();
      if (path == topText || isInside(path, topText)) {
        inotify_rm_watch(inotify_.get(), it->first);
        it = watches_.erase(it);
      } else {
        ++it;
      }
    }
  }

  // After an overflow nothing is known about what changed: every file is
  // reported, and watches on folders no longer in the tree are dropped.
  void rescan() {
    if (rootGone_) return;
    const std::unordered_set<int> seen = watchTree(root_, true);
    for (auto it = watches_.begin(); it != watches_.end();) {
      if (seen.count(it->first) == 0) {
        inotify_rm_watch(inotify_.get(), it->first);
        it = watches_.erase(it);
      } else {
        ++it;
      }
    }
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
    // No lock is held here: a stop() from another thread waits for this call
    // to return and cannot be blocked by it.
    onBatch_(std::move(batch));
  }

  const fs::path root_;
  const std::chrono::milliseconds latency_;
  FolderWatcher::Batch onBatch_;
  UniqueFd inotify_;
  UniqueFd wake_;
  std::atomic<bool> stopRequested_{false};
  // Everything below is the thread's own once the thread runs.
  std::unordered_map<int, fs::path> watches_;
  std::set<std::string> pending_;
  std::optional<Clock::time_point> deadline_;
  std::optional<Clock::time_point> lastDelivery_;
  bool limitNoted_ = false;
  bool failureNoted_ = false;
  bool rootGone_ = false;
};

}  // namespace

std::unique_ptr<FolderWatcher> FolderWatcher::create() {
  return std::make_unique<watcher::ThreadedWatcher<Run>>();
}

}  // namespace orvel

#endif  // __linux__
