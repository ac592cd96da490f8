// The update list: the files of a package that must be fetched, and the
// bitset of the blocks already present and good.
#include <sys/stat.h>

#include <algorithm>

#include "agent/volume_info.h"
#include "snapshot/validation.h"

namespace pkgdlv {
namespace {

constexpr std::string_view kComponent = kSnapshotLogComponent;
constexpr FileTime kTwoSeconds = 2 * kFileTimeTicksPerSecond;

// Whether the snapshot's time S and the time on disk D disagree. On volumes
// without exact times the strict rule asks for S < D - 2 s and S > D + 2 s at
// once, which never holds: such volumes never report a mismatch in strict
// mode. That is how the rule has always behaved and callers rely on it.
bool TimesMismatch(FileTime s, FileTime d, bool strict, bool exactTimes) {
  if (strict) return exactTimes ? s != d : (s + kTwoSeconds < d && s > d + kTwoSeconds);
  return exactTimes ? s > d : s > d + kTwoSeconds;
}

bool IsIncompleteFile(const Snapshot& snapshot, const SnapshotEntry& entry) {
  return entry.size == -1 || entry.lastModified == 0 ||
         (!snapshot.hashNotRequired && entry.fileHash.empty() && !entry.hasBlockHash);
}

struct DiskFile {
  bool present = false;
  int64_t size = 0;
  FileTime lastModified = 0;
};

DiskFile StatEntry(const Snapshot& snapshot, const SnapshotEntry& entry) {
  DiskFile disk;
  try {
    struct stat info {};
    std::filesystem::path path = EntryPath(snapshot, entry);
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return disk;
    disk.present = true;
    disk.size = info.st_size;
    disk.lastModified = FileTimeFromTimespec(info.st_mtim);
  } catch (const Error& e) {
    snapshot.log().Log(loglevel::kWarning, kComponent, "%ls", e.description());
  }
  return disk;
}

void SetBlockRange(const Snapshot& snapshot, const SnapshotEntry& entry, uint64_t blocks, DynamicBitset& bitset) {
  if (blocks == 0 || entry.firstBlock == kNoBlock) return;
  uint32_t first = entry.firstBlock;
  uint32_t last = static_cast<uint32_t>(std::min<uint64_t>(first + blocks - 1, UINT32_MAX));
  try {
    bitset.SetRange(first, last, true);
  } catch (const Error& e) {
    snapshot.log().LogWithError(loglevel::kWarning, "PackageDelivery", e.description(),
                                "GetUpdateList: can't set bit range for complete file. Start=%u, end=%u, total=%u, size=%u",
                                first, last, snapshot.totalBlocks, bitset.size());
  }
}

}  // namespace

bool Validator::LoadHashesOnce(Snapshot& snapshot, std::string_view warning) {
  if (hashesLoaded_ || snapshot.declaredBlockSize == 0) return true;
  hashesLoaded_ = true;
  // A snapshot built in memory holds its hashes already; only a loaded
  // document is read again.
  if (snapshot.documentText.empty()) return true;
  hashesFromText_ = true;
  if (snapshot.LoadBlockHashes()) return true;
  snapshot.log().Log(loglevel::kWarning, kComponent, "%ls", warning);
  return false;
}

void Validator::GetUpdateList(Snapshot& snapshot, Snapshot& updateList, DynamicBitset* bitset,
                              const UpdateListOptions& options) {
  updateList.Reset();
  updateList.id = snapshot.id;
  updateList.path = snapshot.path;
  updateList.time = snapshot.time;
  updateList.version = snapshot.version;
  updateList.totalBlocks = snapshot.totalBlocks;
  updateList.declaredBlockSize = snapshot.declaredBlockSize;
  updateList.blockSize = snapshot.blockSize;
  updateList.hashNotRequired = snapshot.hashNotRequired;
  if (bitset) bitset->Create(snapshot.totalBlocks);
  snapshot.log().Log(loglevel::kTrace, kComponent, "GetUpdateList called for package: '%s'%ls", snapshot.GetIdText(),
                     options.skipHash ? " (skip hashing)" : "");
  hashesLoaded_ = false;
  hashesFromText_ = false;
  // Files found invalid before are judged again; files found valid before
  // keep that state (and are not hashed again) unless forceHash.
  for (SnapshotEntry& entry : snapshot.entries) {
    if (options.forceHash || entry.state != entrystate::kValid) entry.state = entrystate::kNotChecked;
  }

  bool exactTimes = true;
  if (options_.volumes && !options.sparseMode) {
    std::optional<VolumeDetails> volume = options_.volumes->Query(snapshot.path);
    exactTimes = !volume || volume->exactTimes;
  }

  for (SnapshotEntry& entry : snapshot.entries) {
    if (!entry.IsFile()) continue;
    // A caller that stops (the agent is stopping) gets the files not yet
    // looked at as files to fetch: never judged complete unread.
    if (options_.cancelled && options_.cancelled()) {
      updateList.entries.push_back(entry);
      continue;
    }
    if (options.sparseMode) {
      if (!StatEntry(snapshot, entry).present) {
        updateList.entries.push_back(entry);
        continue;
      }
      LoadHashesOnce(snapshot, "Failed to read block hashes, validation of partial files block hashes will not be used.");
      ValidateSparseFile(snapshot, entry, bitset, options.skipHash);
    } else {
      CheckNormalEntry(snapshot, entry, updateList, bitset, options, exactTimes);
    }
  }

  if (hashesFromText_) {
    for (SnapshotEntry& entry : snapshot.entries) std::vector<uint8_t>().swap(entry.blockHashes);
  }
  snapshot.log().Log(loglevel::kInfo, kComponent, "%u/%u blocks found in package '%ls'", bitset ? bitset->Count() : 0u,
                     snapshot.totalBlocks, snapshot.GetIdText());
}

void Validator::CheckNormalEntry(Snapshot& snapshot, SnapshotEntry& entry, Snapshot& updateList,
                                 DynamicBitset* bitset, const UpdateListOptions& options, bool exactTimes) {
  Logger& log = snapshot.log();
  if (IsIncompleteFile(snapshot, entry)) {
    updateList.entries.push_back(entry);
    return;
  }
  DiskFile disk = StatEntry(snapshot, entry);
  if (!disk.present) {
    updateList.entries.push_back(entry);
    return;
  }

  bool listed = false;
  if (disk.size != entry.size) entry.state = entrystate::kInvalid;
  if (snapshot.hashNotRequired) {
    if (entry.lastModified != disk.lastModified) entry.state = entrystate::kInvalid;
  } else {
    bool timeMismatch = TimesMismatch(entry.lastModified, disk.lastModified, options.strictTime, exactTimes);
    if (!options.skipHash && !timeMismatch && entry.state == entrystate::kNotChecked) {
      LoadHashesOnce(snapshot, "Failed to read block hashes, legacy 'per file' hashing will be used.");
      log.Log(loglevel::kTrace, kComponent, "GetUpdateList checking Hash for file: '%ls'", EntryPath(snapshot, entry).string());
      ValidateFile(snapshot, entry, nullptr);
    }
    if (timeMismatch) listed = true;
  }
  if (entry.state == entrystate::kInvalid || entry.state == entrystate::kHashNotComputed) listed = true;

  if (!listed) {
    if (bitset) SetBlockRange(snapshot, entry, entry.BlockCount(snapshot.blockSize), *bitset);
    return;
  }
  updateList.entries.push_back(entry);
  if (bitset == nullptr || disk.size <= 0 || disk.size >= entry.size) return;
  if (entry.blockHashes.empty()) {
    SetBlockRange(snapshot, entry, static_cast<uint64_t>(disk.size) / snapshot.blockSize, *bitset);
  } else {
    log.Log(loglevel::kTrace, kComponent, "GetUpdateList checking Hashes of available blocks for file: '%ls'",
            EntryPath(snapshot, entry).string());
    ValidateFile(snapshot, entry, bitset);
  }
}

bool Validator::HasUpdates(Snapshot& snapshot, bool sparseMode, bool skipHash) {
  Snapshot updateList(snapshot.logger());
  UpdateListOptions options;
  options.sparseMode = sparseMode;
  options.skipHash = skipHash;
  GetUpdateList(snapshot, updateList, nullptr, options);
  return !updateList.entries.empty();
}

}  // namespace pkgdlv
