#include "app/audio/subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "core/platform/os.h"

extern char** environ;

namespace orvel::audio {
namespace {

struct Pipe {
  int fd[2] = {-1, -1};
  bool open() { return platform::openCloexecPipe(fd); }
  void closeEnd(int i) {
    if (fd[i] >= 0) ::close(fd[i]);
    fd[i] = -1;
  }
  ~Pipe() {
    closeEnd(0);
    closeEnd(1);
  }
};

struct SpawnActions {
  posix_spawn_file_actions_t a;
  SpawnActions() { posix_spawn_file_actions_init(&a); }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&a); }
};

}  // namespace

std::optional<ProcessResult> runProcess(const std::vector<std::string>& argv,
                                        double timeoutSeconds) {
  if (argv.empty()) return std::nullopt;
  Pipe out, err;
  if (!out.open() || !err.open()) return std::nullopt;
  SpawnActions actions;
  posix_spawn_file_actions_adddup2(&actions.a, out.fd[1], 1);
  posix_spawn_file_actions_adddup2(&actions.a, err.fd[1], 2);
  posix_spawn_file_actions_addopen(&actions.a, 0, "/dev/null", O_RDONLY, 0);

  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0].c_str(), &actions.a, nullptr, args.data(), environ) != 0)
    return std::nullopt;
  out.closeEnd(1);
  err.closeEnd(1);

  ProcessResult result;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  bool killed = false;
  std::array<pollfd, 2> fds = {pollfd{out.fd[0], POLLIN, 0}, pollfd{err.fd[0], POLLIN, 0}};
  std::array<std::string*, 2> sinks = {&result.out, &result.err};
  int openCount = 2;
  char buffer[4096];
  while (openCount > 0) {
    int waitMs = -1;
    if (timeoutSeconds > 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        ::kill(pid, SIGKILL);
        killed = true;
        break;
      }
      waitMs = int(left.count());
    }
    const int ready = ::poll(fds.data(), fds.size(), waitMs);
    if (ready < 0 && errno != EINTR) break;
    for (size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, size_t(n));
      } else if (n == 0 || errno != EINTR) {
        fds[i].fd = -1;
        --openCount;
      }
    }
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitStatus = !killed && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace orvel::audio
