// How a store write reports failure: a Status (ok, or a kind and SQLite's or
// our own words) and Result<T> (a value, or the Status that explains why
// there is none). Both are [[nodiscard]]: a write whose outcome is ignored
// does not compile in CI, so "Saved" can never be printed after a failed
// commit.
#pragma once

#include <sqlite3.h>

#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace orvel {

class [[nodiscard]] Status {
 public:
  enum class Code {
    ok,
    invalid,   // the request itself is wrong (unknown column, bad value)
    notFound,  // the row it names does not exist
    busy,      // another writer held the catalogue past the timeout
    readOnly,  // the file or its folder cannot be written
    full,      // the disk is full
    corrupt,   // the file is damaged
    failed,    // any other fault
  };

  Status() = default;
  static Status ok() { return {}; }
  static Status error(Code code, std::string message) { return {code, std::move(message)}; }
  static Status invalid(std::string message) { return {Code::invalid, std::move(message)}; }
  static Status notFound(std::string message) { return {Code::notFound, std::move(message)}; }
  static Status failed(std::string message) { return {Code::failed, std::move(message)}; }
  // A failed SQLite call, classified by its primary result code.
  static Status sqlite(int rc, std::string message);

  bool isOk() const { return code_ == Code::ok; }
  // A fault of the catalogue or the disk, not of the one request: every
  // later write would fail the same way, so bulk work stops at the first.
  bool blocksEveryWrite() const {
    return code_ == Code::busy || code_ == Code::readOnly || code_ == Code::full ||
           code_ == Code::corrupt;
  }
  explicit operator bool() const { return isOk(); }
  Code code() const { return code_; }
  const std::string& message() const { return message_; }

 private:
  Status(Code code, std::string message) : code_(code), message_(std::move(message)) {}

  Code code_ = Code::ok;
  std::string message_;
};

inline Status Status::sqlite(int rc, std::string message) {
  Code code = Code::failed;
  switch (rc & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      code = Code::busy;
      break;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_CANTOPEN:
      code = Code::readOnly;
      break;
    case SQLITE_FULL:
      code = Code::full;
      break;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      code = Code::corrupt;
      break;
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
    case SQLITE_RANGE:
      code = Code::invalid;
      break;
    default:
      break;
  }
  if (message.empty()) message = sqlite3_errstr(rc);
  return {code, std::move(message)};
}

// A value or the reason there is none. Reads like std::optional, so
// `if (auto op = store.setField(…)) use(*op); else say(op.error());`.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  // A failure; an ok Status here would be a bug, so it becomes one.
  Result(Status status)  // NOLINT(google-explicit-constructor)
      : state_(status.isOk() ? Status::failed("no value") : std::move(status)) {}

  bool has_value() const { return std::holds_alternative<T>(state_); }  // NOLINT
  explicit operator bool() const { return has_value(); }
  T& operator*() { return std::get<T>(state_); }
  const T& operator*() const { return std::get<T>(state_); }
  T* operator->() { return &std::get<T>(state_); }
  const T* operator->() const { return &std::get<T>(state_); }
  const T& value() const { return std::get<T>(state_); }
  T value_or(T fallback) const {  // NOLINT(readability-identifier-naming)
    return has_value() ? std::get<T>(state_) : std::move(fallback);
  }
  std::optional<T> optional() const {
    return has_value() ? std::optional<T>(std::get<T>(state_)) : std::nullopt;
  }

  // Ok when there is a value.
  Status status() const { return has_value() ? Status::ok() : std::get<Status>(state_); }
  // Why there is no value; empty when there is one.
  std::string error() const { return has_value() ? std::string() : status().message(); }

 private:
  std::variant<T, Status> state_;
};

// What to do about a damaged catalogue.
inline constexpr const char* kRestoreAdvice =
    "restore the newest good backup: quit Orvel, copy a file from the Backups folder beside the "
    "catalogue over it (orvel --db BACKUP info --check tells whether one is whole)";

// Why a write failed, in the user's words: the cause first, SQLite's own
// words in brackets.
inline std::string describe(const Status& why) {
  const std::string& m = why.message();
  switch (why.code()) {
    case Status::Code::busy:
      return "another program is writing the catalogue and held it longer than Orvel waits (" + m +
             "); try again when it is done";
    case Status::Code::readOnly:
      return "the catalogue cannot be written: its file or folder is read-only (" + m + ")";
    case Status::Code::full:
      return "the disk is full (" + m + ")";
    case Status::Code::corrupt:
      return "the catalogue is damaged (" + m + "); " + kRestoreAdvice;
    default:
      return m.empty() ? "no reason was given" : m;
  }
}

}  // namespace orvel
