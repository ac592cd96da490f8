// The engine: one thread, the "Package Delivery Thread", that downloads one
// package at a time in the order of the DownloadQueue, puts failed packages
// back with a retry time, lets a more urgent request preempt the running one,
// and resumes the unfinished packages of the work folder when it starts.
//
// What one download attempt does is the PackageDownloader's business; the
// engine turns its outcome into the package's next status and the queue's
// next step, and saves "package.xml" each time.
//
// Threads: Start and Stop from the owner's thread. QueuePackage,
// InterruptDownload, ResumeDownloads, RetryDownloadsIfNeeded and the state
// handlers from any thread. Run, WaitForReadyPackage, PerformDownload and
// ProcessResumeQueue run on the engine thread (tests may call them directly
// while no thread runs). Locks nest: the download lock or the resume lock,
// then the queue lock,
// then the DownloadQueue's own lock, then a package record's lock; the queue
// lock is never held while the resume lock is taken, nor while the thread
// waits.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <pkgdlv/agent_services.h>
#include <pkgdlv/package_enums.h>

#include "agent/client_agent.h"
#include "engine/download_queue.h"
#include "engine/package_downloader.h"
#include "engine/package_store.h"
#include "engine/peer_directory.h"
#include "engine/transfer_control.h"
#include "engine/work_folder_lock.h"
#include "multicast/multicast_engine.h"
#include "records/delivery_settings.h"
#include "util/event.h"

namespace pkgdlv {

class PackageRequest;

class PackageManager : private ClientEventSink {
 public:
  // At most this many packages are resumed per ProcessResumeQueue, so that a
  // large work folder does not delay the first download.
  static constexpr size_t kResumeBatchSize = 250;
  // After a failure of the run loop the thread pauses this long (stop
  // excepted), so that a failure that repeats at once cannot spin it.
  static constexpr uint32_t kRunFailurePauseMs = 1000;

  // services must outlive the engine (its clock, settings, log, client and
  // peer configuration are used); null peers means no peer directory runs.
  // Without a downloader the engine can queue and resume but not Start.
  PackageManager(const AgentServices& services, std::filesystem::path workFolder,
                 std::shared_ptr<PackageDownloader> downloader, std::shared_ptr<PeerDirectory> peers = nullptr);
  ~PackageManager() override;  // Stop()
  PackageManager(const PackageManager&) = delete;
  PackageManager& operator=(const PackageManager&) = delete;

  // Resumes the first batch of the work folder's packages, then starts the
  // thread. Does nothing when the thread runs already; throws Error
  // 0x80070057 without a downloader.
  void Start();
  // Sets the stop event, interrupts the running transfer and joins the
  // thread. Every wait and attempt of the engine ends at the stop event. Takes
  // no queue lock, so it never waits behind work that holds it; such work
  // (the quick check of QueuePackage) ends at the stop event.
  void Stop();
  bool IsRunning() const { return thread_.joinable(); }

  // Places a request in the queue, or finds that its files are complete. With
  // restart, a running download of the package is interrupted and its
  // snapshot reloaded from its file first. The store learns the record.
  // A stop during the quick check of the files ends it; the package is then
  // queued as pending (not judged complete), so it resumes at the next start.
  // Throws Error 0x80070057 for a request without an identifier.
  void QueuePackage(const std::shared_ptr<PackageRequest>& request, bool restart);
  // Hands the running transfer the reason (see InterruptionReason) and wakes
  // the thread.
  void InterruptDownload(int reason);
  // Fills the resume queue from the work folder and resumes its first batch.
  void ResumeDownloads();
  // Resumes up to kResumeBatchSize packages of the resume queue.
  void ProcessResumeQueue();
  // Releases every waiting package at once (a network or server change).
  void RetryDownloadsIfNeeded();
  // Events of the agent: a bit set; any of the lowest four bits means a
  // change worth retrying for.
  void OnNetworkStateChanged(uint32_t state);
  void OnServerStateChanged(uint32_t state);
  // The client's events, to which the engine is subscribed from construction
  // to destruction (any thread): blockouts reach the multicast engine, and
  // the end of one wakes the thread; a settings change makes the multicast
  // engine read its settings again.
  void OnBlockoutStarted() override;
  void OnBlockoutExpired() override;
  void OnSettingsChanged() override;
  // ---- The work folder (work_folder.cc) ----

  // Opens the lock file of the work folder (first closing it with reopen). A
  // failure is logged and the engine goes on without the lock.
  void LockWorkFolder(bool reopen);
  // Makes folder (its links resolved) the work folder (created when
  // missing), locks it and resumes its packages. False when it already is
  // the work folder (the same folder on disk, however spelled). Throws
  // Error: an empty path (0x80070057 "New working folder is not specified"),
  // a relative path (0x80070057), a system folder (0x80070005), packages
  // still queued for another folder (0x80004005 "Attribute workFolder has
  // already been set and there are active downloads in the queue"), a folder
  // that cannot be created or is not a folder ("Cannot create work folder").
  bool SetWorkFolder(const std::filesystem::path& folder);
  struct Relocation {
    uint32_t flags = PKGDLV_RELOCATE_SUCCESS;  // RelocatePackageStoreFlags
    uint64_t requiredMiB = 0;                  // with PKGDLV_RELOCATE_ABORTED_NO_SPACE
    std::string message;                       // the logged reason of a refusal or failure
  };
  // Moves the whole store to newFolder, judged and used with its links
  // resolved (the current folder: checks it and finishes moves left as
  // links, without waiting for a running download). A folder inside the
  // store is refused. A move is all or nothing: a failure or a stop leaves
  // every package in the old folder, which stays locked. Downloads are
  // suspended meanwhile; a relocation refused for lack of space or failed in
  // the move leaves them suspended until a relocation completes or the
  // engine is made again. A package taken but not yet started is saved as
  // pending first.
  Relocation RelocateWorkFolder(const std::filesystem::path& newFolder);
  // Set while a relocation is requested; downloads stop at it.
  Event& relocationRequested() { return relocationRequested_; }

  // When the network last changed (0: not since the engine was made).
  FileTime LastNetworkChangeTime() const { return lastNetworkChange_.load(); }

  // ---- The engine thread's steps ----
  void Run();
  // The request to download next, or null (nothing ready, stopping, or the
  // package vanished). Waits, outside every lock, for the wake event, the
  // stop event or the earliest retry time.
  std::shared_ptr<PackageRequest> WaitForReadyPackage();
  // One attempt and its outcome: the status, the queue's next step, the
  // decrypt failure count and "package.xml".
  void PerformDownload(const std::shared_ptr<PackageRequest>& request);

  // ---- For the delivery object and tests ----
  PackageStore& store() { return store_; }
  DeliverySettings& settings() { return settings_; }
  // Hold queueLock() around several queue operations that must be seen
  // together.
  DownloadQueue& queue() { return queue_; }
  std::recursive_mutex& queueLock() { return queueLock_; }
  Event& stopEvent() { return stop_; }
  MulticastEngine& multicast() { return multicast_; }
  size_t ResumeQueueSize() const;
  uint32_t DecryptFailureCount() const { return decryptFailures_.load(); }

 private:
  using RecursiveLock = std::lock_guard<std::recursive_mutex>;

  ClientAgent& client();
  void ApplyOutcome(PackageRequest& request, const AttemptOutcome& outcome, const TransferControl& transfer);
  void ApplyFailure(PackageRequest& request, const AttemptOutcome& outcome, const TransferControl& transfer);
  void ApplySuccess(PackageRequest& request);
  void CountDecryptFailure(const AttemptOutcome& outcome);
  void ResetIdentityAfterDecryptFailures();
  // The quick check of the package's files for the peer directory; a failure
  // is logged with failureMessage and does not stop the caller.
  void RefreshBlocks(PackageRequest& request, bool final, std::string_view failureMessage);
  // Queue placement and status of a package that is not yet queued (or is
  // restarted): queued by what it still misses, or valid when complete.
  void PlaceInQueue(PackageRequest& request, const Guid& id);
  void Save(PackageRequest& request);
  // Relocation helpers (work_folder.cc). ValidateWorkFolder takes the locks
  // itself; SuspendTakenPackages runs under the download and queue locks.
  Relocation ValidateWorkFolder(const std::filesystem::path& folder);
  void SuspendTakenPackages();
  // The running attempt's transfer: set and cleared by PerformDownload,
  // interrupted from any thread.
  void SetTransfer(TransferControl* transfer);
  void InterruptTransfer(int reason);

  const AgentServices& services_;
  DeliverySettings settings_;
  std::shared_ptr<PackageDownloader> downloader_;
  std::shared_ptr<PeerDirectory> peers_;
  std::shared_ptr<ClientAgent> client_;  // null: every query fails with 0x80004003

  Event stop_{Event::Reset::kManual};
  Event wake_{Event::Reset::kAuto};
  Event relocationRequested_{Event::Reset::kManual};

  // Held by a download attempt and its outcome, and by a relocation, so that
  // the two never overlap. Taken before the queue lock.
  std::mutex downloadLock_;
  WorkFolderLock workFolderLock_;  // under queueLock_

  std::recursive_mutex queueLock_;  // the queue and QueuePackage's status changes
  DownloadQueue queue_;
  // The last lock of all (only the transfer's own lock and its abort hook run
  // inside it): Stop reaches the transfer without the queue lock.
  std::mutex transferLock_;
  TransferControl* transfer_ = nullptr;  // the running attempt's, under transferLock_

  mutable std::recursive_mutex resumeLock_;  // the resume queue; ResumeDownloads holds it around ProcessResumeQueue
  std::deque<Guid> resumeQueue_;

  PackageStore store_;
  MulticastEngine multicast_;
  std::atomic<uint32_t> decryptFailures_ = 0;
  uint32_t maxDecryptFailures_ = 0;
  std::atomic<FileTime> lastNetworkChange_ = 0;
  std::thread thread_;
};

}  // namespace pkgdlv
