// Systems that have no FolderWatcher (yet): create() says so with nullptr.
#if !defined(__linux__)

#include "core/import/folder_watcher.h"

namespace orvel {

std::unique_ptr<FolderWatcher> FolderWatcher::create() {
  return nullptr;
}

}  // namespace orvel

#endif
