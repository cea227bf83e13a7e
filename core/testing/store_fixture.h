// Helpers for store tests: a catalogue in a temporary folder, a quick way to
// add tracks, and a view of what the log gained during a test.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "core/store/locations.h"
#include "core/store/orvel_db.h"
#include "core/testing/temp_dir.h"

namespace orvel::testing {

// Reads the lines the log gained since construction.
class LogCapture {
 public:
  LogCapture() : start_(size()) {}
  std::string text() const {
    std::ifstream in(locations::logFile());
    std::stringstream all;
    all << in.rdbuf();
    const std::string s = all.str();
    return s.size() > start_ ? s.substr(start_) : std::string();
  }

 private:
  static size_t size() {
    std::error_code ec;
    const auto n = std::filesystem::file_size(locations::logFile(), ec);
    return ec ? 0 : static_cast<size_t>(n);
  }
  size_t start_;
};

class StoreTest : public ::testing::Test {
 protected:
  std::string dbPath() const { return (dir_ / "orvel.db").string(); }
  OrvelDB& db() {
    if (!db_) db_ = std::make_unique<OrvelDB>(dbPath());
    return *db_;
  }
  // Closes and opens the catalogue again, as a restart would.
  OrvelDB& reopen() {
    db_.reset();
    return db();
  }
  int64_t add(const std::string& path, const std::string& title = "", int64_t dateAdded = 1000) {
    NewTrack t;
    t.path = path;
    if (!title.empty()) t.title = title;
    t.dateAdded = dateAdded;
    const auto source = db().tracks().orvelSourceId();
    if (!source) {
      ADD_FAILURE() << "no source row: " << source.error();
      return -1;
    }
    const auto id = db().tracks().insertImported(t, *source);
    if (!id) ADD_FAILURE() << "could not add " << path << ": " << id.error();
    return id.value_or(-1);
  }
  std::string field(int64_t id, const std::string& column) {
    const auto v = db().tracks().fieldValues(column, std::vector<int64_t>{id});
    return v.empty() ? "<no row>" : v.front();
  }
  // The first column of every row of `query` joined by "|", read through a
  // connection of its own (so it also sees what other processes wrote).
  std::string rows(const std::string& query) const {
    Connection conn(dbPath());
    Statement st = conn.prepare(query);
    std::string out;
    while (st.step()) out += (out.empty() ? "" : "|") + st.text(0);
    return out;
  }
  // Every row of a table, every column, NULL told apart from "", in the
  // order of their values (not of their row ids, which undo and redo may
  // change): for comparing a catalogue with itself before and after.
  std::string tableText(const std::string& table) const {
    Connection conn(dbPath());
    const int columns = sqlite3_column_count(conn.prepare("SELECT * FROM " + table).get());
    std::string order;
    for (int c = 1; c <= columns; ++c) order += (c > 1 ? "," : "") + std::to_string(c);
    Statement st = conn.prepare("SELECT * FROM " + table + " ORDER BY " + order);
    std::string out = table + ":";
    while (st.step()) {
      out += "\n";
      for (int c = 0; c < columns; ++c)
        out += (c ? "," : "") + (st.isNull(c) ? std::string("NULL") : st.text(c));
    }
    return out + "\n";
  }

  TempDir dir_;
  std::unique_ptr<OrvelDB> db_;
};

}  // namespace orvel::testing
