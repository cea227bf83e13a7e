#include "tools/cli/context.h"

#include <filesystem>

#include "app/app_paths.h"
#include "app/settings.h"
#include "core/store/log.h"
#include "tools/cli/commands.h"

namespace orvel::cli {
namespace {
// As many automatic backups as `orvel backup` keeps by default.
constexpr int kAutomaticBackupsKept = 10;
}  // namespace

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
    if (busyTimeoutMs) db_->connection().setBusyTimeout(*busyTimeoutMs);
    // A mistyped --db would otherwise look like an empty library.
    if (!existed) err << "orvel: created a new catalogue at " << path << "\n";
    if (autoBackup && existed) {
      app::Settings settings;
      const auto made = app::AppPaths::backupDatabase(path, kAutomaticBackupsKept, settings);
      if (!made)
        err << "orvel: the automatic backup failed: " << describe(made.status()) << "\n";
      else if (*made && verbose)
        err << "orvel: backed up to " << (*made)->string() << "\n";
    }
  }
  return *db_;
}

namespace {

// Asks on the terminal: the question and its explanation on stderr, the
// answer from stdin. With nobody there the edit fails, naming --yes.
class TerminalAsker : public library::Asker {
 public:
  explicit TerminalAsker(Context& ctx) : ctx_(ctx) {}
  bool ask(const library::Question& q) override {
    if (ctx_.yes) return true;
    if (!ctx_.input.in || !ctx_.input.terminal)
      throw CliError(kFailed, q.question +
                                  " Nobody is at a terminal to say yes; run it again "
                                  "with --yes. Nothing was changed");
    ctx_.err << q.question << "\n"
             << q.explanation << "\n"
             << q.confirm << "? [y/N] " << std::flush;
    std::string answer;
    if (!std::getline(*ctx_.input.in, answer)) answer.clear();
    return !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
  }

 private:
  Context& ctx_;
};

}  // namespace

library::Asker& Context::asker() {
  if (!asker_) asker_ = std::make_unique<TerminalAsker>(*this);
  return *asker_;
}

void Context::requireIntact() {
  if (!db_) return;
  const Status& damage = db_->connection().damage();
  if (damage) return;
  throw CliError(kFailed, "the catalogue " + dbPath() + " is damaged (" + damage.message() +
                              "); what it holds cannot all be read. " + kRestoreAdvice);
}

}  // namespace orvel::cli
