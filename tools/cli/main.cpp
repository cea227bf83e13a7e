#include <unistd.h>

#include <iostream>

#include "tools/cli/cli.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  return orvel::cli::run(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr,
                         {&std::cin, ::isatty(STDIN_FILENO) == 1});
}
