#include "core/formats/byte_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace orvel {

std::vector<uint8_t> ByteSource::read(uint64_t offset, size_t n) const {
  if (offset >= size() || n == 0) return {};
  n = static_cast<size_t>(std::min<uint64_t>(n, size() - offset));
  std::vector<uint8_t> out(n);
  out.resize(readAt(offset, out));
  return out;
}

size_t MemorySource::readAt(uint64_t offset, std::span<uint8_t> into) const {
  if (offset >= bytes_.size() || into.empty()) return 0;
  const size_t n = std::min<size_t>(into.size(), bytes_.size() - static_cast<size_t>(offset));
  std::memcpy(into.data(), bytes_.data() + offset, n);
  return n;
}

FileSource::FileSource(const std::filesystem::path& file) {
  fd_ = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) return;
  struct stat st {};
  if (::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode)) {
    size_ = static_cast<uint64_t>(st.st_size);
  } else {
    ::close(fd_);
    fd_ = -1;
  }
}

FileSource::~FileSource() {
  if (fd_ >= 0) ::close(fd_);
}

size_t FileSource::readAt(uint64_t offset, std::span<uint8_t> into) const {
  if (fd_ < 0) return 0;
  size_t got = 0;
  while (got < into.size()) {
    const ssize_t n =
        ::pread(fd_, into.data() + got, into.size() - got, static_cast<off_t>(offset + got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  return got;
}

}  // namespace orvel
