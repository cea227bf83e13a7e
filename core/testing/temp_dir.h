// A temporary folder removed with everything in it when the object dies.
#pragma once

#include <filesystem>

namespace orvel::testing {

class TempDir {
 public:
  TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir();
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::filesystem::path& rel) const { return path_ / rel; }

 private:
  std::filesystem::path path_;
};

}  // namespace orvel::testing
