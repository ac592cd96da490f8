#include "agent/directory_listing.h"

#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "util/error.h"
#include "util/errno_result.h"
#include "util/safe_path.h"

namespace pkgdlv {
namespace {

void ListInto(const std::filesystem::path& folder, const std::string& prefix, bool recursive,
              std::vector<DirectoryEntry>& out) {
  std::error_code ec;
  std::filesystem::directory_iterator it(folder, ec);
  if (ec) Throw(ResultFromErrno(ec.value()), "Cannot list the folder '%ls': %hs", folder.string(), ec.message());
  for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
    std::string name = it->path().filename().string();
    if (!IsSafeRelativeName(name)) continue;
    struct stat st {};
    if (::lstat(it->path().c_str(), &st) != 0) continue;  // gone meanwhile
    bool is_dir = S_ISDIR(st.st_mode);
    if (!is_dir && !S_ISREG(st.st_mode)) continue;
    DirectoryEntry entry;
    entry.relativePath = prefix.empty() ? name : prefix + "\\" + name;
    entry.isDirectory = is_dir;
    entry.size = is_dir ? 0 : static_cast<uint64_t>(st.st_size);
    entry.lastWriteTime = FileTimeFromTimespec(st.st_mtim);
    entry.lastAccessTime = FileTimeFromTimespec(st.st_atim);
    out.push_back(entry);
    if (is_dir && recursive) ListInto(it->path(), entry.relativePath, recursive, out);
  }
  if (ec) Throw(ResultFromErrno(ec.value()), "Cannot list the folder '%ls': %hs", folder.string(), ec.message());
}

}  // namespace

std::vector<DirectoryEntry> ListLocalFolder(const std::filesystem::path& folder, bool recursive) {
  struct stat st {};
  if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    Throw(result::kPathNotFound, "The folder '%ls' does not exist", folder.string());
  }
  std::vector<DirectoryEntry> entries;
  ListInto(folder, "", recursive, entries);
  return entries;
}

}  // namespace pkgdlv
