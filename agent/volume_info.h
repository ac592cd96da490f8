// What the validator and the engine need to know about the volume holding a
// folder: its file-system kind (whether it keeps exact time stamps, whether it
// has sparse files) and its free space.
//
// One interface, a Linux implementation (statvfs and /proc/self/mountinfo),
// and fakes in tests. Any thread may call.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace pkgdlv {

struct VolumeDetails {
  std::string fileSystem;   // the mount's type ("ext4", "vfat", ...); empty when unknown
  bool exactTimes = true;   // false on FAT-family volumes, which round time stamps
  bool sparseFiles = true;  // sparse files and hole punching (ext4, xfs, btrfs, tmpfs, ...)
  uint64_t freeBytes = 0;   // bytes available to this process
  // A local disk: not a network file system, not a removable device, and not
  // a memory file system (tmpfs, ramfs) unless the implementation was told to
  // count those as local.
  bool fixedDrive = true;
};

class VolumeInfo {
 public:
  virtual ~VolumeInfo() = default;
  // The volume holding path (an existing file or folder). nullopt when it
  // cannot be determined; callers then assume exact times, as on the usual
  // volumes.
  virtual std::optional<VolumeDetails> Query(const std::filesystem::path& path) = 0;
};

// The file-system types that keep inexact (two-second) time stamps.
bool IsFatFamily(std::string_view fileSystem);
// File systems reached over the network (nfs, cifs, smb3, sshfs, ...).
bool IsNetworkFileSystem(std::string_view fileSystem);

// memoryFileSystemsAreFixed counts tmpfs and ramfs as fixed drives (a
// machine whose only writable storage is in memory).
std::shared_ptr<VolumeInfo> NewLinuxVolumeInfo(bool memoryFileSystemsAreFixed = false);

}  // namespace pkgdlv
