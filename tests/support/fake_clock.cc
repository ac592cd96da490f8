#include "support/fake_clock.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace pkgdlv::testing {

FakeClock::FakeClock() : now_(*FromCivilUtc({2026, 1, 1, 0, 0, 0, 0})), tick_(1'000'000) {}

FileTime FakeClock::Now() {
  std::lock_guard lock(mutex_);
  return now_;
}

uint64_t FakeClock::TickCount() {
  std::lock_guard lock(mutex_);
  return tick_;
}

int FakeClock::WaitAny(std::span<Event* const> events, uint32_t timeout_ms) {
  if (timeout_ms == 0 || timeout_ms == Event::kInfinite) return Event::WaitAny(events, timeout_ms);
  Event timer(Event::Reset::kManual);
  {
    std::lock_guard lock(mutex_);
    timers_.push_back({tick_ + timeout_ms, &timer});
  }
  std::vector<Event*> all(events.begin(), events.end());
  all.push_back(&timer);
  int index = Event::WaitAny(all, Event::kInfinite);
  {
    std::lock_guard lock(mutex_);
    std::erase_if(timers_, [&](const Timer& t) { return t.event == &timer; });
  }
  return index == static_cast<int>(events.size()) ? Event::kTimedOut : index;
}

void FakeClock::Advance(uint64_t ms) {
  std::lock_guard lock(mutex_);
  tick_ += ms;
  now_ += ms * kFileTimeTicksPerMs;
  for (const Timer& t : timers_) {
    if (t.due <= tick_) t.event->Set();
  }
}

void FakeClock::SetNow(FileTime now) {
  std::lock_guard lock(mutex_);
  now_ = now;
}

bool FakeClock::AwaitTimedWaiters(size_t n, uint32_t real_timeout_ms) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(real_timeout_ms);
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (timers_.size() >= n) return true;
    }
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

uint64_t FakeClock::EarliestDeadline() {
  std::lock_guard lock(mutex_);
  uint64_t earliest = 0;
  for (const Timer& t : timers_) {
    if (earliest == 0 || t.due < earliest) earliest = t.due;
  }
  return earliest;
}

}  // namespace pkgdlv::testing
