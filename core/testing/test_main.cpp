// Test entry point: every test process gets its own HOME and XDG folders in a
// temporary folder, so no test can read or write the user's real files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "core/testing/temp_dir.h"

int main(int argc, char** argv) {
  orvel::testing::TempDir home;
  const auto set = [&](const char* var, const std::filesystem::path& p) {
    std::filesystem::create_directories(p);
    setenv(var, p.c_str(), 1);
  };
  set("HOME", home.path());
  set("XDG_DATA_HOME", home / ".local/share");
  set("XDG_STATE_HOME", home / ".local/state");
  set("XDG_CONFIG_HOME", home / ".config");
  set("XDG_CACHE_HOME", home / ".cache");
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
