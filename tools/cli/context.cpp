#include "tools/cli/context.h"

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
    try {
      db_ = std::make_unique<OrvelDB>(path);
    } catch (const StoreError& e) {
      throw CliError(kFailed, "cannot open the catalogue " + path + ": " + e.what());
    }
  }
  return *db_;
}

}  // namespace orvel::cli
