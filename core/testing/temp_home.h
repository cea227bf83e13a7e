// Points HOME and the XDG folders at a fresh temporary folder for the life of
// the object, so test and benchmark processes never touch a real home.
#pragma once

#include "core/testing/temp_dir.h"

namespace orvel::testing {

class TempHome {
 public:
  TempHome();
  const std::filesystem::path& path() const { return dir_.path(); }

 private:
  TempDir dir_;
};

}  // namespace orvel::testing
