#include "core/platform/partial_file.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <set>

#include "core/testing/temp_dir.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;

// The id of a process that has run and is gone.
pid_t finishedPid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

std::set<std::string> names(const fs::path& dir) {
  std::set<std::string> out;
  for (const auto& entry : fs::directory_iterator(dir)) out.insert(entry.path().filename());
  return out;
}

TEST(PartialFileTest, WhatAKilledWriterLeftGoesAndNothingElse) {
  testing::TempDir dir;
  const std::string dead = std::to_string(finishedPid());
  const std::string mine = partialName(dir.path() / "orvel-3.db").filename();
  for (const std::string& name :
       {"orvel-1.db.partial-" + dead, "orvel-1.db.partial-" + dead + "-journal", mine,
        std::string("orvel-2.db.partial"), std::string("orvel-4.db"), "other-1.db.partial-" + dead,
        std::string("orvel-5.db.partial-x1")})
    std::ofstream(dir.path() / name) << "x";
  // A copy cut short before writers put their id in the name, long ago.
  fs::last_write_time(dir.path() / "orvel-2.db.partial",
                      fs::file_time_type::clock::now() - std::chrono::hours(3));

  EXPECT_EQ(removeAbandonedPartials(dir.path(), "orvel-"), 3);
  EXPECT_EQ(names(dir.path()),
            (std::set<std::string>{mine, "orvel-4.db", "other-1.db.partial-" + dead,
                                   "orvel-5.db.partial-x1"}));
  EXPECT_EQ(partialName(dir.path() / "a.mp3", ".orvel-copy-").filename(),
            ".orvel-copy-a.mp3.partial-" + std::to_string(getpid()));
}

TEST(PartialFileTest, AFileIsWholeOrAbsent) {
  testing::TempDir dir;
  const fs::path target = dir.path() / "out.xml";
  EXPECT_EQ(writeWhole(target,
                       [](const fs::path& p) {
                         std::ofstream(p) << "<xml/>";
                         return std::string();
                       }),
            "");
  EXPECT_EQ(fs::file_size(target), 6u);
  // A disk that took nothing, and a writer that gave up: the old file stays.
  EXPECT_NE(writeWhole(target,
                       [](const fs::path& p) {
                         std::ofstream{p};
                         return std::string();
                       }),
            "");
  EXPECT_EQ(writeWhole(target, [](const fs::path&) { return std::string("no room"); }), "no room");
  EXPECT_EQ(fs::file_size(target), 6u);
  EXPECT_EQ(names(dir.path()), std::set<std::string>{"out.xml"});
}

}  // namespace
}  // namespace orvel
