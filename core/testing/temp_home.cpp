#include "core/testing/temp_home.h"

#include <cstdlib>

namespace orvel::testing {

TempHome::TempHome() {
  const auto set = [&](const char* var, const std::filesystem::path& p) {
    std::filesystem::create_directories(p);
    setenv(var, p.c_str(), 1);
  };
  set("HOME", dir_.path());
  set("XDG_DATA_HOME", dir_ / ".local/share");
  set("XDG_STATE_HOME", dir_ / ".local/state");
  set("XDG_CONFIG_HOME", dir_ / ".config");
  set("XDG_CACHE_HOME", dir_ / ".cache");
}

}  // namespace orvel::testing
