#include "core/store/read_only_catalogue.h"

#include "core/store/connection.h"
#include "core/store/unicode_like.h"

namespace orvel {

ReadOnlyCatalogue::ReadOnlyCatalogue(const std::string& path) {
  const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX;
  std::string message;
  if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    message = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
  } else {
    char* err = nullptr;
    // Opening succeeds on a file that is no catalogue; failing here keeps that
    // the opener's business, as for the read-write connection.
    if (sqlite3_exec(db_, "PRAGMA query_only=ON; SELECT COUNT(*) FROM sqlite_master", nullptr,
                     nullptr, &err) != SQLITE_OK) {
      message = err != nullptr ? err : sqlite3_errmsg(db_);
      sqlite3_free(err);
    }
  }
  if (!message.empty()) {
    sqlite3_close(db_);
    db_ = nullptr;
    throw StoreError(message);
  }
  // ATTACH could open some other file beside the catalogue; nothing read here needs it.
  sqlite3_limit(db_, SQLITE_LIMIT_ATTACHED, 0);
  // The same LIKE as the store's own connections, so a query matches here
  // what a smart rule matches there.
  registerUnicodeLike(db_);
}

ReadOnlyCatalogue::~ReadOnlyCatalogue() {
  sqlite3_close_v2(db_);
}

std::variant<std::vector<int64_t>, std::string> ReadOnlyCatalogue::idsFromSelect(
    std::string_view sql) const {
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  const std::string text(sql);
  if (sqlite3_prepare_v2(db_, text.c_str(), -1, &raw, &tail) != SQLITE_OK)
    return std::string(sqlite3_errmsg(db_));
  Statement st(raw);
  // sqlite3_prepare stops after the first statement; anything after it would
  // silently not run, which is never what the asker meant. Comments and
  // semicolons alone compile to no statement and may stay.
  sqlite3_stmt* next = nullptr;
  if (tail != nullptr && *tail != '\0') {
    const int rc = sqlite3_prepare_v2(db_, tail, -1, &next, nullptr);
    sqlite3_finalize(next);
    if (rc != SQLITE_OK || next != nullptr) return std::string("only one statement may run");
  }
  if (!st) return std::string("there is no statement");

  std::vector<int64_t> ids;
  for (;;) {
    const int rc = st.stepCode();
    if (rc == SQLITE_DONE) break;
    if (rc != SQLITE_ROW) return std::string(sqlite3_errmsg(db_));
    ids.push_back(st.int64(0));
  }
  return ids;
}

}  // namespace orvel
