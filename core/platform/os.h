// The few things Orvel asks of the operating system that Linux and macOS
// answer through different calls. Plain POSIX is called directly everywhere
// else; a call only one system has lives here, behind one signature.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>

namespace orvel::platform {

// Opens a pipe whose two ends are close-on-exec, so that a program another
// thread starts meanwhile does not inherit them: a stray copy of the write
// end keeps the reader from ever seeing the end of the output. fd[0] reads,
// fd[1] writes. False (errno set, fd untouched) when no pipe could be made.
bool openCloexecPipe(int fd[2]);

// A file's times, in whole seconds since the epoch.
struct FileTimes {
  int64_t modified = 0;
  std::optional<int64_t> born;  // only where the file system keeps a birth time
};

// The times of `file`, whose stat() the caller has already made. On Linux
// stat() carries no birth time, so it is asked for separately by path.
FileTimes fileTimes(const std::filesystem::path& file, const struct stat& st);

// The file of the running program with symlinks resolved, or empty when the
// system will not say.
std::filesystem::path executablePath();

// Asks for large pages behind a big buffer about to be filled (the loaded
// library: tens of megabytes), so filling it costs a few page faults rather
// than thousands. Only a hint: nothing happens where the system has no such
// pages or does not want them.
void preferLargePages(void* buffer, size_t bytes);

}  // namespace orvel::platform
