#include "tools/cli/progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>

namespace orvel::cli {
namespace {

size_t terminalWidth() {
  winsize ws{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 20) return ws.ws_col;
  return 80;
}

// Keeps the tail of a path, which says more than its head; cut on a UTF-8
// character boundary.
std::string tailOf(std::string_view text, size_t maxBytes) {
  if (text.size() <= maxBytes) return std::string(text);
  if (maxBytes < 4) return {};
  size_t from = text.size() - (maxBytes - 3);
  while (from < text.size() && (static_cast<unsigned char>(text[from]) & 0xC0) == 0x80) ++from;
  return "..." + std::string(text.substr(from));
}

std::atomic<bool> gInterrupted{false};

extern "C" void onInterrupt(int) {
  gInterrupted.store(true);
}

}  // namespace

bool stderrIsTerminal() {
  return ::isatty(STDERR_FILENO) == 1;
}

ProgressBar::ProgressBar(std::ostream& err, bool enabled, std::string label)
    : err_(err), enabled_(enabled), label_(std::move(label)) {}

std::string ProgressBar::render(std::string_view label, size_t done, size_t total,
                                std::string_view detail, size_t width) {
  const size_t pct = total == 0 ? 100 : done * 100 / total;
  const std::string count = fmt::format("{}/{}", done, total);
  constexpr size_t kBar = 24;
  const size_t filled = total == 0 ? kBar : done * kBar / total;
  std::string line = fmt::format("{} {} [{}{}] {:3}%", label, count, std::string(filled, '#'),
                                 std::string(kBar - filled, '-'), pct);
  if (line.size() + 2 < width) line += " " + tailOf(detail, width - line.size() - 2);
  return line;
}

void ProgressBar::update(size_t done, size_t total, std::string_view detail) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (drawn_ && done < total && now - last_ < std::chrono::milliseconds(100)) return;
  last_ = now;
  err_ << "\r\033[K" << render(label_, done, total, detail, terminalWidth()) << std::flush;
  drawn_ = true;
}

void ProgressBar::clear() {
  if (!drawn_) return;
  err_ << "\r\033[K" << std::flush;
  drawn_ = false;
}

namespace {
struct sigaction gOldInt {
}, gOldTerm{};
}  // namespace

InterruptGuard::InterruptGuard() {
  gInterrupted = false;
  struct sigaction sa {};
  sa.sa_handler = onInterrupt;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, &gOldInt);
  sigaction(SIGTERM, &sa, &gOldTerm);
}

InterruptGuard::~InterruptGuard() {
  sigaction(SIGINT, &gOldInt, nullptr);
  sigaction(SIGTERM, &gOldTerm, nullptr);
}

void InterruptGuard::stop() {
  gInterrupted.store(true);
}

const std::atomic<bool>& InterruptGuard::flag() {
  return gInterrupted;
}

}  // namespace orvel::cli
