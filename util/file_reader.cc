#include "util/file_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "util/errno_result.h"

namespace pkgdlv {

FileReader::FileReader(const std::filesystem::path& path) : path_(path) {
  do {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd_ < 0 && errno == EINTR);
  if (fd_ < 0) ThrowFileError(errno, "open", path_);
  ::posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);  // only a hint: its failure changes nothing
}

FileReader::~FileReader() { ::close(fd_); }

size_t FileReader::Read(std::span<uint8_t> buffer) {
  size_t filled = 0;
  while (filled < buffer.size()) {
    const ssize_t got = ::read(fd_, buffer.data() + filled, buffer.size() - filled);
    if (got < 0) {
      if (errno == EINTR) continue;
      ThrowFileError(errno, "read", path_);
    }
    if (got == 0) break;
    filled += static_cast<size_t>(got);
  }
  return filled;
}

}  // namespace pkgdlv
