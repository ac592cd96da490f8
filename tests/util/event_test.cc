#include "util/event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/fake_clock.h"

namespace pkgdlv {
namespace {

using namespace std::chrono_literals;

TEST(EventTest, ManualStaysSetAutoReleasesOne) {
  Event manual(Event::Reset::kManual);
  manual.Set();
  EXPECT_TRUE(manual.Wait(0));
  EXPECT_TRUE(manual.Wait(0));
  manual.Clear();
  EXPECT_FALSE(manual.Wait(0));

  Event automatic(Event::Reset::kAuto);
  automatic.Set();
  EXPECT_TRUE(automatic.Wait(0));
  EXPECT_FALSE(automatic.Wait(0));
}

TEST(EventTest, WaitAnyReturnsFirstSetIndexAndTimesOut) {
  Event stop(Event::Reset::kManual), wake(Event::Reset::kAuto);
  EXPECT_EQ(Event::WaitAny({&stop, &wake}, 10), Event::kTimedOut);
  wake.Set();
  EXPECT_EQ(Event::WaitAny({&stop, &wake}, 0), 1);
  EXPECT_FALSE(wake.IsSet());
  stop.Set();
  wake.Set();
  EXPECT_EQ(Event::WaitAny({&stop, &wake}, 0), 0);  // the earlier event wins
  EXPECT_TRUE(wake.IsSet());                         // and the later auto event is not consumed
}

TEST(EventTest, SetFromAnotherThreadReleasesEveryWaiterOfAManualEvent) {
  Event go(Event::Reset::kManual);
  std::atomic<int> released{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&] { if (go.Wait(10'000)) ++released; });
  std::this_thread::sleep_for(20ms);
  go.Set();
  for (auto& t : threads) t.join();
  EXPECT_EQ(released.load(), 4);
}

TEST(EventTest, AutoEventReleasesExactlyOneOfSeveralWaiters) {
  Event token(Event::Reset::kAuto);
  std::atomic<int> released{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) threads.emplace_back([&] { if (token.Wait(300)) ++released; });
  std::this_thread::sleep_for(20ms);
  token.Set();
  for (auto& t : threads) t.join();
  EXPECT_EQ(released.load(), 1);
}

TEST(FakeClockTest, TimedWaitEndsOnlyWhenTimeIsAdvancedPastItsDueTime) {
  testing::FakeClock clock;
  Event stop(Event::Reset::kManual);
  std::atomic<int> result{-2};
  std::thread waiter([&] { result = clock.WaitAny({&stop}, 180'000); });
  ASSERT_TRUE(clock.AwaitTimedWaiters(1));
  clock.Advance(179'999);
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(result.load(), -2);
  clock.Advance(1);
  waiter.join();
  EXPECT_EQ(result.load(), Event::kTimedOut);
  EXPECT_EQ(clock.TimedWaiters(), 0u);
}

TEST(FakeClockTest, EventEndsATimedWaitBeforeItsDueTime) {
  testing::FakeClock clock;
  Event stop(Event::Reset::kManual);
  std::atomic<int> result{-2};
  FileTime before = clock.Now();
  std::thread waiter([&] { result = clock.WaitAny({&stop}, 3'600'000); });
  ASSERT_TRUE(clock.AwaitTimedWaiters(1));
  stop.Set();
  waiter.join();
  EXPECT_EQ(result.load(), 0);
  EXPECT_EQ(clock.Now(), before);
}

}  // namespace
}  // namespace pkgdlv
