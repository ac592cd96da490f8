// The engine's work folder: its lock file, a change of folder, and the
// relocation of the whole store.
#include <sys/stat.h>

#include <array>
#include <system_error>

#include "agent/logger.h"
#include "agent/volume_info.h"
#include "engine/package_manager.h"
#include "engine/store_mover.h"
#include "records/package_request.h"
#include "util/error.h"
#include "util/paths.h"
#include "util/same_folder.h"

namespace pkgdlv {

namespace {

namespace fs = std::filesystem;
constexpr std::string_view kComponent = "PackageManager";
constexpr uint64_t kMiB = 1'048'576;

// Folders of the operating system that must never hold the store (the
// counterpart of the system's known folders): the root itself and what lies
// below these. Judged on the resolved path, so a link cannot hide one.
bool IsSystemFolder(const fs::path& resolved) {
  static constexpr std::array<std::string_view, 14> kSystemFolders = {
      "/bin", "/boot", "/dev", "/etc", "/lib", "/lib32", "/lib64", "/libx32", "/proc", "/run", "/sbin", "/sys",
      "/usr", "/var/lib/dpkg"};
  if (resolved == resolved.root_path()) return true;
  const std::string text = resolved.string();
  for (std::string_view system : kSystemFolders) {
    if (text == system || (text.starts_with(system) && text[system.size()] == '/')) return true;
  }
  return false;
}

bool OnSameVolume(const fs::path& a, const fs::path& b) {
  struct stat sa {}, sb {};
  return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev;
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

bool PackageManager::SetWorkFolder(const fs::path& requested) {
  if (requested.empty()) Throw(result::kInvalidArg, "New working folder is not specified");
  if (!requested.is_absolute()) {
    Throw(result::kInvalidArg, "The work folder must be an absolute path: '%ls'", requested.string());
  }
  const fs::path folder = ResolvedFolder(requested);
  {
    RecursiveLock lock(queueLock_);
    const fs::path current = store_.workFolder();
    if (!current.empty() && SameFolder(current, folder)) {
      services_.log->Log(loglevel::kInfo, kComponent, "Attribute workFolder is the same");
      return false;
    }
    if (IsSystemFolder(folder) && !SameFolder(folder, DefaultWorkFolder(services_.data_folder))) {
      Throw(result::kAccessDenied, "The new work folder will not be applied: it is a system folder: '%ls'",
            folder.string());
    }
    if (!current.empty() && queue_.Size() > 0) {
      Throw(result::kFail, "Attribute workFolder has already been set and there are active downloads in the queue");
    }
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec || !fs::is_directory(folder, ec)) Throw(FromWin32(win32::kPathNotFound), "Cannot create work folder");
    workFolderLock_.Close();
    store_.SetWorkFolder(folder);
  }
  LockWorkFolder(false);
  ResumeDownloads();
  return true;
}

void PackageManager::SuspendTakenPackages() {
  // A package taken for download whose attempt has not begun: the download
  // lock held here keeps it from beginning, and the cleared queue from
  // ever beginning, so it is pending again on disk.
  for (const std::shared_ptr<PackageRequest>& request : store_.HeldRecords()) {
    if (request->status() != PKGDLV_DOWNLOADING) continue;
    request->SetStatus(PKGDLV_PENDING, "Package download suspended", true);
    Save(*request);
  }
}

PackageManager::Relocation PackageManager::ValidateWorkFolder(const fs::path& folder) {
  Logger& log = *services_.log;
  log.Log(loglevel::kInfo, kComponent, "Validating work folder integrity...");
  StoreMover mover(log, &stop_);
  // A running download is not waited for: its package could be one still to
  // finish, so with one running the folder is only looked at.
  std::unique_lock download(downloadLock_, std::try_to_lock);
  RecursiveLock lock(queueLock_);
  const MoveResult checked = download.owns_lock() ? mover.Move(folder, folder) : mover.Check(folder);
  if (checked == MoveResult::kAllMoved) return {PKGDLV_RELOCATE_SUCCESS, 0, {}};
  if (checked == MoveResult::kPartlyMoved) return {PKGDLV_RELOCATE_NEEDREPAIR, 0, {}};
  return {PKGDLV_RELOCATE_ABORTED, 0, "a package folder of the store is a link to a foreign location"};
}

PackageManager::Relocation PackageManager::RelocateWorkFolder(const fs::path& requested) {
  Logger& log = *services_.log;
  const auto refuse = [&](uint32_t flags, std::string message, uint64_t requiredMiB = 0) -> Relocation {
    log.Log(loglevel::kWarning, kComponent, "%ls", message);
    return {flags, requiredMiB, std::move(message)};
  };
  if (requested.empty()) return refuse(PKGDLV_RELOCATE_ABORTED, "New working folder is not specified");
  const fs::path current = store_.workFolder();
  // Judged and used as it resolves: a link to a system folder is that folder.
  const fs::path newFolder = ResolvedFolder(requested);
  if (SameFolder(current, newFolder)) return ValidateWorkFolder(current);

  log.Log(loglevel::kInfo, kComponent, "Package relocation is started. Current path: %ls, new path: %ls.",
          current.string(), newFolder.string());
  const fs::path existing = NearestExistingFolder(newFolder);
  std::optional<VolumeDetails> volume = services_.volumes ? services_.volumes->Query(existing) : std::nullopt;
  if (!volume || !volume->fixedDrive) {
    return refuse(PKGDLV_RELOCATE_ABORTED_NOT_LOCAL,
                  Format("The new work folder will not be applied: not a local hard drive: '%ls'", newFolder.string()));
  }
  if (IsSystemFolder(newFolder) && !SameFolder(newFolder, DefaultWorkFolder(services_.data_folder))) {
    return refuse(PKGDLV_RELOCATE_ABORTED_KNOWN_FOLDER,
                  Format("The new work folder will not be applied: it is a system folder: '%ls'", newFolder.string()));
  }
  if (IsBelow(newFolder, current)) {
    return refuse(PKGDLV_RELOCATE_ABORTED,
                  Format("The new work folder will not be applied: it is inside the current work folder: '%ls'",
                         newFolder.string()));
  }
  if (!volume->sparseFiles) {
    return refuse(PKGDLV_RELOCATE_ABORTED_NOT_NTFS,
                  Format("The new work folder will not be applied: not NTFS or ReFS drive: '%ls'", newFolder.string()));
  }

  relocationRequested_.Set();
  InterruptDownload(kInterruptSuspended);
  MoveResult moved = MoveResult::kFailed;
  {
    std::lock_guard download(downloadLock_);
    RecursiveLock lock(queueLock_);
    queue_.Clear();
    SuspendTakenPackages();

    const StoreSize size = MeasureStore(current);
    uint64_t need = size.documents + size.workingFiles;
    if (!OnSameVolume(current, existing)) need += size.packageData;
    if (volume->freeBytes <= need) {
      return refuse(PKGDLV_RELOCATE_ABORTED_NO_SPACE,
                    Format("The new work folder will not be applied: no enough free space on: '%ls', available "
                           "%I64u, required %I64u",
                           newFolder.string(), volume->freeBytes, need),
                    need / kMiB);
    }

    // The old folder stays locked through the move, so that a failed move
    // leaves it as it was.
    StoreMover mover(log, &stop_);
    moved = mover.Move(current, newFolder);
    if (moved == MoveResult::kFailed) {
      return refuse(PKGDLV_RELOCATE_ABORTED, "The new work folder will not be applied: file moving operation failed.");
    }
    log.Log(loglevel::kTrace, kComponent, "The package files are successfully moved to the new Work Folder: %ls.",
            newFolder.string());
    workFolderLock_.Close();
    mover.RemoveOldFolder(current);
    store_.Relocate(current, newFolder);
  }
  LockWorkFolder(false);
  log.Log(loglevel::kInfo, kComponent, "Package relocation is complete");
  relocationRequested_.Clear();
  // Outside the queue lock: resuming takes the resume lock, which comes
  // first. After the request is cleared, so a resumed package may start.
  ResumeDownloads();
  wake_.Set();
  return {PKGDLV_RELOCATE_SUCCESS, 0, {}};
}

}  // namespace pkgdlv
