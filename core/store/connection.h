// One SQLite connection to a catalogue and the small statement helpers every
// store unit uses. Helpers never throw for SQL faults: a statement that does
// not compile is reported on stderr ("SQL WOULD NOT COMPILE: …") and behaves
// as an empty result.
//
// Threads: a connection belongs to the thread that opened it (or the one that
// last called moveToCurrentThread) and only that thread may use it, its
// statements and its transactions; debug builds assert this. Another thread
// opens its own connection on the same file.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "core/store/change_feed.h"
#include "core/store/statement.h"
#include "core/store/status.h"

namespace orvel {

// Thrown only when a catalogue cannot be opened; carries SQLite's own message.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class OpenMode { readWrite, readOnly };

class Connection {
 public:
  // Opens (read-write: creating the file when missing); throws StoreError
  // with SQLite's text.
  explicit Connection(const std::string& path, OpenMode mode = OpenMode::readWrite);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  sqlite3* handle() const { return db_; }
  OpenMode mode() const { return mode_; }

  // Hands the connection to the calling thread, for a connection opened on
  // one thread and then given to a worker before either used it.
  void moveToCurrentThread() { owner_ = std::this_thread::get_id(); }
  bool onOwnerThread() const { return owner_ == std::this_thread::get_id(); }
  // How long a write waits for another writer before it fails as busy
  // (5 s unless changed); a window's thread may prefer to fail sooner.
  void setBusyTimeout(int milliseconds) const { sqlite3_busy_timeout(db_, milliseconds); }

  Statement prepare(std::string_view sql) const;
  // The same, kept prepared for the life of the connection: for the few
  // statements that bulk work runs once per file. The returned Statement
  // resets it when it goes out of scope; do not hold two of the same text.
  Statement cached(std::string_view sql) const;
  // Returns SQLite's message on failure ("sqlite error N" when it gave none).
  std::optional<std::string> execChecked(const std::string& sql) const;
  // The same as a Status, classified by SQLite's result code.
  Status exec(const std::string& sql) const;
  // Runs a statement whose failure is expected and harmless (idempotent upgrades).
  void execIgnoring(const std::string& sql) const;
  std::optional<int64_t> scalarInt(std::string_view sql) const;
  int64_t count(std::string_view table) const;
  std::vector<int64_t> ids(std::string_view sql) const;

  // Inside a Transaction of this connection (nesting is counted here, never
  // read from SQLite's autocommit state).
  bool inTransaction() const { return depth_ > 0; }
  int64_t changes() const { return sqlite3_changes64(db_); }
  int64_t lastInsertId() const { return sqlite3_last_insert_rowid(db_); }
  std::string errorMessage() const { return sqlite3_errmsg(db_); }
  // The last fault of this connection as a Status.
  Status lastStatus() const {
    return Status::sqlite(sqlite3_extended_errcode(db_), errorMessage());
  }

  // ---- the change feed --------------------------------------------------
  // Listeners hear, on the owner thread, of every committed change: once per
  // outermost COMMIT (or per write made outside a transaction). Returns a
  // token for unsubscribe.
  int subscribe(ChangeListener listener) const;
  void unsubscribe(int token) const;
  // The generation of the newest notice published (0: none yet).
  uint64_t generation() const { return generation_; }
  // Publishes one "all rows" notice when another connection or process has
  // committed since the last look; returns whether it did.
  bool checkExternalChanges() const;
  // For a write SQLite's update hook does not report (a DELETE without
  // WHERE empties the table in one go): the whole table counts as changed.
  void markAllRows(std::string_view table) const { log_.markAllRows(table); }

  // Called by a Statement of this connection when a step finished.
  void statementFinished() const;
  // Called with SQLite's result code when a statement failed.
  void statementFailed(int rc) const;

  // The first sign of a damaged file this connection met (SQLite answered
  // CORRUPT or NOTADB somewhere), or ok. Reads answer such a fault with an
  // empty or short result, so whatever shows a listing checks this first.
  const Status& damage() const { return damage_; }

 private:
  friend class Transaction;

  void assertOwner() const;
  void publish() const;
  int64_t dataVersion() const;

  sqlite3* db_ = nullptr;
  OpenMode mode_ = OpenMode::readWrite;
  std::thread::id owner_;
  mutable std::map<std::string, sqlite3_stmt*, std::less<>> cache_;
  mutable int depth_ = 0;
  mutable ChangeLog log_;
  mutable uint64_t generation_ = 0;
  mutable int64_t dataVersion_ = 0;
  mutable int nextToken_ = 1;
  mutable std::vector<std::pair<int, ChangeListener>> listeners_;
  mutable Status damage_;
};

// A transaction that rolls back unless committed. The outermost one takes
// the write lock at once (BEGIN IMMEDIATE); one opened inside it nests as a
// savepoint, so store operations can call each other and each stays atomic
// on its own. A transaction that could not begin (another writer held the
// catalogue past the timeout) is not ok(): its caller must write nothing.
class Transaction {
 public:
  explicit Transaction(const Connection& conn);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();

  bool ok() const { return status_.isOk(); }
  explicit operator bool() const { return ok(); }
  // Why it could not begin.
  const Status& status() const { return status_; }
  // Keeps the writes; a failed COMMIT rolls everything back and says why.
  Status commit();

 private:
  void rollback();

  const Connection& conn_;
  Status status_;
  bool outermost_ = false;
  bool done_ = false;
  size_t mark_ = 0;
};

// "1,2,3" for an IN (…) list. Ids are integers, so the text is always safe SQL.
std::string joinIds(std::span<const int64_t> ids);

// Unix seconds now.
int64_t unixNow();

}  // namespace orvel
