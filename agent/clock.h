// The agent's clock: system file time, a millisecond tick count, and waits
// measured in the clock's own time, so that tests can move time by hand.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>

#include "util/event.h"
#include "util/filetime.h"

namespace pkgdlv {

class Clock {
 public:
  virtual ~Clock() = default;

  // Current UTC time as a file time.
  virtual FileTime Now() = 0;
  // Milliseconds since an arbitrary start; never goes back.
  virtual uint64_t TickCount() = 0;
  // Waits until one of the events is set (returning its index, an auto event
  // being reset) or until timeout_ms of this clock's time has passed
  // (returning Event::kTimedOut). Event::kInfinite waits without a limit.
  virtual int WaitAny(std::span<Event* const> events, uint32_t timeout_ms) = 0;

  int WaitAny(std::initializer_list<Event*> events, uint32_t timeout_ms) {
    return WaitAny(std::span<Event* const>(events.begin(), events.size()), timeout_ms);
  }
  // Waits for timeout_ms unless the event is set first; true when it was set.
  bool WaitFor(Event& event, uint32_t timeout_ms) { return WaitAny({&event}, timeout_ms) == 0; }
};

// The real clock: CLOCK_REALTIME and CLOCK_MONOTONIC.
std::shared_ptr<Clock> NewSystemClock();

}  // namespace pkgdlv
