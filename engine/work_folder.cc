// The engine's work folder: its lock file, a change of folder, and the
// relocation of the whole store.
#include <sys/stat.h>

#include <array>
#include <system_error>

#include "agent/logger.h"
#include "agent/volume_info.h"
#include "engine/package_manager.h"
#include "engine/store_mover.h"
#include "util/error.h"
#include "util/paths.h"
#include "util/strings.h"

namespace pkgdlv {

namespace {

namespace fs = std::filesystem;
constexpr std::string_view kComponent = "PackageManager";
constexpr uint64_t kMiB = 1'048'576;

// Folders of the operating system that must never hold the store (the
// counterpart of the system's known folders): the root itself and what lies
// below these.
bool IsSystemFolder(const fs::path& folder) {
  static constexpr std::array<std::string_view, 14> kSystemFolders = {
      "/bin", "/boot", "/dev", "/etc", "/lib", "/lib32", "/lib64", "/libx32", "/proc", "/run", "/sbin", "/sys",
      "/usr", "/var/lib/dpkg"};
  const fs::path normal = folder.lexically_normal();
  if (normal == normal.root_path()) return true;
  const std::string text = normal.string();
  for (std::string_view system : kSystemFolders) {
    if (text == system || (text.starts_with(system) && text[system.size()] == '/')) return true;
  }
  return false;
}

// The folder itself, or the nearest of its parents that exists.
fs::path NearestExisting(fs::path folder) {
  std::error_code ec;
  while (!folder.empty() && !fs::exists(folder, ec)) {
    if (folder == folder.parent_path()) break;
    folder = folder.parent_path();
  }
  return folder;
}

bool OnSameVolume(const fs::path& a, const fs::path& b) {
  struct stat sa {}, sb {};
  return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev;
}

bool SameFolder(const fs::path& a, const fs::path& b) {
  return EqualsNoCase(a.lexically_normal().string(), b.lexically_normal().string());
}

}  // namespace

void PackageManager::LockWorkFolder(bool reopen) {
  RecursiveLock lock(queueLock_);
  if (reopen) workFolderLock_.Close();
  const fs::path folder = store_.workFolder();
  if (workFolderLock_.IsOpen() || folder.empty()) return;
  try {
    std::error_code ec;
    fs::create_directories(folder, ec);
    workFolderLock_.Open(folder);
  } catch (const Error& e) {
    services_.log->Log(loglevel::kError, kComponent,
                       "LockWorkFolder: Cannot lock work folder, error: %ls (0x%08X). Current folder: %ls",
                       e.description(), e.code(), folder.string());
  }
}

bool PackageManager::SetWorkFolder(const fs::path& folder) {
  if (folder.empty()) Throw(result::kInvalidArg, "New working folder is not specified");
  {
    RecursiveLock lock(queueLock_);
    const fs::path current = store_.workFolder();
    if (!current.empty() && SameFolder(current, folder)) {
      services_.log->Log(loglevel::kInfo, kComponent, "Attribute workFolder is the same");
      return false;
    }
    if (!current.empty() && queue_.Size() > 0) {
      Throw(result::kFail, "Attribute workFolder has already been set and there are active downloads in the queue");
    }
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec) Throw(FromWin32(win32::kPathNotFound), "Cannot create work folder");
    workFolderLock_.Close();
    store_.SetWorkFolder(folder);
  }
  LockWorkFolder(false);
  ResumeDownloads();
  return true;
}

PackageManager::Relocation PackageManager::RelocateWorkFolder(const fs::path& newFolder) {
  Logger& log = *services_.log;
  const fs::path current = store_.workFolder();
  StoreMover mover(log);
  if (SameFolder(current, newFolder)) {
    log.Log(loglevel::kInfo, kComponent, "Validating work folder integrity...");
    std::lock_guard download(downloadLock_);
    RecursiveLock lock(queueLock_);
    const MoveResult checked = mover.Move(current, current);
    return {checked == MoveResult::kAllMoved     ? PKGDLV_RELOCATE_SUCCESS
            : checked == MoveResult::kPartlyMoved ? PKGDLV_RELOCATE_NEEDREPAIR
                                                  : PKGDLV_RELOCATE_ABORTED};
  }

  log.Log(loglevel::kInfo, kComponent, "Package relocation is started. Current path: %ls, new path: %ls.",
          current.string(), newFolder.string());
  const fs::path existing = NearestExisting(newFolder);
  std::optional<VolumeDetails> volume = services_.volumes ? services_.volumes->Query(existing) : std::nullopt;
  if (!volume || !volume->fixedDrive) {
    log.Log(loglevel::kWarning, kComponent, "The new work folder will not be applied: not a local hard drive: '%ls'",
            newFolder.string());
    return {PKGDLV_RELOCATE_ABORTED_NOT_LOCAL};
  }
  if (IsSystemFolder(newFolder) && !SameFolder(newFolder, DefaultWorkFolder(services_.data_folder))) {
    log.Log(loglevel::kWarning, kComponent, "The new work folder will not be applied: it is a system folder: '%ls'",
            newFolder.string());
    return {PKGDLV_RELOCATE_ABORTED_KNOWN_FOLDER};
  }
  if (!volume->sparseFiles) {
    log.Log(loglevel::kWarning, kComponent, "The new work folder will not be applied: not NTFS or ReFS drive: '%ls'",
            newFolder.string());
    return {PKGDLV_RELOCATE_ABORTED_NOT_NTFS};
  }

  relocationRequested_.Set();
  InterruptDownload(kInterruptSuspended);
  MoveResult moved = MoveResult::kFailed;
  {
    std::lock_guard download(downloadLock_);
    RecursiveLock lock(queueLock_);
    queue_.Clear();

    const StoreSize size = MeasureStore(current);
    uint64_t need = size.documents + size.workingFiles;
    if (!OnSameVolume(current, existing)) need += size.packageData;
    if (volume->freeBytes <= need) {
      log.Log(loglevel::kWarning, kComponent,
              "The new work folder will not be applied: no enough free space on: '%ls', available %I64u, required %I64u",
              newFolder.string(), volume->freeBytes, need);
      return {PKGDLV_RELOCATE_ABORTED_NO_SPACE, need / kMiB};
    }

    workFolderLock_.Close();
    moved = mover.Move(current, newFolder);
    if (moved == MoveResult::kFailed) {
      log.Log(loglevel::kWarning, kComponent, "The new work folder will not be applied: file moving operation failed.");
      return {PKGDLV_RELOCATE_ABORTED};
    }
    if (moved == MoveResult::kAllMoved) {
      log.Log(loglevel::kTrace, kComponent, "The package files are successfully moved to the new Work Folder: %ls.",
              newFolder.string());
    } else {
      log.Log(loglevel::kTrace, kComponent,
              "The new work folder is applied, althought not all files are moved to the new location: %ls. The new "
              "work folder will have a Directory Junction links to previous location until files are moved on next "
              "retry.",
              newFolder.string());
    }
    store_.Relocate(current, newFolder);
  }
  // Outside the queue lock: resuming takes the resume lock, which comes first.
  LockWorkFolder(false);
  ResumeDownloads();
  log.Log(loglevel::kInfo, kComponent, "Package relocation is complete");
  relocationRequested_.Clear();
  return {moved == MoveResult::kAllMoved ? PKGDLV_RELOCATE_SUCCESS : PKGDLV_RELOCATE_NEEDREPAIR};
}

}  // namespace pkgdlv
