// The cycle's frame: the begin and end lines with the history record, the
// package's sources, the stored snapshot, and the passes from server choice
// to matching files. The steps of one pass are in download_cycle_steps.cc.
#include "engine/download_cycle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "agent/clock.h"
#include "agent/logger.h"
#include "agent/server_profile.h"
#include "engine/download_cycle_state.h"
#include "engine/download_queue.h"
#include "engine/peer_directory.h"
#include "engine/server_selection.h"
#include "engine/transfer_control.h"
#include "multicast/multicast_engine.h"
#include "records/delivery_settings.h"
#include "snapshot/snapshot_file.h"
#include "snapshot/validation.h"
#include "transport/server_answer.h"
#include "util/error.h"
#include "util/strings.h"

namespace pkgdlv {

namespace {

constexpr std::string_view kComponent = "PackageManager";
constexpr Result kStandardException = 0xE06D7363;
// The end line's status when the files came by multicast.
constexpr std::string_view kMulticastCompletedText = "Multicast download completed";

std::string ComputerName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return "localhost";
  return name;
}

// Seconds spent in the package's earlier cycles, and in the failed ones, for
// the Quillon Server's view of the download.
void HistoryTimes(const PackageLog& history, uint32_t& total, uint32_t& failing) {
  uint64_t all = 0, failed = 0;
  for (const DownloadRecord& record : history.entries) {
    if (record.endTime <= record.startTime) continue;
    const uint64_t seconds = (record.endTime - record.startTime) / kFileTimeTicksPerSecond;
    all += seconds;
    if (record.result != 0) failed += seconds;
  }
  total = static_cast<uint32_t>(std::min<uint64_t>(all, UINT32_MAX));
  failing = static_cast<uint32_t>(std::min<uint64_t>(failed, UINT32_MAX));
}

}  // namespace

DownloadCycle::DownloadCycle(const AgentServices& services, std::shared_ptr<SiteLimits> siteLimits,
                             DownloadEvents* events)
    : services_(services),
      settings_(std::make_unique<DeliverySettings>(*services.settings, *services.log)),
      siteLimits_(std::move(siteLimits)),
      download_(services),
      blocks_(download_, siteLimits_, events, [this](const DynamicBitset&) { SaveProgress(); }) {}

// The block download stores its progress: the record is written, so that a
// restart finds the package as it is now. The blocks themselves are found
// again in the files (their written ranges) by the next update list.
void DownloadCycle::SaveProgress() {
  if (!cycle_ || cycle_->folder.empty()) return;
  cycle_->request.Save(PackageRequest::DocumentPath(cycle_->folder));
}

DownloadCycle::~DownloadCycle() = default;

AttemptOutcome DownloadCycle::PerformDownload(PackageRequest& request, TransferControl& transfer,
                                              DownloadContext& engine) {
  Cycle cycle{request, transfer, engine};
  bool locallyManaged = false;
  {
    auto lock = request.Lock();
    cycle.id = request.id();
    cycle.name = request.name;
    cycle.folder = request.packageFolder();
    locallyManaged = request.IsLocallyManaged();
  }
  queue_ = &engine.queue;
  queueLock_ = &engine.queueLock;
  if (previousPackage_ != cycle.id) {
    previousPackage_ = cycle.id;
    previousDownloaded_ = 0;
  }
  BeginLine(request);
  multicastUse_ = MulticastUse::kNone;
  AttemptOutcome outcome;
  // A package kept in a folder of its own is complete by definition: the
  // engine marks it valid without any network access.
  if (locallyManaged) return outcome;

  cycle_ = &cycle;
  transfer.SetAbortHook([this] { download_.Cancel(); });
  try {
    CheckStopAndRelocation(cycle, "Agent is stopping, skip package download.");
    ObtainSources(cycle);
    LoadStoredSnapshot(request);
    bool remote = false;
    {
      auto lock = request.Lock();
      remote = request.remote;
    }
    if (!remote) {
      PeerStep(cycle);
      if (!cycle.waitForPeer) RunPasses(cycle);
    }
  } catch (const Error& error) {
    cycle.code = error.code();
    cycle.description = error.description();
  } catch (const std::bad_alloc&) {
    const Failure failure = CurrentFailure();  // missing memory keeps its own code and text
    cycle.code = failure.code;
    cycle.description = failure.description;
  } catch (const std::exception& error) {
    cycle.code = kStandardException;
    cycle.description = Format("PerformDownload (): %hs", std::string(error.what()));
  } catch (...) {
    services_.log->Log(loglevel::kError, kComponent, "Unexpected error while downloading package");
    cycle.code = result::kFail;
    cycle.description = "PerformDownload (): Unknown error";
  }
  transfer.SetAbortHook(nullptr);
  cycle_ = nullptr;
  if (multicastUse_ == MulticastUse::kAttempted && transfer.IsCancelled()) {
    services_.log->Log(loglevel::kInfo, kComponent, "Package download cancelled");
    engine.multicast.StopSession();
  }

  const uint64_t downloaded = blocks_.statistics().downloaded;
  outcome.code = cycle.code;
  outcome.description = cycle.description;
  outcome.sourcesObtained = cycle.sourcesObtained;
  outcome.progressMade = downloaded > previousDownloaded_;
  outcome.busyUntil = cycle.busyUntil;
  outcome.peerMode = cycle.peerMode;
  // A wait for peers counts as an attempt only when the search says so.
  outcome.countAttempt = !cycle.waitForPeer || (cycle.peerResult & PeerSearch::kCountWaitAttempt) != 0;
  if (cycle.code != 0) previousDownloaded_ = downloaded;
  return outcome;
}

void DownloadCycle::BeginLine(PackageRequest& request) {
  bool disabled = false;
  uint32_t version = 0;
  {
    auto lock = request.Lock();
    disabled = request.clientDownloadsDisabled;
    version = static_cast<uint32_t>(request.version());
    record_ = DownloadRecord{};
    record_.packageSize = request.GetSize();
  }
  record_.version = version;
  record_.startTime = services_.clock->Now();
  services_.log->Log(loglevel::kInfo, kComponent, "Begin download for package: %ls %ls%ls", request.name,
                     request.id().ToString(), disabled ? " (clientDownloadsDisabled)" : "");
}

void DownloadCycle::CycleEnded(PackageRequest& request, const AttemptOutcome& outcome) {
  try {
    std::string name, status, folder;
    const Guid id = request.id();
    {
      auto lock = request.Lock();
      name = request.name;
      folder = request.packageFolder();
      status = request.IsLocallyManaged()                ? ""
               : multicastUse_ == MulticastUse::kUsed ? std::string(kMulticastCompletedText)
                                                      : request.statusDescription;
      record_.status = request.status();
      record_.statusDescr = request.statusDescription;
    }
    const AttemptStatistics& stats = blocks_.statistics();
    const bool transferred = previousPackage_ == id && !request.IsLocallyManaged();
    record_.endTime = services_.clock->Now();
    record_.result = outcome.code;
    record_.transferBytes = transferred ? stats.downloaded : 0;
    record_.transferRate = transferred ? static_cast<uint32_t>(std::min<uint64_t>(stats.attemptRate, UINT32_MAX)) : 0;
    record_.transferCache = transferred ? stats.cacheBytes : 0;
    if (queue_ && queueLock_) {
      std::lock_guard lock(*queueLock_);
      record_.nextRetry = queue_->GetNextAttemptTime(id).value_or(0);
    }
    services_.log->Log(loglevel::kInfo, kComponent,
                       "End download for package: %ls %ls. Status: %ls. Downloaded %I64d bytes at %d bytes per "
                       "second, used %I64d bytes from cache",
                       name, id.ToString(), status, static_cast<int64_t>(record_.transferBytes),
                       static_cast<int>(record_.transferRate), static_cast<int64_t>(record_.transferCache));
    if (folder.empty()) return;
    PackageLog history(*services_.log, *settings_);
    try {
      history.LoadFromFolder(folder);
    } catch (const Error&) {
      history.totals = {};  // a damaged history starts again
      history.entries.clear();
    }
    history.totals.id = id.ToString();
    history.RecordCycle(record_);
    history.SaveToFolder(folder);
  } catch (...) {
    Failure failure = CurrentFailure();
    services_.log->Log(loglevel::kWarning, kComponent, "Failed to save the download history: %ls (0x%08X)",
                       failure.description, failure.code);
  }
}

void DownloadCycle::ObtainSources(Cycle& cycle) {
  PackageInfoQuery query;
  query.packageId = cycle.id;
  {
    auto lock = cycle.request.Lock();
    query.url = cycle.request.siteQueryUrl;
    query.resource = cycle.request.siteQueryResource;
    query.requestType = cycle.request.siteQueryType;
    // An urgent package may fall back to the Quillon Server's own sources.
    query.requestCodebases = cycle.request.urgentDownload;
  }
  // A request that names no site query brought its sources with it; a
  // source list younger than its expiry is used as it is.
  if (query.url.empty() || SourcesAreFresh(cycle.request)) return;
  if (!cycle.folder.empty()) {
    PackageLog history(*services_.log, *settings_);
    try {
      history.LoadFromFolder(cycle.folder);
    } catch (const Error&) {
    }
    HistoryTimes(history, query.totalTime, query.totalFailureTime);
  }

  std::string answer;
  if (!download_.GetPackageInfo(query, answer)) {
    const Result code = download_.LastResult();
    if (IsServerBusyCode(code)) cycle.busyUntil = download_.NextAllowedTime();
    Throw(code, "%ls", download_.LastDescription());
  }
  cycle.sourcesObtained = true;
  const bool applied = cycle.request.ApplySourcesResponse(answer);
  WipeString(answer);
  if (!applied) Throw(result::kFail, "Invalid response from server");

  auto lock = cycle.request.Lock();
  if (cycle.request.codebases.empty()) {
    services_.log->Log(loglevel::kWarning, kComponent, "WARNING: No package sources returned by server");
  }
  if (!cycle.request.optionalHashCheck() && cycle.request.sourceKey.empty()) {
    services_.log->Log(loglevel::kWarning, kComponent,
                       "Security key for package validation is required, but does not exist. Future package "
                       "validation & processing is not possible.");
  }
}

bool DownloadCycle::SourcesAreFresh(PackageRequest& request) {
  const FileTime expiry = static_cast<FileTime>(settings_->PackageSourceExpiryMinutes()) * kFileTimeTicksPerMinute;
  auto lock = request.Lock();
  if (request.codebases.empty() || request.sourceTime == 0) return false;
  const FileTime now = services_.clock->Now();
  return now >= request.sourceTime && now - request.sourceTime < expiry;
}

void DownloadCycle::LoadStoredSnapshot(PackageRequest& request) {
  auto lock = request.Lock();
  Snapshot& snapshot = request.snapshot();
  const std::string folder = request.packageFolder();
  if (folder.empty() || LoadSnapshotFromFolder(snapshot, folder, request.id())) return;
  // Nothing usable is stored: the cycle starts from an empty snapshot.
  const Guid id = request.id();
  snapshot.Reset();
  snapshot.id = id;
  snapshot.path = folder;
}

void DownloadCycle::ForceSnapshotRefresh(const Guid& id) {
  std::lock_guard lock(forcedLock_);
  forced_ = id;
}

void DownloadCycle::RunPasses(Cycle& cycle) {
  {
    std::lock_guard lock(forcedLock_);
    if (forced_ == cycle.id) {
      cycle.forceSnapshot = true;
      forced_ = Guid{};
    }
  }
  std::vector<CodebaseEntry> tried;
  std::vector<std::string> badServers;
  while (!RunOnePass(cycle, tried, badServers)) {
  }
}

// One pass from the server choice to matching files. True when the files
// match the snapshot; false to go round again with another server.
bool DownloadCycle::RunOnePass(Cycle& cycle, std::vector<CodebaseEntry>& tried, std::vector<std::string>& badServers) {
  Logger& log = *services_.log;
  ThrowIfInterrupted(cycle);
  if (!services_.server_profile) Throw(result::kNullPointer, "Invalid pointer");
  ServerSelector selector(log, *services_.server_profile, ComputerName(), cycle.engine.stop);
  const ServerSelection server = selector.ChooseForPass(cycle.request, tried, {}, badServers, cycle.engine.queueLock);
  record_.source = server.location;

  GetUpdateList(cycle, &server, std::exchange(cycle.forceSnapshot, false));
  if (cycle.FilesToUpdate() == 0) return true;
  CheckFreeSpace(cycle);
  DownloadFiles(cycle, server, true);
  if (cycle.transfer.IsCancelled()) {
    log.Log(loglevel::kInfo, kComponent, "Package download has been cancelled, Package %s", cycle.id.ToString());
    Throw(result::kCancelled, "Package download cancelled");
  }

  // A check, and one repair of what still differs.
  // The list is computed afresh below; what was fetched is kept for the times.
  const Snapshot fetched = std::move(cycle.updateList);
  GetUpdateList(cycle, nullptr, false);
  if (const size_t differing = cycle.FilesToUpdate(); differing != 0) {
    log.Log(loglevel::kWarning, kComponent, "The %d file(s) do not match the snapshot, download these files again",
            static_cast<int>(differing));
    DownloadFiles(cycle, server, false);
  }
  RepairTimeStamps(cycle, fetched);
  GetUpdateList(cycle, nullptr, false);
  if (cycle.FilesToUpdate() == 0) return true;
  log.Log(loglevel::kWarning, kComponent, "Package files do not match the package snapshot.");
  if (cycle.engine.stop.IsSet()) Throw(result::kFail, "%ls", cycle.folder);
  return false;
}

// Files that came by another way than the block transfer (multicast, or a
// copy the check found good) may carry other times than the snapshot's; the
// snapshot's are set, so that the next checks do not take them for changed.
void DownloadCycle::RepairTimeStamps(Cycle& cycle, const Snapshot& fetched) {
  std::vector<std::pair<std::filesystem::path, FileTime>> differing;
  {
    auto lock = cycle.request.Lock();
    const Snapshot& held = cycle.request.snapshot();
    for (const SnapshotEntry& listed : fetched.entries) {
      const SnapshotEntry* entry = listed.IsFile() ? held.FindEntry(listed.folder, listed.name) : nullptr;
      if (!entry || entry->lastModified == 0) continue;
      try {
        const std::filesystem::path path = EntryPath(held, *entry);
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
        if (FileTimeFromTimespec(info.st_mtim) != entry->lastModified) differing.emplace_back(path, entry->lastModified);
      } catch (const Error&) {
        // A name that would leave the package folder is never touched.
      }
    }
  }
  if (differing.empty()) return;
  services_.log->Log(loglevel::kWarning, kComponent,
                     "Some downloaded files have timestamps that do not match the snapshot. The timestamps on these "
                     "files will be changed to match the snapshot, to prevent excessive network activity.");
  for (const auto& [path, time] : differing) {
    const timespec times[2] = {TimespecFromFileTime(time), TimespecFromFileTime(time)};
    if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
      services_.log->Log(loglevel::kWarning, kComponent, "Failed to set file time for '%ls'", path.string());
    }
  }
}

void DownloadCycle::CheckStopAndRelocation(Cycle& cycle, std::string_view stopText) {
  if (cycle.engine.stop.IsSet()) Throw(result::kAborted, "%ls", stopText);
  if (cycle.engine.relocationRequested.IsSet()) {
    Throw(result::kAborted, "The Work Folder relocation is requested, downloads are suspended.");
  }
}

void DownloadCycle::ThrowIfInterrupted(Cycle& cycle) {
  CheckStopAndRelocation(cycle, "Agent is stopping, skip package download.");
  switch (cycle.transfer.Reason()) {
    case kNotInterrupted:
      return;
    case kInterruptPreempted:
      Throw(kPackageSuspended, "Package suspended");
    case kInterruptSuspended:
      Throw(result::kAborted, "Package download suspended");
    default:
      Throw(result::kCancelled, "Package download cancelled");
  }
}

}  // namespace pkgdlv
