#include "util/errno_result.h"

#include <cerrno>
#include <cstring>

#include "util/error.h"

namespace pkgdlv {

Result ResultFromErrno(int error) {
  switch (error) {
    case ENOENT: return result::kFileNotFound;
    case ENOTDIR: return result::kPathNotFound;
    case ENOSPC: return result::kDiskFull;
    case EACCES:
    case EPERM: return FromWin32(5);  // access denied
    default: return result::kFail;
  }
}

void ThrowFileError(int error, std::string_view action, const std::filesystem::path& path) {
  Throw(ResultFromErrno(error), "Unable to %hs '%ls': %hs", action, path.string(), std::strerror(error));
}

}  // namespace pkgdlv
