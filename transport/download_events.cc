#include "transport/download_events.h"

#include "agent/logger.h"
#include "records/package_request.h"

namespace pkgdlv {
namespace {

template <class Call>
void Guarded(Logger& log, const char* warning, const Call& call) {
  try {
    call();
  } catch (...) {
    log.Log(loglevel::kWarning, kPackageDownloadLogComponent, "%hs", warning);
  }
}

}  // namespace

void RaiseBeginFile(DownloadEvents* events, Logger& log, const Guid& packageId, const std::string& filePath) {
  if (!events) return;
  Guarded(log, "OnBeginFile event handler threw an exception", [&] { events->OnBeginFile(packageId, filePath); });
}

void RaiseBeginTransfer(DownloadEvents* events, Logger& log, const Guid& packageId, const std::string& filePath) {
  if (!events) return;
  Guarded(log, "OnBeginTransfer event handler threw an exception",
          [&] { events->OnBeginTransfer(packageId, filePath); });
}

void RaiseProgress(DownloadEvents* events, Logger& log, const Guid& packageId, uint64_t packageSize,
                   uint64_t packageDone, uint64_t fileSize, uint64_t fileDone) {
  if (!events) return;
  Guarded(log, "OnProgress event handler threw an exception",
          [&] { events->OnProgress(packageId, packageSize, packageDone, fileSize, fileDone); });
}

void RaiseEndFile(DownloadEvents* events, Logger& log, const Guid& packageId, const std::string& filePath,
                  int32_t result) {
  if (!events) return;
  Guarded(log, "OnEndFile event handler threw an exception",
          [&] { events->OnEndFile(packageId, filePath, result); });
}

}  // namespace pkgdlv
