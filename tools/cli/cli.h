// The `orvel` command line: parses the arguments, runs one subcommand and
// returns the exit status (0 done, 1 failed, 2 bad usage). Output goes to
// `out`, messages and errors to `err`, so tests can run it in-process.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace orvel::cli {

// Where questions ("Rate 40 tracks?") are answered: a person at a terminal,
// or nobody, in which case an edit that needs an answer fails unless the
// command says --yes.
struct Input {
  std::istream* in = nullptr;
  bool terminal = false;
};

int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
        Input input = {});

}  // namespace orvel::cli
