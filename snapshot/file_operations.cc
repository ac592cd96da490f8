#include "snapshot/file_operations.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <set>

#include "agent/crypto.h"
#include "util/base64.h"
#include "util/errno_result.h"
#include "util/safe_path.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;
constexpr std::string_view kComponent = kSnapshotLogComponent;

bool IsNotFound(int error) { return error == ENOENT || error == ENOTDIR; }

bool HasPath(const Snapshot& snapshot) {
  if (!snapshot.path.empty()) return true;
  snapshot.log().Log(loglevel::kWarning, kComponent, "No path specified for snapshot");
  return false;
}

bool IsSymlink(const fs::path& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

enum class Root { kPackage, kUserFolder };

// The entry's path below root, or nullopt (with a warning) when its name is
// unsafe or a folder between root and it is a symbolic link, which could lead
// anywhere. A package folder may not be a link itself either; a folder the
// caller names as a copy's target may.
std::optional<fs::path> SafePath(const Snapshot& snapshot, const fs::path& root, const SnapshotEntry& entry,
                                 Root kind = Root::kPackage) {
  try {
    fs::path rootFolder = root.lexically_normal();
    if (!rootFolder.has_filename()) rootFolder = rootFolder.parent_path();
    if (kind == Root::kPackage && IsSymlink(rootFolder)) {
      Throw(result::kInvalidArg, "Unsafe path '%ls': the package folder '%ls' is a symbolic link",
            PrintableName(entry.RelativePath()), root.string());
    }
    fs::path path = ResolveInside(root, entry.RelativePath());
    fs::path walked = root;
    fs::path relative = path.lexically_relative(root);
    for (auto it = relative.begin(); it != relative.end(); ++it) {
      walked /= *it;
      if (std::next(it) == relative.end() && entry.IsFile()) break;  // the file itself is checked where it is used
      struct stat info {};
      if (::lstat(walked.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
        Throw(result::kInvalidArg, "Unsafe path '%ls': '%ls' is a symbolic link", PrintableName(entry.RelativePath()),
              walked.string());
      }
    }
    return path;
  } catch (const Error& e) {
    snapshot.log().Log(loglevel::kWarning, kComponent, "%ls", e.description());
    return std::nullopt;
  }
}

bool IsUnchanged(const SnapshotEntry& entry, const fs::path& target) {
  struct stat info {};
  if (::stat(target.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  return info.st_size == entry.size && SameSecond(FileTimeFromTimespec(info.st_mtim), entry.lastModified);
}

// Copies bytes and the last-write time; the target is replaced.
void CopyOneFile(const fs::path& source, const fs::path& target, std::error_code& ec) {
  if (IsSymlink(source)) {
    ec = std::make_error_code(std::errc::operation_not_permitted);
    return;
  }
  fs::copy_file(source, target, fs::copy_options::overwrite_existing, ec);
  if (ec) return;
  fs::last_write_time(target, fs::last_write_time(source, ec), ec);
}

void RemoveFolders(const std::set<fs::path>& folders) {
  for (const fs::path& folder : folders) ::rmdir(folder.c_str());  // a folder that is not empty stays
}

std::set<fs::path> OldFolders(const Snapshot& snapshot) {
  std::set<fs::path> folders;
  for (const SnapshotEntry& entry : snapshot.entries) {
    try {
      folders.insert(ResolveInside(snapshot.path, entry.folder));
    } catch (const Error&) {  // refused with its warning by the walk
    }
  }
  return folders;
}

}  // namespace

bool CopyFiles(const Snapshot& snapshot, const fs::path& targetFolder, bool skipUnchanged) {
  if (!HasPath(snapshot)) return false;
  Logger& log = snapshot.log();
  bool ok = true;
  for (const SnapshotEntry& entry : snapshot.entries) {
    std::optional<fs::path> source = SafePath(snapshot, snapshot.path, entry);
    std::optional<fs::path> target = SafePath(snapshot, targetFolder, entry, Root::kUserFolder);
    if (!source || !target) {
      ok = false;
      continue;
    }
    std::error_code ec;
    fs::create_directories(entry.IsFile() ? target->parent_path() : *target, ec);
    if (entry.IsFolder()) continue;
    if (skipUnchanged && IsUnchanged(entry, *target)) continue;
    if (IsSymlink(*target)) fs::remove(*target, ec);  // replaced, never written through
    CopyOneFile(*source, *target, ec);
    if (ec && !IsNotFound(ec.value())) {
      log.LogWithError(loglevel::kWarning, kComponent, ec.message(), "Failed to copy file: %ls", source->string());
      ok = false;
    }
  }
  return ok;
}

bool MoveFiles(const Snapshot& snapshot, const fs::path& newFolder) {
  if (!HasPath(snapshot)) return false;
  Logger& log = snapshot.log();
  std::error_code ec;
  if (snapshot.entries.empty()) {
    fs::create_directories(newFolder, ec);
    if (ec) {
      log.Log(loglevel::kWarning, "MoveFiles", "Failed to move file, failed to create the new package folder.");
      return false;
    }
    return true;
  }
  bool ok = true;
  for (const SnapshotEntry& entry : snapshot.entries) {
    std::optional<fs::path> source = SafePath(snapshot, snapshot.path, entry);
    std::optional<fs::path> target = SafePath(snapshot, newFolder, entry);
    if (!source || !target) {
      ok = false;
      continue;
    }
    fs::create_directories(entry.IsFile() ? target->parent_path() : *target, ec);
    if (entry.IsFolder()) continue;
    ec.clear();
    fs::rename(*source, *target, ec);
    if (ec && ec.value() == EXDEV) {  // another volume: copy, then remove the original
      CopyOneFile(*source, *target, ec);
      if (!ec) fs::remove(*source, ec);
    }
    if (ec && !IsNotFound(ec.value())) {
      log.LogWithError(loglevel::kWarning, kComponent, ec.message(), "Failed to move file: %ls", source->string());
      ok = false;
    }
  }
  RemoveFolders(OldFolders(snapshot));
  return ok;
}

bool DeleteInvalidFiles(const Snapshot& snapshot, bool invalidOnly) {
  if (!HasPath(snapshot)) return false;
  Logger& log = snapshot.log();
  bool ok = true;
  for (const SnapshotEntry& entry : snapshot.entries) {
    if (!entry.IsFile() || (invalidOnly && entry.state != entrystate::kInvalid)) continue;
    std::optional<fs::path> path = SafePath(snapshot, snapshot.path, entry);
    if (!path) {
      ok = false;
      continue;
    }
    struct stat info {};
    if (::lstat(path->c_str(), &info) != 0) continue;
    log.Log(loglevel::kTrace, kComponent, "Deleting invalid file: %ls", path->string());
    if (::unlink(path->c_str()) != 0 && !IsNotFound(errno)) {
      int error = errno;
      log.Log(loglevel::kWarning, kComponent, "Failed to delete file: 0x%08X [%ls] %ls", ResultFromErrno(error),
              std::strerror(error), path->string());
      ok = false;
    }
  }
  if (!invalidOnly) RemoveFolders(OldFolders(snapshot));
  return ok;
}

Result DeletePackageFiles(const Snapshot& snapshot) {
  if (!HasPath(snapshot)) return result::kInvalidArg;
  if (snapshot.deleteInvalidOnly != 0) return DeleteInvalidFiles(snapshot, false) ? result::kOk : result::kFail;
  std::error_code ec;
  fs::remove_all(snapshot.path, ec);
  if (ec && !IsNotFound(ec.value())) return ResultFromErrno(ec.value());
  return result::kOk;
}

void UpdateUnknownFiles(Snapshot& snapshot) {
  if (!HasPath(snapshot)) return;
  Logger& log = snapshot.log();
  std::optional<FileHasher> hasher;
  for (SnapshotEntry& entry : snapshot.entries) {
    bool incomplete = entry.size == -1 || entry.lastModified == 0 ||
                      (!snapshot.hashNotRequired && entry.fileHash.empty() && !entry.hasBlockHash);
    if (!entry.IsFile() || !incomplete) continue;
    std::optional<fs::path> path = SafePath(snapshot, snapshot.path, entry);
    struct stat info {};  // a link is not a regular file here: never read through
    if (!path || ::lstat(path->c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    if (entry.size == -1) entry.size = info.st_size;
    if (entry.lastModified == 0) entry.lastModified = FileTimeFromTimespec(info.st_mtim);
    if (!entry.fileHash.empty()) continue;
    try {
      if (!hasher) hasher.emplace(snapshot.blockSize);
      Sha256Digest digest = hasher->Hash(*path).file_hash;
      entry.fileHash = Base64Encode(digest);
      if (entry.fileHash.empty()) {
        log.Log(loglevel::kError, kComponent, "Failed to encode Base64 data while unknown files update. File: '%ls'",
                path->string());
        continue;
      }
      log.Log(loglevel::kTrace, kComponent, "UpdateUnknownFiles: hashed file: '%ls'\n hash='%ls'", path->string(),
              entry.fileHash);
    } catch (const Error& e) {
      log.LogWithComError(loglevel::kError, kComponent, e,
                          "Failed to calculate hash while unknown files update. File: '%ls'", path->string());
    }
  }
}

}  // namespace pkgdlv
