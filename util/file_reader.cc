#include "util/file_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <istream>

#include "util/errno_result.h"
#include "util/error.h"

namespace pkgdlv {

namespace {

[[noreturn]] void ThrowNotRegular(const std::filesystem::path& path) {
  Throw(result::kInvalidArg, "'%ls' is not a regular file", path.string());
}

[[noreturn]] void ThrowTooLarge(const std::filesystem::path& path, uint64_t max_bytes) {
  Throw(result::kResponseTooLarge, "'%ls' is larger than %I64u bytes", path.string(), max_bytes);
}

}  // namespace

FileReader::FileReader(const std::filesystem::path& path) : path_(path) {
  // Looked at before it is opened: opening a device can have effects of its
  // own. Non-blocking, so that a FIFO put there meanwhile is not waited on;
  // the descriptor is then checked again.
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) ThrowNotRegular(path_);
  do {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  } while (fd_ < 0 && errno == EINTR);
  if (fd_ < 0) ThrowFileError(errno, "open", path_);
  if (::fstat(fd_, &info) != 0) {
    const int error = errno;
    ::close(fd_);
    ThrowFileError(error, "open", path_);
  }
  if (!S_ISREG(info.st_mode)) {
    ::close(fd_);
    ThrowNotRegular(path_);
  }
  size_ = static_cast<uint64_t>(info.st_size);
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

std::vector<uint8_t> ReadFileCapped(const std::filesystem::path& path, uint64_t max_bytes) {
  FileReader reader(path);
  if (reader.size() > max_bytes) ThrowTooLarge(path, max_bytes);
  // One byte more than the size says, to see a file that grew.
  std::vector<uint8_t> bytes(static_cast<size_t>(reader.size()) + 1);
  size_t used = 0;
  for (;;) {
    if (used == bytes.size()) {
      if (used > max_bytes) ThrowTooLarge(path, max_bytes);
      bytes.resize(static_cast<size_t>(std::min<uint64_t>(max_bytes + 1, uint64_t{used} * 2)));
    }
    const size_t got = reader.Read(std::span(bytes).subspan(used));
    if (got == 0) break;
    used += got;
  }
  if (used > max_bytes) ThrowTooLarge(path, max_bytes);
  bytes.resize(used);
  return bytes;
}

std::string ReadFileTextCapped(const std::filesystem::path& path, uint64_t max_bytes) {
  std::vector<uint8_t> bytes = ReadFileCapped(path, max_bytes);
  return std::string(bytes.begin(), bytes.end());
}

void CheckFileToRead(const std::filesystem::path& path, uint64_t max_bytes) {
  FileReader reader(path);
  if (reader.size() > max_bytes) ThrowTooLarge(path, max_bytes);
}

void CheckFileToReadIfPresent(const std::filesystem::path& path, uint64_t max_bytes) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 && (errno == ENOENT || errno == ENOTDIR)) return;
  CheckFileToRead(path, max_bytes);
}

std::string ReadStreamCapped(std::istream& in, uint64_t max_bytes) {
  std::string text;
  char piece[64 * 1024];
  while (in.read(piece, sizeof piece) || in.gcount() > 0) {
    if (static_cast<uint64_t>(in.gcount()) > max_bytes - text.size()) {
      Throw(result::kResponseTooLarge, "The input is larger than %I64u bytes", max_bytes);
    }
    text.append(piece, static_cast<size_t>(in.gcount()));
  }
  return text;
}

}  // namespace pkgdlv
