#include "util/event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/fake_clock.h"

namespace pkgdlv {
namespace {

using namespace std::chrono_literals;

TEST(EventTest, ResetKindsAndWaitAnyOrder) {
  Event manual(Event::Reset::kManual), automatic(Event::Reset::kAuto);
  EXPECT_EQ(Event::WaitAny({&manual, &automatic}, 10), Event::kTimedOut);
  manual.Set();
  EXPECT_TRUE(manual.Wait(0));
  EXPECT_TRUE(manual.Wait(0)) << "a manual event stays set";
  manual.Clear();
  EXPECT_FALSE(manual.Wait(0));

  automatic.Set();
  EXPECT_EQ(Event::WaitAny({&manual, &automatic}, 0), 1);
  EXPECT_FALSE(automatic.IsSet()) << "an auto event is consumed by its waiter";
  manual.Set();
  automatic.Set();
  EXPECT_EQ(Event::WaitAny({&manual, &automatic}, 0), 0);  // the earlier event wins
  EXPECT_TRUE(automatic.IsSet());                            // and the later auto event is not consumed
}

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
  EXPECT_EQ(released.load(), 3);
  EXPECT_EQ(tokens.load(), 3);
}

TEST(FakeClockTest, TimedWaitEndsWhenTimeIsAdvancedPastItsDueTimeOrItsEventIsSet) {
  testing::FakeClock clock;
  Event first(Event::Reset::kManual), second(Event::Reset::kManual);
  std::atomic<int> timed{-2}, woken{-2};
  std::thread timedWaiter([&] { timed = clock.WaitAny({&first}, 180'000); });
  std::thread wokenWaiter([&] { woken = clock.WaitAny({&second}, 3'600'000); });
  ASSERT_TRUE(clock.AwaitTimedWaiters(2));
  const FileTime before = clock.Now();
  clock.Advance(179'999);
  EXPECT_EQ(clock.TimedWaiters(), 2u) << "a wait ended before its due time";
  clock.Advance(1);
  timedWaiter.join();
  EXPECT_EQ(timed.load(), Event::kTimedOut);
  second.Set();
  wokenWaiter.join();
  EXPECT_EQ(woken.load(), 0);
  EXPECT_EQ(clock.Now(), before + 180'000 * kFileTimeTicksPerMs);
  EXPECT_EQ(clock.TimedWaiters(), 0u);
}

}  // namespace
}  // namespace pkgdlv
