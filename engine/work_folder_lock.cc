#include "engine/work_folder_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "util/errno_result.h"
#include "util/error.h"
#include "util/unique_fd.h"

namespace pkgdlv {

namespace {
constexpr Result kSharingViolation = 0x80070020;  // Win32 32: the file is in use
// A holder that closes deletes the file; a locker that lost that race opens
// the next file. Many losses in a row mean something else keeps replacing it.
constexpr int kMaxAttempts = 1000;

// True when path still names the file open as fd: a holder may have deleted
// it (and another made a new one) between our open and our lock.
bool StillNamed(int fd, const std::filesystem::path& path) {
  struct stat opened {}, named {};
  if (::fstat(fd, &opened) != 0 || ::lstat(path.c_str(), &named) != 0) return false;
  return opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}
}  // namespace

void WorkFolderLock::Open(const std::filesystem::path& folder) {
  Close();
  const std::filesystem::path path = folder / kWorkFolderLockFileName;
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) ThrowFileError(errno, "open", path);
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      const int error = errno;
      ::close(fd);
      if (error == EWOULDBLOCK) {
        Throw(kSharingViolation, "The work folder is in use by another process: '%ls'", path.string());
      }
      ThrowFileError(error, "lock", path);
    }
    if (StillNamed(fd, path)) {
      fd_ = fd;
      path_ = path;
      return;
    }
    // Locked a file its holder had already deleted: that lock guards nothing.
    ::close(fd);
  }
  Throw(kSharingViolation, "The work folder is in use by another process: '%ls'", path.string());
}

void WorkFolderLock::Close() {
  if (fd_ < 0) return;
  // Deleted while still locked: a process that opened the old file meanwhile
  // finds, once it has the lock, that the path no longer names it.
  ::unlink(path_.c_str());
  ::close(fd_);
  fd_ = -1;
  path_.clear();
}

bool IsWorkFolderInUse(const std::filesystem::path& folder) {
  const std::filesystem::path path = folder / kWorkFolderLockFileName;
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  // Closing the file releases a shared lock taken here.
  return file.ok() && ::flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

}  // namespace pkgdlv
