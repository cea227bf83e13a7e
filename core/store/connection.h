// The one SQLite connection of a catalogue, opened in serialized (full-mutex)
// mode, and the small statement helpers every store unit uses. Helpers never
// throw for SQL faults: a statement that does not compile is reported on
// stderr ("SQL WOULD NOT COMPILE: …") and behaves as an empty result.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "core/store/statement.h"

namespace orvel {

// Thrown only when a catalogue cannot be opened; carries SQLite's own message.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Connection {
 public:
  // Opens read-write, create, full mutex; throws StoreError with SQLite's text.
  explicit Connection(const std::string& path);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  sqlite3* handle() const { return db_; }

  Statement prepare(std::string_view sql) const;
  // The same, kept prepared for this thread for the life of the connection:
  // for the few statements that bulk work runs once per file. The returned
  // Statement resets it when it goes out of scope; do not hold two of the
  // same text at once.
  Statement cached(std::string_view sql) const;
  // Returns SQLite's message on failure ("sqlite error N" when it gave none).
  std::optional<std::string> execChecked(const std::string& sql) const;
  // Runs a statement whose failure is expected and harmless (idempotent upgrades).
  void execIgnoring(const std::string& sql) const;
  std::optional<int64_t> scalarInt(std::string_view sql) const;
  int64_t count(std::string_view table) const;
  std::vector<int64_t> ids(std::string_view sql) const;

  void begin() const { execIgnoring("BEGIN"); }
  void commit() const { execIgnoring("COMMIT"); }
  void rollback() const { execIgnoring("ROLLBACK"); }
  bool inTransaction() const { return sqlite3_get_autocommit(db_) == 0; }
  int64_t changes() const { return sqlite3_changes64(db_); }
  int64_t lastInsertId() const { return sqlite3_last_insert_rowid(db_); }
  std::string errorMessage() const { return sqlite3_errmsg(db_); }

 private:
  sqlite3* db_ = nullptr;
  // Per thread, so two threads sharing the connection never step one statement.
  mutable std::mutex cacheMutex_;
  mutable std::map<std::pair<std::thread::id, std::string>, sqlite3_stmt*, std::less<>> cache_;
};

// A transaction that rolls back unless committed. Inside an open transaction
// it nests (as a savepoint), so store operations can call each other and each
// stays atomic on its own. commit() says whether the writes are kept.
class Transaction {
 public:
  explicit Transaction(const Connection& conn);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();
  bool commit();

 private:
  const Connection& conn_;
  bool outermost_ = false;
  bool done_ = false;
};

// "1,2,3" for an IN (…) list. Ids are integers, so the text is always safe SQL.
std::string joinIds(std::span<const int64_t> ids);

// Unix seconds now.
int64_t unixNow();

}  // namespace orvel
