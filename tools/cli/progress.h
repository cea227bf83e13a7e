// A one-line progress bar on stderr, drawn only when stderr is a terminal
// (scripts and tests get nothing). Redrawn at most ten times a second.
#pragma once

#include <atomic>
#include <chrono>
#include <ostream>
#include <string>
#include <string_view>

namespace orvel::cli {

class ProgressBar {
 public:
  ProgressBar(std::ostream& err, bool enabled, std::string label);
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;
  ~ProgressBar() { clear(); }

  void update(size_t done, size_t total, std::string_view detail);
  // Removes the bar so the next line starts clean.
  void clear();

  // "Importing  12/40 [#####-----------]  30% Artist/file.mp3", fitted to `width`.
  static std::string render(std::string_view label, size_t done, size_t total,
                            std::string_view detail, size_t width);

 private:
  std::ostream& err_;
  bool enabled_;
  std::string label_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_{};
};

// Whether the process's stderr is a terminal.
bool stderrIsTerminal();

// Ctrl-C and SIGTERM set a flag instead of killing the process while the
// guard lives, so long work can stop between files and report what it did.
class InterruptGuard {
 public:
  InterruptGuard();
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;
  ~InterruptGuard();
  static const std::atomic<bool>& flag();
  // Ends the work as an interrupt would, for a failure that makes going on
  // pointless (the catalogue cannot be written at all).
  static void stop();
};

}  // namespace orvel::cli
