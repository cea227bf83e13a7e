#include "core/platform/partial_file.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>

namespace orvel {
namespace fs = std::filesystem;

namespace {

constexpr std::string_view kPartial = ".partial";

bool running(long pid) {
  if (pid <= 0) return false;
  if (pid == static_cast<long>(::getpid())) return true;
  // EPERM: it runs, under another user.
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

}  // namespace

fs::path partialName(const fs::path& target, std::string_view hiddenPrefix) {
  std::string name = std::string(hiddenPrefix) + target.filename().string() +
                     std::string(kPartial) + "-" + std::to_string(::getpid());
  return target.parent_path() / name;
}

int removeAbandonedPartials(const fs::path& dir, std::string_view prefix) {
  int removed = 0;
  const auto cutoff = fs::file_time_type::clock::now() - std::chrono::hours(1);
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (!name.starts_with(prefix)) continue;
    const auto at = name.rfind(kPartial);
    if (at == std::string::npos) continue;
    std::string_view rest = std::string_view(name).substr(at + kPartial.size());
    // SQLite's companions of a database being written there.
    for (std::string_view companion : {"-journal", "-wal", "-shm"})
      if (rest.ends_with(companion)) rest.remove_suffix(companion.size());
    bool abandoned = false;
    if (rest.empty()) {
      std::error_code timeError;
      const auto modified = fs::last_write_time(it->path(), timeError);
      abandoned = !timeError && modified < cutoff;
    } else if (rest.front() == '-') {
      long pid = 0;
      const auto [parsedTo, parseError] =
          std::from_chars(rest.data() + 1, rest.data() + rest.size(), pid);
      if (parseError != std::errc() || parsedTo != rest.data() + rest.size()) continue;
      abandoned = !running(pid);
    }
    std::error_code removeError;
    if (abandoned && fs::remove(it->path(), removeError)) ++removed;
  }
  return removed;
}

std::string writeWhole(const fs::path& target,
                       const std::function<std::string(const fs::path&)>& write) {
  const fs::path partial = partialName(target);
  std::error_code ec;
  fs::remove(partial, ec);
  std::string why = write(partial);
  if (why.empty()) {
    const auto bytes = fs::file_size(partial, ec);
    if (ec)
      why = "nothing was written (" + ec.message() + ")";
    else if (bytes == 0)
      why = "nothing was written (is the disk full?)";
  }
  if (why.empty()) {
    fs::rename(partial, target, ec);
    if (ec) why = "cannot name the file " + target.string() + ": " + ec.message();
  }
  if (!why.empty()) fs::remove(partial, ec);
  return why;
}

}  // namespace orvel
