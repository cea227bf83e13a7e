#include "core/store/read_only_catalogue.h"

#include <fmt/format.h>

#include <unordered_set>

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

namespace {

// Stops a statement that has run past its deadline (SQLite asks every few
// thousand steps of its engine).
int pastDeadline(void* deadline) {
  return std::chrono::steady_clock::now() >
                 *static_cast<std::chrono::steady_clock::time_point*>(deadline)
             ? 1
             : 0;
}

}  // namespace

std::variant<std::vector<int64_t>, std::string> ReadOnlyCatalogue::idsFromSelect(
    std::string_view sql, const Limits& limits) const {
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

  // Where the first column comes from, when it comes from a table's column:
  // anything but tracks.id (a path, a rating, another table's ids) would be
  // shown as the wrong tracks.
  const char* table = sqlite3_column_table_name(st.get(), 0);
  const char* column = sqlite3_column_origin_name(st.get(), 0);
  const bool fromTrackIds = table != nullptr && column != nullptr &&
                            std::string_view(table) == "tracks" && std::string_view(column) == "id";
  if (table != nullptr && !fromTrackIds)
    return std::string("its first column is ") + table + "." + (column ? column : "?") +
           ", not the track id";

  auto deadline = std::chrono::steady_clock::now() + limits.time;
  sqlite3_progress_handler(db_, 1000, pastDeadline, &deadline);
  std::vector<int64_t> ids;
  std::string refused;
  for (;;) {
    const int rc = st.stepCode();
    if (rc == SQLITE_DONE) break;
    if (rc == SQLITE_INTERRUPT) {
      refused = fmt::format("it ran longer than {} s and was stopped",
                            std::chrono::duration<double>(limits.time).count());
      break;
    }
    if (rc != SQLITE_ROW) {
      refused = sqlite3_errmsg(db_);
      break;
    }
    if (sqlite3_column_type(st.get(), 0) != SQLITE_INTEGER) {
      refused = "its first column holds something other than track ids";
      break;
    }
    if (ids.size() == limits.rows) {
      refused = fmt::format("it found more than {} tracks; ask for fewer", limits.rows);
      break;
    }
    ids.push_back(st.int64(0));
  }
  sqlite3_progress_handler(db_, 0, nullptr, nullptr);
  if (!refused.empty()) return refused;

  // Only tracks the library lists. A column of plain numbers (a literal, a
  // count) must name such tracks, each once, to be taken for ids at all.
  std::unordered_set<int64_t> live;
  {
    sqlite3_stmt* rawAll = nullptr;
    if (sqlite3_prepare_v2(db_,
                           "SELECT id FROM tracks WHERE merged_into IS NULL AND "
                           "COALESCE(removed,0)=0",
                           -1, &rawAll, nullptr) != SQLITE_OK)
      return std::string(sqlite3_errmsg(db_));
    Statement all(rawAll);
    while (all.step()) live.insert(all.int64(0));
  }
  if (!fromTrackIds) {
    std::unordered_set<int64_t> seen;
    for (int64_t id : ids)
      if (!live.contains(id) || !seen.insert(id).second)
        return std::string("its first column is not track ids");
    return ids;
  }
  std::erase_if(ids, [&](int64_t id) { return !live.contains(id); });
  return ids;
}

}  // namespace orvel
