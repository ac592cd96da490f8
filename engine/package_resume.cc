// Resuming the unfinished packages of the work folder when the engine starts,
// in batches, so that the first download does not wait for a large store.
#include "agent/logger.h"
#include "engine/package_manager.h"
#include "records/package_request.h"
#include "util/error.h"

namespace pkgdlv {

namespace {
constexpr std::string_view kComponent = "PackageManager";

bool IsUnfinished(int32_t status) {
  return status == PKGDLV_DOWNLOADING || status == PKGDLV_PENDING || status == PKGDLV_RETRYING;
}
}  // namespace

void PackageManager::ResumeDownloads() {
  std::lock_guard resume(resumeLock_);
  resumeQueue_.clear();
  for (const Guid& id : store_.ListPackageIds(&stop_)) resumeQueue_.push_back(id);
  if (resumeQueue_.empty()) return;
  ProcessResumeQueue();
  // The run loop processes the rest between downloads.
  if (!resumeQueue_.empty()) wake_.Set();
}

void PackageManager::ProcessResumeQueue() {
  if (stop_.IsSet()) return;
  Logger& log = *services_.log;
  std::lock_guard resume(resumeLock_);
  size_t processed = 0;
  while (!resumeQueue_.empty() && processed < kResumeBatchSize) {
    if (stop_.IsSet()) return;
    // Taken off first: a package that fails here is not met again at the
    // next pass, so one bad package cannot hold up the others.
    const Guid id = resumeQueue_.front();
    resumeQueue_.pop_front();
    ++processed;
    try {
      std::shared_ptr<PackageRequest> request = store_.Find(id);
      if (request && IsUnfinished(request->status())) {
        log.Log(loglevel::kInfo, kComponent, "ResumeDownloads: resume package %ls", id.ToString());
        QueuePackage(request, false);
      }
    } catch (...) {
      Failure failure = CurrentFailure();
      log.Log(loglevel::kWarning, kComponent, "ResumeDownloads: package %ls not resumed: %ls (0x%08X)", id.ToString(),
              failure.description, failure.code);
    }
  }
  if (resumeQueue_.empty()) {
    log.Log(loglevel::kInfo, kComponent, "All packages are resumed and loaded.");
  } else {
    log.Log(loglevel::kInfo, kComponent, "ProcessResumeQueue: processed %d packages (Remaining: %d).",
            static_cast<int>(processed), static_cast<int>(resumeQueue_.size()));
  }
}

size_t PackageManager::ResumeQueueSize() const {
  std::lock_guard resume(resumeLock_);
  return resumeQueue_.size();
}

}  // namespace pkgdlv
