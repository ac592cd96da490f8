// The free-space check of a download pass: a package needs room for what it
// still misses, a fifth more for the working files, and the minimum free
// space the settings keep. A package that is not in a fixed store moves to
// another store folder (the setting "Package Store Folders") with room for
// all of it; its document stays in the work folder, so the engine finds it
// there at its next start.
#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "agent/logger.h"
#include "agent/volume_info.h"
#include "engine/download_cycle.h"
#include "engine/download_cycle_state.h"
#include "engine/package_store.h"
#include "engine/peer_directory.h"
#include "engine/store_mover.h"
#include "records/delivery_settings.h"
#include "util/error.h"

namespace fs = std::filesystem;

namespace pkgdlv {

namespace {

constexpr std::string_view kComponent = "PackageManager";

// The volume of path, or of its nearest existing parent.
std::optional<VolumeDetails> QueryVolume(VolumeInfo& volumes, const fs::path& path) {
  const fs::path existing = NearestExistingFolder(path);
  if (existing.empty()) return std::nullopt;
  return volumes.Query(existing);
}

uint64_t WithMargin(uint64_t bytes, uint64_t minimum) { return bytes * 6 / 5 + minimum; }

// Removes what source holds but "package.xml", which keeps the package's
// place in the work folder.
void EmptyFolderButDocument(const fs::path& source) {
  std::error_code ec;
  for (fs::directory_iterator it(source, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->path().filename() == kPackageFileName) continue;
    std::error_code removeError;
    fs::remove_all(it->path(), removeError);
  }
}

}  // namespace

void DownloadCycle::CheckFreeSpace(Cycle& cycle) {
  if (!services_.volumes) return;
  std::optional<VolumeDetails> volume = QueryVolume(*services_.volumes, cycle.folder);
  if (!volume || !volume->fixedDrive) return;
  const uint64_t minimum = settings_->MinDiskFreeSpaceBytes();
  if (volume->freeBytes >= WithMargin(cycle.missingBytes, minimum)) return;

  bool fixedStore = false;
  uint64_t packageSize = 0;
  {
    auto lock = cycle.request.Lock();
    fixedStore = cycle.request.fixedStore;
    packageSize = static_cast<uint64_t>(std::max<int64_t>(cycle.request.GetSize(), 0));
  }
  if (!fixedStore) {
    // The work folder is the first store; the package's own store is tried
    // first (it just failed), then those after it, wrapping round.
    std::vector<fs::path> stores{cycle.engine.store.workFolder()};
    for (fs::path& folder : settings_->OtherStoreFolders()) stores.push_back(std::move(folder));
    const fs::path own = fs::path(cycle.folder).parent_path().lexically_normal();
    const size_t start = std::find(stores.begin(), stores.end(), own) - stores.begin();
    for (size_t step = 1; step < stores.size(); ++step) {
      const fs::path& store = stores[(start + step) % stores.size()];
      std::optional<VolumeDetails> other = QueryVolume(*services_.volumes, store);
      if (!other || !other->fixedDrive || other->freeBytes < WithMargin(packageSize, minimum)) continue;
      if (MoveToStore(cycle, store / cycle.id.ToString())) return;
    }
  }
  services_.log->Log(loglevel::kError, kComponent, "Cannot download the package, there is not enough space on the disk");
  Throw(result::kDiskFull, "There is not enough space on the disk");
}

// Copies first, so that a failure leaves the package whole where it was;
// the record, its documents and the peers learn the new folder before the
// old files go.
bool DownloadCycle::MoveToStore(Cycle& cycle, const fs::path& target) {
  Logger& log = *services_.log;
  const fs::path source = cycle.folder;
  std::error_code ec;
  if (fs::exists(target, ec)) {
    log.Log(loglevel::kWarning, kComponent, "Cannot move package %ls to '%ls': the folder exists already",
            cycle.id.ToString(), target.string());
    return false;
  }
  fs::create_directories(target.parent_path(), ec);
  int error = 0;
  const bool copied = fs::exists(source, ec) ? CopyFolderTree(source, target, &cycle.engine.stop, error)
                                             : fs::create_directory(target, ec);
  if (!copied) {
    log.Log(loglevel::kWarning, kComponent, "Cannot move package %ls to '%ls': %ls", cycle.id.ToString(),
            target.string(), std::generic_category().message(error ? error : ec.value()));
    fs::remove_all(target, ec);
    return false;
  }
  log.Log(loglevel::kInfo, kComponent, "Package %ls moved to '%ls' for lack of space in '%ls'", cycle.id.ToString(),
          target.string(), source.parent_path().string());

  const fs::path workFolder = cycle.engine.store.workFolder();
  {
    auto lock = cycle.request.Lock();
    cycle.request.snapshot().path = target.string();
    cycle.request.otherStore = target.parent_path().lexically_normal() != workFolder.lexically_normal();
  }
  cycle.folder = target.string();
  cycle.engine.store.Save(cycle.request);
  SaveProgress();

  if (source.parent_path().lexically_normal() == workFolder.lexically_normal()) {
    EmptyFolderButDocument(source);
  } else {
    fs::remove_all(source, ec);
  }
  try {
    cycle.engine.peers.RefreshPackageBlocks(cycle.request, false);
  } catch (const Error& e) {
    log.Log(loglevel::kWarning, kComponent, "The peer directory did not learn the new folder of package %ls: %ls",
            cycle.id.ToString(), e.description());
  }
  ComputeUpdateList(cycle);
  return true;
}

}  // namespace pkgdlv
