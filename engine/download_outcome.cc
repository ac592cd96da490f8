// One download attempt and what it leaves behind: the package's next status,
// the queue's next step (done, retry later, wait behind a more urgent
// package, or give up), the run of decryption failures, and "package.xml".
#include <algorithm>
#include <cstdint>

#include "agent/client_agent.h"
#include "agent/logger.h"
#include "engine/package_manager.h"
#include "records/package_request.h"
#include "snapshot/validation.h"
#include "util/error.h"

namespace pkgdlv {

namespace {
constexpr std::string_view kComponent = "PackageManager";
constexpr int32_t kMinuteMs = 60'000;
}  // namespace

void PackageManager::PerformDownload(const std::shared_ptr<PackageRequest>& request) {
  std::lock_guard download(downloadLock_);
  TransferControl transfer;
  {
    RecursiveLock lock(queueLock_);
    // A relocation emptied the queue while this thread waited for the lock:
    // the package resumes from its new folder.
    if (!queue_.Contains(request->id())) return;
    SetTransfer(&transfer);
    // A stop or a more urgent request that came between the package being
    // taken and this point found no transfer to interrupt.
    if (stop_.IsSet()) {
      transfer.Interrupt(kInterruptSuspended);
    } else if (queue_.Front() != request->id()) {
      transfer.Interrupt(kInterruptPreempted);
    }
  }
  AttemptOutcome outcome;
  DownloadContext engine{stop_, relocationRequested_, queue_, queueLock_, multicast_, *peers_, store_};
  try {
    outcome = downloader_->PerformDownload(*request, transfer, engine);
  } catch (...) {
    SetTransfer(nullptr);
    throw;
  }
  CountDecryptFailure(outcome);
  {
    RecursiveLock lock(queueLock_);
    // Off the books before the outcome: an interruption from now on concerns
    // the next attempt, not this one.
    SetTransfer(nullptr);
    // An attempt that ended at the stop event is suspended, even when it
    // ended before the stop reached its transfer.
    if (stop_.IsSet()) transfer.Interrupt(kInterruptSuspended);
    ApplyOutcome(*request, outcome, transfer);
  }
  Save(*request);
  downloader_->CycleEnded(*request, outcome);
  if (outcome.code != 0) ResetIdentityAfterDecryptFailures();
}

void PackageManager::CountDecryptFailure(const AttemptOutcome& outcome) {
  if (outcome.sourcesObtained) decryptFailures_ = 0;
  if (outcome.code != result::kDecryptFailed || decryptFailures_ >= maxDecryptFailures_) return;
  ++decryptFailures_;
  services_.log->Log(loglevel::kInfo, kComponent, "This is a %d decrypt failure in a row of maximum allowed %d.",
                     static_cast<int>(decryptFailures_.load()), static_cast<int>(maxDecryptFailures_));
}

void PackageManager::ApplyOutcome(PackageRequest& request, const AttemptOutcome& outcome,
                                  const TransferControl& transfer) {
  try {
    if (outcome.code == 0) {
      ApplySuccess(request);
    } else {
      ApplyFailure(request, outcome, transfer);
    }
  } catch (const Error& e) {
    // The peer configuration could not be read: a failure of the run loop.
    if (e.code() == result::kConfigurationUnavailable) throw;
    services_.log->Log(e.code() == result::kSuspended ? loglevel::kInfo : loglevel::kError, kComponent,
                       "Error while determining outcome of package download: %ls (%d)", e.description(),
                       static_cast<int>(e.code()));
  } catch (...) {
    services_.log->Log(loglevel::kError, kComponent, "Unexpected error while determining outcome of package download");
  }
}

void PackageManager::ApplySuccess(PackageRequest& request) {
  queue_.Remove(request.id());
  auto lock = request.Lock();
  if (!request.remote) {
    request.SetStatus(PKGDLV_VALID, "", true);
    return;
  }
  // Only the sources were wanted; the files present decide the status.
  Validator validator;
  if (request.CheckStatus(false, false, validator) != PKGDLV_VALID) {
    request.SetStatus(request.status(), "Download package sources completed OK", true);
  }
}

void PackageManager::ApplyFailure(PackageRequest& request, const AttemptOutcome& outcome,
                                  const TransferControl& transfer) {
  const Guid id = request.id();
  switch (transfer.Reason()) {
    case kInterruptPreempted:
      request.SetStatus(PKGDLV_PENDING, "Package download waiting for completion of higher priority job", true);
      services_.log->Log(loglevel::kInfo, kComponent, "Package '%ls' was preempted by higher priority package '%ls'",
                         id.ToString(), queue_.Front().ToString());
      return;
    case kInterruptSuspended:
      request.SetStatus(PKGDLV_PENDING, "Package download suspended", true);
      return;
    case kNotInterrupted:
      break;
    default:  // cancelled, or a reason this engine does not know
      queue_.Remove(id);
      request.SetStatus(PKGDLV_INVALID, "Package download cancelled", true);
      return;
  }

  bool retry = false;
  if (!outcome.noRetry) {
    std::unique_lock recordLock = request.Lock();
    const bool urgent = request.urgentDownload;
    const int64_t urgentCap = static_cast<int64_t>(request.GetSlaRemainingMinutes()) * kMinuteMs;
    const int32_t maxDelay = urgent ? static_cast<int32_t>(std::min<int64_t>(urgentCap, INT32_MAX)) : 0;
    recordLock.unlock();
    retry = queue_.RetryPackage(outcome.peerMode ? services_.peer_configuration.get() : nullptr, id,
                                outcome.progressMade, urgent, !outcome.needsNoDelay, outcome.busyUntil,
                                outcome.countAttempt, maxDelay);
  }
  if (retry) {
    request.SetStatus(PKGDLV_RETRYING, outcome.description, true);
  } else {
    queue_.Remove(id);
    request.SetStatus(PKGDLV_INVALID, outcome.description, true);
  }
}

void PackageManager::ResetIdentityAfterDecryptFailures() {
  if (decryptFailures_ < maxDecryptFailures_) return;
  services_.log->Log(loglevel::kInfo, kComponent,
                     "Decrypting errors are reached the allowed maximum (%d). Resetting the Client GUID in order to "
                     "negotiate new security data.",
                     static_cast<int>(maxDecryptFailures_));
  decryptFailures_ = 0;
  client().ResetClientIdentity();
}

}  // namespace pkgdlv
