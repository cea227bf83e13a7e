#include "core/platform/os.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "core/testing/temp_dir.h"

extern char** environ;

namespace orvel {
namespace {

namespace fs = std::filesystem;

// A reader waits for the end of a program's output; a copy of the write end
// held by an unrelated program started meanwhile would keep it waiting until
// that program exits.
TEST(PlatformPipe, EndsStayOutOfProgramsStartedMeanwhile) {
  int fd[2] = {-1, -1};
  ASSERT_TRUE(platform::openCloexecPipe(fd));
  pid_t pid = -1;
  char program[] = "sleep", seconds[] = "30";
  char* args[] = {program, seconds, nullptr};
  ASSERT_EQ(posix_spawnp(&pid, "sleep", nullptr, nullptr, args, environ), 0);
  ::close(fd[1]);
  pollfd ready{fd[0], POLLIN, 0};
  const int n = ::poll(&ready, 1, 2000);
  char byte = 0;
  EXPECT_EQ(n, 1) << "the output's end never came while the other program ran";
  if (n == 1) {
    EXPECT_EQ(::read(fd[0], &byte, 1), 0);
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  ::close(fd[0]);
}

TEST(PlatformFileTimes, ModifiedIsTheFilesDateAndBirthIsWhenItWasMade) {
  testing::TempDir dir;
  const fs::path file = dir / "track.mp3";
  std::ofstream(file) << "x";
  // Half a second past 2001-09-09 01:46:40 UTC: an old date, the way a
  // copied file keeps it, clear of the second's boundary.
  const auto sinceThen =
      std::chrono::system_clock::now() - std::chrono::system_clock::from_time_t(1'000'000'000);
  fs::last_write_time(
      file, fs::file_time_type::clock::now() - sinceThen + std::chrono::milliseconds(500));
  struct stat st {};
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  const platform::FileTimes times = platform::fileTimes(file, st);
  EXPECT_EQ(times.modified, 1'000'000'000);
  const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  if (times.born) {
    EXPECT_NEAR(*times.born, now, 60);
  }
}

TEST(PlatformExecutable, IsTheRunningProgramsFile) {
  const fs::path exe = platform::executablePath();
  EXPECT_TRUE(exe.is_absolute()) << exe;
  EXPECT_TRUE(fs::is_regular_file(exe)) << exe;
  EXPECT_EQ(exe.filename(), "orvel_core_test");
}

}  // namespace
}  // namespace orvel
