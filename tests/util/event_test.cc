#include "util/event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace pkgdlv {
namespace {

using namespace std::chrono_literals;

TEST(EventTest, SetFromAnotherThreadReleasesAllManualWaitersAndOneAutoWaiterPerSet) {
  Event go(Event::Reset::kManual), token(Event::Reset::kAuto), done(Event::Reset::kAuto);
  std::atomic<int> released{0}, tokens{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      if (go.Wait(10'000)) ++released;
      if (token.Wait(10'000)) ++tokens;
      done.Set();
    });
  }
  std::this_thread::sleep_for(20ms);  // lets the waiters block; the result does not depend on it
  go.Set();
  for (int i = 1; i <= 3; ++i) {
    token.Set();
    ASSERT_TRUE(done.Wait(10'000));
    EXPECT_LE(tokens.load(), i) << "one Set released more than one waiter";
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(std::pair(released.load(), tokens.load()), std::pair(3, 3));
}

}  // namespace
}  // namespace pkgdlv
