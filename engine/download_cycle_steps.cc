// The steps of one pass of a download cycle: the snapshot and the files still
// to fetch, the yield to a more urgent package, the free-space check and the
// transfer of the files.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>

#include "agent/logger.h"
#include "agent/network_addresses.h"
#include "agent/server_profile.h"
#include "agent/volume_info.h"
#include "engine/download_cycle.h"
#include "engine/download_cycle_state.h"
#include "engine/download_queue.h"
#include "engine/server_selection.h"
#include "engine/transfer_control.h"
#include "multicast/multicast_core.h"
#include "multicast/multicast_engine.h"
#include "records/delivery_settings.h"
#include "snapshot/file_operations.h"
#include "snapshot/validation.h"
#include "transport/site_limits.h"
#include "transport/url_parts.h"
#include "util/atomic_file.h"
#include "util/error.h"
#include "util/strings.h"

namespace fs = std::filesystem;

namespace pkgdlv {

namespace {

constexpr std::string_view kComponent = "PackageManager";
constexpr std::string_view kPackageServersQuery = "packageServers";
constexpr std::string_view kQuillonSnapshotPage = "GetPackageSnapshot.aspx";

uint64_t TotalSize(const Snapshot& files) {
  uint64_t total = 0;
  for (const SnapshotEntry& entry : files.entries) {
    if (entry.IsFile() && entry.size > 0) total += static_cast<uint64_t>(entry.size);
  }
  return total;
}

// A package whose remaining files are all present already, only partly or
// with other contents, is being repaired rather than fetched; it keeps its
// place even when another package took the front of the queue.
bool IsRepairOnly(const Snapshot& updateList) {
  for (const SnapshotEntry& entry : updateList.entries) {
    if (!entry.IsFile()) continue;
    if (entry.size < 0 || entry.lastModified == 0 || entry.validBytes <= 0) return false;
  }
  return true;
}

// The files of the old snapshot that the new one no longer names.
Snapshot RemovedFiles(const Snapshot& old, const Snapshot& fresh) {
  Snapshot removed;
  removed.path = fresh.path;
  for (const SnapshotEntry& entry : old.entries) {
    if (entry.IsFile() && !fresh.FindEntry(entry.folder, entry.name)) removed.entries.push_back(entry);
  }
  return removed;
}

}  // namespace

void DownloadCycle::GetUpdateList(Cycle& cycle, const ServerSelection* server, bool force) {
  if (cycle.engine.relocationRequested.IsSet()) {
    Throw(result::kAborted, "The Work Folder relocation is requested, downloads are suspended.");
  }
  bool keep = false;
  {
    std::lock_guard queueLock(cycle.engine.queueLock);
    auto lock = cycle.request.Lock();
    keep = !force && cycle.request.IsSnapshotValid(true);
  }
  if (!keep && server) {
    bool downloadsDisabled = false;
    int32_t required = 0;
    std::string siteQueryType, siteQueryUrl;
    bool heldHasSecurityData = false;
    {
      auto lock = cycle.request.Lock();
      downloadsDisabled = cycle.request.clientDownloadsDisabled;
      required = cycle.request.version();
      siteQueryType = cycle.request.siteQueryType;
      siteQueryUrl = cycle.request.siteQueryUrl;
      heldHasSecurityData = !cycle.request.snapshot().signature.empty();
    }
    Snapshot received(services_.log);
    received.path = cycle.folder;
    bool got = false;
    // A package server of a package-server query may be of the older kind
    // that keeps no security data: the Quillon Server supplies it below.
    const bool packageServerQuery = EqualsNoCase(siteQueryType, kPackageServersQuery) && !siteQueryUrl.empty();
    if (!downloadsDisabled) {
      FetchSnapshot(cycle, *server, received, packageServerQuery);
      got = true;
    }
    // A snapshot without security data comes from an older package server:
    // the Quillon Server itself has the current one, with its signature.
    const bool legacy = got ? received.signature.empty() : !heldHasSecurityData;
    if (packageServerQuery && legacy) {
      services_.log->Log(loglevel::kInfo, kComponent,
                         "GetUpdateList: Received/existing snapshot is in legacy format. Request the latest snapshot "
                         "with security information from QS directly.");
      ServerSelection quillon;
      quillon.snapshotLocation = SiblingLocation(siteQueryUrl, kQuillonSnapshotPage);
      received = Snapshot(services_.log);
      received.path = cycle.folder;
      FetchSnapshot(cycle, quillon, received, false);
      got = true;
    }
    const int32_t version = got ? static_cast<int32_t>(received.version) : 0;
    if (version < required) {
      Throw(result::kFail, "The version of the package on the server(%d) is older than required(%d)", version,
            required);
    }
    if (got) AdoptSnapshot(cycle, received);
  }
  ComputeUpdateList(cycle);
  YieldIfOvertaken(cycle);
}

void DownloadCycle::FetchSnapshot(Cycle& cycle, const ServerSelection& server, Snapshot& received,
                                  bool securityDataOptional) {
  ThrowIfInterrupted(cycle);
  SnapshotQuery query;
  query.packageId = cycle.id;
  query.sourceDirectory = server.location;
  query.snapshotUrl = server.snapshotLocation;
  {
    auto lock = cycle.request.Lock();
    query.resource = cycle.request.siteQueryResource;
    query.version = cycle.request.version();
    query.user = cycle.request.UserAccessName;
    query.encryptedPassword = cycle.request.UserAccessPassword();
    query.securityDataOptional = securityDataOptional || cycle.request.optionalHashCheck();
    query.securityDataRequired = !query.securityDataOptional;
  }
  const bool fetched = download_.DownloadSnapshot(query, received);
  WipeString(query.encryptedPassword);
  if (!fetched) {
    NoteServerFailure(cycle, server.snapshotLocation.empty() ? server.location : server.snapshotLocation);
    Throw(download_.LastResult(), "%ls", download_.LastDescription());
  }
}

// The received snapshot replaces the one held: its signature must check,
// files it no longer names go, and it is saved as the package's own.
void DownloadCycle::AdoptSnapshot(Cycle& cycle, Snapshot& received) {
  received.path = cycle.folder;
  received.id = cycle.id;
  auto lock = cycle.request.Lock();
  if (!cycle.request.CheckSnapshotSignature(received)) {
    Throw(result::kFail, "The snapshot received does not correspond the signature.");
  }
  Snapshot removed = RemovedFiles(cycle.request.snapshot(), received);
  if (!removed.entries.empty()) {
    services_.log->Log(loglevel::kInfo, kComponent, "Deleting %d files removed from the package",
                       static_cast<int>(removed.entries.size()));
    DeleteInvalidFiles(removed, false);
  }
  fs::create_directories(cycle.folder);
  const fs::path snapshotFile = fs::path(cycle.folder) / kSnapshotFileName;
  // A snapshot read from a document is kept byte for byte (its signature
  // covers those bytes); one built from a folder listing is composed.
  if (received.signedData.empty()) WriteFileAtomically(snapshotFile, received.ComposeDocumentFile());
  if (!received.SaveSecurityData(snapshotFile)) {
    Throw(result::kFail, "Failed to save the snapshot of package '%ls'", cycle.id.ToString());
  }
  cycle.request.snapshot() = std::move(received);
}

// The site whose outbound transfers this download counts against: the
// server's site when it lies in another site than this computer, the main
// site when it lies in none; none for a transfer inside this computer's
// site, for a local folder, or when the agent knows no sites.
std::string DownloadCycle::SettleSiteOutbound(const std::string& location) {
  Logger& log = *services_.log;
  if (!siteLimits_) return {};
  const std::string localSite = siteLimits_->LocalSiteId();
  const std::string host = HostOfLocation(location);
  if (localSite.empty() || host.empty()) return {};
  const std::vector<uint32_t> addresses = ResolveIPv4(host);
  const std::string remote = addresses.empty() ? host : FormatIPv4(addresses.front());
  std::string site;
  try {
    if (addresses.empty()) Throw(result::kFail, "The server's address is not known");
    site = siteLimits_->SiteOfAddress(addresses.front());
  } catch (const Error&) {
    log.Log(loglevel::kWarning, kComponent,
            "Failed to get site ID for remote IP: %ls. Site outbound data transfer limitation will not be used", remote);
    return {};
  }
  if (!site.empty()) {
    if (EqualsNoCase(site, localSite)) {
      log.Log(loglevel::kInfo, kComponent, "Detected site internal request. Remote IP: %ls.", remote);
      return {};
    }
    log.Log(loglevel::kInfo, kComponent, "Detected site outbound request. Site ID: %ls, remote IP: %ls", site, remote);
    return site;
  }
  site = siteLimits_->MainSiteId();
  if (site.empty()) {
    log.Log(loglevel::kWarning, kComponent,
            "Failed to get main site ID. Site outbound data transfer limitation will not be used");
    return {};
  }
  log.Log(loglevel::kInfo, kComponent, "Detected site outbound request. Site ID=%ls", site);
  return site;
}

// A server that could not be reached, or whose transfer broke off, counts
// against it in the profile, so that the next selection prefers another.
// Failures the server answered in good form (a refused document, a bad
// block) are the transport's to record; a cancellation is nobody's fault.
void DownloadCycle::NoteServerFailure(Cycle& cycle, const std::string& location) {
  if (download_.TransportEndedNormally() || cycle.transfer.Reason() != kNotInterrupted) return;
  if (cycle.engine.stop.IsSet()) return;
  download_.RecordServerError(location);
}

void DownloadCycle::ComputeUpdateList(Cycle& cycle) {
  std::optional<VolumeDetails> volume;
  if (services_.volumes && !cycle.folder.empty() && fs::exists(cycle.folder)) {
    volume = services_.volumes->Query(cycle.folder);
  }
  Snapshot updateList;
  DynamicBitset good;
  int32_t priority = 0;
  {
    auto lock = cycle.request.Lock();
    priority = cycle.request.priority;
    Validator validator;
    UpdateListOptions options;
    options.skipHash = cycle.request.clientDownloadsDisabled;
    options.strictTime = volume && volume->exactTimes;
    validator.GetUpdateList(cycle.request.snapshot(), updateList, &good, options);
  }
  cycle.missingBytes = TotalSize(updateList);
  cycle.updateList = std::move(updateList);
  cycle.good = std::move(good);
  std::lock_guard queueLock(cycle.engine.queueLock);
  cycle.engine.queue.SetPriority(cycle.id, priority, static_cast<int64_t>(std::min<uint64_t>(cycle.missingBytes, static_cast<uint64_t>(INT64_MAX))));
}

void DownloadCycle::YieldIfOvertaken(Cycle& cycle) {
  if (cycle.FilesToUpdate() == 0 || cycle.missingBytes <= kYieldThresholdBytes) return;
  Guid front;
  {
    std::lock_guard queueLock(cycle.engine.queueLock);
    front = cycle.engine.queue.Front();
  }
  if (front.IsNull() || front == cycle.id || IsRepairOnly(cycle.updateList)) return;
  cycle.transfer.Interrupt(kInterruptPreempted);
  services_.log->Log(loglevel::kTrace, kComponent, "GetUpdateList: Package '%s' was preempted by package '%s'",
                     cycle.id.ToString(), front.ToString());
  Throw(kPackageSuspended, "Package suspended");
}

void DownloadCycle::DownloadFiles(Cycle& cycle, const ServerSelection& server, bool multicastAllowed) {
  Logger& log = *services_.log;
  CheckStopAndRelocation(cycle, "Agent is stopping, skip downloading the files.");
  const std::string label = cycle.Label();
  if (multicastAllowed) {
    bool enabled = false;
    {
      auto lock = cycle.request.Lock();
      enabled = cycle.request.enableMulticast;
    }
    if (!enabled) {
      log.Log(loglevel::kTrace, kComponent,
              "DownloadFiles: Multicast not attempted, multicast download is not enabled for package %s", label);
    } else {
      log.Log(loglevel::kTrace, kComponent, "DownloadFiles: Trying to download the package files (using Multicast) (%s)",
              label);
      const int multicast = cycle.engine.multicast.Download_Try(cycle.id, cycle.missingBytes);
      if (multicast == kMulticastReceived) {
        multicastUse_ = MulticastUse::kUsed;
      } else if (multicast != kMulticastNotAttempted && multicastUse_ == MulticastUse::kNone) {
        multicastUse_ = MulticastUse::kAttempted;
      }
      if (!cycle.transfer.IsCancelled()) {
        if (multicast == kMulticastReceived) return;
        if (multicast != kMulticastNothing && multicast != kMulticastNotAttempted) ComputeUpdateList(cycle);
        log.Log(loglevel::kTrace, kComponent, "DownloadFiles: Multicast download has failed (%s)", label);
        CheckStopAndRelocation(cycle, "Agent is stopping, skip downloading the files.");
      }
    }
  }
  if (cycle.transfer.Reason() == kInterruptCancelled) {
    log.Log(loglevel::kTrace, kComponent, "DownloadFiles: Package download has canceled (%s)", label);
    return;
  }
  if (cycle.transfer.Reason() == kInterruptPreempted) {
    Guid front;
    {
      std::lock_guard queueLock(cycle.engine.queueLock);
      front = cycle.engine.queue.Front();
    }
    log.Log(loglevel::kTrace, kComponent, "DownloadFiles: Package '%s' was preempted by package '%s'",
            cycle.id.ToString(), front.ToString());
    Throw(kPackageSuspended, "Package suspended");
  }
  log.Log(loglevel::kTrace, kComponent, "DownloadFiles: Trying to download the package files (not using Multicast) (%s)",
          label);

  // The block download works on a copy of the snapshot, so that the record's
  // lock is not held for the length of the transfer.
  Snapshot working;
  AttemptInput input;
  {
    auto lock = cycle.request.Lock();
    working = cycle.request.snapshot();
    input.user = cycle.request.UserAccessName;
    input.encryptedPassword = cycle.request.UserAccessPassword();
    input.packageSize = cycle.request.GetSize();
  }
  input.package = &cycle.request;
  input.snapshot = &working;
  input.updateList = &cycle.updateList;
  input.localMap = &cycle.good;
  input.sourceUrl = server.location;
  input.siteId = SettleSiteOutbound(server.location);
  const Result code = blocks_.DownloadAttempt(input);
  WipeString(input.encryptedPassword);
  if (code != 0) {
    NoteServerFailure(cycle, server.location);
    Throw(code, "%ls", download_.LastDescription());
  }
  MarkVerifiedFiles(cycle);
}

// Every block of a file that the transfer wrote was checked against the
// signed snapshot first: a file whose blocks are all in the local map is
// valid, and the checks after the transfer need not read it again (its size
// and time are still compared).
void DownloadCycle::MarkVerifiedFiles(Cycle& cycle) {
  auto lock = cycle.request.Lock();
  Snapshot& held = cycle.request.snapshot();
  const uint32_t blockSize = held.blockSize;
  for (const SnapshotEntry& listed : cycle.updateList.entries) {
    const uint64_t blocks = listed.BlockCount(blockSize);
    if (!listed.IsFile() || blocks == 0 || listed.firstBlock == kNoBlock) continue;
    const uint64_t last = listed.firstBlock + blocks - 1;
    if (last >= cycle.good.size()) continue;
    if (cycle.good.CountInRange(listed.firstBlock, static_cast<uint32_t>(last)) != blocks) continue;
    if (SnapshotEntry* entry = held.FindEntry(listed.folder, listed.name)) {
      entry->state = entrystate::kValid;
      entry->validBytes = entry->size;
    }
  }
}

}  // namespace pkgdlv
