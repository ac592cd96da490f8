#include "engine/download_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fake_clock.h"
#include "support/fake_peer_configuration.h"
#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

constexpr int32_t kMinute = 60'000;

Guid IdOf(int n) { return *Guid::Parse(Format("{00000000-0000-0000-0000-%012d}", n)); }

class DownloadQueueTest : public ::testing::Test {
 protected:
  FileTime After(int64_t ms) { return clock_->Now() + static_cast<FileTime>(ms) * kFileTimeTicksPerMs; }
  void SetSetting(std::string_view name, uint32_t value) {
    store_.Set(kDeliverySettingsKey, name, SettingValue::Number(value));
  }
  int32_t RetryDelayOf(const Guid& id) {
    for (const QueueEntry& entry : queue_.Entries()) {
      if (entry.id == id) return entry.retryDelay;
    }
    return -1;
  }
  // A failed attempt that calls for a back-off and counts.
  bool Fail(const Guid& id, bool progress = false, bool urgent = false, int32_t maxDelay = 0,
            PeerConfigurationSource* peer = nullptr) {
    return queue_.RetryPackage(peer, id, progress, urgent, true, 0, true, maxDelay);
  }
  // A failure that waits for the given time without a back-off.
  bool WaitUntil(const Guid& id, FileTime time) {
    return queue_.RetryPackage(nullptr, id, false, false, false, time, true, 0);
  }
  std::vector<Guid> Order() {
    std::vector<Guid> ids;
    for (const QueueEntry& entry : queue_.Entries()) ids.push_back(entry.id);
    return ids;
  }

  std::shared_ptr<testing::FakeClock> clock_ = std::make_shared<testing::FakeClock>();
  std::shared_ptr<testing::RecordingLogger> log_ = std::make_shared<testing::RecordingLogger>();
  testing::MemorySettingsStore store_;
  DeliverySettings settings_{store_, *log_};
  DownloadQueue queue_{clock_, log_, settings_};
};

TEST_F(DownloadQueueTest, InsertKeepsTheOrderingRule) {
  struct Arrival {
    int id;
    int32_t priority = 0, retryDelay = 0;
    int64_t sizeKey = 0;
    bool retryPending = false;
  };
  const struct {
    const char* name;
    std::vector<Arrival> arrivals;  // in the order they are inserted
    std::vector<int> expected;      // queue order
  } cases[] = {
      {"higher priority first", {{1, -10}, {2, 0}}, {2, 1}},
      {"less backed off first", {{1, 0, 6 * kMinute}, {2, 0, 3 * kMinute}}, {2, 1}},
      {"smaller first", {{1, 0, 0, 500}, {2, 0, 0, 100}}, {2, 1}},
      {"priority before delay and size", {{1, 0, 0, 1}, {2, 10, 120 * kMinute, 9999}}, {2, 1}},
      {"equal keys first come first served", {{1, 0, 0, 7}, {2, 0, 0, 7}, {3, 0, 0, 7}}, {1, 2, 3}},
      {"waiting appended whatever its priority", {{1}, {2, 100, 0, 0, true}, {3, -10}}, {1, 3, 2}},
      {"waiting keep arrival order", {{1, 0, 0, 0, true}, {2, 10, 0, 0, true}}, {1, 2}},
      {"mixed", {{1, 0, 0, 300}, {2, 10, 0, 0, true}, {3, 0, 0, 100}, {4, 10, 0, 5000}, {5, 0, 0, 100}, {6, -10}},
       {4, 3, 5, 1, 6, 2}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    queue_.Clear();
    for (const Arrival& a : c.arrivals) {
      queue_.Insert({.id = IdOf(a.id), .priority = a.priority, .sizeKey = a.sizeKey, .retryDelay = a.retryDelay,
                     .retryPending = a.retryPending});
    }
    std::vector<Guid> expected;
    for (int id : c.expected) expected.push_back(IdOf(id));
    EXPECT_EQ(Order(), expected);
    const bool readyFront = !queue_.Entries().front().retryPending;
    EXPECT_EQ(queue_.HasReadyFront(), readyFront);
    EXPECT_EQ(queue_.Front(), readyFront ? expected.front() : Guid{});
  }
}

TEST_F(DownloadQueueTest, SuccessiveFailuresBackOff) {
  testing::FakePeerConfigurationSource peer;
  PeerConfiguration config;
  config.retryDelaySeconds = 45;
  peer.Set(config);
  const struct {
    const char* name;
    uint32_t retryDelayMins, maxRetryDelayMins;
    bool urgent;
    int32_t maxDelay;
    bool peer;
    std::vector<int32_t> expectedDelays;
  } cases[] = {
      {"defaults double up to two hours", 3, 120, false, 0, false,
       {3 * kMinute, 6 * kMinute, 12 * kMinute, 24 * kMinute, 48 * kMinute, 96 * kMinute, 120 * kMinute,
        120 * kMinute}},
      {"urgent uses the urgent base and the caller's cap", 3, 120, true, 100'000,
       false, {22'500, 45'000, 90'000, 100'000, 100'000}},
      {"a peer download waits a fixed delay", 3, 120, false, 0, true, {45'000, 45'000, 45'000}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SetSetting("Retry delay (mins)", c.retryDelayMins);
    SetSetting("Maximum retry delay (mins)", c.maxRetryDelayMins);
    queue_.Clear();
    queue_.SetPriority(IdOf(1), 0, 1000);
    std::vector<int32_t> delays;
    for (size_t i = 0; i < c.expectedDelays.size(); ++i) {
      ASSERT_TRUE(Fail(IdOf(1), false, c.urgent, c.maxDelay, c.peer ? &peer : nullptr));
      delays.push_back(RetryDelayOf(IdOf(1)));
      EXPECT_EQ(queue_.GetNextAttemptTime(IdOf(1)), After(delays.back()));
      EXPECT_EQ(queue_.GetWaitTimeout(), static_cast<uint32_t>(delays.back()));
      clock_->Advance(delays.back());
      ASSERT_TRUE(queue_.PromoteDueEntries());
    }
    EXPECT_EQ(delays, c.expectedDelays);
  }

  // Progress starts a new series at the base delay.
  clock_->Advance(60 * kMinute);
  ASSERT_TRUE(Fail(IdOf(1), /*progress=*/true));
  EXPECT_EQ(std::make_tuple(queue_.GetAttemptCount(IdOf(1)), RetryDelayOf(IdOf(1))), std::make_tuple(1, 3 * kMinute));
  ASSERT_TRUE(Fail(IdOf(1)));
  EXPECT_EQ(RetryDelayOf(IdOf(1)), 6 * kMinute);
}

// Failures that do not count leave the count alone; a series ends when its
// time is up, and progress starts a new one.
TEST_F(DownloadQueueTest, AttemptTimeLimitGivesUp) {
  SetSetting("Maximum download attempt time (mins)", 10);
  EXPECT_FALSE(Fail(IdOf(1)));  // not queued
  queue_.SetPriority(IdOf(1), 0, 1000);
  // A fresh entry whose first failure does not count has no series yet.
  EXPECT_TRUE(queue_.RetryPackage(nullptr, IdOf(1), false, false, false, 0, /*countAttempt=*/false, 0));
  EXPECT_TRUE(Fail(IdOf(1), /*progress=*/true));  // a new series begins
  EXPECT_TRUE(queue_.RetryPackage(nullptr, IdOf(1), false, false, true, 0, /*countAttempt=*/false, 0));
  EXPECT_TRUE(WaitUntil(IdOf(1), clock_->Now()));
  EXPECT_EQ(queue_.GetAttemptCount(IdOf(1)), 1);
  clock_->Advance(10 * kMinute);
  EXPECT_TRUE(Fail(IdOf(1)));  // exactly at the limit: not later than it
  clock_->Advance(1);
  EXPECT_FALSE(Fail(IdOf(1)));
  EXPECT_TRUE(queue_.Contains(IdOf(1)));  // the caller removes it
  EXPECT_TRUE(Fail(IdOf(1), /*progress=*/true));
}

}  // namespace
}  // namespace pkgdlv
