// Where the application's files live and where it finds what it ships with:
// the support folder and catalogue path (each computed once per run), the
// Python scripts, sounds and helper programs, the Python interpreter, and the
// library backups. Lookups that find nothing answer std::nullopt; the caller
// reports it. Nothing here throws.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/store/status.h"

namespace orvel::app {

class Settings;

class AppPaths {
 public:
  AppPaths() = delete;

  // Automatic backups run at most once per this many seconds (20 hours).
  static constexpr double kBackupInterval = 72000.0;
  static constexpr std::string_view kMigratedMessage =
      "migrated library database from the source checkout";

  // The support folder (locations::supportDir()), created with its parents on
  // first use; a failure to create it is ignored. Fixed for the run.
  static const std::filesystem::path& support();

  // support()/"orvel.db", fixed for the run. On first use a development copy
  // at ~/Developer/orvel/orvel.db replaces a missing or empty support copy.
  static const std::filesystem::path& database();

  // What database() does, on given folders: returns supportDir/"orvel.db",
  // first copying devCopy over it when devCopy exists and the support copy is
  // missing or empty (and logging kMigratedMessage). A non-empty support copy
  // is never replaced.
  static std::filesystem::path resolveDatabase(const std::filesystem::path& supportDir,
                                               const std::filesystem::path& devCopy);

  // A Python script, a sound (NAME.wav) or a helper program. Searched in the
  // folder named by $ORVEL_RESOURCES (scripts/, sounds/), beside the running
  // program (and ../share/orvel for an installed layout), the source and build
  // trees, then ~/Developer/orvel/{Scripts,Resources/sounds,build}.
  static std::optional<std::filesystem::path> script(std::string_view name);
  static std::optional<std::filesystem::path> sound(std::string_view name);
  static std::optional<std::filesystem::path> helper(std::string_view name);

  // The first executable of the usual python3 locations, else "/usr/bin/env"
  // (which is then run with "python3" as its first argument).
  static std::filesystem::path python();
  // The arguments to run python() with: `args`, behind "python3" for env.
  static std::vector<std::string> pythonArgs(std::vector<std::string> args);
  // Whether python() runs `-c 1` successfully. Computed once per run; blocks
  // for as long as the interpreter takes to start on the first call.
  static bool pythonWorks();

  // The automatic backup: unless a backup ran within kBackupInterval, backs
  // up keeping the newest `keep`. For the usual catalogue the time is
  // "lastLibraryBackup", recorded before the backup, so a failing backup is
  // retried only after another interval; another catalogue (orvel --db) goes
  // by the age of its own newest backup. No path when none was due; the
  // reason when one was due and failed.
  static Result<std::optional<std::filesystem::path>> backupDatabase(int keep, Settings& settings);
  static Result<std::optional<std::filesystem::path>> backupDatabase(
      const std::filesystem::path& db, int keep, Settings& settings);

  // Copies the catalogue at `db` (database() without it) into the Backups
  // folder beside it (support()/Backups for the usual catalogue) as
  // "orvel-YYYYMMDDTHHMMSS.db" (UTC; "-2", "-3"… added when that name is
  // taken) through SQLite's online backup. The copy is written under a
  // partial name, checked with SQLite's quick_check and only then named; a
  // damaged catalogue gives no backup and prunes none. Then deletes all but
  // the newest `keep` (at least 1) complete backups. Returns the new file, or
  // why there is none (also logged as "backup failed: …").
  static Result<std::filesystem::path> backupDatabaseNow(int keep);
  static Result<std::filesystem::path> backupDatabaseNow(const std::filesystem::path& db, int keep);
};

}  // namespace orvel::app
