// A prepared SQLite statement that finalises itself. A Statement may be empty
// (the SQL did not compile): stepping an empty statement yields no rows, so
// callers treat a bad statement exactly like an empty result.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvel {

class Connection;

class Statement {
 public:
  // How the statement ends: finalised, or only reset because its connection
  // keeps it prepared for the next use.
  enum class Lifetime { owned, borrowed };

  Statement() = default;
  // `conn`, when given, hears of every finished step, so that a write made
  // outside a transaction is published to its change listeners.
  explicit Statement(sqlite3_stmt* stmt, Lifetime lifetime = Lifetime::owned,
                     const Connection* conn = nullptr)
      : stmt_(stmt), lifetime_(lifetime), conn_(conn) {}
  Statement(Statement&& other) noexcept
      : stmt_(other.stmt_), lifetime_(other.lifetime_), conn_(other.conn_) {
    other.stmt_ = nullptr;
  }
  Statement& operator=(Statement&& other) noexcept;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement();

  explicit operator bool() const { return stmt_ != nullptr; }
  sqlite3_stmt* get() const { return stmt_; }
  // Hands the statement over to the caller, who then finalises it.
  sqlite3_stmt* take() {
    sqlite3_stmt* s = stmt_;
    stmt_ = nullptr;
    return s;
  }

  // Binding, 1-based. Texts are copied by SQLite. An empty text binds '' (not NULL).
  Statement& bind(int index, int64_t value);
  Statement& bind(int index, int value) { return bind(index, static_cast<int64_t>(value)); }
  Statement& bind(int index, double value);
  Statement& bind(int index, std::string_view value);
  Statement& bind(int index, const char* value) { return bind(index, std::string_view(value)); }
  Statement& bind(int index, const std::string& value) {
    return bind(index, std::string_view(value));
  }
  Statement& bind(int index, const std::optional<std::string>& value);
  Statement& bind(int index, std::optional<int64_t> value);
  Statement& bind(int index, std::optional<double> value);
  Statement& bindNull(int index);
  Statement& bindBlob(int index, const std::vector<uint8_t>& bytes);

  // True while a row is ready; false when done, on an error, or when empty.
  bool step();
  // The raw result code (SQLITE_ROW, SQLITE_DONE, an error); SQLITE_MISUSE when empty.
  int stepCode();
  // Rewinds and clears the bindings, for reuse in a loop.
  void reset();

  bool isNull(int col) const { return sqlite3_column_type(stmt_, col) == SQLITE_NULL; }
  int64_t int64(int col) const { return sqlite3_column_int64(stmt_, col); }
  double real(int col) const { return sqlite3_column_double(stmt_, col); }
  // The column as text; NULL reads as "".
  std::string text(int col) const;
  std::string_view textView(int col) const;
  std::optional<int64_t> optInt64(int col) const;
  std::optional<double> optReal(int col) const;
  std::optional<std::string> optText(int col) const;
  std::vector<uint8_t> blob(int col) const;

 private:
  void release();

  sqlite3_stmt* stmt_ = nullptr;
  Lifetime lifetime_ = Lifetime::owned;
  const Connection* conn_ = nullptr;
};

}  // namespace orvel
