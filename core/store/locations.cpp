#include "core/store/locations.h"

#include <cstdlib>

namespace orvel::locations {
namespace fs = std::filesystem;

namespace {

// An XDG variable counts only when it holds an absolute path (the XDG rule).
fs::path xdgOr(const char* var, const fs::path& fallback) {
  const char* v = std::getenv(var);
  if (v != nullptr && v[0] == '/') return fs::path(v);
  return fallback;
}

}  // namespace

fs::path home() {
  const char* h = std::getenv("HOME");
  if (h != nullptr && h[0] != '\0') return fs::path(h);
  return fs::current_path();
}

fs::path supportDir() {
#ifdef __APPLE__
  return home() / "Library" / "Application Support" / "Orvel";
#else
  return xdgOr("XDG_DATA_HOME", home() / ".local" / "share") / "Orvel";
#endif
}

fs::path logFile() {
#ifdef __APPLE__
  return home() / "Library" / "Logs" / "Orvel.log";
#else
  return xdgOr("XDG_STATE_HOME", home() / ".local" / "state") / "Orvel" / "Orvel.log";
#endif
}

fs::path snapshotsDir() {
  return supportDir() / "Snapshots";
}
fs::path backupsDir() {
  return supportDir() / "Backups";
}

}  // namespace orvel::locations
