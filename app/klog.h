// The application log: `klog` appends "<ISO 8601 UTC time> <message>" to the
// same file the store's `note` writes (locations::logFile()), without copying
// it to standard error. Never fails loudly; safe from any thread.
#pragma once

#include <string_view>

namespace orvel::app {

void klog(std::string_view message);

}  // namespace orvel::app
