#include "app/file_output.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "core/testing/temp_dir.h"

namespace orvel::app {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& p) {
  std::ostringstream out;
  out << std::ifstream(p, std::ios::binary).rdbuf();
  return out.str();
}

// A disk that fills up part-way: the process may write no file larger than
// a few bytes (the writes fail as they would on a full disk). Run in a child
// so the limit dies with it; the child's exit code is the test's verdict.
int inChildWithFullDisk(const std::function<bool()>& body) {
  const pid_t pid = fork();
  if (pid == 0) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{16, 16};
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(body() ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

TEST(FileOutputTest, AFullDiskIsAFailureWithItsCauseAndTheOldFileStays) {
  orvel::testing::TempDir dir;
  const fs::path target = dir.path() / "gig.xml";
  const std::string big(100'000, 'x');
  const auto writeBig = [&big](QIODevice& out) {
    return out.write(big.data(), static_cast<qint64>(big.size())) ==
           static_cast<qint64>(big.size());
  };
  ASSERT_EQ(writeWholeFile(target, writeBig), "");
  EXPECT_EQ(fs::file_size(target), big.size());

  std::ofstream(dir.path() / "old.xml") << "<old/>";
  const int verdict = inChildWithFullDisk([&] {
    const std::string why = writeWholeFile(dir.path() / "old.xml", writeBig);
    // The cause, not Qt's "Unknown error".
    return !why.empty() && why.find("Unknown error") == std::string::npos;
  });
  EXPECT_EQ(verdict, 0);
  EXPECT_EQ(contents(dir.path() / "old.xml"), "<old/>");
  size_t files = 0;
  for ([[maybe_unused]] const auto& e : fs::directory_iterator(dir.path())) ++files;
  EXPECT_EQ(files, 2u);  // no partial file left

  // A writer that fails says so, and nothing is left either.
  EXPECT_NE(writeWholeFile(dir.path() / "none.png", [](QIODevice&) { return false; }), "");
  EXPECT_FALSE(fs::exists(dir.path() / "none.png"));
}

}  // namespace
}  // namespace orvel::app
