#include "util/same_folder.h"

#include <sys/stat.h>

#include <system_error>

namespace pkgdlv {

namespace fs = std::filesystem;

fs::path ResolvedFolder(const fs::path& folder) {
  if (folder.empty()) return {};
  std::error_code ec;
  fs::path absolute = fs::absolute(folder, ec);
  if (ec) return folder.lexically_normal();
  fs::path resolved = fs::weakly_canonical(absolute, ec);
  if (ec) return absolute.lexically_normal();
  // weakly_canonical keeps a trailing separator for a folder that does not exist.
  if (!resolved.has_filename() && resolved.has_relative_path()) resolved = resolved.parent_path();
  return resolved;
}

bool SameFolder(const fs::path& a, const fs::path& b) {
  if (a.empty() || b.empty()) return a.empty() && b.empty();
  struct stat sa {}, sb {};
  const bool aExists = ::stat(a.c_str(), &sa) == 0;
  const bool bExists = ::stat(b.c_str(), &sb) == 0;
  if (aExists && bExists) return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
  if (aExists != bExists) return false;
  return ResolvedFolder(a) == ResolvedFolder(b);
}

bool IsBelow(const fs::path& folder, const fs::path& parent) {
  const fs::path child = ResolvedFolder(folder);
  const fs::path base = ResolvedFolder(parent);
  if (child.empty() || base.empty()) return false;
  const fs::path relative = child.lexically_relative(base);
  return !relative.empty() && relative != "." && *relative.begin() != "..";
}

bool IsSymbolicLink(const fs::path& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

}  // namespace pkgdlv
