// Snapshots: complete, compacted copies of the catalogue (VACUUM INTO) taken
// before risky bulk changes and on the user's command, kept in one folder and
// trimmed by count and total size.
//
// File names: "<prefix><yyyyMMdd-HHmmss local>[-N][--<reason>].db" with the
// prefix "orvel-" for the usual catalogue (another catalogue uses its own
// file name, so two catalogues in one folder never prune each other's). The
// reason reads back from the name; N tells apart snapshots of one second.
// Age and order come from the file's modification time, not the local-time
// name, so a trip across time zones cannot make old copies look new.
// A copy is written under a ".partial-PID" name and renamed when complete,
// so a crash or a full disk never leaves a half copy in the list; what a
// killed run left (with SQLite's journal of it) goes at the next snapshot.
//
// Shares the store's connection and adds no lock. VACUUM INTO cannot run
// inside a transaction: take a snapshot before opening one.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/store/connection.h"

namespace orvel {

class Snapshots {
 public:
  struct Snap {
    std::filesystem::path file;
    std::string reason;
    int64_t at = 0;  // Unix seconds, the file's modification time
    int64_t bytes = 0;
    int sequence = 1;  // the N of snapshots taken within one second
  };

  static constexpr int kKeep = 4;
  static constexpr int64_t kMaxBytes = 3'000'000'000;

  // No folder: the support folder's "Snapshots".
  explicit Snapshots(const Connection& conn, std::optional<std::filesystem::path> dir = {},
                     std::string prefix = "orvel-");

  const std::filesystem::path& dir() const { return dir_; }

  // Copies the catalogue now, unless the newest snapshot is younger than
  // `minInterval` seconds. Returns the new file, or none when skipped or
  // failed (then lastError() says why; it is empty for a skip).
  std::optional<std::filesystem::path> take(std::string_view reason, int64_t minInterval);
  const std::string& lastError() const { return lastError_; }

  // The snapshots in the folder, newest first.
  std::vector<Snap> list() const;

  // Keeps the newest `keep` while their sizes add up to at most `maxBytes`
  // (the newest always stays) and deletes the rest; deletion errors are ignored.
  void prune(int keep, int64_t maxBytes) const;

  // The file name for a snapshot, and the reading of one back (none for a
  // file that is not a snapshot); `at` is left for the caller.
  std::string fileName(std::string_view reason, int64_t at, int sequence) const;
  std::optional<Snap> parse(const std::filesystem::path& file) const;

 private:
  const Connection& conn_;
  std::filesystem::path dir_;
  std::string prefix_;
  std::string lastError_;
};

}  // namespace orvel
