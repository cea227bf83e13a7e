// Watches the media root and hands new audio files to an in-place import.
// The platform's folder watcher reports finished files in batches (latency
// 2.0 s); `noticed` keeps those with one of the watcher's own extensions, and
// `drain`, run by whoever owns the catalogue, drops the files it already has
// and returns the rest to import without copying (they already lie in the
// media root).
//
// Threads: `noticed` runs on the platform watcher's thread and only records;
// everything else belongs to the owner's thread.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/import/folder_watcher.h"

namespace orvel {
class OrvelDB;

class LibraryWatcher {
 public:
  // Not the importer's list: "m4p" is noticed (and then refused by the
  // importer); "ogg" and "aifc" files appearing in the folder are not.
  static constexpr std::string_view watchExts[] = {"mp3",  "m4a",  "wav", "aif", "aiff",
                                                   "flac", "alac", "aac", "m4p"};
  static constexpr std::chrono::milliseconds kLatency{2000};

  // The two settings that decide what is watched: "watchMusicFolder" and the media root.
  struct Config {
    bool watchMusicFolder = false;
    std::optional<std::filesystem::path> mediaRoot;
    bool operator==(const Config&) const = default;
  };

  // `onPending` is called on the watcher's thread after paths were noticed;
  // it should arrange for drain() on the owner's thread. `platform` is the
  // folder watcher to use (the system's by default; none: watching is off).
  explicit LibraryWatcher(std::function<void()> onPending,
                          std::unique_ptr<FolderWatcher> platform = FolderWatcher::create());
  LibraryWatcher(const LibraryWatcher&) = delete;
  LibraryWatcher& operator=(const LibraryWatcher&) = delete;
  ~LibraryWatcher();

  // Stops any earlier watch, then watches the media root when the flag is on
  // and there is a root. Returns whether it is now watching.
  bool start(const Config& config);
  // start() when the settings differ from the ones in force; true when it restarted.
  bool restartIfChanged(const Config& config);
  void stop();
  bool watching() const;
  const Config& config() const { return config_; }
  // Why the last start() is not watching (empty when it is, or when it is switched off).
  const std::string& lastError() const { return lastError_; }

  void noticed(std::vector<std::string> paths);
  // The noticed paths the catalogue does not have yet, in path order.
  std::vector<std::filesystem::path> drain(const OrvelDB& db);

  static bool isWatchedFile(std::string_view path);

 private:
  std::function<void()> onPending_;
  std::unique_ptr<FolderWatcher> platform_;
  Config config_;
  std::string lastError_;
  mutable std::mutex mutex_;
  std::set<std::string> pending_;
};

}  // namespace orvel
