// The download attempt around the block loop: statistics, the site outbound
// reservation, credentials, and the frame of DownloadBlocks (connection
// options, the protocol and block hash checks, the root folder, the update
// list's entries in order, the block map stored at the end). The walk of one
// entry is in block_file.cc.
#include "transport/block_download.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "agent/clock.h"
#include "agent/peer_configuration.h"
#include "records/package_request.h"
#include "snapshot/snapshot.h"
#include "transport/block_download_internal.h"
#include "transport/block_writer.h"
#include "transport/download_events.h"
#include "transport/location.h"
#include "transport/package_download.h"
#include "transport/site_reservation.h"

namespace pkgdlv {

using blockdownload::Fail;
using blockdownload::kLog;
using blockdownload::PresentBytes;

uint64_t TransferRate(uint64_t bytes, uint64_t elapsedMs) {
  return bytes / std::max<uint64_t>((elapsedMs + 500) / 1000, 1);
}

namespace {

uint32_t SetBits(const DynamicBitset* map) { return map && map->IsCreated() ? map->Count() : 0; }
uint32_t Bits(const DynamicBitset* map) { return map && map->IsCreated() ? map->size() : 0; }

uint64_t SnapshotBytes(const Snapshot& snapshot) {
  uint64_t total = 0;
  for (const SnapshotEntry& entry : snapshot.entries) total += entry.size > 0 ? static_cast<uint64_t>(entry.size) : 0;
  return total;
}

// The bytes of the listed files whose blocks the local map does not have yet.
uint64_t BytesToFetch(const AttemptInput& input) {
  uint64_t missing = 0;
  for (const SnapshotEntry& entry : input.updateList->entries) {
    if (entry.size <= 0) continue;
    missing += static_cast<uint64_t>(entry.size) - PresentBytes(entry, input.snapshot->blockSize, *input.localMap);
  }
  return missing;
}

}  // namespace

BlockDownload::BlockDownload(PackageDownload& download, std::shared_ptr<SiteLimits> siteLimits, DownloadEvents* events,
                             StoreBlockMap storeBlockMap)
    : download_(download),
      siteLimits_(std::move(siteLimits)),
      events_(events),
      storeBlockMap_(std::move(storeBlockMap)) {}

BlockDownload::~BlockDownload() = default;

uint64_t BlockDownload::Tick() const { return download_.services().clock->TickCount(); }

Result BlockDownload::DownloadAttempt(const AttemptInput& input) {
  Logger& log = download_.log();
  if (!input.package || !input.snapshot || !input.updateList || !input.localMap) {
    download_.SetLastResult(result::kInvalidArg, "Invalid Argument");
    log.Log(loglevel::kError, kLog, "Download Package failed: %ls (%d)", "Invalid Argument", result::kInvalidArg);
    return result::kInvalidArg;
  }
  {
    auto lock = input.package->Lock();
    packageId_ = input.package->id();
    packageName_ = input.package->name;
  }
  if (packageName_.empty()) packageName_ = packageId_.ToString();
  if (!download_.Prepare(packageId_)) {
    log.Log(loglevel::kError, kLog, "Download Package failed: %ls (%d)", download_.LastDescription(),
            download_.LastResult());
    return download_.LastResult();
  }
  StartStatistics(input);

  std::optional<SiteReservation> reservation;
  try {
    log.Log(loglevel::kInfo, kLog,
            "Download package '%ls' from' %ls', local blocks: %u/%u, server blocks: %u/%u, bytes in cache: %I64u",
            packageName_, input.sourceUrl, SetBits(input.localMap), Bits(input.localMap), SetBits(input.serverMap),
            Bits(input.serverMap), stats_.cacheBytes);
    if (!input.siteId.empty()) {
      reservation.emplace(download_, siteLimits_);
      reservation->Begin(*input.package, input.siteId, stats_.packageSize, [this] { return transferred_.load(); });
    }
    SetCredentials(input);
    const Result code = DownloadBlocks(input);
    if (code == 0) {
      log.Log(loglevel::kInfo, kLog, "Package '%ls', downloaded successfully from '%ls', local blocks: %u/%u",
              packageName_, input.sourceUrl, SetBits(input.localMap), Bits(input.localMap));
    } else {
      const std::string line = Format("Failed to download package '%ls' from: %ls, local blocks: %u/%u", packageName_,
                                      input.sourceUrl, SetBits(input.localMap), Bits(input.localMap));
      log.Log(loglevel::kWarning, kLog, "%ls (0x%08X)", line, code);
    }
  } catch (const Error& e) {
    download_.SetLastResult(e.code(), e.description());
    log.Log(loglevel::kError, kLog, "Download Package failed: %ls (%d)", e.description(), e.code());
  } catch (...) {
    download_.SetLastResult(result::kFail, "Unknown error");
    log.Log(loglevel::kError, kLog, "Download Package failed: Unknown error");
  }

  if (reservation) reservation->End();
  download_.Finish();
  FinishStatistics();
  log.Log(loglevel::kInfo, kLog,
          "Download attempt completed: downloaded %I64d bytes at %d bytes per second, used %I64d bytes from cache",
          stats_.downloaded, stats_.attemptRate, stats_.cacheBytes);
  return download_.LastResult();
}

void BlockDownload::StartStatistics(const AttemptInput& input) {
  if (statsPackage_ != packageId_) {
    stats_ = {};
    statsPackage_ = packageId_;
  }
  stats_.startTick = Tick();
  stats_.packageSize = input.packageSize != 0 ? input.packageSize : SnapshotBytes(*input.snapshot);
  stats_.cacheBytes = input.cacheBytes.value_or(stats_.packageSize - std::min(stats_.packageSize, BytesToFetch(input)));
  stats_.downloaded = 0;
  stats_.attemptRate = 0;
  transferred_ = 0;
  lastProgressTick_ = stats_.startTick;
  lastStoreTick_ = stats_.startTick;
}

void BlockDownload::FinishStatistics() {
  const uint64_t elapsed = Tick() - stats_.startTick;
  stats_.accumulatedMs =
      static_cast<uint32_t>(std::min<uint64_t>(uint64_t{stats_.accumulatedMs} + elapsed, UINT32_MAX));
  stats_.totalDownloaded += stats_.downloaded;
  stats_.attemptRate = TransferRate(stats_.downloaded, elapsed);
  stats_.overallRate = TransferRate(stats_.totalDownloaded, stats_.accumulatedMs);
}

void BlockDownload::SetCredentials(const AttemptInput& input) {
  download_.SetSourceCredentials(input.user, input.encryptedPassword);
}

Result BlockDownload::DownloadBlocks(const AttemptInput& input) {
  Logger& log = download_.log();
  Failure failure{result::kOk, {}};
  try {
    writer_ = std::make_unique<BlockWriter>(log);
    ReadPeerConfiguration(input, false);
    download_.SetConnectionOptions(input.peer, peerRateKBps_, kBlockDownloadLoggingFlags);
    if (!HasKnownProtocol(input.sourceUrl)) {
      Fail(log, loglevel::kError, result::kInvalidProtocol,
           "Failed to download files, invalid protocol specified in '%ls'", input.sourceUrl);
    }
    CheckBlockHashes(input);
    std::error_code ec;
    std::filesystem::create_directories(input.snapshot->path, ec);
    if (ec || input.snapshot->path.empty()) {
      Fail(log, loglevel::kError, ec ? ResultFromErrno(ec.value()) : result::kInvalidArg,
           "Failed to create root directory '%ls'", input.snapshot->path);
    }
    for (const SnapshotEntry& entry : input.updateList->entries) {
      if (Cancelled()) ThrowCancelled(loglevel::kWarning);
      DownloadEntry(input, entry);
    }
    if (input.localMap->Count() != input.localMap->size()) {
      failure = {blockresult::kIncomplete, Format("Not all blocks of package '%ls' are present", packageName_)};
    }
  } catch (...) {
    failure = CurrentFailure();
  }
  writer_.reset();  // idle: each file collects its last block
  // The map is the resume state: it is kept whatever the outcome.
  StoreMap(*input.localMap);
  if (failure.code != result::kOk) download_.SetLastResult(failure.code, failure.description);
  return failure.code;
}

void BlockDownload::CheckBlockHashes(const AttemptInput& input) {
  const bool anythingToFetch =
      std::any_of(input.updateList->entries.begin(), input.updateList->entries.end(),
                  [](const SnapshotEntry& entry) { return entry.IsFile() && entry.size != 0; });
  if (!anythingToFetch) return;
  Snapshot& snapshot = *input.snapshot;
  // A snapshot read from a document keeps its block hashes in the text until
  // they are needed. Files without hashes (a snapshot that does not require
  // them) are fetched unverified; only a text that cannot be read fails.
  if (!snapshot.documentText.empty() && !snapshot.LoadBlockHashes() && LastSnapshotError() != result::kNoMatch) {
    const Result code = LastSnapshotError() != result::kOk ? LastSnapshotError() : result::kFail;
    Fail(download_.log(), loglevel::kError, code, "Failed to download files, failed to read block hashes from '%ls'",
         input.sourceUrl);
  }
  if (snapshot.blockSize == 0) {
    Fail(download_.log(), loglevel::kError, result::kInvalidData,
         "Failed to download files from '%ls', block size is not defined", input.sourceUrl);
  }
}

void BlockDownload::ReadPeerConfiguration(const AttemptInput& input, bool applyChanges) {
  const AgentServices& services = download_.services();
  std::optional<PeerConfiguration> config;
  if (services.peer_configuration) config = services.peer_configuration->Read(kLog);
  lastConfigTick_ = Tick();
  if (!applyChanges) {
    peerRateKBps_ = config ? config->maxRateKBps : 0;
    progressIntervalSeconds_ = config ? config->progressIntervalSeconds : 0;
    return;
  }
  if (!config) return;  // keep what was read before
  Logger& log = download_.log();
  if (config->maxRateKBps != peerRateKBps_) {
    peerRateKBps_ = config->maxRateKBps;
    download_.SetConnectionOptions(input.peer, peerRateKBps_, kBlockDownloadLoggingFlags);
    log.Log(loglevel::kDebug, kLog, "New peer download max rate is set to %u KBytes\\sec", peerRateKBps_);
  }
  if (config->progressIntervalSeconds != progressIntervalSeconds_) {
    progressIntervalSeconds_ = config->progressIntervalSeconds;
    log.Log(loglevel::kDebug, kLog, "New block download progress interval is set to %u seconds",
            progressIntervalSeconds_);
  }
}

void BlockDownload::StoreMap(const DynamicBitset& map) {
  lastStoreTick_ = Tick();
  if (!storeBlockMap_) return;
  try {
    storeBlockMap_(map);
  } catch (...) {
    Failure failure = CurrentFailure();
    download_.log().Log(loglevel::kWarning, kLog, "%ls (0x%08X)", failure.description, failure.code);
  }
}

bool BlockDownload::Cancelled() {
  return download_.State() == PackageDownload::kStateCancelled || download_.transport().IsAborted();
}

void BlockDownload::ThrowCancelled(uint32_t level) {
  constexpr std::string_view kCancelledLine = "Package '%ls' download cancelled";
  download_.log().Log(level, kLog, kCancelledLine, packageName_);
  throw Error(blockresult::kCancelled, Format(kCancelledLine, packageName_));
}

}  // namespace pkgdlv
