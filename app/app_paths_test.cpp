#include "app/app_paths.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

#include "app/settings.h"
#include "core/store/locations.h"
#include "core/store/orvel_db.h"
#include "core/testing/damage.h"
#include "core/testing/temp_dir.h"

namespace orvel::app {
namespace {
namespace fs = std::filesystem;
using orvel::testing::TempDir;

void writeFile(const fs::path& p, std::string_view contents) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << contents;
}

std::string readFile(const fs::path& p) {
  std::ostringstream out;
  out << std::ifstream(p, std::ios::binary).rdbuf();
  return out.str();
}

size_t occurrences(const std::string& text, std::string_view needle) {
  size_t n = 0;
  for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

// Counts a message among the log lines written since the watch began.
struct LogWatch {
  size_t start = readFile(locations::logFile()).size();
  size_t count(std::string_view m) const {
    return occurrences(readFile(locations::logFile()).substr(start), m);
  }
};

double now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

TEST(AppPathsDatabase, DevelopmentCopyReplacesOnlyAMissingOrEmptyCatalogue) {
  TempDir t;
  const fs::path dev = t / "checkout/orvel.db";
  writeFile(dev, "development catalogue");
  writeFile(t / "empty/orvel.db", "");
  writeFile(t / "empty/orvel.db-wal", "stale frames");  // must not be replayed over the copy
  writeFile(t / "used/orvel.db", "the user's catalogue");
  LogWatch log;

  EXPECT_EQ(readFile(AppPaths::resolveDatabase(t / "fresh", dev)), "development catalogue");
  EXPECT_EQ(readFile(AppPaths::resolveDatabase(t / "empty", dev)), "development catalogue");
  EXPECT_FALSE(fs::exists(t / "empty/orvel.db-wal"));
  EXPECT_EQ(readFile(AppPaths::resolveDatabase(t / "used", dev)), "the user's catalogue");
  EXPECT_EQ(log.count(AppPaths::kMigratedMessage), 2U);

  // Without a development copy nothing is made; the store creates the file.
  EXPECT_EQ(AppPaths::resolveDatabase(t / "plain", t / "none.db"), t / "plain/orvel.db");
  EXPECT_FALSE(fs::exists(t / "plain/orvel.db"));
}

TEST(AppPathsDatabase, CatalogueLivesInTheCreatedSupportFolder) {
  const fs::path dataHome = std::getenv("XDG_DATA_HOME");
  EXPECT_EQ(AppPaths::database(), dataHome / "Orvel/orvel.db");
  EXPECT_TRUE(fs::is_directory(dataHome / "Orvel"));
}

TEST(AppPathsResources, ResourceFolderFirstThenDeveloperFolderElseNothing) {
  TempDir res;
  setenv("ORVEL_RESOURCES", res.path().c_str(), 1);
  const fs::path dev = locations::home() / "Developer/orvel";
  writeFile(res / "scripts/tags.py", "");
  writeFile(res / "sounds/ding.wav", "");
  fs::create_directories(res / "scripts/folder.py");
  writeFile(dev / "Scripts/tags.py", "");
  writeFile(dev / "Scripts/only-dev.py", "");
  writeFile(dev / "Resources/sounds/only-dev.wav", "");
  writeFile(dev / "build/orvel-test-helper", "");

  EXPECT_EQ(AppPaths::script("tags.py"), res / "scripts/tags.py");
  EXPECT_EQ(AppPaths::sound("ding"), res / "sounds/ding.wav");
  EXPECT_EQ(AppPaths::script("only-dev.py"), dev / "Scripts/only-dev.py");
  EXPECT_EQ(AppPaths::sound("only-dev"), dev / "Resources/sounds/only-dev.wav");
  EXPECT_EQ(AppPaths::helper("orvel-test-helper"), dev / "build/orvel-test-helper");
  EXPECT_EQ(AppPaths::script("no-such-script.py"), std::nullopt);
  EXPECT_EQ(AppPaths::sound("ding.wav"), std::nullopt);  // the extension is ours to add
  EXPECT_EQ(AppPaths::helper("no-such-helper"), std::nullopt);
  EXPECT_EQ(AppPaths::script("folder.py"), std::nullopt);
  unsetenv("ORVEL_RESOURCES");
  fs::remove_all(locations::home() / "Developer");
}

// Also shows that the check works in a process without a QCoreApplication.
TEST(AppPathsPython, InterpreterCheckAgreesWithTheShell) {
  std::string command = AppPaths::python().string();
  for (const auto& arg : AppPaths::pythonArgs({"-c", "1"})) command += " " + arg;
  EXPECT_EQ(AppPaths::pythonWorks(), std::system((command + " >/dev/null 2>&1").c_str()) == 0);
}

class AppPathsBackup : public ::testing::Test {
 protected:
  void SetUp() override { fill(catalogue_, 3); }
  static void fill(const fs::path& file, int tracks) {
    OrvelDB db(file.string());
    for (int i = 0; i < tracks; ++i) {
      NewTrack track;
      track.path = fmt::format("/music/{:04} {}.mp3", i, std::string(100, 'x'));
      const auto source = db.tracks().orvelSourceId();
      ASSERT_TRUE(source) << source.error();
      const auto id = db.tracks().insertImported(track, *source);
      ASSERT_TRUE(id) << id.error();
    }
  }

  fs::path backupsDir() const { return dir_ / "Backups"; }

  std::vector<fs::path> backups() const {
    std::vector<fs::path> out;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(backupsDir(), ec)) out.push_back(e.path());
    std::sort(out.begin(), out.end());
    return out;
  }
  static bool made(const Result<std::optional<fs::path>>& r) { return r && r->has_value(); }

  TempDir dir_;
  fs::path catalogue_ = dir_ / "orvel.db";
};

TEST_F(AppPathsBackup, CopiesAreReadableNeverOverwrittenAndPrunedOldestFirst) {
  LogWatch log;
  // Backups this quick share a time stamp; each must still get its own file.
  const auto first = AppPaths::backupDatabaseNow(catalogue_, 5);
  const auto second = AppPaths::backupDatabaseNow(catalogue_, 5);
  const auto third = AppPaths::backupDatabaseNow(catalogue_, 5);
  ASSERT_TRUE(first && second && third);
  EXPECT_EQ(backups().size(), 3U);
  EXPECT_TRUE(first->filename().string().starts_with("orvel-20")) << *first;
  EXPECT_EQ(log.count("library backed up: 0."), 3U);  // a small catalogue, in MB
  EXPECT_EQ(log.count(" MB, keeping 5\n"), 3U);
  EXPECT_EQ(OrvelDB(first->string()).count("tracks"), 3);

  const auto fourth = AppPaths::backupDatabaseNow(catalogue_, 2);
  ASSERT_TRUE(fourth);
  std::vector<fs::path> newest{*third, *fourth};
  std::sort(newest.begin(), newest.end());
  EXPECT_EQ(backups(), newest);
  ASSERT_TRUE(AppPaths::backupDatabaseNow(catalogue_, 0));  // still keeps the one just made
  EXPECT_EQ(backups().size(), 1U);
}

// What killed backups left: a full-size copy with a hot journal (it opens
// empty once rolled back) under a real name, and a partial copy of a process
// that is gone. Neither counts toward the kept number; both are removed.
TEST_F(AppPathsBackup, KilledBackupsNeverPushOutGoodOnes) {
  const auto good1 = AppPaths::backupDatabaseNow(catalogue_, 10);
  const auto good2 = AppPaths::backupDatabaseNow(catalogue_, 10);
  ASSERT_TRUE(good1 && good2);
  const fs::path broken = backupsDir() / "orvel-29990101T000000.db";
  fs::copy_file(*good1, broken);
  writeFile(fs::path(broken.string() + "-journal"), std::string(512, '\0'));
  writeFile(backupsDir() / "orvel-29990101T000001.db", "");
  const std::string gone = std::to_string(std::numeric_limits<pid_t>::max() - 1);
  writeFile(backupsDir() / ("orvel-29990101T000002.db.partial-" + gone), "half");
  writeFile(backupsDir() / ("orvel-29990101T000002.db.partial-" + gone + "-journal"), "j");

  const auto third = AppPaths::backupDatabaseNow(catalogue_, 3);
  ASSERT_TRUE(third) << third.error();
  std::vector<fs::path> expected{*good1, *good2, *third};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(backups(), expected);
}

TEST_F(AppPathsBackup, ADamagedCatalogueGivesNoBackupAndKeepsTheGoodOnes) {
  fill(catalogue_, 400);
  const auto good = AppPaths::backupDatabaseNow(catalogue_, 1);
  ASSERT_TRUE(good);
  ASSERT_TRUE(orvel::testing::damageLastPageOf(catalogue_.string(), "tracks"));
  LogWatch log;
  const auto damaged = AppPaths::backupDatabaseNow(catalogue_, 1);
  ASSERT_FALSE(damaged);
  EXPECT_EQ(damaged.status().code(), Status::Code::corrupt);
  EXPECT_NE(damaged.error().find("the catalogue is damaged"), std::string::npos) << damaged.error();
  EXPECT_EQ(backups(), std::vector<fs::path>{*good});
  EXPECT_EQ(log.count("backup failed: the catalogue is damaged"), 1U);
}

TEST_F(AppPathsBackup, AutomaticBackupRunsAtMostOnceInTwentyHours) {
  // The usual catalogue is gated by the time in the preferences.
  const fs::path usual = locations::supportDir() / "orvel.db";
  fs::create_directories(usual.parent_path());
  fill(usual, 1);
  const fs::path usualBackups = usual.parent_path() / "Backups";
  Settings settings;
  settings.remove(keys::kLastLibraryBackup);
  EXPECT_TRUE(made(AppPaths::backupDatabase(usual, 3, settings)));
  EXPECT_FALSE(made(AppPaths::backupDatabase(usual, 3, settings)));
  settings.setLastLibraryBackup(now() - 71000);
  EXPECT_FALSE(made(AppPaths::backupDatabase(usual, 3, settings)));
  settings.setLastLibraryBackup(now() - 72100);
  EXPECT_TRUE(made(AppPaths::backupDatabase(usual, 3, settings)));

  // A failure is logged, leaves no file (nor creates a catalogue), and still
  // counts: the next attempt waits a full interval.
  LogWatch log;
  settings.setLastLibraryBackup(now() - 72100);
  fs::rename(usual, dir_ / "away.db");
  const auto failed = AppPaths::backupDatabase(usual, 3, settings);
  EXPECT_FALSE(failed);
  EXPECT_FALSE(fs::exists(usual));
  EXPECT_EQ(log.count(" backup failed: there is no catalogue at "), 1U);
  fs::rename(dir_ / "away.db", usual);
  EXPECT_FALSE(made(AppPaths::backupDatabase(usual, 3, settings)));
  size_t count = 0;
  for ([[maybe_unused]] const auto& e : fs::directory_iterator(usualBackups)) ++count;
  EXPECT_EQ(count, 2U);

  // Another catalogue goes by its own newest backup, whatever the preference says.
  EXPECT_TRUE(made(AppPaths::backupDatabase(catalogue_, 3, settings)));
  EXPECT_FALSE(made(AppPaths::backupDatabase(catalogue_, 3, settings)));
  const auto longAgo = fs::file_time_type::clock::now() - std::chrono::hours(21);
  fs::last_write_time(backups().front(), longAgo);
  EXPECT_TRUE(made(AppPaths::backupDatabase(catalogue_, 3, settings)));
  EXPECT_EQ(backups().size(), 2U);
}

}  // namespace
}  // namespace orvel::app
