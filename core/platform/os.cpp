#include "core/platform/os.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif
#ifdef __linux__
#include <sys/mman.h>
#endif

namespace orvel::platform {
namespace fs = std::filesystem;

bool openCloexecPipe(int fd[2]) {
#ifdef __linux__
  return ::pipe2(fd, O_CLOEXEC) == 0;
#else
  // Without pipe2 a program started by another thread between these calls
  // still inherits the ends; the window is a few system calls wide.
  int ends[2];
  if (::pipe(ends) != 0) return false;
  for (const int end : ends) {
    if (::fcntl(end, F_SETFD, FD_CLOEXEC) != 0) {
      const int error = errno;
      ::close(ends[0]);
      ::close(ends[1]);
      errno = error;
      return false;
    }
  }
  fd[0] = ends[0];
  fd[1] = ends[1];
  return true;
#endif
}

FileTimes fileTimes([[maybe_unused]] const fs::path& file, const struct stat& st) {
  FileTimes times;
#if defined(__APPLE__)
  times.modified = st.st_mtimespec.tv_sec;
  times.born = st.st_birthtimespec.tv_sec;
#elif defined(__linux__)
  times.modified = st.st_mtim.tv_sec;
#ifdef STATX_BTIME
  // DONT_SYNC: a network volume answers from what it has cached rather than
  // asking the server for one more field.
  struct statx sx {};
  if (::statx(AT_FDCWD, file.c_str(), AT_STATX_DONT_SYNC, STATX_BTIME, &sx) == 0 &&
      (sx.stx_mask & STATX_BTIME))
    times.born = sx.stx_btime.tv_sec;
#endif
#else
  times.modified = st.st_mtime;
#endif
  return times;
}

fs::path executablePath() {
  std::error_code ec;
  fs::path exe;
#if defined(__APPLE__)
  uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);  // only reports the size it needs
  std::string buffer(size, '\0');
  if (_NSGetExecutablePath(buffer.data(), &size) != 0) return {};
  // This is the path the program was started by, links and ".." included.
  exe = fs::weakly_canonical(fs::path(buffer.c_str()), ec);
#elif defined(__linux__)
  exe = fs::read_symlink("/proc/self/exe", ec);
#endif
  return ec ? fs::path() : exe;
}

void preferLargePages([[maybe_unused]] void* buffer, [[maybe_unused]] size_t bytes) {
#ifdef __linux__
  // Transparent huge pages cover whole 2 MiB steps of the address space:
  // the part of the buffer between its first and last such boundary.
  constexpr uintptr_t kHuge = uintptr_t{2} << 20;
  const auto start = reinterpret_cast<uintptr_t>(buffer);
  const uintptr_t from = (start + kHuge - 1) & ~(kHuge - 1);
  const uintptr_t to = (start + bytes) & ~(kHuge - 1);
  if (to > from) ::madvise(reinterpret_cast<void*>(from), to - from, MADV_HUGEPAGE);
#endif
}

}  // namespace orvel::platform
