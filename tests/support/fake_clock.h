// A clock that moves only when the test says so. Waits with a time-out end
// when Advance carries the clock past their due time.
#pragma once

#include <mutex>
#include <vector>

#include "agent/clock.h"

namespace pkgdlv::testing {

class FakeClock final : public Clock {
 public:
  // Starts at 2026-01-01 00:00:00 UTC with a tick count of 1,000,000 ms.
  FakeClock();

  FileTime Now() override;
  uint64_t TickCount() override;
  int WaitAny(std::span<Event* const> events, uint32_t timeout_ms) override;
  using Clock::WaitAny;

  void Advance(uint64_t ms);
  void SetNow(FileTime now);
  // Waits (in real time, at most real_timeout_ms) until at least n threads
  // are blocked in a timed WaitAny; true when they are.
  bool AwaitTimedWaiters(size_t n, uint32_t real_timeout_ms = 5000);
  // Due tick of the earliest timed wait, or 0 when none.
  uint64_t EarliestDeadline();

 private:
  struct Timer {
    uint64_t due;
    Event* event;
  };
  std::mutex mutex_;
  FileTime now_;
  uint64_t tick_;
  std::vector<Timer> timers_;
};

}  // namespace pkgdlv::testing
