// The back-off of package sources requests after the Quillon Server answered
// busy, not ready or paused: no request is made until the interval since the
// busy answer has passed, and each further busy answer doubles the interval,
// up to a maximum.
//
// The state is process-wide: one for every transport object. It is not
// synchronised itself; ProcessBackoff() hands it out with a lock.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string_view>

#include "util/filetime.h"

namespace pkgdlv {

inline constexpr uint32_t kInitialBackoffMinutes = 3;

struct BackoffState {
  FileTime busyTime = 0;  // when the server last answered busy; 0: no back-off in force
  uint32_t intervalMinutes = kInitialBackoffMinutes;
  // The earliest retry the server itself asked for (Retry-After); 0: none.
  FileTime retryNotBefore = 0;

  // The end of the back-off in force at now, or nullopt when a request may
  // be made: none in force, now at or after its end, or now before the busy
  // time (the clock went back). The end is the later of busy time plus the
  // interval and the server's earliest retry.
  std::optional<FileTime> ActiveUntil(FileTime now) const;
  // A busy answer at now. A back-off already in force doubles the interval
  // while it is below maxMinutes / 2 (a doubled value below 1 becomes
  // maxMinutes), else sets it to maxMinutes; the first busy answer keeps the
  // interval. retryAfter (file time ticks from now; 0 when the server named
  // none) makes the wait at least that long, but never longer than
  // maxMinutes. Returns the end of the back-off now in force.
  FileTime RecordBusy(FileTime now, uint32_t maxMinutes, FileTime retryAfter = 0);
  // A good answer ends the back-off.
  void RecordSuccess();
};

// The wait a Retry-After header asks for, in file time ticks from now: a
// number of seconds, or an HTTP date (a date in the past is no wait).
// nullopt when the text is neither.
std::optional<FileTime> ParseRetryAfter(std::string_view text, FileTime now);

// The process-wide state with its lock held.
struct LockedBackoff {
  std::unique_lock<std::mutex> lock;
  BackoffState& state;
};
LockedBackoff ProcessBackoff();

}  // namespace pkgdlv
