#include "core/store/connection.h"

#include <cassert>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "core/store/unicode_like.h"
#include "core/text/split.h"

namespace orvel {
namespace {

// The statement as one line for the compile-failure report: each line trimmed,
// joined by single spaces, cut at 160 characters.
std::string oneLine(std::string_view sql) {
  std::string out;
  for (std::string_view line : split(sql, '\n')) {
    line = trim(line);
    if (line.empty()) continue;
    if (!out.empty()) out += ' ';
    out += line;
  }
  // 160 characters, not bytes: never cut a UTF-8 sequence in two.
  size_t chars = 0;
  for (size_t i = 0; i < out.size(); ++i) {
    if ((static_cast<unsigned char>(out[i]) & 0xC0) != 0x80 && ++chars > 160) {
      out.resize(i);
      break;
    }
  }
  return out;
}

void updateHook(void* arg, int /*op*/, const char* database, const char* table,
                sqlite3_int64 rowid) {
  if (std::strcmp(database, "main") != 0) return;
  static_cast<ChangeLog*>(arg)->add(table, rowid);
}

void rollbackHook(void* arg) {
  static_cast<ChangeLog*>(arg)->clear();
}

}  // namespace

Connection::Connection(const std::string& path, OpenMode mode)
    : mode_(mode), owner_(std::this_thread::get_id()) {
  // A connection belongs to one thread (checked in debug builds), so
  // SQLite's own lock around every call is only cost: reading a library
  // takes some ten million calls.
  const int flags = mode == OpenMode::readOnly
                        ? SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX
                        : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    std::string message = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    db_ = nullptr;
    throw StoreError(message);
  }
  // A window and a command line may hold the same catalogue; wait for the
  // other writer instead of failing at once.
  sqlite3_busy_timeout(db_, 5000);
  // A file that is not a catalogue opens fine and fails on first use; find
  // out now, while failing is still the opener's business.
  char* err = nullptr;
  if (sqlite3_exec(db_, "SELECT COUNT(*) FROM sqlite_master", nullptr, nullptr, &err) !=
      SQLITE_OK) {
    std::string message = err != nullptr ? err : sqlite3_errmsg(db_);
    sqlite3_free(err);
    sqlite3_close(db_);
    db_ = nullptr;
    throw StoreError(message);
  }
  // LIKE folds case the way the search field does, for every script.
  registerUnicodeLike(db_);
  sqlite3_update_hook(db_, updateHook, &log_);
  sqlite3_rollback_hook(db_, rollbackHook, &log_);
  dataVersion_ = dataVersion();
}

Connection::~Connection() {
  for (auto& [key, stmt] : cache_) sqlite3_finalize(stmt);
  sqlite3_close_v2(db_);
}

void Connection::assertOwner() const {
  assert(onOwnerThread() && "a catalogue connection used from a thread that does not own it");
}

Statement Connection::cached(std::string_view sql) const {
  assertOwner();
  auto it = cache_.find(sql);
  if (it == cache_.end()) {
    Statement fresh = prepare(sql);
    if (!fresh) return fresh;
    it = cache_.emplace(std::string(sql), fresh.take()).first;
  }
  return Statement(it->second, Statement::Lifetime::borrowed, this);
}

Statement Connection::prepare(std::string_view sql) const {
  assertOwner();
  sqlite3_stmt* stmt = nullptr;
  const std::string text(sql);
  if (const int rc = sqlite3_prepare_v2(db_, text.c_str(), -1, &stmt, nullptr); rc != SQLITE_OK) {
    statementFailed(rc);
    std::fprintf(stderr, "SQL WOULD NOT COMPILE: %s — %s\n", sqlite3_errmsg(db_),
                 oneLine(sql).c_str());
    sqlite3_finalize(stmt);
    return Statement();
  }
  return Statement(stmt, Statement::Lifetime::owned, this);
}

std::optional<std::string> Connection::execChecked(const std::string& sql) const {
  Status status = exec(sql);
  if (status) return std::nullopt;
  return status.message();
}

Status Connection::exec(const std::string& sql) const {
  assertOwner();
  char* err = nullptr;
  const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err);
  statementFinished();
  if (rc == SQLITE_OK) return Status::ok();
  statementFailed(rc);
  std::string message = err != nullptr ? std::string(err) : "sqlite error " + std::to_string(rc);
  sqlite3_free(err);
  return Status::sqlite(rc, std::move(message));
}

void Connection::execIgnoring(const std::string& sql) const {
  (void)exec(sql);
}

std::optional<int64_t> Connection::scalarInt(std::string_view sql) const {
  Statement st = prepare(sql);
  if (!st.step() || st.isNull(0)) return std::nullopt;
  return st.int64(0);
}

int64_t Connection::count(std::string_view table) const {
  return scalarInt("SELECT COUNT(*) FROM " + std::string(table)).value_or(0);
}

std::vector<int64_t> Connection::ids(std::string_view sql) const {
  std::vector<int64_t> out;
  Statement st = prepare(sql);
  while (st.step()) out.push_back(st.int64(0));
  return out;
}

int Connection::subscribe(ChangeListener listener) const {
  assertOwner();
  // A new listener hears of what others write from now on.
  dataVersion_ = dataVersion();
  listeners_.emplace_back(nextToken_, std::move(listener));
  return nextToken_++;
}

void Connection::unsubscribe(int token) const {
  std::erase_if(listeners_, [&](const auto& entry) { return entry.first == token; });
}

void Connection::statementFinished() const {
  // A write outside any transaction committed on its own: publish it now.
  if (depth_ == 0 && !log_.empty() && sqlite3_get_autocommit(db_) != 0) publish();
}

void Connection::statementFailed(int rc) const {
  const int primary = rc & 0xff;
  if (damage_.isOk() && (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB))
    damage_ = Status::sqlite(rc, sqlite3_errmsg(db_));
}

void Connection::publish() const {
  ChangeSet set = log_.take(++generation_);
  // A listener may subscribe or unsubscribe while it is told.
  const auto listeners = listeners_;
  for (const auto& [token, listener] : listeners) listener(set);
}

int64_t Connection::dataVersion() const {
  sqlite3_stmt* st = nullptr;
  int64_t version = 0;
  if (sqlite3_prepare_v2(db_, "PRAGMA data_version", -1, &st, nullptr) == SQLITE_OK &&
      sqlite3_step(st) == SQLITE_ROW)
    version = sqlite3_column_int64(st, 0);
  sqlite3_finalize(st);
  return version;
}

bool Connection::checkExternalChanges() const {
  assertOwner();
  const int64_t now = dataVersion();
  if (now == dataVersion_) return false;
  dataVersion_ = now;
  // data_version says that something changed, not what: every table counts.
  ChangeSet set;
  set.generation = ++generation_;
  set.external = true;
  {
    Statement st = prepare(
        "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite\\_%' "
        "ESCAPE '\\'");
    while (st.step()) set.tables[st.text(0)].allRows = true;
  }
  const auto listeners = listeners_;
  for (const auto& [token, listener] : listeners) listener(set);
  return true;
}

// The outermost transaction takes the write lock at once (BEGIN IMMEDIATE):
// a deferred one that reads first and writes later fails at the write when
// another process (the window, say) wrote in between, and waiting cannot mend
// that. When BEGIN IMMEDIATE fails the transaction has failed: falling back
// to anything weaker would let the caller write outside a transaction.
Transaction::Transaction(const Connection& conn) : conn_(conn) {
  conn_.assertOwner();
  if (conn_.depth_ == 0) {
    status_ = conn_.exec("BEGIN IMMEDIATE");
    if (!status_) {
      done_ = true;
      return;
    }
    outermost_ = true;
    conn_.log_.clear();
  } else {
    // Nested transactions come once per row in bulk work; a kept statement
    // saves parsing this each time.
    if (conn_.cached("SAVEPOINT orvel_tx").stepCode() != SQLITE_DONE) {
      status_ = conn_.lastStatus();
      done_ = true;
      return;
    }
    mark_ = conn_.log_.mark();
  }
  ++conn_.depth_;
}

Transaction::~Transaction() {
  if (!done_) rollback();
}

void Transaction::rollback() {
  done_ = true;
  --conn_.depth_;
  if (outermost_) {
    conn_.execIgnoring("ROLLBACK");
    conn_.log_.clear();
  } else {
    conn_.execIgnoring("ROLLBACK TO orvel_tx");
    conn_.execIgnoring("RELEASE orvel_tx");
    conn_.log_.truncate(mark_);
  }
}

Status Transaction::commit() {
  if (done_) return status_ ? Status::failed("the transaction has already ended") : status_;
  if (!outermost_) {
    if (conn_.cached("RELEASE orvel_tx").stepCode() == SQLITE_DONE) {
      done_ = true;
      --conn_.depth_;
      return Status::ok();
    }
    Status why = conn_.lastStatus();
    rollback();
    return why;
  }
  Status committed = conn_.exec("COMMIT");
  if (!committed) {
    // A commit that fails must not leave the transaction open for later
    // writes to join and lose.
    rollback();
    return committed;
  }
  done_ = true;
  --conn_.depth_;
  if (!conn_.log_.empty()) conn_.publish();
  return Status::ok();
}

std::string joinIds(std::span<const int64_t> ids) {
  std::string out;
  out.reserve(ids.size() * 7);
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i != 0) out += ',';
    out += std::to_string(ids[i]);
  }
  return out;
}

int64_t unixNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace orvel
