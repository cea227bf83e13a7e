// Systems with neither inotify nor FSEvents have no FolderWatcher: create()
// says so with nullptr.
#if !defined(__linux__) && !defined(__APPLE__)

#include "core/import/folder_watcher.h"

namespace orvel {

std::unique_ptr<FolderWatcher> FolderWatcher::create() {
  return nullptr;
}

}  // namespace orvel

#endif
