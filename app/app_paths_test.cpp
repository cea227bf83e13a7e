#include "app/app_paths.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "app/settings.h"
#include "core/store/locations.h"
#include "core/store/orvel_db.h"
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
  std::ifstream in(p, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

size_t occurrences(const std::string& text, std::string_view needle) {
  size_t n = 0;
  for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

// The log lines written since the watch began.
class LogWatch {
 public:
  LogWatch() : start_(readFile(locations::logFile()).size()) {}
  std::string added() const { return readFile(locations::logFile()).substr(start_); }

 private:
  size_t start_;
};

// Points ORVEL_RESOURCES somewhere for the life of the object.
class ResourcesOverride {
 public:
  explicit ResourcesOverride(const fs::path& root) { setenv("ORVEL_RESOURCES", root.c_str(), 1); }
  ~ResourcesOverride() { unsetenv("ORVEL_RESOURCES"); }
};

double now() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

TEST(AppPathsDatabase, DevelopmentCopyReplacesOnlyAMissingOrEmptyCatalogue) {
  TempDir t;
  const fs::path dev = t / "checkout/orvel.db";
  writeFile(dev, "development catalogue");

  {  // First launch: no support folder at all.
    LogWatch log;
    const fs::path db = AppPaths::resolveDatabase(t / "fresh", dev);
    EXPECT_EQ(db, t / "fresh/orvel.db");
    EXPECT_EQ(readFile(db), "development catalogue");
    EXPECT_EQ(occurrences(log.added(), AppPaths::kMigratedMessage), 1U);
  }
  {  // An empty catalogue, with a journal that must not be replayed over the copy.
    writeFile(t / "empty/orvel.db", "");
    writeFile(t / "empty/orvel.db-wal", "stale frames");
    LogWatch log;
    const fs::path db = AppPaths::resolveDatabase(t / "empty", dev);
    EXPECT_EQ(readFile(db), "development catalogue");
    EXPECT_FALSE(fs::exists(t / "empty/orvel.db-wal"));
    EXPECT_EQ(occurrences(log.added(), AppPaths::kMigratedMessage), 1U);
  }
  {  // A catalogue in use is never replaced.
    writeFile(t / "used/orvel.db", "the user's catalogue");
    LogWatch log;
    const fs::path db = AppPaths::resolveDatabase(t / "used", dev);
    EXPECT_EQ(readFile(db), "the user's catalogue");
    EXPECT_EQ(occurrences(log.added(), AppPaths::kMigratedMessage), 0U);
  }
  {  // Without a development copy nothing is made; the store creates the file.
    const fs::path db = AppPaths::resolveDatabase(t / "plain", t / "no-checkout/orvel.db");
    EXPECT_EQ(db, t / "plain/orvel.db");
    EXPECT_FALSE(fs::exists(db));
  }
}

TEST(AppPathsDatabase, CatalogueLivesInTheCreatedSupportFolder) {
  const fs::path dataHome = std::getenv("XDG_DATA_HOME");
  EXPECT_EQ(AppPaths::support(), dataHome / "Orvel");
  EXPECT_TRUE(fs::is_directory(AppPaths::support()));
  EXPECT_EQ(AppPaths::database(), dataHome / "Orvel/orvel.db");
}

TEST(AppPathsResources, ResourceFolderFirstThenDeveloperFolderElseNothing) {
  TempDir res;
  ResourcesOverride env(res.path());
  const fs::path devDir = locations::home() / "Developer/orvel";
  writeFile(res / "scripts/tags.py", "print()");
  writeFile(res / "sounds/ding.wav", "RIFF");
  writeFile(devDir / "Scripts/tags.py", "print('older')");
  writeFile(devDir / "Scripts/only-dev.py", "print()");
  writeFile(devDir / "Resources/sounds/only-dev.wav", "RIFF");
  writeFile(devDir / "build/orvel-test-helper", "#!/bin/sh\n");
  fs::create_directories(res / "scripts/folder.py");

  EXPECT_EQ(AppPaths::script("tags.py"), res / "scripts/tags.py");
  EXPECT_EQ(AppPaths::sound("ding"), res / "sounds/ding.wav");
  EXPECT_EQ(AppPaths::script("only-dev.py"), devDir / "Scripts/only-dev.py");
  EXPECT_EQ(AppPaths::sound("only-dev"), devDir / "Resources/sounds/only-dev.wav");
  EXPECT_EQ(AppPaths::helper("orvel-test-helper"), devDir / "build/orvel-test-helper");

  EXPECT_EQ(AppPaths::script("no-such-script.py"), std::nullopt);
  EXPECT_EQ(AppPaths::sound("ding.wav"), std::nullopt);  // the extension is ours to add
  EXPECT_EQ(AppPaths::helper("no-such-helper"), std::nullopt);
  EXPECT_EQ(AppPaths::script("folder.py"), std::nullopt);  // a folder is not a script
  fs::remove_all(locations::home() / "Developer");
}

TEST(AppPathsPython, InterpreterCheckAgreesWithTheShell) {
  const fs::path python = AppPaths::python();
  EXPECT_TRUE(python == "/usr/bin/env" || ::access(python.c_str(), X_OK) == 0) << python;
  std::string command = python.string();
  for (const auto& arg : AppPaths::pythonArgs({"-c", "1"})) command += " " + arg;
  const bool shellSaysItRuns = std::system((command + " >/dev/null 2>&1").c_str()) == 0;
  EXPECT_EQ(AppPaths::pythonWorks(), shellSaysItRuns);
}

class AppPathsBackup : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(locations::backupsDir());
    OrvelDB db(catalogue_.string());
    const int64_t source = db.orvelSourceId();
    for (int i = 0; i < 3; ++i) {
      NewTrack track;
      track.path = fmt::format("/music/{}.mp3", i);
      ASSERT_TRUE(db.insertImported(track, source));
    }
  }

  static std::vector<fs::path> backups() {
    std::vector<fs::path> out;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(locations::backupsDir(), ec)) out.push_back(e.path());
    std::sort(out.begin(), out.end());
    return out;
  }

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
  EXPECT_NE(*first, *second);
  EXPECT_NE(*second, *third);
  EXPECT_EQ(backups().size(), 3U);
  EXPECT_TRUE(first->filename().string().starts_with("orvel-20")) << *first;
  EXPECT_EQ(first->extension(), ".db");
  EXPECT_EQ(occurrences(log.added(), " MB, keeping 5\n"), 3U);
  EXPECT_EQ(OrvelDB(first->string()).count("tracks"), 3);

  const auto fourth = AppPaths::backupDatabaseNow(catalogue_, 2);
  ASSERT_TRUE(fourth);
  std::vector<fs::path> expected{*third, *fourth};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(backups(), expected);
  EXPECT_NE(log.added().find("library backed up: 0."), std::string::npos);

  AppPaths::backupDatabaseNow(catalogue_, 0);  // always keeps the one just made
  EXPECT_EQ(backups().size(), 1U);
}

TEST_F(AppPathsBackup, MissingCatalogueIsLoggedAndLeavesNoFile) {
  LogWatch log;
  EXPECT_EQ(AppPaths::backupDatabaseNow(dir_ / "gone.db", 3), std::nullopt);
  EXPECT_FALSE(fs::exists(dir_ / "gone.db"));
  EXPECT_TRUE(backups().empty());
  EXPECT_EQ(occurrences(log.added(), " backup failed\n"), 1U);
}

TEST_F(AppPathsBackup, AutomaticBackupRunsAtMostOnceInTwentyHours) {
  Settings settings;
  settings.remove(keys::kLastLibraryBackup);
  EXPECT_TRUE(AppPaths::backupDatabase(catalogue_, 3, settings));
  EXPECT_FALSE(AppPaths::backupDatabase(catalogue_, 3, settings));
  EXPECT_EQ(backups().size(), 1U);

  settings.setLastLibraryBackup(now() - 71000);
  EXPECT_FALSE(AppPaths::backupDatabase(catalogue_, 3, settings));
  settings.setLastLibraryBackup(now() - 72100);
  EXPECT_TRUE(AppPaths::backupDatabase(catalogue_, 3, settings));
  EXPECT_EQ(backups().size(), 2U);

  // A failed attempt still counts: the next one waits a full interval.
  settings.setLastLibraryBackup(now() - 72100);
  EXPECT_FALSE(AppPaths::backupDatabase(dir_ / "gone.db", 3, settings));
  EXPECT_GT(settings.lastLibraryBackup(), now() - 60);
  EXPECT_FALSE(AppPaths::backupDatabase(catalogue_, 3, settings));
  EXPECT_EQ(backups().size(), 2U);
}

}  // namespace
}  // namespace orvel::app
