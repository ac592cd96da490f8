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

#include "util/filetime.h"

namespace pkgdlv {

inline constexpr uint32_t kInitialBackoffMinutes = 3;

struct BackoffState {
  FileTime busyTime = 0;  // when the server last answered busy; 0: no back-off in force
  uint32_t intervalMinutes = kInitialBackoffMinutes;

  // The end of the back-off in force at now, or nullopt when a request may
  // be made: none in force, now at or after its end, or now before the busy
  // time (the clock went back).
  std::optional<FileTime> ActiveUntil(FileTime now) const;
  // A busy answer at now. A back-off already in force doubles the interval
  // while it is below maxMinutes / 2 (a doubled value below 1 becomes
  // maxMinutes), else sets it to maxMinutes; the first busy answer keeps the
  // interval. Returns the interval now in force, in minutes.
  uint32_t RecordBusy(FileTime now, uint32_t maxMinutes);
  // A good answer ends the back-off.
  void RecordSuccess();
};

// The process-wide state with its lock held.
struct LockedBackoff {
  std::unique_lock<std::mutex> lock;
  BackoffState& state;
};
LockedBackoff ProcessBackoff();

}  // namespace pkgdlv
