#include "core/store/orvel_db.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "core/text/path_norm.h"

namespace orvel {
namespace {

// orvel_norm(path): NFC, then full Unicode lower-casing. Registered for any
// argument count so that a wrong call yields NULL instead of a SQL error.
void orvelNormSql(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (argc != 1 || sqlite3_value_type(argv[0]) == SQLITE_NULL) {
    sqlite3_result_null(ctx);
    return;
  }
  const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(argv[0]));
  const int bytes = sqlite3_value_bytes(argv[0]);
  if (text == nullptr) {
    sqlite3_result_null(ctx);
    return;
  }
  const std::string key = normalizePathKey(std::string_view(text, static_cast<size_t>(bytes)));
  sqlite3_result_text(ctx, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
}

bool isBlank(const char* s) {
  for (; s != nullptr && *s != '\0'; ++s)
    if (!std::isspace(static_cast<unsigned char>(*s))) return false;
  return true;
}

std::filesystem::path snapshotsBeside(const std::string& dbPath) {
  std::error_code ec;
  const auto absolute = std::filesystem::absolute(dbPath, ec);
  return (ec ? std::filesystem::path(dbPath) : absolute).parent_path() / "Snapshots";
}

// "orvel-" for orvel.db, "<name>-" for any other catalogue.
std::string snapshotPrefix(const std::string& dbPath) {
  const std::string stem = std::filesystem::path(dbPath).stem().string();
  return (stem.empty() ? std::string("orvel") : stem) + "-";
}

}  // namespace

OrvelDB::OrvelDB(const std::string& path, OpenMode mode)
    : path_(path),
      conn_(path, mode),
      journal_(conn_),
      snapshots_(conn_, snapshotsBeside(path), snapshotPrefix(path)) {
  // Connection settings, not writes: an up-to-date catalogue is opened
  // without touching the file.
  conn_.execIgnoring("PRAGMA synchronous=NORMAL");
  // Bulk work (imports, upgrades of big catalogues) touches many index pages;
  // the default 2 MB page cache makes it spill to the WAL over and over.
  conn_.execIgnoring("PRAGMA cache_size=-65536");
  // Every write to `tracks` fires its path-key triggers, so SQLite opens a
  // statement journal per statement; kept in memory instead of a temporary
  // file, an import's inserts cost half as much.
  conn_.execIgnoring("PRAGMA temp_store=MEMORY");
  // Reading the library is a scan of the whole tracks table; mapped, its
  // pages are read in place instead of copied page by page through read().
  conn_.execIgnoring("PRAGMA mmap_size=1073741824");
  registerFunctions();
  migrate();
}

OrvelDB::~OrvelDB() = default;

void OrvelDB::registerFunctions() {
  sqlite3_create_function_v2(conn_.handle(), "orvel_norm", -1, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                             nullptr, orvelNormSql, nullptr, nullptr, nullptr);
}

StoreArea::StoreArea(OrvelDB& db)
    : db_(db), conn_(db.connection()), journal_(db.journal()), snapshots_(db.snapshots()) {}

int64_t StoreArea::freshRowId(std::string_view table, int64_t id) const {
  Statement known =
      conn_.prepare("SELECT MAX(entity_id) FROM history WHERE entity = ? AND field = '@row'");
  known.bind(1, table);
  if (!known.step() || known.isNull(0) || known.int64(0) < id) return id;
  const std::string name(table);
  const int64_t next =
      std::max(known.int64(0), conn_.scalarInt("SELECT MAX(id) FROM " + name).value_or(0)) + 1;
  Statement move = conn_.prepare("UPDATE " + name + " SET id = ? WHERE id = ?");
  return move.bind(1, next).bind(2, id).stepCode() == SQLITE_DONE ? next : id;
}

std::string OrvelDB::normalizePath(std::string_view path) {
  return normalizePathKey(path);
}

Status OrvelDB::backup(const std::string& to) const {
  sqlite3* dest = nullptr;
  if (const int rc =
          sqlite3_open_v2(to.c_str(), &dest, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
      rc != SQLITE_OK) {
    Status why = Status::sqlite(rc, dest != nullptr ? sqlite3_errmsg(dest) : "");
    sqlite3_close(dest);
    return why;
  }
  Status status = Status::failed("could not start the backup");
  if (sqlite3_backup* b = sqlite3_backup_init(dest, "main", conn_.handle(), "main")) {
    const int stepped = sqlite3_backup_step(b, -1);
    const int finished = sqlite3_backup_finish(b);
    status = stepped != SQLITE_DONE  ? Status::sqlite(stepped, "")
             : finished != SQLITE_OK ? Status::sqlite(finished, sqlite3_errmsg(dest))
                                     : Status::ok();
    // The copy takes the catalogue's WAL mode with its pages; a backup is a
    // file on its own, to be opened read-only or carried elsewhere, so it
    // keeps no -wal and -shm beside it.
    if (status) {
      char* err = nullptr;
      if (sqlite3_exec(dest, "PRAGMA journal_mode=DELETE", nullptr, nullptr, &err) != SQLITE_OK)
        status = Status::sqlite(sqlite3_errcode(dest), err != nullptr ? err : "");
      sqlite3_free(err);
    }
  } else {
    status = Status::sqlite(sqlite3_errcode(dest), sqlite3_errmsg(dest));
  }
  if (const int rc = sqlite3_close(dest); rc != SQLITE_OK && status)
    status = Status::sqlite(rc, "");
  return status;
}

IdsOrError OrvelDB::idsFromSelect(std::string_view sql) const {
  IdsOrError out;
  const std::string text(sql);
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  if (sqlite3_prepare_v2(conn_.handle(), text.c_str(), -1, &raw, &tail) != SQLITE_OK) {
    out.error = sqlite3_errmsg(conn_.handle());
    sqlite3_finalize(raw);
    return out;
  }
  Statement st(raw);
  if (!isBlank(tail)) {
    out.error = "more than one statement";
    return out;
  }
  if (!st) {
    out.error = "no statement";
    return out;
  }
  if (sqlite3_stmt_readonly(st.get()) == 0) {
    out.error = "that query would write";
    return out;
  }
  while (st.step()) out.ids.push_back(st.int64(0));
  return out;
}

Status OrvelDB::snapshotBefore(const std::string& reason) {
  if (snapshots_.take(reason, 60)) return Status::ok();
  // Skipped (a fresh one exists) leaves no error.
  if (snapshots_.lastError().empty()) return Status::ok();
  return Status::failed(snapshots_.lastError());
}

}  // namespace orvel
