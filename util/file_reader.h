// Sequential reading of a whole file through a caller's buffer, for the
// readers that stream large files (hashing, XML) instead of loading them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>

namespace pkgdlv {

// Owns an open file descriptor. Failures throw Error with the errno's code
// (0x80070002 for a missing file) and the path. One thread at a time.
class FileReader {
 public:
  explicit FileReader(const std::filesystem::path& path);
  ~FileReader();
  FileReader(const FileReader&) = delete;
  FileReader& operator=(const FileReader&) = delete;

  // Reads up to buffer.size() bytes; fewer only at the end of the file, 0 at
  // the end.
  size_t Read(std::span<uint8_t> buffer);
  size_t Read(std::span<char> buffer) {
    return Read(std::span<uint8_t>(reinterpret_cast<uint8_t*>(buffer.data()), buffer.size()));
  }

 private:
  std::filesystem::path path_;
  int fd_ = -1;
};

}  // namespace pkgdlv
