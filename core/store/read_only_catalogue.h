// A second, read-only view of a catalogue for statements Orvel did not write
// itself (the assistant's queries). SQLite enforces the read-only open and
// query_only on top, so no statement run here can change the catalogue,
// whatever text checks it slipped past. Of the store's own SQL functions it
// has only the Unicode LIKE, so text matches as everywhere else.
#pragma once

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace orvel {

class ReadOnlyCatalogue {
 public:
  // Throws StoreError with SQLite's text when the file cannot be opened. A
  // catalogue in WAL mode reads best while the store has it open too.
  explicit ReadOnlyCatalogue(const std::string& path);
  ReadOnlyCatalogue(const ReadOnlyCatalogue&) = delete;
  ReadOnlyCatalogue& operator=(const ReadOnlyCatalogue&) = delete;
  ~ReadOnlyCatalogue();

  // How much a statement given from outside may take.
  struct Limits {
    std::chrono::milliseconds time{5000};  // then it is stopped
    size_t rows = 100'000;                 // more is refused
  };

  // The track ids a SELECT returns, in row order; or why the statement could
  // not run or its answer is not track ids. It must be one statement, end
  // within the time limit and return no more rows than allowed, and its
  // first column must be the id of tracks: a column of another table or of
  // another kind (a path, a rating, a literal) is refused, not taken for
  // ids. Rows of tracks no longer in the library (removed, merged) are left
  // out.
  std::variant<std::vector<int64_t>, std::string> idsFromSelect(std::string_view sql,
                                                                const Limits& limits) const;
  std::variant<std::vector<int64_t>, std::string> idsFromSelect(std::string_view sql) const {
    return idsFromSelect(sql, Limits{});
  }

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace orvel
