#include "util/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "util/errno_result.h"
#include "util/file_reader.h"

namespace pkgdlv {

namespace {

class TempFile {
 public:
  explicit TempFile(const std::filesystem::path& target) {
    name_ = target.string() + ".tmp-XXXXXX";
    fd_ = mkstemp(name_.data());
    if (fd_ < 0) ThrowFileError(errno, "create", name_);
  }
  ~TempFile() {
    if (fd_ >= 0) close(fd_);
    if (!committed_) unlink(name_.c_str());
  }

  void Write(std::span<const uint8_t> contents) {
    size_t done = 0;
    while (done < contents.size()) {
      ssize_t n = write(fd_, contents.data() + done, contents.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) ThrowFileError(errno, "write", name_);
      done += static_cast<size_t>(n);
    }
  }

  void Commit(const std::filesystem::path& target) {
    // mkstemp makes the file 0600; these documents are as readable as any other file.
    mode_t mask = umask(0);
    umask(mask);
    fchmod(fd_, 0666 & ~mask);
    if (fsync(fd_) != 0) ThrowFileError(errno, "flush", name_);
    int fd = fd_;
    fd_ = -1;
    if (close(fd) != 0) ThrowFileError(errno, "close", name_);
    if (rename(name_.c_str(), target.c_str()) != 0) ThrowFileError(errno, "rename", name_);
    committed_ = true;
  }

 private:
  std::string name_;
  int fd_ = -1;
  bool committed_ = false;
};

}  // namespace

void WriteFileAtomically(const std::filesystem::path& path, std::span<const uint8_t> contents) {
  TempFile temp(path);
  temp.Write(contents);
  temp.Commit(path);
}

std::vector<uint8_t> ReadWholeFile(const std::filesystem::path& path) {
  FileReader reader(path);
  std::vector<uint8_t> bytes;
  std::error_code ec;
  uintmax_t expected = std::filesystem::file_size(path, ec);
  bytes.resize(ec ? 64 * 1024 : static_cast<size_t>(expected) + 1);
  size_t used = 0;
  while (true) {
    if (used == bytes.size()) bytes.resize(bytes.size() * 2);
    size_t n = reader.Read(std::span<uint8_t>(bytes.data() + used, bytes.size() - used));
    if (n == 0) break;
    used += n;
  }
  bytes.resize(used);
  return bytes;
}

}  // namespace pkgdlv
