#include "core/testing/temp_dir.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace orvel::testing {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "orvel-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

}  // namespace orvel::testing
