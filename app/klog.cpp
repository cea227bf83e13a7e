#include "app/klog.h"

#include "core/store/log.h"

namespace orvel::app {

// The app and the store share one log file so a user (or a bug report) has a
// single place to look; the file handling lives in core.
void klog(std::string_view message) {
  orvel::appendLogLine(message);
}

}  // namespace orvel::app
