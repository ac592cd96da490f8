// File access shared by the validator's sources (not a public interface).
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <span>
#include <string>

namespace pkgdlv::validation_io {

// Reads until buffer is full or the file ends; -1 (errno set) on an error.
inline ssize_t ReadFully(int fd, std::span<uint8_t> buffer) {
  size_t got = 0;
  while (got < buffer.size()) {
    ssize_t n = ::read(fd, buffer.data() + got, buffer.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

inline std::string ErrorText(int error) { return std::strerror(error); }

}  // namespace pkgdlv::validation_io
