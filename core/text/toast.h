// A short message that tells the user how something went: the text, and a
// symbol id (an SF Symbols name) that the window maps to an icon and the
// command line leaves out.
#pragma once

#include <string>

namespace orvel {

struct Toast {
  std::string symbol;
  std::string text;
  bool operator==(const Toast&) const = default;
};

}  // namespace orvel
