#include "core/store/change_feed.h"

#include <algorithm>

namespace orvel {
namespace {

// Past this many collected rows a transaction stops listing them: memory
// stays bounded on a 200,000-track import and the notice says "all rows".
constexpr size_t kMaxEntries = 1'000'000;

}  // namespace

bool ChangeSet::touches(std::string_view table, int64_t id) const {
  const auto it = tables.find(table);
  if (it == tables.end()) return false;
  return it->second.allRows || std::binary_search(it->second.ids.begin(), it->second.ids.end(), id);
}

void ChangeLog::add(std::string_view table, int64_t rowid) {
  if (overflow_) {
    markAllRows(table);
    return;
  }
  uint32_t index = 0;
  while (index < tables_.size() && tables_[index] != table) ++index;
  if (index == tables_.size()) tables_.emplace_back(table);
  entries_.emplace_back(index, rowid);
  if (entries_.size() < kMaxEntries) return;
  overflow_ = true;
  for (const auto& name : tables_) markAllRows(name);
  entries_.clear();
}

void ChangeLog::markAllRows(std::string_view table) {
  if (std::find(allRows_.begin(), allRows_.end(), table) == allRows_.end())
    allRows_.emplace_back(table);
}

void ChangeLog::truncate(size_t mark) {
  // After an overflow the rows are gone; the notice then over-reports, which
  // is safe (a listener rereads rows that did not change).
  if (!overflow_ && mark < entries_.size()) entries_.resize(mark);
}

void ChangeLog::clear() {
  entries_.clear();
  allRows_.clear();
  overflow_ = false;
}

ChangeSet ChangeLog::take(uint64_t generation) {
  ChangeSet set;
  set.generation = generation;
  for (const auto& [index, rowid] : entries_) set.tables[tables_[index]].ids.push_back(rowid);
  for (auto& [name, rows] : set.tables) {
    std::sort(rows.ids.begin(), rows.ids.end());
    rows.ids.erase(std::unique(rows.ids.begin(), rows.ids.end()), rows.ids.end());
    if (rows.ids.size() > kMaxIdsPerTable) {
      rows.allRows = true;
      rows.ids.clear();
    }
  }
  for (const auto& name : allRows_) {
    auto& rows = set.tables[name];
    rows.allRows = true;
    rows.ids.clear();
  }
  clear();
  return set;
}

}  // namespace orvel
