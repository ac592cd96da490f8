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
#include <thread>

#include <pkgdlv/agent_services.h>
#include <pkgdlv/package_enums.h>

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

class ClientAgent;
class PackageRequest;

class PackageManager {
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
  ~PackageManager();  // Stop()
  PackageManager(const PackageManager&) = delete;
  PackageManager& operator=(const PackageManager&) = delete;

  // Resumes the first batch of the work folder's packages, then starts the
  // thread. Does nothing when the thread runs already; throws Error
  // 0x80070057 without a downloader.
  void Start();
  // Sets the stop event, interrupts the running transfer and joins the
  // thread. Every wait and attempt of the engine ends at the stop event.
  void Stop();
  bool IsRunning() const { return thread_.joinable(); }

  // Places a request in the queue, or finds that its files are complete. With
  // restart, a running download of the package is interrupted and its
  // snapshot reloaded from its file first. The store learns the record.
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
  // ---- The work folder (work_folder.cc) ----

  // Opens the lock file of the work folder (first closing it with reopen). A
  // failure is logged and the engine goes on without the lock.
  void LockWorkFolder(bool reopen);
  // Makes folder the work folder (created when missing), locks it and
  // resumes its packages. False when it already is the work folder. Throws
  // Error: an empty path (0x80070057 "New working folder is not specified"),
  // packages still queued for another folder (0x80004005 "Attribute
  // workFolder has already been set and there are active downloads in the
  // queue"), a folder that cannot be created ("Cannot create work folder").
  bool SetWorkFolder(const std::filesystem::path& folder);
  struct Relocation {
    uint32_t flags = PKGDLV_RELOCATE_SUCCESS;  // RelocatePackageStoreFlags
    uint64_t requiredMiB = 0;                  // with PKGDLV_RELOCATE_ABORTED_NO_SPACE
  };
  // Moves the whole store to newFolder (the current folder: checks it and
  // finishes earlier partial moves). Downloads are suspended meanwhile; a
  // relocation refused for lack of space or failed in the move leaves them
  // suspended until a relocation completes or the engine is made again.
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

  std::recursive_mutex queueLock_;  // the queue, transfer_ and QueuePackage's status changes
  DownloadQueue queue_;
  TransferControl* transfer_ = nullptr;  // the running attempt's, under queueLock_

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
