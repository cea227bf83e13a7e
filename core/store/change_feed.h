// What a committed transaction changed, and the listeners that hear of it.
// A Connection collects the rows every statement writes (SQLite's update
// hook) and, after each outermost COMMIT, publishes one ChangeSet to its
// listeners on the thread that owns the connection. A rolled-back
// transaction publishes nothing. Writes made by another connection or
// process are noticed through `PRAGMA data_version` and published as all
// rows of every table.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace orvel {

struct ChangeSet {
  // Rises by one with every notice a connection publishes.
  uint64_t generation = 0;
  // True for writes made elsewhere (another connection or process).
  bool external = false;
  // Changed tables; each with its sorted row ids, or empty with allRows set
  // when the work was too big to list (bulk imports, other processes).
  struct Rows {
    bool allRows = false;
    std::vector<int64_t> ids;
  };
  std::map<std::string, Rows, std::less<>> tables;

  bool touches(std::string_view table) const { return tables.find(table) != tables.end(); }
  // True when the row may have changed: listed, or the table changed as a whole.
  bool touches(std::string_view table, int64_t id) const;
};

using ChangeListener = std::function<void(const ChangeSet&)>;

// Rows collected during a transaction. Savepoints mark a position so that
// rolling back a nested part drops exactly what it wrote.
class ChangeLog {
 public:
  // Above this many rows of one table a notice says "all rows" instead.
  static constexpr size_t kMaxIdsPerTable = 20'000;

  void add(std::string_view table, int64_t rowid);
  void markAllRows(std::string_view table);
  bool empty() const { return entries_.empty() && allRows_.empty(); }
  size_t mark() const { return entries_.size(); }
  void truncate(size_t mark);
  void clear();
  ChangeSet take(uint64_t generation);

 private:
  std::vector<std::string> tables_;  // interned names; few
  std::vector<std::pair<uint32_t, int64_t>> entries_;
  std::vector<std::string> allRows_;
  bool overflow_ = false;  // too many rows to keep: every touched table is "all rows"
};

}  // namespace orvel
