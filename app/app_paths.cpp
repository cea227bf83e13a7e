#include "app/app_paths.h"

#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <QProcess>
#include <QString>
#include <QStringList>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <utility>

#include "app/klog.h"
#include "app/settings.h"
#include "core/platform/os.h"
#include "core/platform/partial_file.h"
#include "core/store/locations.h"
#include "core/store/orvel_db.h"

namespace orvel::app {
namespace fs = std::filesystem;

namespace {

bool isFile(const fs::path& p) {
  std::error_code ec;
  return !p.empty() && fs::is_regular_file(p, ec);
}

bool isExecutableFile(const fs::path& p) {
  return isFile(p) && ::access(p.c_str(), X_OK) == 0;
}

// The folder of the running program, or empty when the system will not say.
const fs::path& exeDir() {
  static const fs::path dir = platform::executablePath().parent_path();
  return dir;
}

fs::path resourcesOverride() {
  const char* root = std::getenv("ORVEL_RESOURCES");
  return root != nullptr && root[0] != '\0' ? fs::path(root) : fs::path();
}

fs::path developerDir() {
  return locations::home() / "Developer" / "orvel";
}

std::optional<fs::path> firstFile(std::initializer_list<fs::path> candidates) {
  for (const fs::path& p : candidates) {
    if (isFile(p)) return p.lexically_normal();
  }
  return std::nullopt;
}

// A path under `base` only when `base` is known; an empty candidate is skipped.
fs::path under(const fs::path& base, const fs::path& rel) {
  return base.empty() ? fs::path() : base / rel;
}

double secondsSinceEpoch() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

// "20261114T185949": sorts in time order, and is safe in any file system.
std::string backupStamp() {
  const std::time_t t = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y%m%dT%H%M%S", &tm);
  return buf;
}

// Backups sort by time stamp, then by the "-N" added for a second backup in
// the same second. Plain name order would put "…T185949-2.db" before
// "…T185949.db" ('-' sorts before '.'), pruning the newer of the two.
std::pair<std::string, long> backupOrder(const fs::path& file) {
  const std::string stem = file.stem().string();
  const auto dash = stem.rfind('-');
  const std::string_view prefix = "orvel-";
  if (dash != std::string::npos && dash > prefix.size() && dash + 1 < stem.size() &&
      std::all_of(stem.begin() + static_cast<long>(dash) + 1, stem.end(),
                  [](char c) { return c >= '0' && c <= '9'; })) {
    return {stem.substr(0, dash), std::strtol(stem.c_str() + dash + 1, nullptr, 10)};
  }
  return {stem, 1};
}

uint32_t be32(const unsigned char* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

// Whether a backup file is a whole database: SQLite's header, as many pages
// as the header says, and no journal beside it. A copy cut short by a crash
// under an older naming scheme was full-size with a hot journal, and opened
// empty once the journal rolled it back.
bool isCompleteCopy(const fs::path& file) {
  std::error_code ec;
  if (fs::exists(fs::path(file.string() + "-journal"), ec)) return false;
  const auto size = fs::file_size(file, ec);
  if (ec || size < 512) return false;
  unsigned char header[100] = {};
  std::ifstream in(file, std::ios::binary);
  if (!in.read(reinterpret_cast<char*>(header), sizeof header)) return false;
  if (std::memcmp(header, "SQLite format 3", 16) != 0) return false;
  const uint32_t pageSize =
      header[16] == 0 && header[17] == 1 ? 65536 : (header[16] << 8 | header[17]);
  if (pageSize < 512) return false;
  const uint32_t pages = be32(header + 28);
  // The page count is only valid when the file was last written by a
  // version that keeps it (the two counters agree).
  if (pages > 0 && be32(header + 24) == be32(header + 92))
    return size == static_cast<uint64_t>(pages) * pageSize;
  return size % pageSize == 0;
}

// The complete backups in `dir`, oldest first; incomplete ones left by a
// crash are removed (with their journals) and never counted.
std::vector<fs::path> completeBackups(const fs::path& dir) {
  std::vector<fs::path> files;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with("orvel-") || !name.ends_with(".db") || !entry.is_regular_file(ec))
      continue;
    if (isCompleteCopy(entry.path())) {
      files.push_back(entry.path());
    } else {
      std::error_code removeError;
      fs::remove(entry.path(), removeError);
      fs::remove(fs::path(entry.path().string() + "-journal"), removeError);
    }
  }
  std::sort(files.begin(), files.end(),
            [](const fs::path& a, const fs::path& b) { return backupOrder(a) < backupOrder(b); });
  return files;
}

void pruneBackups(const fs::path& dir, int keep) {
  const auto files = completeBackups(dir);
  if (files.size() <= static_cast<size_t>(keep)) return;
  std::error_code ec;
  const size_t excess = files.size() - static_cast<size_t>(keep);
  for (size_t i = 0; i < excess; ++i) fs::remove(files[i], ec);
}

// "ok", or the first problem SQLite's quick_check finds in the copy.
std::string quickCheck(const fs::path& file) {
  sqlite3* db = nullptr;
  std::string verdict = "cannot open the copy";
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db, "PRAGMA quick_check(1)", -1, &st, nullptr) == SQLITE_OK) {
      const int rc = sqlite3_step(st);
      verdict = rc == SQLITE_ROW ? reinterpret_cast<const char*>(sqlite3_column_text(st, 0))
                                 : sqlite3_errmsg(db);
    } else {
      verdict = sqlite3_errmsg(db);
    }
    sqlite3_finalize(st);
  }
  sqlite3_close(db);
  return verdict;
}

bool isUsualCatalogue(const fs::path& db) {
  std::error_code ec;
  return fs::weakly_canonical(db, ec) ==
         fs::weakly_canonical(locations::supportDir() / "orvel.db", ec);
}

}  // namespace

const fs::path& AppPaths::support() {
  static const fs::path dir = [] {
    fs::path d = locations::supportDir();
    std::error_code ec;
    fs::create_directories(d, ec);
    return d;
  }();
  return dir;
}

const fs::path& AppPaths::database() {
  static const fs::path db = resolveDatabase(support(), developerDir() / "orvel.db");
  return db;
}

fs::path AppPaths::resolveDatabase(const fs::path& supportDir, const fs::path& devCopy) {
  fs::path target = supportDir / "orvel.db";
  if (!isFile(devCopy)) return target;
  std::error_code ec;
  if (fs::exists(target, ec)) {
    const auto size = fs::file_size(target, ec);
    if (ec || size != 0) return target;
    fs::remove(target, ec);
    // An empty catalogue's journal files belong to it alone; left behind,
    // SQLite would replay them over the copied database.
    for (const char* suffix : {"-wal", "-shm", "-journal"}) {
      fs::remove(fs::path(target.string() + suffix), ec);
    }
  }
  fs::create_directories(supportDir, ec);
  if (fs::copy_file(devCopy, target, fs::copy_options::overwrite_existing, ec)) {
    klog(kMigratedMessage);
  }
  return target;
}

std::optional<fs::path> AppPaths::script(std::string_view name) {
  if (name.empty()) return std::nullopt;
  const fs::path n(name);
  return firstFile({
      under(resourcesOverride(), "scripts" / n),
      under(exeDir(), "scripts" / n),
      under(exeDir(), "../share/orvel/scripts" / n),
#ifdef __APPLE__
      under(exeDir(), "../Resources/Scripts" / n),
#endif
#ifdef ORVEL_SOURCE_DIR
      fs::path(ORVEL_SOURCE_DIR) / "resources/scripts" / n,
#endif
      developerDir() / "Scripts" / n,
  });
}

std::optional<fs::path> AppPaths::sound(std::string_view name) {
  if (name.empty()) return std::nullopt;
  const fs::path n = std::string(name) + ".wav";
  return firstFile({
      under(resourcesOverride(), "sounds" / n),
      under(exeDir(), "sounds" / n),
      under(exeDir(), "../share/orvel/sounds" / n),
#ifdef __APPLE__
      under(exeDir(), "../Resources/sounds" / n),
#endif
#ifdef ORVEL_SOURCE_DIR
      fs::path(ORVEL_SOURCE_DIR) / "resources/sounds" / n,
#endif
      developerDir() / "Resources" / "sounds" / n,
  });
}

std::optional<fs::path> AppPaths::helper(std::string_view name) {
  if (name.empty()) return std::nullopt;
  const fs::path n(name);
  return firstFile({
      under(exeDir(), n),
#ifdef ORVEL_BUILD_DIR
      fs::path(ORVEL_BUILD_DIR) / "tools/keyfinder" / n,
      fs::path(ORVEL_BUILD_DIR) / n,
#endif
      developerDir() / "build" / n,
  });
}

fs::path AppPaths::python() {
  for (const char* candidate :
       {"/opt/homebrew/bin/python3", "/usr/local/bin/python3", "/usr/bin/python3"}) {
    if (isExecutableFile(candidate)) return candidate;
  }
  return "/usr/bin/env";
}

std::vector<std::string> AppPaths::pythonArgs(std::vector<std::string> args) {
  if (python() == "/usr/bin/env") args.insert(args.begin(), "python3");
  return args;
}

bool AppPaths::pythonWorks() {
  static const bool works = [] {
    QStringList args;
    for (const std::string& a : pythonArgs({"-c", "1"})) args << QString::fromStdString(a);
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(QString::fromStdString(python().string()), args);
    if (!process.waitForStarted()) return false;
    // A healthy interpreter answers in well under a second; one that hangs
    // must not hang the caller with it.
    if (!process.waitForFinished(30000)) {
      process.kill();
      process.waitForFinished();
      return false;
    }
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
  }();
  return works;
}

Result<std::optional<fs::path>> AppPaths::backupDatabase(int keep, Settings& settings) {
  return backupDatabase(database(), keep, settings);
}

Result<std::optional<fs::path>> AppPaths::backupDatabase(const fs::path& db, int keep,
                                                         Settings& settings) {
  const double now = secondsSinceEpoch();
  // The usual catalogue keeps the time in the preferences; another one
  // (orvel --db) goes by its own newest backup, so neither holds the other's
  // backups off.
  const bool usual = isUsualCatalogue(db);
  double last = 0;
  if (usual) {
    last = settings.lastLibraryBackup();
  } else {
    const auto files = completeBackups(db.parent_path() / "Backups");
    std::error_code ec;
    if (!files.empty()) {
      const auto when = fs::last_write_time(files.back(), ec);
      if (!ec)
        last =
            std::chrono::duration<double>(std::chrono::file_clock::to_sys(when).time_since_epoch())
                .count();
    }
  }
  // A stamp from the future (a clock set wrong once) would otherwise stop
  // backups until the clock caught up with it.
  if (last <= now && now - last <= kBackupInterval) return std::optional<fs::path>();
  if (usual) settings.setLastLibraryBackup(now);
  auto made = backupDatabaseNow(db, keep);
  if (!made) return made.status();
  return std::optional<fs::path>(*made);
}

Result<fs::path> AppPaths::backupDatabaseNow(int keep) {
  return backupDatabaseNow(database(), keep);
}

Result<fs::path> AppPaths::backupDatabaseNow(const fs::path& db, int keep) {
  keep = std::max(keep, 1);
  // Beside the catalogue: for the usual one that is the support folder's
  // Backups; another catalogue (orvel --db) never prunes the usual backups.
  const fs::path dir = db.parent_path() / "Backups";
  const auto fail = [](Status why) {
    klog("backup failed: " + why.message());
    return why;
  };
  // Opening a missing catalogue would create an empty one, and back that up.
  if (!isFile(db)) return fail(Status::notFound("there is no catalogue at " + db.string()));
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec)
    return fail(Status::error(Status::Code::readOnly,
                              "cannot create " + dir.string() + ": " + ec.message()));
  removeAbandonedPartials(dir, "orvel-");

  const std::string stamp = backupStamp();
  fs::path target = dir / fmt::format("orvel-{}.db", stamp);
  for (int n = 2; fs::exists(target, ec); ++n)
    target = dir / fmt::format("orvel-{}-{}.db", stamp, n);
  // Written under a partial name and renamed when whole and checked, so a
  // killed backup never counts as one, nor pushes a good one out.
  const fs::path partial = partialName(target);
  fs::remove(partial, ec);
  Status copied;
  try {
    const OrvelDB source(db.string(), OpenMode::readOnly);
    copied = source.backup(partial.string());
  } catch (const std::exception& e) {
    copied = Status::failed(e.what());
  }
  if (copied) {
    if (const std::string verdict = quickCheck(partial); verdict != "ok")
      copied = Status::error(
          Status::Code::corrupt,
          fmt::format("the catalogue is damaged ({}); no backup was made and the {} in {} were "
                      "kept",
                      verdict, completeBackups(dir).size(), dir.string()));
  }
  if (copied) {
    fs::rename(partial, target, ec);
    if (ec)
      copied = Status::failed("cannot name the backup " + target.string() + ": " + ec.message());
  }
  if (!copied) {
    fs::remove(partial, ec);
    fs::remove(fs::path(partial.string() + "-journal"), ec);
    return fail(copied);
  }

  pruneBackups(dir, keep);
  const auto bytes = fs::file_size(target, ec);
  const double megabytes = ec ? 0.0 : static_cast<double>(bytes) / 1e6;
  klog(fmt::format("library backed up: {:.1f} MB, keeping {}", megabytes, keep));
  return target;
}

}  // namespace orvel::app
