// Runs another program and waits for it, its output captured: the key helper
// and the repair encoder. No shell is involved; arguments pass as they are.
// Plain POSIX (posix_spawn), so it works off the main thread without Qt.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace orvel::audio {

struct ProcessResult {
  int exitStatus = -1;  // the exit code; -1 when killed by a signal or the timeout
  std::string out;
  std::string err;
};

// argv[0] is the program's path. A program that runs longer than
// `timeoutSeconds` (when above 0) is killed. nullopt when it could not start.
std::optional<ProcessResult> runProcess(const std::vector<std::string>& argv,
                                        double timeoutSeconds = 0);

}  // namespace orvel::audio
