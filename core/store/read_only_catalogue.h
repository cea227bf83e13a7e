// A second, read-only view of a catalogue for statements Orvel did not write
// itself (the assistant's queries). SQLite enforces the read-only open and
// query_only on top, so no statement run here can change the catalogue,
// whatever text checks it slipped past. Of the store's own SQL functions it
// has only the Unicode LIKE, so text matches as everywhere else.
#pragma once

#include <sqlite3.h>

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

  // The first column's integer values, in row order; or why the statement
  // could not run (it does not compile, it is more than one statement, or
  // SQLite refused it).
  std::variant<std::vector<int64_t>, std::string> idsFromSelect(std::string_view sql) const;

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace orvel
