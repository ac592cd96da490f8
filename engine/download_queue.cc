#include "engine/download_queue.h"

#include <algorithm>
#include <ctime>
#include <limits>

#include "util/error.h"

namespace pkgdlv {
namespace {

constexpr std::string_view kComponent = "DownloadQueue";
constexpr int32_t kNoCap = std::numeric_limits<int32_t>::max();
// A busy server's earliest retry time is held for at least this long after it.
constexpr FileTime kBusyServerMargin = 60 * kFileTimeTicksPerSecond;
// Waiting entries due this soon are made ready with the others.
constexpr FileTime kPromoteWindow = kFileTimeTicksPerSecond;

// Whether the new entry goes before P (an entry already queued).
bool GoesBefore(const QueueEntry& entry, const QueueEntry& p) {
  if (p.retryPending) return true;
  if (entry.priority != p.priority) return entry.priority > p.priority;
  if (entry.retryDelay != p.retryDelay) return entry.retryDelay < p.retryDelay;
  return entry.sizeKey < p.sizeKey;
}

FileTime AddMilliseconds(FileTime time, int64_t milliseconds) {
  return time + static_cast<FileTime>(milliseconds) * kFileTimeTicksPerMs;
}

}  // namespace

DownloadQueue::DownloadQueue(std::shared_ptr<Clock> clock, std::shared_ptr<Logger> log, DeliverySettings& settings)
    : clock_(std::move(clock)), log_(log ? std::move(log) : std::make_shared<NullLogger>()), settings_(settings) {}

Guid DownloadQueue::Front() const {
  Lock lock(mutex_);
  return HasReadyFront() ? entries_.front().id : Guid{};
}

bool DownloadQueue::HasReadyFront() const {
  Lock lock(mutex_);
  return !entries_.empty() && !entries_.front().retryPending;
}

bool DownloadQueue::Contains(const Guid& id) const {
  Lock lock(mutex_);
  return Find(id) != entries_.end();
}

bool DownloadQueue::IsRetryPending(const Guid& id) const {
  Lock lock(mutex_);
  const auto it = Find(id);
  return it != entries_.end() && it->retryPending;
}

std::optional<FileTime> DownloadQueue::GetNextAttemptTime(const Guid& id) const {
  Lock lock(mutex_);
  const auto it = Find(id);
  if (it == entries_.end() || !it->retryPending) return std::nullopt;
  return it->nextAttemptTime;
}

int32_t DownloadQueue::GetAttemptCount(const Guid& id) const {
  Lock lock(mutex_);
  const auto it = Find(id);
  return it == entries_.end() ? 0 : it->attemptCount;
}

void DownloadQueue::Insert(const QueueEntry& entry) {
  Lock lock(mutex_);
  Remove(entry.id);
  InsertLocked(entry);
}

bool DownloadQueue::SetPriority(const Guid& id, int32_t priority, int64_t sizeKey) {
  Lock lock(mutex_);
  const auto it = Find(id);
  if (it == entries_.end()) {
    QueueEntry entry;
    entry.id = id;
    entry.priority = priority;
    entry.sizeKey = sizeKey;
    InsertLocked(entry);
  } else if (it->priority != priority || it->sizeKey != sizeKey) {
    QueueEntry entry = *it;
    entries_.erase(it);
    entry.priority = priority;
    entry.sizeKey = sizeKey;
    InsertLocked(entry);
  }
  return IsFrontLocked(id);
}

bool DownloadQueue::Remove(const Guid& id) {
  Lock lock(mutex_);
  const auto it = Find(id);
  if (it == entries_.end()) return false;
  entries_.erase(it);
  return true;
}

void DownloadQueue::Clear() {
  Lock lock(mutex_);
  entries_.clear();
}

bool DownloadQueue::PromoteDueEntries() {
  Lock lock(mutex_);
  const FileTime limit = clock_->Now() + kPromoteWindow;
  std::vector<QueueEntry> due;
  std::erase_if(entries_, [&](const QueueEntry& entry) {
    if (!entry.retryPending || entry.nextAttemptTime > limit) return false;
    due.push_back(entry);
    return true;
  });
  for (QueueEntry& entry : due) {
    entry.retryPending = false;
    InsertLocked(entry);
  }
  return !due.empty();
}

uint32_t DownloadQueue::GetWaitTimeout() const {
  Lock lock(mutex_);
  if (entries_.empty()) return kInfiniteWait;
  FileTime earliest = std::numeric_limits<FileTime>::max();
  for (const QueueEntry& entry : entries_) {
    if (!entry.retryPending) return 0;
    earliest = std::min(earliest, entry.nextAttemptTime);
  }
  const FileTime now = clock_->Now();
  if (earliest <= now) return 0;
  const FileTime milliseconds = (earliest - now + kFileTimeTicksPerMs - 1) / kFileTimeTicksPerMs;
  return static_cast<uint32_t>(std::min<FileTime>(milliseconds, kLongestWait));
}

bool DownloadQueue::ReleaseRetryWaits() {
  Lock lock(mutex_);
  const bool hadReadyEntry = HasReadyFront();
  std::vector<QueueEntry> released;
  std::erase_if(entries_, [&](const QueueEntry& entry) {
    if (!entry.retryPending) return false;
    released.push_back(entry);
    return true;
  });
  for (QueueEntry& entry : released) {
    entry.retryPending = false;
    entry.retryDelay = 0;
    InsertLocked(entry);
  }
  // With no ready entry before, whatever leads now is a released one.
  return hadReadyEntry || !released.empty();
}

bool DownloadQueue::RetryPackage(PeerConfigurationSource* peerConfig, const Guid& id, bool progressMade, bool urgent,
                                 bool causedDelay, FileTime earliestTime, bool countAttempt, int32_t maxDelay) {
  Lock lock(mutex_);
  const auto it = Find(id);
  if (it == entries_.end()) return false;
  QueueEntry& entry = *it;

  if (progressMade && peerConfig == nullptr) {
    entry.attemptCount = 1;
  } else if (causedDelay && countAttempt) {
    entry.attemptCount += 1;
  }
  const FileTime now = clock_->Now();
  if (entry.attemptCount == 1) entry.firstAttemptTime = now;

  if (maxDelay <= 0) maxDelay = static_cast<int32_t>(settings_.MaxRetryDelayMs());
  const uint32_t maxAttempts = settings_.MaxDownloadAttempts();
  const uint32_t maxTime = settings_.MaxDownloadAttemptTimeMs();
  bool doublingAllowed = true;
  const int32_t base = RetryBaseDelay(peerConfig, urgent, doublingAllowed);

  if (maxAttempts != 0 && entry.attemptCount >= static_cast<int64_t>(maxAttempts)) return false;
  // The time limit runs from the first counted attempt: failures that do not
  // count (a busy server, a wait for peers) have not begun a series.
  if (maxTime != 0 && entry.firstAttemptTime != 0 && now > AddMilliseconds(entry.firstAttemptTime, maxTime)) {
    return false;
  }

  if (!causedDelay) {
    entry.nextAttemptTime = earliestTime;
  } else {
    int32_t delay = base;
    if (doublingAllowed && entry.attemptCount != 1 && entry.retryDelay != 0) {
      const int32_t cap = maxDelay > 0 ? maxDelay : kNoCap;
      delay = entry.retryDelay <= cap / 2 ? 2 * entry.retryDelay : cap;
    }
    entry.retryDelay = delay;
    entry.nextAttemptTime = std::max(AddMilliseconds(now, delay), earliestTime + kBusyServerMargin);
  }

  entry.retryPending = true;
  const QueueEntry waiting = entry;
  entries_.erase(it);
  InsertLocked(waiting);

  log_->Log(loglevel::kInfo, kComponent,
            "Retry package: id=%ls delay=%d secs at=%ls causedDelay=%d earliestRetryTime=%ls\n", id.ToString(),
            waiting.retryDelay / 1000, FormatLocalTime(waiting.nextAttemptTime), causedDelay ? 1 : 0,
            FormatLocalTime(earliestTime));
  return true;
}

size_t DownloadQueue::Size() const {
  Lock lock(mutex_);
  return entries_.size();
}

std::vector<QueueEntry> DownloadQueue::Entries() const {
  Lock lock(mutex_);
  return entries_;
}

std::vector<QueueEntry>::iterator DownloadQueue::Find(const Guid& id) {
  return std::find_if(entries_.begin(), entries_.end(), [&](const QueueEntry& entry) { return entry.id == id; });
}

std::vector<QueueEntry>::const_iterator DownloadQueue::Find(const Guid& id) const {
  return std::find_if(entries_.begin(), entries_.end(), [&](const QueueEntry& entry) { return entry.id == id; });
}

void DownloadQueue::InsertLocked(const QueueEntry& entry) {
  if (entry.retryPending) {
    entries_.push_back(entry);
    return;
  }
  const auto place = std::find_if(entries_.begin(), entries_.end(),
                                  [&](const QueueEntry& p) { return GoesBefore(entry, p); });
  entries_.insert(place, entry);
}

bool DownloadQueue::IsFrontLocked(const Guid& id) const {
  return !entries_.empty() && !entries_.front().retryPending && entries_.front().id == id;
}

// The delay of the first retry of a series: a peer download waits the peer
// configuration's fixed delay, which never doubles.
int32_t DownloadQueue::RetryBaseDelay(PeerConfigurationSource* peerConfig, bool urgent, bool& doublingAllowed) {
  if (peerConfig == nullptr) {
    doublingAllowed = true;
    return static_cast<int32_t>(urgent ? settings_.UrgentRetryDelayMs() : settings_.RetryDelayMs());
  }
  const std::optional<PeerConfiguration> config = peerConfig->Read(kComponent);
  if (!config) Throw(result::kConfigurationUnavailable, "Can't attach to the configuration");
  if (config->structureSize < PeerConfiguration::kStructureSize) {
    Throw(result::kConfigurationUnavailable, "Invalid structure size received");
  }
  doublingAllowed = false;
  return static_cast<int32_t>(std::min<int64_t>(int64_t{config->retryDelaySeconds} * 1000, kNoCap));
}

}  // namespace pkgdlv
