#include "agent/clock.h"

#include <ctime>

namespace pkgdlv {

namespace {

class SystemClock final : public Clock {
 public:
  FileTime Now() override { return SystemFileTimeNow(); }

  uint64_t TickCount() override {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1'000'000;
  }

  int WaitAny(std::span<Event* const> events, uint32_t timeout_ms) override {
    return Event::WaitAny(events, timeout_ms);
  }
};

}  // namespace

std::shared_ptr<Clock> NewSystemClock() { return std::make_shared<SystemClock>(); }

}  // namespace pkgdlv
