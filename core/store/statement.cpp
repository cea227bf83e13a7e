#include "core/store/statement.h"

#include "core/store/connection.h"

namespace orvel {

Statement& Statement::operator=(Statement&& other) noexcept {
  if (this != &other) {
    release();
    stmt_ = other.stmt_;
    lifetime_ = other.lifetime_;
    conn_ = other.conn_;
    other.stmt_ = nullptr;
  }
  return *this;
}

Statement::~Statement() {
  release();
}

void Statement::release() {
  if (stmt_ == nullptr) return;
  if (lifetime_ == Lifetime::owned)
    sqlite3_finalize(stmt_);
  else
    reset();
  stmt_ = nullptr;
}

Statement& Statement::bind(int index, int64_t value) {
  if (stmt_ != nullptr) sqlite3_bind_int64(stmt_, index, value);
  return *this;
}

Statement& Statement::bind(int index, double value) {
  if (stmt_ != nullptr) sqlite3_bind_double(stmt_, index, value);
  return *this;
}

Statement& Statement::bind(int index, std::string_view value) {
  // A default string_view has a null data pointer, which SQLite would store as NULL.
  if (stmt_ != nullptr)
    sqlite3_bind_text(stmt_, index, value.data() != nullptr ? value.data() : "",
                      static_cast<int>(value.size()), SQLITE_TRANSIENT);
  return *this;
}

Statement& Statement::bind(int index, const std::optional<std::string>& value) {
  return value ? bind(index, std::string_view(*value)) : bindNull(index);
}

Statement& Statement::bind(int index, std::optional<int64_t> value) {
  return value ? bind(index, *value) : bindNull(index);
}

Statement& Statement::bind(int index, std::optional<double> value) {
  return value ? bind(index, *value) : bindNull(index);
}

Statement& Statement::bindNull(int index) {
  if (stmt_ != nullptr) sqlite3_bind_null(stmt_, index);
  return *this;
}

Statement& Statement::bindBlob(int index, const std::vector<uint8_t>& bytes) {
  if (stmt_ != nullptr)
    sqlite3_bind_blob(stmt_, index, bytes.empty() ? "" : static_cast<const void*>(bytes.data()),
                      static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
  return *this;
}

bool Statement::step() {
  return stepCode() == SQLITE_ROW;
}

int Statement::stepCode() {
  if (stmt_ == nullptr) return SQLITE_MISUSE;
  const int rc = sqlite3_step(stmt_);
  if (rc != SQLITE_ROW && conn_ != nullptr) {
    conn_->statementFinished();
    if (rc != SQLITE_DONE) conn_->statementFailed(rc);
  }
  return rc;
}

void Statement::reset() {
  if (stmt_ == nullptr) return;
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

std::string_view Statement::textView(int col) const {
  const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, col));
  if (p == nullptr) return {};
  return {p, static_cast<size_t>(sqlite3_column_bytes(stmt_, col))};
}

std::string Statement::text(int col) const {
  return std::string(textView(col));
}

std::optional<int64_t> Statement::optInt64(int col) const {
  if (isNull(col)) return std::nullopt;
  return int64(col);
}

std::optional<double> Statement::optReal(int col) const {
  if (isNull(col)) return std::nullopt;
  return real(col);
}

std::optional<std::string> Statement::optText(int col) const {
  if (isNull(col)) return std::nullopt;
  return text(col);
}

std::vector<uint8_t> Statement::blob(int col) const {
  const auto* p = static_cast<const uint8_t*>(sqlite3_column_blob(stmt_, col));
  const int n = sqlite3_column_bytes(stmt_, col);
  if (p == nullptr || n <= 0) return {};
  return {p, p + n};
}

}  // namespace orvel
