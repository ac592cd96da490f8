// The running transfer of one download attempt as the engine's other threads
// see it: they hand it an interruption reason, and the attempt notices the
// reason at its next check (or at once, through the abort hook that the
// network transfer installs) and reports it when it ends.
//
// Threads: the engine thread owns the object for one attempt; any thread may
// call Interrupt while the engine's queue lock says the transfer is running.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#include "util/event.h"

namespace pkgdlv {

// Why a running download was interrupted.
enum InterruptionReason : int {
  kNotInterrupted = 0,
  kInterruptPreempted = 1,  // a package of higher priority waits (also: the package is moved)
  kInterruptCancelled = 2,  // the package is cancelled
  kInterruptSuspended = 3,  // downloads are suspended (work folder relocation)
};

class TransferControl {
 public:
  // Records the reason (the latest one counts), sets the interrupted event
  // and runs the abort hook, outside the object's lock.
  void Interrupt(int reason) {
    std::function<void()> hook;
    {
      std::lock_guard lock(mutex_);
      reason_ = reason;
      hook = abortHook_;
    }
    interrupted_.Set();
    if (hook) hook();
  }

  int Reason() const {
    std::lock_guard lock(mutex_);
    return reason_;
  }
  bool IsCancelled() const { return Reason() == kInterruptCancelled; }

  // Set by Interrupt; attempts wait on it beside the stop event.
  Event& InterruptedEvent() { return interrupted_; }

  // Installed by the transfer for as long as it can be aborted (null removes
  // it); called on the interrupting thread.
  void SetAbortHook(std::function<void()> hook) {
    std::lock_guard lock(mutex_);
    abortHook_ = std::move(hook);
  }

 private:
  mutable std::mutex mutex_;
  int reason_ = kNotInterrupted;
  std::function<void()> abortHook_;
  Event interrupted_{Event::Reset::kManual};
};

}  // namespace pkgdlv
