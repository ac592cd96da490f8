// A waitable event, manual or auto reset, and a wait on several events with a
// time-out. The engine waits on its stop event (manual reset) and its wake
// event (auto reset) together.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

namespace pkgdlv {

class Event {
 public:
  enum class Reset { kManual, kAuto };
  static constexpr uint32_t kInfinite = 0xFFFFFFFF;
  static constexpr int kTimedOut = -1;

  explicit Event(Reset reset = Reset::kManual, bool initially_set = false);
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  // Sets the event: every waiter of a manual event is released; an auto event
  // releases one waiter and is reset by that waiter.
  void Set();
  void Clear();
  bool IsSet() const;

  // Waits until the event is set or the time-out passes; true when set.
  bool Wait(uint32_t timeout_ms = kInfinite);

  // Waits until any of the events is set; returns the index of the first set
  // one (an auto event is reset by it), or kTimedOut. Any thread may call it.
  static int WaitAny(std::span<Event* const> events, uint32_t timeout_ms);
  static int WaitAny(std::initializer_list<Event*> events, uint32_t timeout_ms) {
    return WaitAny(std::span<Event* const>(events.begin(), events.size()), timeout_ms);
  }

 private:
  struct Waiter;
  bool TryConsumeLocked();

  const Reset reset_;
  bool set_;
  std::vector<Waiter*> waiters_;  // guarded by the process-wide event mutex
};

}  // namespace pkgdlv
