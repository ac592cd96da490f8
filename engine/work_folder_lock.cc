#include "engine/work_folder_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "util/errno_result.h"
#include "util/error.h"

namespace pkgdlv {

namespace {
constexpr Result kSharingViolation = 0x80070020;  // Win32 32: the file is in use
}

void WorkFolderLock::Open(const std::filesystem::path& folder) {
  Close();
  const std::filesystem::path path = folder / kWorkFolderLockFileName;
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) ThrowFileError(errno, "open", path);
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    ::close(fd);
    if (error == EWOULDBLOCK) Throw(kSharingViolation, "The work folder is in use by another process: '%ls'", path.string());
    ThrowFileError(error, "lock", path);
  }
  fd_ = fd;
  path_ = path;
}

void WorkFolderLock::Close() {
  if (fd_ < 0) return;
  // Deleted while still locked, so no other process can lock the old file
  // between the unlink and the close.
  ::unlink(path_.c_str());
  ::close(fd_);
  fd_ = -1;
  path_.clear();
}

}  // namespace pkgdlv
