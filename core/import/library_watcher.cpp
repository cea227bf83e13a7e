#include "core/import/library_watcher.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/store/log.h"
#include "core/store/orvel_db.h"
#include "core/text/split.h"

namespace orvel {

LibraryWatcher::LibraryWatcher(std::function<void()> onPending,
                               std::unique_ptr<FolderWatcher> platform)
    : onPending_(std::move(onPending)), platform_(std::move(platform)) {}

LibraryWatcher::~LibraryWatcher() {
  stop();
}

bool LibraryWatcher::isWatchedFile(std::string_view path) {
  const std::string ext = extensionOf(path);
  return std::find(std::begin(watchExts), std::end(watchExts), ext) != std::end(watchExts);
}

bool LibraryWatcher::start(const Config& config) {
  stop();
  config_ = config;
  lastError_.clear();
  if (!config.watchMusicFolder || !config.mediaRoot) return false;
  if (!platform_) {
    lastError_ = "watching folders is not available on this system";
    return false;
  }
  const auto root = *config.mediaRoot;
  if (!platform_->start(root, kLatency,
                        [this](std::vector<std::string> paths) { noticed(std::move(paths)); })) {
    lastError_ = platform_->lastError();
    note("watcher: " + lastError_);
    return false;
  }
  note("watcher: watching " + root.string());
  return true;
}

bool LibraryWatcher::restartIfChanged(const Config& config) {
  if (config == config_) return false;
  start(config);
  return true;
}

void LibraryWatcher::stop() {
  if (platform_) platform_->stop();
}

bool LibraryWatcher::watching() const {
  return platform_ && platform_->running();
}

void LibraryWatcher::noticed(std::vector<std::string> paths) {
  bool any = false;
  {
    std::lock_guard lock(mutex_);
    for (auto& p : paths)
      if (isWatchedFile(p)) any |= pending_.insert(std::move(p)).second;
  }
  if (any && onPending_) onPending_();
}

std::vector<std::filesystem::path> LibraryWatcher::drain(const OrvelDB& db) {
  std::set<std::string> taken;
  {
    std::lock_guard lock(mutex_);
    taken.swap(pending_);
  }
  std::vector<std::filesystem::path> fresh;
  for (const auto& p : taken)
    if (!db.tracks().hasTrack(p)) fresh.emplace_back(p);
  if (!taken.empty()) note(fmt::format("watcher: {} noticed, {} new", taken.size(), fresh.size()));
  return fresh;
}

}  // namespace orvel
