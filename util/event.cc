#include "util/event.h"

#include <algorithm>

namespace pkgdlv {

namespace {
// One mutex for every event keeps WaitAny simple and free of lock-order
// problems; events are set rarely, so it is never contended in practice.
std::mutex& EventMutex() {
  static std::mutex mutex;
  return mutex;
}
}  // namespace

struct Event::Waiter {
  std::condition_variable cv;
};

Event::Event(Reset reset, bool initially_set) : reset_(reset), set_(initially_set) {}

Event::~Event() = default;

void Event::Set() {
  std::lock_guard lock(EventMutex());
  set_ = true;
  for (Waiter* w : waiters_) w->cv.notify_all();
}

void Event::Clear() {
  std::lock_guard lock(EventMutex());
  set_ = false;
}

bool Event::IsSet() const {
  std::lock_guard lock(EventMutex());
  return set_;
}

bool Event::TryConsumeLocked() {
  if (!set_) return false;
  if (reset_ == Reset::kAuto) set_ = false;
  return true;
}

bool Event::Wait(uint32_t timeout_ms) {
  Event* self = this;
  return WaitAny(std::span<Event* const>(&self, 1), timeout_ms) == 0;
}

int Event::WaitAny(std::span<Event* const> events, uint32_t timeout_ms) {
  std::unique_lock lock(EventMutex());
  auto first_set = [&]() -> int {
    for (size_t i = 0; i < events.size(); ++i) {
      if (events[i]->TryConsumeLocked()) return static_cast<int>(i);
    }
    return kTimedOut;
  };
  int index = first_set();
  if (index != kTimedOut || timeout_ms == 0) return index;

  Waiter waiter;
  for (Event* e : events) e->waiters_.push_back(&waiter);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while ((index = first_set()) == kTimedOut) {
    if (timeout_ms == kInfinite) {
      waiter.cv.wait(lock);
    } else if (waiter.cv.wait_until(lock, deadline) == std::cv_status::timeout) {
      index = first_set();
      break;
    }
  }
  for (Event* e : events) {
    auto& list = e->waiters_;
    list.erase(std::find(list.begin(), list.end(), &waiter));
  }
  return index;
}

}  // namespace pkgdlv
