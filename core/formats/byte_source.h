// Random reads from a file or from bytes in memory, for the readers of
// foreign containers: they seek from header to header and never load the
// audio. Reads never throw; a read past the end or a failed read gives fewer
// bytes (or none), which the readers take as the end of the data.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

namespace orvel {

class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual uint64_t size() const = 0;
  // Up to `into.size()` bytes from `offset`; how many were read.
  virtual size_t readAt(uint64_t offset, std::span<uint8_t> into) const = 0;

  // Up to `n` bytes from `offset`, fewer at the end of the data.
  std::vector<uint8_t> read(uint64_t offset, size_t n) const;
};

// Bytes the caller keeps alive.
class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  uint64_t size() const override { return bytes_.size(); }
  size_t readAt(uint64_t offset, std::span<uint8_t> into) const override;

 private:
  std::span<const uint8_t> bytes_;
};

// An open file, read with pread; a file that cannot be opened reads as empty.
class FileSource final : public ByteSource {
 public:
  explicit FileSource(const std::filesystem::path& file);
  ~FileSource() override;
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;

  bool isOpen() const { return fd_ >= 0; }
  uint64_t size() const override { return size_; }
  size_t readAt(uint64_t offset, std::span<uint8_t> into) const override;

 private:
  int fd_ = -1;
  uint64_t size_ = 0;
};

}  // namespace orvel
