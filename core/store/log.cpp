#include "core/store/log.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>

#include "core/store/locations.h"

namespace orvel {
namespace {

std::atomic<bool> gEcho{true};
std::mutex gFileMutex;

std::string formatLine(std::string_view message) {
  // Some messages are written with their own line break; the line gets one.
  while (!message.empty() && message.back() == '\n') message.remove_suffix(1);
  std::string line = isoNow();
  line += ' ';
  line += message;
  line += '\n';
  return line;
}

void appendToFile(const std::string& line) {
  std::lock_guard lock(gFileMutex);
  const auto path = locations::logFile();
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  // "a" creates the file when it is missing, which covers the case of a log
  // that cannot be opened for appending (it is then written as new content).
  using File = std::unique_ptr<FILE, int (*)(FILE*)>;
  File f(std::fopen(path.c_str(), "a"), &std::fclose);
  if (!f) f = File(std::fopen(path.c_str(), "w"), &std::fclose);
  if (!f) return;
  std::fwrite(line.data(), 1, line.size(), f.get());
}

}  // namespace

std::string isoNow() {
  const std::time_t t = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

std::string localTimeText(int64_t unixSeconds, const char* format) {
  const auto t = static_cast<std::time_t>(unixSeconds);
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[64];
  return std::strftime(buf, sizeof buf, format, &tm) > 0 ? buf : "";
}

void note(std::string_view message) {
  const std::string line = formatLine(message);
  appendToFile(line);
  if (gEcho.load(std::memory_order_relaxed)) std::fwrite(line.data(), 1, line.size(), stderr);
}

void appendLogLine(std::string_view message) {
  appendToFile(formatLine(message));
}

void setNoteEcho(bool echo) {
  gEcho.store(echo, std::memory_order_relaxed);
}

}  // namespace orvel
