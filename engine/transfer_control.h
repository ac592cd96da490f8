// The running transfer of one download attempt as the engine's other threads
// see it: they hand it an interruption reason, and the attempt notices the
// reason at its next check (or at once, through the abort hook that the
// network transfer installs) and reports it when it ends.
//
// Threads: the engine thread owns the object for one attempt; any thread may
// call Interrupt while the engine's transfer lock says the transfer is
// running.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#include "util/event.h"

namespace pkgdlv {

// Why a running download was interrupted.
//
// Several reasons may reach one attempt; the one of higher consequence is
// kept, whatever the order they came in: cancelled (and any reason this
// engine does not know) over suspended over preempted. A cancel followed by a
// preemption therefore still ends the package as cancelled, and a stop is not
// turned into a mere wait behind another package.
enum InterruptionReason : int {
  kNotInterrupted = 0,
  kInterruptPreempted = 1,  // a package of higher priority waits (also: the package is moved)
  kInterruptCancelled = 2,  // the package is cancelled
  kInterruptSuspended = 3,  // downloads are suspended (the agent stops, work folder relocation)
};

// The rank of a reason in the precedence above (higher wins).
constexpr int InterruptionPrecedence(int reason) {
  switch (reason) {
    case kNotInterrupted:
      return 0;
    case kInterruptPreempted:
      return 1;
    case kInterruptSuspended:
      return 2;
    default:
      return 3;
  }
}

class TransferControl {
 public:
  // Records the reason unless one of higher precedence is recorded already,
  // sets the interrupted event and runs the abort hook, outside the object's
  // lock.
  void Interrupt(int reason) {
    std::function<void()> hook;
    {
      std::lock_guard lock(mutex_);
      if (InterruptionPrecedence(reason) >= InterruptionPrecedence(reason_)) reason_ = reason;
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
