// What every subcommand shares: the catalogue (opened on first use), the
// output streams and the global switches. Commands report failure by
// throwing CliError; `run` turns it into one line on stderr and an exit code.
#pragma once

#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>

#include "core/library/library_edits.h"
#include "core/store/orvel_db.h"
#include "tools/cli/cli.h"

namespace orvel::cli {

enum ExitCode { kDone = 0, kFailed = 1, kBadUsage = 2 };

using orvel::kRestoreAdvice;

class CliError : public std::runtime_error {
 public:
  CliError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

struct Context {
  Context(std::ostream& o, std::ostream& e) : out(o), err(e) {}

  std::ostream& out;
  std::ostream& err;
  std::string dbOption;  // --db; empty: the support folder's catalogue
  bool verbose = false;
  std::optional<int> busyTimeoutMs;  // --busy-timeout; none: the store's own wait
  bool errIsTerminal = false;        // draw progress bars on err
  // The command will write: the catalogue gets its automatic backup (at
  // most one in 20 hours) when it is first opened.
  bool autoBackup = false;
  Input input;       // where a question is answered
  bool yes = false;  // --yes: every question answered yes

  // Asks the way this command line can: on a terminal, or not at all.
  library::Asker& asker();

  // The catalogue path in force.
  std::string dbPath() const;
  // Opens the catalogue on first use; a catalogue that cannot be opened is a failure.
  OrvelDB& db();
  bool opened() const { return db_ != nullptr; }
  // Fails with the restore advice when a read met a damaged page: a listing
  // cut short must never pass for the whole library.
  void requireIntact();

 private:
  std::unique_ptr<OrvelDB> db_;
  std::unique_ptr<library::Asker> asker_;
};

}  // namespace orvel::cli
