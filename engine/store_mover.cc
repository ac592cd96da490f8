#include "engine/store_mover.h"

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <vector>

#include "util/guid.h"

namespace pkgdlv {

namespace {

namespace fs = std::filesystem;
constexpr std::string_view kComponent = "PackageManager";

bool IsPackageFolderName(const std::string& name) {
  std::optional<Guid> id = Guid::Parse(name);
  return id && id->ToString() == name;
}

bool IsWorkingFile(const fs::path& name) {
  const std::string text = name.string();
  return text == "cache" || text.ends_with("-tmp");
}

bool IsDocument(const fs::path& name) {
  const std::string text = name.string();
  return text == "package.xml" || text == "snapshot.xml" || text == "snapdata.xml" || text == "log.xml";
}

uint64_t TreeSize(const fs::path& folder) {
  uint64_t total = 0;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code sizeError;
    if (it->is_regular_file(sizeError) && !it->is_symlink(sizeError)) total += it->file_size(sizeError);
  }
  return total;
}

std::vector<fs::path> PackageFolders(const fs::path& workFolder) {
  std::vector<fs::path> folders;
  std::error_code ec;
  for (fs::directory_iterator it(workFolder, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code typeError;
    const bool linkOrFolder = it->is_symlink(typeError) || it->is_directory(typeError);
    if (linkOrFolder && IsPackageFolderName(it->path().filename().string())) folders.push_back(it->path());
  }
  return folders;
}

// Copies folder's tree to target (which must not exist), leaving working
// files behind. Symbolic links inside a package are not followed or copied.
bool CopyTree(const fs::path& source, const fs::path& target) {
  std::error_code ec;
  fs::create_directory(target, ec);
  if (ec) return false;
  for (fs::directory_iterator it(source, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path name = it->path().filename();
    if (IsWorkingFile(name)) continue;
    std::error_code typeError;
    if (it->is_symlink(typeError)) continue;
    if (it->is_directory(typeError)) {
      if (!CopyTree(it->path(), target / name)) return false;
    } else if (it->is_regular_file(typeError)) {
      fs::copy_file(it->path(), target / name, fs::copy_options::none, ec);
      if (ec) return false;
      fs::last_write_time(target / name, it->last_write_time(typeError), typeError);
    }
  }
  return !ec;
}

}  // namespace

StoreSize MeasureStore(const fs::path& workFolder) {
  StoreSize size;
  for (const fs::path& package : PackageFolders(workFolder)) {
    std::error_code ec;
    if (fs::is_symlink(package, ec)) continue;
    for (fs::directory_iterator it(package, ec), end; !ec && it != end; it.increment(ec)) {
      const fs::path name = it->path().filename();
      std::error_code typeError;
      if (it->is_symlink(typeError)) continue;
      const uint64_t bytes = it->is_directory(typeError) ? TreeSize(it->path()) : it->file_size(typeError);
      if (IsWorkingFile(name)) {
        size.workingFiles += bytes;
      } else if (IsDocument(name)) {
        size.documents += bytes;
      } else {
        size.packageData += bytes;
      }
    }
  }
  return size;
}

MoveResult StoreMover::Move(const fs::path& from, const fs::path& to) {
  std::error_code ec;
  if (fs::equivalent(from, to, ec)) {
    MoveResult result = MoveResult::kAllMoved;
    for (const fs::path& package : PackageFolders(to)) {
      if (!fs::is_symlink(package, ec)) continue;
      MoveResult finished = FinishLinkedPackage(package);
      if (finished == MoveResult::kFailed) return finished;
      if (finished == MoveResult::kPartlyMoved) result = finished;
    }
    return result;
  }

  fs::create_directories(to, ec);
  if (ec) {
    log_.Log(loglevel::kWarning, kComponent, "Can't create the folder '%ls' for Directory Junction. Aborting the package relocation.",
             to.string());
    return MoveResult::kFailed;
  }
  MoveResult result = MoveResult::kAllMoved;
  for (const fs::path& package : PackageFolders(from)) {
    const fs::path target = to / package.filename();
    if (fs::is_symlink(target, ec)) {
      // Left by an earlier partial move: it may only lead back to this package.
      const fs::path pointsTo = fs::read_symlink(target, ec);
      if (!fs::equivalent(pointsTo, package, ec)) {
        log_.Log(loglevel::kWarning, kComponent,
                 "Target Directory '%ls' contain Directory Junction to foreign location: '%ls'. Aborting the package "
                 "relocation.",
                 target.string(), pointsTo.string());
        return MoveResult::kFailed;
      }
      if (!fs::remove(target, ec)) {
        log_.Log(loglevel::kWarning, kComponent, "Cannot unlink Directory Junction '%ls'", target.string());
        result = MoveResult::kPartlyMoved;
        continue;
      }
    } else if (fs::exists(target, ec)) {
      log_.Log(loglevel::kWarning, kComponent, "Failed to move the package: '%ls'", package.string());
      result = MoveResult::kPartlyMoved;
      continue;
    }
    // A package reached through a link lives where the link points.
    const fs::path source = fs::is_symlink(package, ec) ? fs::read_symlink(package, ec) : package;
    if (MovePackage(source, target)) {
      if (source != package) fs::remove(package, ec);
      continue;
    }
    log_.Log(loglevel::kWarning, kComponent, "Failed to move the package: '%ls'", package.string());
    if (!LinkInPlace(source, target)) return MoveResult::kFailed;
    result = MoveResult::kPartlyMoved;
  }

  if (result == MoveResult::kAllMoved) {
    fs::remove_all(from / "cache", ec);
    if (!fs::remove(from, ec)) {
      log_.Log(loglevel::kWarning, kComponent, "Cannot clean-up directory after relocation: '%ls'", from.string());
    }
  }
  return result;
}

bool StoreMover::MovePackage(const fs::path& source, const fs::path& target) {
  if (std::rename(source.c_str(), target.c_str()) == 0) return true;
  if (errno != EXDEV) return false;
  std::error_code ec;
  if (!CopyTree(source, target)) {
    fs::remove_all(target, ec);
    return false;
  }
  fs::remove_all(source, ec);
  return true;
}

bool StoreMover::LinkInPlace(const fs::path& source, const fs::path& target) {
  std::error_code ec;
  fs::create_directory_symlink(source, target, ec);
  if (ec) {
    log_.Log(loglevel::kWarning, kComponent, "Directory Junction creation '%ls' is failed. Aborting the package relocation.",
             target.string());
    return false;
  }
  return true;
}

MoveResult StoreMover::FinishLinkedPackage(const fs::path& linkPath) {
  std::error_code ec;
  const fs::path source = fs::read_symlink(linkPath, ec);
  if (ec || !fs::is_directory(source, ec)) {
    log_.Log(loglevel::kWarning, kComponent, "Failed to move the package: '%ls'", linkPath.string());
    return MoveResult::kPartlyMoved;
  }
  if (!fs::remove(linkPath, ec)) {
    log_.Log(loglevel::kWarning, kComponent, "Cannot unlink Directory Junction '%ls'", linkPath.string());
    return MoveResult::kPartlyMoved;
  }
  if (MovePackage(source, linkPath)) return MoveResult::kAllMoved;
  log_.Log(loglevel::kWarning, kComponent, "Failed to move the package: '%ls'", source.string());
  return LinkInPlace(source, linkPath) ? MoveResult::kPartlyMoved : MoveResult::kFailed;
}

}  // namespace pkgdlv
