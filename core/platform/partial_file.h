// Files that must never be seen half-written: backups, snapshots, copies
// into the media root, exported pictures and collections. Each is written
// under a "partial" name that carries the writer's process id and renamed
// into place when complete, so a crash or a full disk leaves no file under
// the real name; the next run removes what a writer that is no longer
// running left behind (with SQLite's -journal/-wal/-shm companions).
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace orvel {

// "NAME.partial-PID" beside `target`, or with `hiddenPrefix` (".orvel-copy-")
// "PREFIX NAME.partial-PID": a name the importer and the watcher never take,
// since it ends in no audio extension.
std::filesystem::path partialName(const std::filesystem::path& target,
                                  std::string_view hiddenPrefix = {});

// Removes from `dir` the partial files whose names begin with `prefix` and
// whose writer is gone: another process id that no longer runs, or a name
// from before process ids were recorded (".partial" alone) older than an
// hour. Our own process's files are left to us. Returns how many went.
int removeAbandonedPartials(const std::filesystem::path& dir, std::string_view prefix);

// Writes a file through a partial name: `write` fills the partial file (and
// says why it could not); an empty result, a short disk or a failed rename
// removes it and fails. On success the target holds the complete file.
// Returns an empty text on success, else why it failed.
std::string writeWhole(const std::filesystem::path& target,
                       const std::function<std::string(const std::filesystem::path&)>& write);

}  // namespace orvel
