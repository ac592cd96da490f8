// One download cycle of one package, as the engine thread runs it on the
// package it took from the queue: the package's sources from the Quillon
// Server, a server for each pass, the snapshot and the files still to fetch,
// the free-space check, the transfer (multicast first when allowed, then
// block ranges), and the checks that the files match the snapshot. What the
// cycle ends with is reported to the engine, which turns it into the
// package's status and the queue's next step; the cycle then writes its end
// line and its record in the package's history ("log.xml").
//
// Ownership: one object per engine. It owns the package download transport
// object (one network transport, kept between cycles) and the block download
// (whose statistics run over a package's attempts).
//
// Threads: PerformDownload and CycleEnded on the engine thread. Another
// thread interrupts a cycle through the TransferControl (the engine installs
// nothing else): the transport's abort ends a running request at once.
//
// Failure behaviour: every failure of a step ends the cycle with its code and
// description in the outcome; nothing escapes but a failure to read the peer
// configuration, which the engine treats as a failure of its run loop.
#pragma once

#include <pkgdlv/agent_services.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/package_downloader.h"
#include "records/package_log.h"
#include "records/package_request.h"
#include "snapshot/dynamic_bitset.h"
#include "snapshot/snapshot.h"
#include "transport/block_download.h"
#include "transport/package_download.h"

namespace pkgdlv {

class DeliverySettings;
class DownloadEvents;
class SiteLimits;
class Validator;
struct ServerSelection;

// A package that still misses more than this many bytes yields to a package
// that took the front of the queue; a smaller rest is finished first.
inline constexpr uint64_t kYieldThresholdBytes = 5'000'000;
// "Suspension": the cycle stopped for a more urgent package.
inline constexpr Result kPackageSuspended = result::kSuspended;

class DownloadCycle final : public PackageDownloader {
 public:
  // services must outlive the object. siteLimits may be null (no site has an
  // outbound limit); events may be null (no events are raised).
  DownloadCycle(const AgentServices& services, std::shared_ptr<SiteLimits> siteLimits,
                DownloadEvents* events = nullptr);
  ~DownloadCycle() override;

  AttemptOutcome PerformDownload(PackageRequest& request, TransferControl& transfer,
                                 DownloadContext& engine) override;
  void CycleEnded(PackageRequest& request, const AttemptOutcome& outcome) override;

  // The next cycle of package id fetches the snapshot from its server even
  // when the one held is valid (the tool's --force). Before Start, or from
  // any thread.
  void ForceSnapshotRefresh(const Guid& id);

  PackageDownload& transport() { return download_; }

 private:
  // The state of the cycle that runs now.
  struct Cycle;

  void BeginLine(PackageRequest& request);
  void SaveProgress();
  void ObtainSources(Cycle& cycle);
  // The package's source list came from the Quillon Server less than
  // "Package Source Expiry (mins)" ago.
  bool SourcesAreFresh(PackageRequest& request);
  void LoadStoredSnapshot(PackageRequest& request);
  void PeerStep(Cycle& cycle);
  // A package server of the request lies in one of this computer's IPv4
  // networks.
  bool HasLocalSubnetServer(Cycle& cycle);
  void RunPasses(Cycle& cycle);
  bool RunOnePass(Cycle& cycle, std::vector<CodebaseEntry>& tried, std::vector<std::string>& badServers);

  // The files still to fetch; with a server, a new snapshot is fetched first
  // when the one held cannot be trusted (or force is set).
  void GetUpdateList(Cycle& cycle, const ServerSelection* server, bool force);
  void FetchSnapshot(Cycle& cycle, const ServerSelection& server, Snapshot& received, bool securityDataOptional);
  void AdoptSnapshot(Cycle& cycle, Snapshot& received);
  void ComputeUpdateList(Cycle& cycle);
  void YieldIfOvertaken(Cycle& cycle);
  // Passes when the package's file system has room for what is missing;
  // else moves a package that is not in a fixed store to the first other
  // store folder with room for all of it, or fails with 0x80070070.
  void CheckFreeSpace(Cycle& cycle);
  bool MoveToStore(Cycle& cycle, const std::filesystem::path& target);
  void DownloadFiles(Cycle& cycle, const ServerSelection& server, bool multicastAllowed);
  void NoteServerFailure(Cycle& cycle, const std::string& location);
  std::string SettleSiteOutbound(const std::string& location);
  void MarkVerifiedFiles(Cycle& cycle);
  void RepairTimeStamps(Cycle& cycle, const Snapshot& fetched);
  void CheckStopAndRelocation(Cycle& cycle, std::string_view stopText);
  void ThrowIfInterrupted(Cycle& cycle);

  const AgentServices& services_;
  std::unique_ptr<DeliverySettings> settings_;
  std::shared_ptr<SiteLimits> siteLimits_;
  PackageDownload download_;
  BlockDownload blocks_;
  Cycle* cycle_ = nullptr;  // while PerformDownload runs
  // How the cycle used multicast, for its end line.
  enum class MulticastUse { kNone, kAttempted, kUsed };
  MulticastUse multicastUse_ = MulticastUse::kNone;
  // Kept from PerformDownload for CycleEnded.
  DownloadRecord record_;
  DownloadQueue* queue_ = nullptr;
  std::recursive_mutex* queueLock_ = nullptr;
  uint64_t previousDownloaded_ = 0;  // bytes of the package's previous attempt
  Guid previousPackage_;
  std::mutex forcedLock_;
  Guid forced_;  // under forcedLock_
};

}  // namespace pkgdlv
