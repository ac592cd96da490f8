#include "engine/package_manager.h"

#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "agent/client_agent.h"
#include "agent/clock.h"
#include "agent/logger.h"
#include "agent/network_addresses.h"
#include "agent/settings_store.h"
#include "records/package_request.h"
#include "snapshot/snapshot_file.h"
#include "snapshot/validation.h"
#include "util/error.h"

namespace pkgdlv {

namespace {

constexpr std::string_view kComponent = "PackageManager";
constexpr uint32_t kStateChangeBits = 0xF;

// The total of the files' sizes as a queue size key: 0 when a size is unknown
// (negative) or the sum does not fit.
int64_t TotalFileSize(const Snapshot& files) {
  int64_t total = 0;
  for (const SnapshotEntry& entry : files.entries) {
    if (!entry.IsFile()) continue;
    if (entry.size < 0 || entry.size > std::numeric_limits<int64_t>::max() - total) return 0;
    total += entry.size;
  }
  return total;
}

size_t FileCount(const Snapshot& snapshot) {
  size_t count = 0;
  for (const SnapshotEntry& entry : snapshot.entries) count += entry.IsFile() ? 1 : 0;
  return count;
}

// The computer's first IPv4 address, for the multicast core; empty when none
// is known.
std::function<std::string()> LocalAddressOf(std::shared_ptr<NetworkAddresses> addresses) {
  return [addresses = std::move(addresses)] {
    try {
      std::vector<std::string> all = addresses ? addresses->IPv4Addresses() : std::vector<std::string>();
      return all.empty() ? std::string() : all.front();
    } catch (...) {
      return std::string();
    }
  };
}

int64_t SizeKey(uint64_t size) {
  return size > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) ? 0 : static_cast<int64_t>(size);
}

}  // namespace

PackageManager::PackageManager(const AgentServices& services, std::filesystem::path workFolder,
                               std::shared_ptr<PackageDownloader> downloader, std::shared_ptr<PeerDirectory> peers)
    : services_(services),
      settings_(*services.settings, *services.log),
      downloader_(std::move(downloader)),
      peers_(peers ? std::move(peers) : std::make_shared<IdlePeerDirectory>()),
      client_(services.client),
      queue_(services.clock, services.log, settings_),
      store_(services, std::move(workFolder)),
      multicast_(*services.settings, *services.log,
                 MulticastEngine::Dependencies{services.multicast_core, services.client, {},
                                               LocalAddressOf(services.network_addresses)}),
      maxDecryptFailures_(settings_.MaxDecryptFailures()) {
  if (client_) client_->events().Subscribe(this);
}

PackageManager::~PackageManager() {
  // Returns once no event is delivered here any more.
  if (client_) client_->events().Unsubscribe(this);
  Stop();
}

void PackageManager::Start() {
  if (thread_.joinable()) return;
  if (!downloader_) Throw(result::kInvalidArg, "The engine needs a package downloader");
  LockWorkFolder(false);
  multicast_.Manage(MulticastEngine::kReevaluate);
  multicast_.Manage(MulticastEngine::kStart);
  ResumeDownloads();
  thread_ = std::thread([this] { Run(); });
}

void PackageManager::Stop() {
  // No queue lock: work that holds it watches the stop event and ends, and a
  // download that registers its transfer after this finds the event set.
  stop_.Set();
  // The running download is suspended, not failed: it stays pending in its
  // document and resumes at the next start.
  InterruptTransfer(kInterruptSuspended);
  multicast_.StopSession();
  if (thread_.joinable()) thread_.join();
}

void PackageManager::SetTransfer(TransferControl* transfer) {
  std::lock_guard lock(transferLock_);
  transfer_ = transfer;
}

void PackageManager::InterruptTransfer(int reason) {
  // Held while the transfer is interrupted, so that PerformDownload cannot
  // drop the transfer meanwhile.
  std::lock_guard lock(transferLock_);
  if (transfer_) transfer_->Interrupt(reason);
}

ClientAgent& PackageManager::client() {
  if (!client_) Throw(result::kInvalidPointer, "Invalid pointer");
  return *client_;
}

// ---- The run loop ----

void PackageManager::Run() {
  Logger& log = *services_.log;
  if (stop_.IsSet()) {
    log.Log(loglevel::kWarning, kComponent, "Agent is stopping, Package Manager run cycle will exit.");
    return;
  }
  if (!client_) log.Log(loglevel::kError, kComponent, "Notification Manager object could not be loaded");
  maxDecryptFailures_ = settings_.MaxDecryptFailures();
  decryptFailures_ = 0;

  while (!stop_.IsSet()) {
    try {
      std::shared_ptr<PackageRequest> request = WaitForReadyPackage();
      if (stop_.IsSet()) break;
      if (request) PerformDownload(request);
      ProcessResumeQueue();
    } catch (...) {
      Failure failure = CurrentFailure();
      log.Log(loglevel::kWarning, kComponent, "Error in Run (), flushing package queue: %ls (0x%08X)",
              failure.description, failure.code);
      {
        RecursiveLock lock(queueLock_);
        queue_.Clear();
      }
      services_.clock->WaitFor(stop_, kRunFailurePauseMs);
    }
  }
}

std::shared_ptr<PackageRequest> PackageManager::WaitForReadyPackage() {
  Logger& log = *services_.log;
  const bool registered = client().IsRegistered();
  if (!registered) log.Log(loglevel::kInfo, kComponent, "Client is not registered. Package download is suspended.");
  const bool blocked = client().IsDownloadBlocked();
  // While a relocation is requested no package is taken: it would only be
  // suspended again, and the move may be under way.
  const bool allowed = registered && !blocked && !relocationRequested_.IsSet();

  uint32_t timeout = Event::kInfinite;
  if (allowed) {
    RecursiveLock lock(queueLock_);
    queue_.PromoteDueEntries();
    timeout = queue_.GetWaitTimeout();
  }
  if (timeout != 0) {
    {
      std::lock_guard resume(resumeLock_);
      if (!resumeQueue_.empty()) return nullptr;
    }
    // Not under the resume lock: ResumeDownloads on another thread takes it
    // and then sets the wake event, which ends this wait.
    services_.clock->WaitAny({&stop_, &wake_}, timeout);
    // The client may have changed meanwhile: the next pass judges it again.
    return nullptr;
  }
  // No wait means a ready package, and only an allowed client has one.
  if (stop_.IsSet()) return nullptr;

  RecursiveLock lock(queueLock_);
  queue_.PromoteDueEntries();
  if (!queue_.HasReadyFront()) return nullptr;
  const Guid id = queue_.Front();
  std::shared_ptr<PackageRequest> request = store_.Find(id);
  if (!request) {
    queue_.Remove(id);
    log.Log(loglevel::kError, kComponent, "PackageRequest has been deleted during download");
    peers_->DropPackage(id);
    return nullptr;
  }
  RefreshBlocks(*request, false,
                "WaitForReadyPackage: could not refresh blocks for package: %ls. The status will not be propagated "
                "in the DHT network.");
  request->SetStatus(PKGDLV_DOWNLOADING, "", true);
  Save(*request);
  return request;
}

void PackageManager::RefreshBlocks(PackageRequest& request, bool final, std::string_view failureMessage) {
  try {
    peers_->RefreshPackageBlocks(request, final);
  } catch (...) {
    Failure failure = CurrentFailure();
    services_.log->Log(loglevel::kWarning, kComponent, "%ls: %ls (0x%08X)",
                       Format(failureMessage, request.id().ToString()), failure.description, failure.code);
  }
}

void PackageManager::Save(PackageRequest& request) { store_.Save(request); }

// ---- Requests from other threads ----

void PackageManager::QueuePackage(const std::shared_ptr<PackageRequest>& request, bool restart) {
  Logger& log = *services_.log;
  if (stop_.IsSet()) {
    log.Log(loglevel::kInfo, kComponent, "Download Package skipped due to Agent stop.");
    return;
  }
  RecursiveLock lock(queueLock_);
  // The record's lock is the last in the engine's lock order: it is held
  // only while the record is read or changed, never around queue, store or
  // multicast calls.
  Guid id;
  int32_t oldStatus = 0;
  FileTime oldSlaStart = 0;
  bool oldRemote = false;
  {
    auto recordLock = request->Lock();
    id = request->id();
    if (id.IsNull()) Throw(result::kInvalidArg, "Invalid package ID");
    oldStatus = request->status();
    oldSlaStart = request->SLAStartTime;
    oldRemote = request->remote;
    if (request->urgentDownload) {
      if (oldStatus == PKGDLV_VALID || request->SLAStartTime == 0) request->InitUrgentSla();
      log.Log(loglevel::kTrace, kPackageDownloadLogComponent,
              "Download Urgent package. Status: %d, SLA timeout: %d, SLA start=%ls", oldStatus,
              request->downloadStartSLA, FormatLocalTime(request->SLAStartTime));
    }
  }
  // The document is written whenever the record changed here, so that what
  // QueuePackage decided survives the record being let go and read again.
  const auto saveIfChanged = [&] {
    bool changed = false;
    {
      auto recordLock = request->Lock();
      changed = request->status() != oldStatus || request->SLAStartTime != oldSlaStart || request->remote != oldRemote;
    }
    if (changed) Save(*request);
  };

  if (!restart && queue_.Contains(id)) {
    saveIfChanged();
    return;
  }
  store_.Adopt(request);
  if (restart && queue_.Front() == id) InterruptDownload(kInterruptPreempted);

  std::filesystem::path folder;
  {
    auto recordLock = request->Lock();
    if (restart) ReloadSnapshotFromPath(request->snapshot());
    folder = request->packageFolder();
    if (folder.empty()) {
      folder = store_.FolderOf(id);
      request->snapshot().path = folder.string();
    }
  }
  if (!store_.CreateFolder(folder)) {
    log.Log(loglevel::kWarning, kComponent, "Failed to create package storage folder: %ls", folder.string());
  }
  const bool frontBefore = queue_.Front() == id;

  PlaceInQueue(*request, id);
  if (frontBefore || queue_.Front() == id) InterruptDownload(kInterruptPreempted);
  saveIfChanged();
}

void PackageManager::PlaceInQueue(PackageRequest& request, const Guid& id) {
  // What the record says, read under its lock; the queue is placed after.
  int32_t priority = 0;
  bool snapshotValid = false;
  std::optional<int64_t> missingSize;  // none: the files are complete
  size_t filesToUpdate = 0, filesInSnapshot = 0;
  {
    auto recordLock = request.Lock();
    priority = request.priority;
    snapshotValid = request.IsSnapshotValid(false);
    if (!snapshotValid) {
      missingSize = SizeKey(request.GetSize());
    } else {
      Snapshot updateList;
      // The check runs under the queue lock: it ends at the stop event, so
      // that the engine thread, which needs that lock to finish, is not held.
      ValidatorOptions checkOptions;
      checkOptions.cancelled = [this] { return stop_.IsSet(); };
      Validator validator(std::move(checkOptions));
      UpdateListOptions options;
      options.skipHash = request.clientDownloadsDisabled;
      validator.GetUpdateList(request.snapshot(), updateList, nullptr, options);
      filesInSnapshot = FileCount(request.snapshot());
      if (stop_.IsSet()) {
        // A check cut short says nothing about the files: all count as missing.
        filesToUpdate = filesInSnapshot;
        missingSize = TotalFileSize(request.snapshot());
      } else {
        filesToUpdate = FileCount(updateList);
        if (filesToUpdate != 0) missingSize = TotalFileSize(updateList);
      }
    }
  }

  if (!missingSize) {
    const bool changed = request.status() != PKGDLV_VALID;
    request.SetStatus(PKGDLV_VALID, "", true);
    if (changed && peers_->State() == PeerDirectory::kRunningState && request.IsLocallyManaged()) {
      peers_->Republish(id);
    }
    return;
  }
  queue_.SetPriority(id, priority, *missingSize);
  if (!snapshotValid) {
    RefreshBlocks(request, true,
                  "WaitForReadyPackage: could not refresh blocks for package: %ls. The status will not be propagated "
                  "in the DHT network.");
  }
  request.SetStatus(queue_.IsRetryPending(id) ? PKGDLV_RETRYING : PKGDLV_PENDING, "", true);
  // Only part of the package is missing: it is brought into the store.
  if (snapshotValid && filesToUpdate != filesInSnapshot) {
    auto recordLock = request.Lock();
    request.remote = false;
  }
}

void PackageManager::InterruptDownload(int reason) {
  RecursiveLock lock(queueLock_);
  InterruptTransfer(reason);
  multicast_.StopSession();
  wake_.Set();
}

void PackageManager::RetryDownloadsIfNeeded() {
  RecursiveLock lock(queueLock_);
  if (queue_.ReleaseRetryWaits()) wake_.Set();
}

void PackageManager::OnNetworkStateChanged(uint32_t state) {
  if ((state & kStateChangeBits) == 0) return;
  lastNetworkChange_ = services_.clock->Now();
  services_.log->Log(loglevel::kInfo, kComponent, "Network state changed to 0x%08X, retry downloads if needed", state);
  RetryDownloadsIfNeeded();
}

void PackageManager::OnBlockoutStarted() { multicast_.OnBlockoutStarted(); }

void PackageManager::OnBlockoutExpired() {
  multicast_.OnBlockoutExpired();
  // The thread waits without a time-out while downloads are blocked.
  wake_.Set();
}

void PackageManager::OnSettingsChanged() { multicast_.Manage(MulticastEngine::kSettingsMayHaveChanged); }

void PackageManager::OnServerStateChanged(uint32_t state) {
  services_.log->Log(loglevel::kTrace, kComponent, "Server state changed to 0x%08X, checking multicast state.",
                     state);
  multicast_.OnRegistrationChanged(static_cast<int>(state));
  if ((state & kStateChangeBits) == 0) return;
  services_.log->Log(loglevel::kInfo, kComponent, "QS server state changed to 0x%08X, retry downloads if needed",
                     state);
  RetryDownloadsIfNeeded();
}

}  // namespace pkgdlv
