// The `orvel` command line: parses the arguments, runs one subcommand and
// returns the exit status (0 done, 1 failed, 2 bad usage). Output goes to
// `out`, messages and errors to `err`, so tests can run it in-process.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace orvel::cli {

int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace orvel::cli
