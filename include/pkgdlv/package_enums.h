// The enumerations of the public interface that describe one package.
#pragma once

#include <cstdint>

namespace pkgdlv {

// Status of a package. Documents write it as "invalid", "valid",
// "downloading", "pending", "retrying".
enum PkgDlv_Status : int32_t {
  PKGDLV_INVALID = 0,
  PKGDLV_VALID = 1,
  PKGDLV_DOWNLOADING = 2,
  PKGDLV_PENDING = 3,
  PKGDLV_RETRYING = 4,
};

// Named priorities of a package. Any other number is a legal priority too and
// is kept as it is; a larger number is more urgent.
enum PkgDlv_Priority : int32_t {
  PKGDLV_PRI_LOW = -10,
  PKGDLV_PRI_NORMAL = 0,
  PKGDLV_PRI_HIGH = 10,
};

// Outcome of a work folder relocation: success, success with packages still
// reached through links to their old place, or one of the aborted kinds.
enum RelocatePackageStoreFlags : uint32_t {
  PKGDLV_RELOCATE_SUCCESS = 0,
  PKGDLV_RELOCATE_NEEDREPAIR = 1,
  PKGDLV_RELOCATE_ABORTED = 16,
  PKGDLV_RELOCATE_ABORTED_NO_SPACE = 32,
  PKGDLV_RELOCATE_ABORTED_NOT_LOCAL = 48,
  PKGDLV_RELOCATE_ABORTED_KNOWN_FOLDER = 64,
  PKGDLV_RELOCATE_ABORTED_NOT_NTFS = 80,
  PKGDLV_RELOCATE_ABORTED_MASK = 240,
};

}  // namespace pkgdlv
