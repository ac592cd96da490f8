// Owns a file descriptor: closes it when replaced or destroyed.
// Not thread-safe; one owner at a time.
#pragma once

#include <unistd.h>

#include <utility>

namespace pkgdlv {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) Reset(std::exchange(other.fd_, -1));
    return *this;
  }

  // Closes the descriptor held (if any) and holds fd (-1: none).
  void Reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace pkgdlv
