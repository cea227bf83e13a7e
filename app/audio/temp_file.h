// A fresh file name in the system's temporary folder ("orvel-PREFIX-XXXXXX"
// plus the extension), made with mkstemps so no other process can take it,
// and removed again when the object goes. An empty path() means no name
// could be made.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace orvel::audio {

class TempFile {
 public:
  TempFile(std::string_view prefix, std::string_view extension) {
    std::error_code ec;
    const auto dir = std::filesystem::temp_directory_path(ec);
    if (ec) return;
    std::string pattern =
        (dir / ("orvel-" + std::string(prefix) + "-XXXXXX" + std::string(extension))).string();
    const int fd = ::mkstemps(pattern.data(), int(extension.size()));
    if (fd < 0) return;
    ::close(fd);
    path_ = pattern;
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace orvel::audio
