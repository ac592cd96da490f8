// The work folder's lock file, "pkgdlvlk.tmp": held with an exclusive lock
// while the engine uses the folder, so a second engine (another process) cannot
// take the same store, and deleted when it is closed.
//
// Since the holder deletes the file on close, a lock is only granted once the
// path, checked after locking, still names the locked file; otherwise the
// file was an old one and the attempt starts again with the current file.
// One thread at a time per object.
#pragma once

#include <filesystem>

namespace pkgdlv {

inline constexpr const char* kWorkFolderLockFileName = "pkgdlvlk.tmp";

// Whether an engine (in any process) holds folder's lock now. Read-only: a
// missing lock file means no; the file is opened for reading and only tested.
bool IsWorkFolderInUse(const std::filesystem::path& folder);

class WorkFolderLock {
 public:
  WorkFolderLock() = default;
  ~WorkFolderLock() { Close(); }
  WorkFolderLock(const WorkFolderLock&) = delete;
  WorkFolderLock& operator=(const WorkFolderLock&) = delete;

  // Creates and locks the file in folder. Throws Error with the system's code
  // (0x80070020 when another holder has it locked); the object stays closed.
  void Open(const std::filesystem::path& folder);
  // Deletes the file and releases the lock; nothing when closed.
  void Close();
  bool IsOpen() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
  std::filesystem::path path_;
};

}  // namespace pkgdlv
