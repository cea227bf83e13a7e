// Test entry point: every test process gets its own HOME and XDG folders in a
// temporary folder, so no test can read or write the user's real files.
#include <gtest/gtest.h>

#include "core/testing/temp_home.h"

int main(int argc, char** argv) {
  orvel::testing::TempHome home;
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
