// The events of a block download, raised to the engine's event sink, which
// turns them into the component's package events.
//
// Handlers run on the engine's thread without any transport lock held. An
// exception thrown by a handler never reaches the download: the Raise
// functions catch it and log a warning (component "PackageDownload").
#pragma once

#include <cstdint>
#include <string>

#include "util/guid.h"

namespace pkgdlv {

class Logger;

class DownloadEvents {
 public:
  virtual ~DownloadEvents() = default;
  virtual void OnBeginFile(const Guid& packageId, const std::string& filePath) = 0;
  virtual void OnBeginTransfer(const Guid& packageId, const std::string& filePath) = 0;
  virtual void OnProgress(const Guid& packageId, uint64_t packageSize, uint64_t packageDone, uint64_t fileSize,
                          uint64_t fileDone) = 0;
  virtual void OnEndFile(const Guid& packageId, const std::string& filePath, int32_t result) = 0;
};

// Each calls the handler when events is not null; a throw becomes a warning.
void RaiseBeginFile(DownloadEvents* events, Logger& log, const Guid& packageId, const std::string& filePath);
void RaiseBeginTransfer(DownloadEvents* events, Logger& log, const Guid& packageId, const std::string& filePath);
void RaiseProgress(DownloadEvents* events, Logger& log, const Guid& packageId, uint64_t packageSize,
                   uint64_t packageDone, uint64_t fileSize, uint64_t fileDone);
void RaiseEndFile(DownloadEvents* events, Logger& log, const Guid& packageId, const std::string& filePath,
                  int32_t result);

}  // namespace pkgdlv
