// The mount holding a path is the mountinfo line with the longest mount point
// that is a prefix of the path's canonical form; its type is the field after
// the " - " separator.
#include "agent/volume_info.h"

#include <sys/statvfs.h>

#include <fstream>
#include <sstream>

#include "util/strings.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;

// mountinfo escapes blanks and backslashes in paths as octal ("\040").
std::string Unescape(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      int value = 0;
      bool octal = true;
      for (size_t k = 1; k <= 3; ++k) {
        char c = text[i + k];
        if (c < '0' || c > '7') octal = false;
        value = value * 8 + (c - '0');
      }
      if (octal) {
        out += static_cast<char>(value);
        i += 3;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

bool IsBelow(const std::string& path, const std::string& mountPoint) {
  if (mountPoint == "/") return true;
  return path.starts_with(mountPoint) && (path.size() == mountPoint.size() || path[mountPoint.size()] == '/');
}

struct Mount {
  std::string type;
  std::string device;  // the mount source ("/dev/vda1", "server:/export", "tmpfs")
};

Mount MountOf(const std::string& canonical) {
  std::ifstream mounts("/proc/self/mountinfo");
  std::string line, best;
  Mount found;
  while (std::getline(mounts, line)) {
    std::istringstream fields(line);
    std::string id, parent, device, root, mountPoint;
    if (!(fields >> id >> parent >> device >> root >> mountPoint)) continue;
    size_t separator = line.find(" - ");
    if (separator == std::string::npos) continue;
    std::istringstream tail(line.substr(separator + 3));
    std::string type, source;
    tail >> type >> source;
    mountPoint = Unescape(mountPoint);
    // Later lines mount over earlier ones at the same point.
    if (IsBelow(canonical, mountPoint) && mountPoint.size() >= best.size()) {
      best = mountPoint;
      found = {type, Unescape(source)};
    }
  }
  return found;
}

// "/dev/sdb1" is removable when /sys/block/sdb/removable says 1.
bool IsRemovableDevice(const std::string& device) {
  if (!device.starts_with("/dev/")) return false;
  std::error_code ec;
  fs::path resolved = fs::canonical(device, ec);
  if (ec) return false;
  std::string name = resolved.filename().string();
  // A partition's disk: its sysfs entry's parent folder.
  fs::path sysEntry = fs::canonical(fs::path("/sys/class/block") / name, ec);
  if (ec) return false;
  for (const fs::path& candidate : {sysEntry / "removable", sysEntry.parent_path() / "removable"}) {
    std::ifstream flag(candidate);
    int value = 0;
    if (flag >> value) return value == 1;
  }
  return false;
}

bool IsMemoryFileSystem(std::string_view type) { return type == "tmpfs" || type == "ramfs"; }

class LinuxVolumeInfo final : public VolumeInfo {
 public:
  explicit LinuxVolumeInfo(bool memoryFileSystemsAreFixed) : memoryFileSystemsAreFixed_(memoryFileSystemsAreFixed) {}

  std::optional<VolumeDetails> Query(const fs::path& path) override {
    std::error_code ec;
    fs::path canonical = fs::canonical(path, ec);
    if (ec) return std::nullopt;
    struct statvfs stats {};
    if (::statvfs(canonical.c_str(), &stats) != 0) return std::nullopt;
    VolumeDetails details;
    details.freeBytes = static_cast<uint64_t>(stats.f_bavail) * stats.f_frsize;
    const Mount mount = MountOf(canonical.string());
    details.fileSystem = mount.type;
    details.exactTimes = !IsFatFamily(details.fileSystem);
    details.sparseFiles = details.exactTimes;
    details.fixedDrive = !IsNetworkFileSystem(mount.type) && !IsRemovableDevice(mount.device) &&
                         (memoryFileSystemsAreFixed_ || !IsMemoryFileSystem(mount.type));
    return details;
  }

 private:
  const bool memoryFileSystemsAreFixed_;
};

}  // namespace

bool IsFatFamily(std::string_view fileSystem) {
  return EqualsNoCase(fileSystem, "vfat") || EqualsNoCase(fileSystem, "msdos") || EqualsNoCase(fileSystem, "exfat") ||
         EqualsNoCase(fileSystem, "fat");
}

bool IsNetworkFileSystem(std::string_view fileSystem) {
  static constexpr std::string_view kNetworkTypes[] = {"nfs",  "nfs4",      "cifs",      "smb3",       "smbfs",
                                                       "ncpfs", "afs",      "ceph",      "glusterfs", "9p",
                                                       "fuse.sshfs", "fuse.s3fs", "davfs", "fuse.davfs2", "lustre"};
  for (std::string_view type : kNetworkTypes) {
    if (EqualsNoCase(fileSystem, type)) return true;
  }
  return false;
}

std::shared_ptr<VolumeInfo> NewLinuxVolumeInfo(bool memoryFileSystemsAreFixed) {
  return std::make_shared<LinuxVolumeInfo>(memoryFileSystemsAreFixed);
}

}  // namespace pkgdlv
