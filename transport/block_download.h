// The block-range file download: brings every missing block of the files in
// an update list into the package folder, block by block as byte ranges of
// the source (a package server URL, a share or local folder, or a peer),
// verifying each block against the snapshot's block hash, writing it in
// place and marking it in the local block map, which the caller stores from
// time to time so that an interrupted download resumes where it stopped.
// Around the attempt stand the site outbound reservation and the attempt's
// statistics.
//
// Ownership: the object borrows the package download transport (which must
// outlive it) and keeps the site limits, the event sink and the store
// callback. One object per engine; statistics over a package's attempts are
// kept while the package stays the same. The attempt's input (record,
// snapshot, update list, maps) is the caller's and must stay alive and
// untouched by other threads while DownloadAttempt runs; the snapshot's
// entries get their block hashes loaded and released again.
//
// Threads: DownloadAttempt runs on the engine's thread; while it runs, two
// threads of its own verify and write each received block while the next
// one is requested (transport/block_writer.h). Another thread
// cancels through PackageDownload::Cancel(): a running request ends, a wait
// ends, and the attempt ends with 1223. Events and the store callback are
// called on the engine's thread without a lock held. The reservation's
// keep-alive runs on a timer thread of its own and reads only an atomic
// count of the bytes transferred.
//
// Failure behaviour: DownloadAttempt returns 0 or the failure's code, which
// is also the transport's last result with its description, after the log
// lines of the failure (component "PackageDownload"). Nothing escapes. Files
// are written in place: a failed attempt keeps every block it wrote, and the
// local map says which.
#pragma once

#include <pkgdlv/result_codes.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "snapshot/dynamic_bitset.h"
#include "transport/block_writer.h"
#include "util/guid.h"

namespace pkgdlv {

class DownloadEvents;
class PackageDownload;
class PackageRequest;
class SiteLimits;
class Snapshot;
struct SnapshotEntry;

// Results the block download produces itself (Win32 numbers, not HRESULTs).
namespace blockresult {
constexpr Result kCancelled = 1223;   // cancelled, also an exhausted peer wait
constexpr Result kShortBlock = 1629;  // the source gave fewer bytes than the block
constexpr Result kIncomplete = 707;   // the loop ended without every block present
}  // namespace blockresult

// Logging flags of the connection options for block downloads.
constexpr uint32_t kBlockDownloadLoggingFlags = 0x200000;

struct AttemptStatistics {
  uint64_t startTick = 0;
  uint64_t packageSize = 0;
  uint64_t cacheBytes = 0;
  uint64_t downloaded = 0;       // this attempt
  uint64_t totalDownloaded = 0;  // over the package's attempts
  uint64_t attemptRate = 0;      // bytes per second
  uint64_t overallRate = 0;
  uint32_t accumulatedMs = 0;
};

// Bytes per second over elapsed milliseconds, the time rounded to whole
// seconds and at least one second.
uint64_t TransferRate(uint64_t bytes, uint64_t elapsedMs);

struct AttemptInput {
  PackageRequest* package = nullptr;         // required; name, id and the resource for the reservation
  Snapshot* snapshot = nullptr;              // required; its path is the package folder
  const Snapshot* updateList = nullptr;      // required; the entries to fetch, in order
  DynamicBitset* localMap = nullptr;         // required; sized to snapshot->totalBlocks
  const DynamicBitset* serverMap = nullptr;  // the blocks a peer source holds; may be null
  std::string sourceUrl;                     // stored location form (see transport/location.h)
  std::string siteId;                        // empty: no site outbound reservation
  std::string user;                          // empty: no credentials
  std::string encryptedPassword;             // Base64 of the encrypted password; never logged
  bool peer = false;
  uint32_t waitForPeerMode = 0;        // low four bits 2: wait for blocks the peer map lacks
  uint32_t storeProgressSeconds = 0;   // 0: the block map is stored only at the end
  uint64_t packageSize = 0;            // 0: the sum of the snapshot's file sizes
  std::optional<uint64_t> cacheBytes;  // unknown: package size minus the bytes still to fetch
};

class BlockDownload {
 public:
  // Told to store the local block map in the package record (during the loop
  // and at the end of it, whatever the result). A throw is logged and ignored.
  using StoreBlockMap = std::function<void(const DynamicBitset&)>;

  static constexpr uint32_t kProgressEventIntervalMs = 2000;
  static constexpr uint32_t kDefaultPeerWaitMs = 210000;
  static constexpr uint32_t kUnmappedPeerIntervalSeconds = 180;

  // siteLimits may be null (no site has an outbound limit), events may be
  // null (none are raised), storeBlockMap may be empty (nothing is stored).
  BlockDownload(PackageDownload& download, std::shared_ptr<SiteLimits> siteLimits, DownloadEvents* events,
                StoreBlockMap storeBlockMap);
  ~BlockDownload();
  BlockDownload(const BlockDownload&) = delete;
  BlockDownload& operator=(const BlockDownload&) = delete;

  // One attempt: reservation, credentials, DownloadBlocks, statistics.
  Result DownloadAttempt(const AttemptInput& input);
  // The last attempt's figures; engine thread only.
  const AttemptStatistics& statistics() const { return stats_; }

 private:
  struct FileRun;  // one file's walk (block_file.cc)

  // ---- The attempt (block_download.cc) ----
  void StartStatistics(const AttemptInput& input);
  void FinishStatistics();
  void SetCredentials(const AttemptInput& input);
  Result DownloadBlocks(const AttemptInput& input);
  void CheckBlockHashes(const AttemptInput& input);
  void ReadPeerConfiguration(const AttemptInput& input, bool applyChanges);
  void StoreMap(const DynamicBitset& map);
  bool Cancelled();
  [[noreturn]] void ThrowCancelled(uint32_t level);
  uint64_t Tick() const;

  // ---- One entry of the update list (block_file.cc) ----
  // Each throws Error after logging the failure.
  void DownloadEntry(const AttemptInput& input, const SnapshotEntry& entry);
  void CreateFolder(const AttemptInput& input, const SnapshotEntry& entry);
  void DownloadFile(const AttemptInput& input, FileRun& run);
  // The walk with the writer around it: whatever way the walk ends, the
  // block in the writer's hands is collected.
  void RunBlockLoop(const AttemptInput& input, FileRun& run);
  void WalkBlocks(const AttemptInput& input, FileRun& run);
  // waitMs: the peer wait interval W when a "not ready" answer may be
  // waited for, 0 when it may not.
  // Returns the bytes received into the writer.
  uint64_t RequestBlock(const AttemptInput& input, FileRun& run, const BlockWriter::Block& block, uint32_t waitMs);
  // Takes the oldest block the writer has in hand, if any, once it is
  // written, and marks it: local map, statistics, the map's store and
  // progress when due. False when none was in hand.
  bool CollectBlock(const AttemptInput& input, FileRun& run);
  // Takes every block in hand.
  void CollectBlocks(const AttemptInput& input, FileRun& run);
  void FinishFile(FileRun& run);
  void RaiseProgress(const FileRun& run);

  PackageDownload& download_;
  std::shared_ptr<SiteLimits> siteLimits_;
  DownloadEvents* events_;
  StoreBlockMap storeBlockMap_;
  AttemptStatistics stats_;
  Guid statsPackage_;  // the package the totals belong to
  // The attempt's package and name, copied once so that events and log
  // lines never take the record's lock during the loop.
  Guid packageId_;
  std::string packageName_;
  // Bytes written in this attempt, for the reservation's keep-alive thread.
  std::atomic<uint64_t> transferred_{0};
  // Peer network configuration as last read, and when.
  uint32_t peerRateKBps_ = 0;
  uint32_t progressIntervalSeconds_ = 0;
  uint64_t lastConfigTick_ = 0;
  uint64_t lastProgressTick_ = 0;
  uint64_t lastStoreTick_ = 0;
  // Verifies and writes the blocks of the attempt's files; one per
  // DownloadBlocks.
  std::unique_ptr<BlockWriter> writer_;
};

}  // namespace pkgdlv
