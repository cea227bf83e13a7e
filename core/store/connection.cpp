#include "core/store/connection.h"

#include <chrono>
#include <cstdio>

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

}  // namespace

Connection::Connection(const std::string& path) {
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
  if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    std::string message = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    db_ = nullptr;
    throw StoreError(message);
  }
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
}

Connection::~Connection() {
  for (auto& [key, stmt] : cache_) sqlite3_finalize(stmt);
  sqlite3_close_v2(db_);
}

Statement Connection::cached(std::string_view sql) const {
  std::lock_guard lock(cacheMutex_);
  auto key = std::make_pair(std::this_thread::get_id(), std::string(sql));
  auto it = cache_.find(key);
  if (it == cache_.end()) {
    Statement fresh = prepare(sql);
    if (!fresh) return fresh;
    it = cache_.emplace(std::move(key), fresh.take()).first;
  }
  return Statement(it->second, Statement::Lifetime::borrowed);
}

Statement Connection::prepare(std::string_view sql) const {
  sqlite3_stmt* stmt = nullptr;
  const std::string text(sql);
  if (sqlite3_prepare_v2(db_, text.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "SQL WOULD NOT COMPILE: %s — %s\n", sqlite3_errmsg(db_),
                 oneLine(sql).c_str());
    sqlite3_finalize(stmt);
    return Statement();
  }
  return Statement(stmt);
}

std::optional<std::string> Connection::execChecked(const std::string& sql) const {
  char* err = nullptr;
  const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err);
  if (rc == SQLITE_OK) return std::nullopt;
  if (err != nullptr) {
    std::string message(err);
    sqlite3_free(err);
    return message;
  }
  return "sqlite error " + std::to_string(rc);
}

void Connection::execIgnoring(const std::string& sql) const {
  sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
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

// The outermost transaction takes the write lock at once (BEGIN IMMEDIATE):
// a deferred one that reads first and writes later fails at the write when
// another process (the window, say) wrote in between, and waiting cannot mend
// that. Inside an open transaction it nests as a savepoint, so an inner
// failure rolls back exactly its own writes.
Transaction::Transaction(const Connection& conn) : conn_(conn) {
  if (!conn_.inTransaction() && !conn_.execChecked("BEGIN IMMEDIATE")) {
    outermost_ = true;
    return;
  }
  // Nested transactions come once per row in bulk work; a kept statement
  // saves parsing these two each time.
  done_ = conn_.cached("SAVEPOINT orvel_tx").stepCode() != SQLITE_DONE;
}

Transaction::~Transaction() {
  if (done_) return;
  if (outermost_)
    conn_.rollback();
  else
    conn_.execIgnoring("ROLLBACK TO orvel_tx; RELEASE orvel_tx");
}

bool Transaction::commit() {
  if (done_) return false;
  done_ = true;
  if (!outermost_) return conn_.cached("RELEASE orvel_tx").stepCode() == SQLITE_DONE;
  if (!conn_.execChecked("COMMIT")) return true;
  // A commit that fails must not leave the transaction open for later writes
  // to join and lose.
  conn_.rollback();
  return false;
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
