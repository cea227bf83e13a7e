#include "tools/cli/context.h"

#include <filesystem>

#include "app/app_paths.h"
#include "core/store/log.h"

namespace orvel::cli {

std::string Context::dbPath() const {
  return dbOption.empty() ? app::AppPaths::database().string() : dbOption;
}

OrvelDB& Context::db() {
  if (!db_) {
    const std::string path = dbPath();
    // Routine upgrade notes go to the log; on a terminal they are noise.
    setNoteEcho(verbose);
    std::error_code ec;
    const bool existed = std::filesystem::exists(path, ec);
    try {
      db_ = std::make_unique<OrvelDB>(path);
    } catch (const StoreError& e) {
      throw CliError(kFailed, "cannot open the catalogue " + path + ": " + e.what());
    }
    // A mistyped --db would otherwise look like an empty library.
    if (!existed) err << "orvel: created a new catalogue at " << path << "\n";
  }
  return *db_;
}

}  // namespace orvel::cli
