// The engine's download queue: which package to download next, and when a
// package whose attempt failed may be tried again.
//
// The queue is a contiguous array of small entries, one per package at most,
// kept in order: ready entries before waiting ones (an entry waits for its
// retry time), and the ready ones by priority, then by how far they have
// backed off, then by the size they still miss, then by arrival. The first
// entry is the package to download next unless it waits.
//
// Every operation takes the queue's own recursive lock, so each one is atomic
// and any thread may call any of them; callers that need several operations
// to be seen together hold the engine's queue lock around them (that lock is
// taken before this one). Times are file times read from the clock given at
// construction; delays are milliseconds.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "agent/clock.h"
#include "agent/logger.h"
#include "agent/peer_configuration.h"
#include "records/delivery_settings.h"
#include "util/guid.h"

namespace pkgdlv {

struct QueueEntry {
  Guid id;                        // the package; the key
  int32_t priority = 0;           // larger is more urgent
  int64_t sizeKey = 0;            // bytes the package still needs
  int32_t attemptCount = 0;       // attempts in the current retry series
  FileTime firstAttemptTime = 0;  // when the current retry series began
  FileTime nextAttemptTime = 0;   // when a waiting entry becomes ready
  int32_t retryDelay = 0;         // back-off delay last applied, ms; 0 when none
  bool retryPending = false;      // waits for nextAttemptTime; never handed out
};

class DownloadQueue {
 public:
  static constexpr uint32_t kInfiniteWait = 0xFFFFFFFF;
  static constexpr uint32_t kLongestWait = 0x7FFFFFFF;

  // The clock and the logger are shared; the settings are read at every
  // retry (so a changed value takes effect at once) and must outlive the
  // queue.
  DownloadQueue(std::shared_ptr<Clock> clock, std::shared_ptr<Logger> log, DeliverySettings& settings);

  DownloadQueue(const DownloadQueue&) = delete;
  DownloadQueue& operator=(const DownloadQueue&) = delete;

  // The first entry's package, or the null GUID when the queue is empty or
  // its first entry waits.
  Guid Front() const;
  bool HasReadyFront() const;

  bool Contains(const Guid& id) const;
  bool IsRetryPending(const Guid& id) const;  // false when absent
  // The retry time of a waiting entry; nullopt when absent or ready.
  std::optional<FileTime> GetNextAttemptTime(const Guid& id) const;
  int32_t GetAttemptCount(const Guid& id) const;  // 0 when absent

  // Places the entry by the ordering rule; an entry the package already had
  // is replaced.
  void Insert(const QueueEntry& entry);
  // Adds an entry for the package (a new retry series) or re-places its entry
  // with the new priority and size, keeping the rest. Returns whether the
  // package is now the front.
  bool SetPriority(const Guid& id, int32_t priority, int64_t sizeKey);
  // False when the package had no entry.
  bool Remove(const Guid& id);
  void Clear();

  // Makes ready every waiting entry due within the next second. Returns
  // whether any was.
  bool PromoteDueEntries();
  // How long the engine may sleep: kInfiniteWait for an empty queue, 0 when
  // an entry is ready or a retry time has passed, else the milliseconds to
  // the earliest retry time (at most kLongestWait).
  uint32_t GetWaitTimeout() const;
  // Makes every waiting entry ready at once and resets its back-off (a
  // network or server state change). Returns whether a ready entry now leads
  // the queue because of this call or already did.
  bool ReleaseRetryWaits();

  // Schedules the next attempt of a package whose attempt failed.
  //   peerConfig   the peer network configuration when the attempt was a peer
  //                download (the retry then waits its fixed delay), else null
  //   progressMade this attempt downloaded more than the previous one
  //                (starts a new retry series)
  //   urgent       the request's urgent flag (the urgent base delay applies)
  //   causedDelay  the failure calls for a back-off; when false the package
  //                is retried exactly at earliestTime
  //   earliestTime a busy server's earliest retry time, or 0
  //   countAttempt the attempt counts towards the attempt limit
  //   maxDelay     cap of the back-off in ms; 0 or less: the setting
  // Returns false when the package has no entry or is to be given up (the
  // attempt or time limit is reached); the caller then removes the entry.
  // Throws Error 0x80070FDF when the peer configuration cannot be read.
  bool RetryPackage(PeerConfigurationSource* peerConfig, const Guid& id, bool progressMade, bool urgent,
                    bool causedDelay, FileTime earliestTime, bool countAttempt, int32_t maxDelay);

  size_t Size() const;
  // A copy of every entry in queue order.
  std::vector<QueueEntry> Entries() const;

 private:
  using Lock = std::lock_guard<std::recursive_mutex>;

  // The caller holds mutex_.
  std::vector<QueueEntry>::iterator Find(const Guid& id);
  std::vector<QueueEntry>::const_iterator Find(const Guid& id) const;
  void InsertLocked(const QueueEntry& entry);
  bool IsFrontLocked(const Guid& id) const;
  int32_t RetryBaseDelay(PeerConfigurationSource* peerConfig, bool urgent, bool& doublingAllowed);

  std::shared_ptr<Clock> clock_;
  std::shared_ptr<Logger> log_;
  DeliverySettings& settings_;

  mutable std::recursive_mutex mutex_;
  std::vector<QueueEntry> entries_;
};

}  // namespace pkgdlv
