// Where Orvel keeps its files. Computed from the environment on every call so
// that tests (and `HOME=/tmp/x orvel …`) can move everything; callers that want
// the value fixed for a run cache it themselves.
//
//   macOS: ~/Library/Application Support/Orvel, ~/Library/Logs/Orvel.log
//   Linux: $XDG_DATA_HOME/Orvel (~/.local/share/Orvel),
//          $XDG_STATE_HOME/Orvel/Orvel.log (~/.local/state/Orvel/Orvel.log)
#pragma once

#include <filesystem>

namespace orvel::locations {

// $HOME, or the current folder when HOME is unset.
std::filesystem::path home();

// The support folder: the catalogue, its backups and snapshots live here.
std::filesystem::path supportDir();

// The one log file that both the store's `note` and the app's `klog` append to.
std::filesystem::path logFile();

// supportDir()/"Snapshots" and supportDir()/"Backups".
std::filesystem::path snapshotsDir();
std::filesystem::path backupsDir();

}  // namespace orvel::locations
