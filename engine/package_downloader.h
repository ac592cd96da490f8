// The download of one package once the engine has taken it from the queue: the
// seam between the engine's run loop and the procedure that fetches sources,
// snapshot and blocks. The run loop turns what an attempt reports into the
// package's next status and the queue's next step.
#pragma once

#include <pkgdlv/result_codes.h>

#include <mutex>
#include <string>

#include "util/event.h"
#include "util/filetime.h"

namespace pkgdlv {

class DownloadQueue;
class MulticastEngine;
class PackageRequest;
class PackageStore;
class PeerDirectory;
class TransferControl;

// What one attempt reports to the run loop.
struct AttemptOutcome {
  Result code = 0;  // 0: the package is complete
  std::string description;
  // The sources request of this attempt returned normally; a run of
  // decryption failures is over.
  bool sourcesObtained = false;
  // Peers were in use: a retry waits the peer configuration's fixed delay.
  bool peerMode = false;
  // This attempt downloaded more than the one before: a new retry series.
  bool progressMade = false;
  // The failure is final: the package is given up without a retry.
  bool noRetry = false;
  // The failure calls for no back-off: the package is retried at busyUntil.
  bool needsNoDelay = false;
  // A busy server's earliest retry time, or 0.
  FileTime busyUntil = 0;
  // The attempt counts towards the attempt limit.
  bool countAttempt = true;
};

// What the engine lends an attempt, for the attempt's length. The queue is
// touched only under queueLock, and never while the record's lock is held.
struct DownloadContext {
  Event& stop;                  // the agent stops: every step ends
  Event& relocationRequested;   // a move of the work folder waits: downloads stop
  DownloadQueue& queue;         // re-sorted by what the package still misses
  std::recursive_mutex& queueLock;
  MulticastEngine& multicast;
  PeerDirectory& peers;
  PackageStore& store;  // where "package.xml" is kept, whatever folder holds the files
};

class PackageDownloader {
 public:
  virtual ~PackageDownloader() = default;

  // Runs one attempt for request (status downloading) on the engine thread.
  // The attempt checks engine.stop and transfer.InterruptedEvent() before
  // every long step and ends promptly when either is set; it reports failures
  // in the outcome rather than throwing (anything thrown is a failure of the
  // run loop itself). The run loop saves "package.xml" afterwards.
  virtual AttemptOutcome PerformDownload(PackageRequest& request, TransferControl& transfer,
                                         DownloadContext& engine) = 0;

  // Called on the engine thread once the outcome is in the record and
  // "package.xml" is saved: the attempt's closing lines and history. Nothing
  // may escape it.
  virtual void CycleEnded(PackageRequest& request, const AttemptOutcome& outcome) {
    (void)request;
    (void)outcome;
  }
};

}  // namespace pkgdlv
