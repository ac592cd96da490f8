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

using testing::FakeClock;
using testing::FakePeerConfigurationSource;
using testing::MemorySettingsStore;
using testing::RecordingLogger;

constexpr int32_t kMinute = 60'000;

Guid IdOf(int n) { return *Guid::Parse(Format("{00000000-0000-0000-0000-%012d}", n)); }

class DownloadQueueTest : public ::testing::Test {
 protected:
  FileTime Now() { return clock_->Now(); }
  FileTime After(int64_t ms) { return Now() + static_cast<FileTime>(ms) * kFileTimeTicksPerMs; }
  void SetSetting(std::string_view name, uint32_t value) {
    store_.Set(kDeliverySettingsKey, name, SettingValue::Number(value));
  }
  int32_t RetryDelayOf(const Guid& id) {
    for (const QueueEntry& entry : queue_.Entries()) {
      if (entry.id == id) return entry.retryDelay;
    }
    ADD_FAILURE() << "no entry";
    return -1;
  }
  // A failed attempt that calls for a back-off and counts.
  bool Fail(const Guid& id, bool progress = false, bool urgent = false, int32_t maxDelay = 0,
            PeerConfigurationSource* peer = nullptr) {
    return queue_.RetryPackage(peer, id, progress, urgent, true, 0, true, maxDelay);
  }

  std::shared_ptr<FakeClock> clock_ = std::make_shared<FakeClock>();
  std::shared_ptr<RecordingLogger> log_ = std::make_shared<RecordingLogger>();
  MemorySettingsStore store_;
  DeliverySettings settings_{store_, *log_};
  DownloadQueue queue_{clock_, log_, settings_};
};

// ---- Ordering ----

struct Arrival {
  int id;
  int32_t priority = 0;
  int32_t retryDelay = 0;
  int64_t sizeKey = 0;
  bool retryPending = false;
};

struct OrderingCase {
  std::string name;
  std::vector<Arrival> arrivals;  // in the order they are inserted
  std::vector<int> expected;      // queue order
};

class QueueOrderingTest : public DownloadQueueTest, public ::testing::WithParamInterface<OrderingCase> {};

TEST_P(QueueOrderingTest, InsertKeepsTheOrderingRule) {
  for (const Arrival& a : GetParam().arrivals) {
    QueueEntry entry;
    entry.id = IdOf(a.id);
    entry.priority = a.priority;
    entry.retryDelay = a.retryDelay;
    entry.sizeKey = a.sizeKey;
    entry.retryPending = a.retryPending;
    queue_.Insert(entry);
  }
  std::vector<int> order;
  for (const QueueEntry& entry : queue_.Entries()) {
    for (const Arrival& a : GetParam().arrivals) {
      if (IdOf(a.id) == entry.id) order.push_back(a.id);
    }
  }
  EXPECT_EQ(order, GetParam().expected);

  const std::vector<QueueEntry> entries = queue_.Entries();
  const bool readyFront = !entries.front().retryPending;
  EXPECT_EQ(queue_.HasReadyFront(), readyFront);
  EXPECT_EQ(queue_.Front(), readyFront ? entries.front().id : Guid{});
  // No waiting entry stands before a ready one.
  for (size_t i = 1; i < entries.size(); ++i) {
    EXPECT_FALSE(entries[i - 1].retryPending && !entries[i].retryPending) << "at " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, QueueOrderingTest,
    ::testing::Values(
        OrderingCase{"HigherPriorityFirst", {{.id = 1, .priority = 0}, {.id = 2, .priority = 10}}, {2, 1}},
        OrderingCase{"NegativePriorityLast", {{.id = 1, .priority = -10}, {.id = 2, .priority = 0}}, {2, 1}},
        OrderingCase{"LessBackedOffFirst",
                     {{.id = 1, .retryDelay = 6 * kMinute}, {.id = 2, .retryDelay = 3 * kMinute}},
                     {2, 1}},
        OrderingCase{"SmallerFirst", {{.id = 1, .sizeKey = 500}, {.id = 2, .sizeKey = 100}}, {2, 1}},
        OrderingCase{"DelayBeforeSize",
                     {{.id = 1, .retryDelay = 3 * kMinute, .sizeKey = 1}, {.id = 2, .sizeKey = 1000}},
                     {2, 1}},
        OrderingCase{"PriorityBeforeDelayAndSize",
                     {{.id = 1, .sizeKey = 1}, {.id = 2, .priority = 10, .retryDelay = 120 * kMinute, .sizeKey = 9999}},
                     {2, 1}},
        OrderingCase{"EqualKeysFirstComeFirstServed",
                     {{.id = 1, .sizeKey = 7}, {.id = 2, .sizeKey = 7}, {.id = 3, .sizeKey = 7}},
                     {1, 2, 3}},
        OrderingCase{"WaitingNeverBeforeReady",
                     {{.id = 1, .priority = 10, .retryPending = true}, {.id = 2, .priority = -10}},
                     {2, 1}},
        OrderingCase{"WaitingAppendedWhateverItsPriority",
                     {{.id = 1}, {.id = 2, .priority = 100, .retryPending = true}, {.id = 3, .priority = -10}},
                     {1, 3, 2}},
        OrderingCase{"WaitingKeepArrivalOrder",
                     {{.id = 1, .retryPending = true}, {.id = 2, .priority = 10, .retryPending = true}},
                     {1, 2}},
        OrderingCase{"MixedQueue",
                     {{.id = 1, .sizeKey = 300},
                      {.id = 2, .priority = 10, .retryPending = true},
                      {.id = 3, .sizeKey = 100},
                      {.id = 4, .priority = 10, .sizeKey = 5000},
                      {.id = 5, .sizeKey = 100},
                      {.id = 6, .priority = -10}},
                     {4, 3, 5, 1, 6, 2}}),
    [](const auto& info) { return info.param.name; });

TEST_F(DownloadQueueTest, SetPriorityAndInsertAddAndReplaceAndReportTheFront) {
  EXPECT_TRUE(queue_.SetPriority(IdOf(1), 0, 100));
  EXPECT_FALSE(queue_.SetPriority(IdOf(2), 0, 100));  // equal keys: behind the first
  // Unchanged keys leave the entry where it is (a re-insertion would move it behind 2).
  EXPECT_TRUE(queue_.SetPriority(IdOf(1), 0, 100));
  EXPECT_EQ(queue_.Front(), IdOf(1));
  // Less left to download: ahead again; more: behind.
  EXPECT_FALSE(queue_.SetPriority(IdOf(1), 0, 200));
  EXPECT_EQ(queue_.Front(), IdOf(2));
  EXPECT_TRUE(queue_.SetPriority(IdOf(1), 10, 200));
  EXPECT_EQ(queue_.Size(), 2u);
  QueueEntry entry{.id = IdOf(1), .priority = 5};
  queue_.Insert(entry);  // replaces the package's entry
  ASSERT_EQ(queue_.Size(), 2u);
  EXPECT_EQ(queue_.Front(), IdOf(1));
  EXPECT_EQ(queue_.Entries()[0].priority, 5);
}

TEST_F(DownloadQueueTest, SetPriorityKeepsTheRetryState) {
  queue_.SetPriority(IdOf(1), 0, 100);
  ASSERT_TRUE(Fail(IdOf(1)));
  ASSERT_TRUE(Fail(IdOf(1)));
  const FileTime next = *queue_.GetNextAttemptTime(IdOf(1));

  EXPECT_FALSE(queue_.SetPriority(IdOf(1), 10, 50));  // still waiting, so not the front
  EXPECT_TRUE(queue_.IsRetryPending(IdOf(1)));
  EXPECT_EQ(queue_.GetAttemptCount(IdOf(1)), 2);
  EXPECT_EQ(queue_.GetNextAttemptTime(IdOf(1)), next);
  EXPECT_EQ(RetryDelayOf(IdOf(1)), 6 * kMinute);
}

// ---- Back-off ----

struct BackoffCase {
  std::string name;
  uint32_t retryDelayMins = 3;
  uint32_t maxRetryDelayMins = 120;
  bool urgent = false;
  int32_t maxDelay = 0;
  bool peer = false;
  std::vector<int32_t> expectedDelays;
};

class QueueBackoffTest : public DownloadQueueTest, public ::testing::WithParamInterface<BackoffCase> {};

TEST_P(QueueBackoffTest, SuccessiveFailuresBackOff) {
  const BackoffCase& c = GetParam();
  SetSetting("Retry delay (mins)", c.retryDelayMins);
  SetSetting("Maximum retry delay (mins)", c.maxRetryDelayMins);
  FakePeerConfigurationSource peer;
  PeerConfiguration config;
  config.retryDelaySeconds = 45;
  peer.Set(config);

  const Guid id = IdOf(1);
  queue_.SetPriority(id, 0, 1000);
  std::vector<int32_t> delays;
  for (size_t i = 0; i < c.expectedDelays.size(); ++i) {
    ASSERT_TRUE(Fail(id, false, c.urgent, c.maxDelay, c.peer ? &peer : nullptr));
    const int32_t delay = RetryDelayOf(id);
    delays.push_back(delay);
    EXPECT_EQ(queue_.GetNextAttemptTime(id), After(delay));
    EXPECT_EQ(queue_.GetWaitTimeout(), static_cast<uint32_t>(delay));
    clock_->Advance(delay);
    ASSERT_TRUE(queue_.PromoteDueEntries());
    ASSERT_EQ(queue_.Front(), id);
  }
  EXPECT_EQ(delays, c.expectedDelays);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, QueueBackoffTest,
    ::testing::Values(
        BackoffCase{.name = "DefaultsDoubleUpToTwoHours",
                    .expectedDelays = {3 * kMinute, 6 * kMinute, 12 * kMinute, 24 * kMinute, 48 * kMinute,
                                       96 * kMinute, 120 * kMinute, 120 * kMinute}},
        BackoffCase{.name = "SettingsChangeBaseAndCap",
                    .retryDelayMins = 10,
                    .maxRetryDelayMins = 30,
                    .expectedDelays = {10 * kMinute, 20 * kMinute, 30 * kMinute, 30 * kMinute}},
        BackoffCase{.name = "UrgentUsesUrgentBaseAndCallersCap",
                    .urgent = true,
                    .maxDelay = 100'000,
                    .expectedDelays = {22'500, 45'000, 90'000, 100'000, 100'000}},
        BackoffCase{.name = "PeerDownloadWaitsAFixedDelay",
                    .peer = true,
                    .expectedDelays = {45'000, 45'000, 45'000}}),
    [](const auto& info) { return info.param.name; });

TEST_F(DownloadQueueTest, ProgressStartsANewSeriesAtTheBaseDelay) {
  const Guid id = IdOf(1);
  queue_.SetPriority(id, 0, 1000);
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(Fail(id));
  EXPECT_EQ(RetryDelayOf(id), 12 * kMinute);

  clock_->Advance(60 * kMinute);
  ASSERT_TRUE(Fail(id, /*progress=*/true));
  EXPECT_EQ(queue_.GetAttemptCount(id), 1);
  EXPECT_EQ(RetryDelayOf(id), 3 * kMinute);
  ASSERT_TRUE(Fail(id));
  EXPECT_EQ(RetryDelayOf(id), 6 * kMinute);
}

TEST_F(DownloadQueueTest, ReleaseRetryWaitsFreesEveryWaitAndResetsTheDelay) {
  EXPECT_FALSE(queue_.ReleaseRetryWaits());  // empty
  for (int n = 1; n <= 3; ++n) queue_.SetPriority(IdOf(n), n, 1000);
  for (int n = 1; n <= 3; ++n) {
    for (int i = 0; i < n; ++i) ASSERT_TRUE(Fail(IdOf(n)));
  }
  EXPECT_FALSE(queue_.HasReadyFront());

  EXPECT_TRUE(queue_.ReleaseRetryWaits());
  const std::vector<QueueEntry> entries = queue_.Entries();
  ASSERT_EQ(entries.size(), 3u);
  for (const QueueEntry& entry : entries) {
    EXPECT_FALSE(entry.retryPending);
    EXPECT_EQ(entry.retryDelay, 0);
  }
  EXPECT_EQ(queue_.Front(), IdOf(3));  // back to priority order
  EXPECT_EQ(queue_.GetWaitTimeout(), 0u);

  // The next back-off of a released package starts from the base again.
  ASSERT_TRUE(Fail(IdOf(3)));
  EXPECT_EQ(queue_.GetAttemptCount(IdOf(3)), 4);
  EXPECT_EQ(RetryDelayOf(IdOf(3)), 3 * kMinute);

  // Ready entries already there: true even with nothing to release.
  queue_.Remove(IdOf(3));
  EXPECT_TRUE(queue_.ReleaseRetryWaits());
}

// The number of counted failures, and the time since the series began.
TEST_F(DownloadQueueTest, AttemptLimitsGiveUp) {
  SetSetting("Maximum download attempts", 5);
  const Guid id = IdOf(1);
  EXPECT_FALSE(Fail(id));  // not queued
  queue_.SetPriority(id, 0, 1000);
  // Failures that do not count (no back-off, or not counted) leave the count alone.
  EXPECT_TRUE(queue_.RetryPackage(nullptr, id, false, false, true, 0, /*countAttempt=*/false, 0));
  EXPECT_TRUE(queue_.RetryPackage(nullptr, id, false, false, /*causedDelay=*/false, Now(), true, 0));
  EXPECT_EQ(queue_.GetAttemptCount(id), 0);
  for (int i = 1; i <= 4; ++i) EXPECT_TRUE(Fail(id)) << i;
  EXPECT_FALSE(Fail(id));
  EXPECT_EQ(queue_.GetAttemptCount(id), 5);
  EXPECT_TRUE(queue_.Contains(id));  // the caller removes it

  SetSetting("Maximum download attempts", 0);
  SetSetting("Maximum download attempt time (mins)", 10);
  EXPECT_TRUE(Fail(id, /*progress=*/true));  // a new series
  clock_->Advance(10 * kMinute);
  EXPECT_TRUE(Fail(id));  // exactly at the limit: not later than it
  clock_->Advance(1);
  EXPECT_FALSE(Fail(id));
  // Progress starts a new series, and with it a new time budget.
  EXPECT_TRUE(Fail(id, /*progress=*/true));
}

TEST_F(DownloadQueueTest, BusyServerTimeIsHonoured) {
  const Guid id = IdOf(1);
  queue_.SetPriority(id, 0, 1000);
  ASSERT_TRUE(Fail(id));

  // No back-off: exactly at the server's time, delay unchanged.
  const FileTime busyUntil = After(30 * kMinute);
  ASSERT_TRUE(queue_.RetryPackage(nullptr, id, false, false, false, busyUntil, true, 0));
  EXPECT_EQ(queue_.GetNextAttemptTime(id), busyUntil);
  EXPECT_EQ(RetryDelayOf(id), 3 * kMinute);

  // A back-off shorter than the server's time waits 60 seconds past it.
  ASSERT_TRUE(queue_.RetryPackage(nullptr, id, false, false, true, busyUntil, true, 0));
  EXPECT_EQ(RetryDelayOf(id), 6 * kMinute);
  EXPECT_EQ(queue_.GetNextAttemptTime(id), busyUntil + 60 * kFileTimeTicksPerSecond);

  // A longer one is kept.
  const FileTime soon = After(1000);
  ASSERT_TRUE(queue_.RetryPackage(nullptr, id, false, false, true, soon, true, 0));
  EXPECT_EQ(queue_.GetNextAttemptTime(id), After(12 * kMinute));
}

TEST_F(DownloadQueueTest, RetryMovesThePackageBehindReadyOnesAndLogs) {
  queue_.SetPriority(IdOf(1), 10, 1000);
  queue_.SetPriority(IdOf(2), 0, 1000);
  ASSERT_TRUE(Fail(IdOf(1)));
  EXPECT_EQ(queue_.Front(), IdOf(2));
  EXPECT_TRUE(queue_.IsRetryPending(IdOf(1)));

  const std::vector<testing::LogLine> lines = log_->Lines();
  ASSERT_FALSE(lines.empty());
  const testing::LogLine& line = lines.back();
  EXPECT_EQ(line.level, loglevel::kInfo);
  EXPECT_EQ(line.component, "DownloadQueue");
  EXPECT_EQ(line.message.rfind("Retry package: id=" + IdOf(1).ToString() + " delay=180 secs at=", 0), 0u)
      << line.message;
  EXPECT_NE(line.message.find(" causedDelay=1 earliestRetryTime="), std::string::npos) << line.message;
  EXPECT_EQ(line.message.back(), '\n');
}

// ---- Waiting ----

TEST_F(DownloadQueueTest, WaitTimeoutFollowsTheEarliestRetry) {
  EXPECT_EQ(queue_.GetWaitTimeout(), DownloadQueue::kInfiniteWait);

  queue_.SetPriority(IdOf(1), 0, 1000);
  queue_.SetPriority(IdOf(2), 0, 1000);
  EXPECT_EQ(queue_.GetWaitTimeout(), 0u);

  ASSERT_TRUE(queue_.RetryPackage(nullptr, IdOf(1), false, false, false, After(5000), true, 0));
  EXPECT_EQ(queue_.GetWaitTimeout(), 0u);  // 2 is still ready
  ASSERT_TRUE(queue_.RetryPackage(nullptr, IdOf(2), false, false, false, After(2500), true, 0));
  EXPECT_EQ(queue_.GetWaitTimeout(), 2500u);
  clock_->Advance(2000);
  EXPECT_EQ(queue_.GetWaitTimeout(), 500u);
  clock_->Advance(10'000);
  EXPECT_EQ(queue_.GetWaitTimeout(), 0u);  // passed, not yet promoted

  // Far away: limited to the longest wait.
  queue_.Clear();
  queue_.SetPriority(IdOf(3), 0, 1000);
  ASSERT_TRUE(queue_.RetryPackage(nullptr, IdOf(3), false, false, false, After(30LL * 24 * 3600 * 1000), true, 0));
  EXPECT_EQ(queue_.GetWaitTimeout(), DownloadQueue::kLongestWait);
}

TEST_F(DownloadQueueTest, PromoteDueEntriesMakesDueEntriesReadyInOrder) {
  queue_.SetPriority(IdOf(1), 10, 1000);
  queue_.SetPriority(IdOf(2), 10, 1000);
  queue_.SetPriority(IdOf(3), 0, 1000);
  ASSERT_TRUE(queue_.RetryPackage(nullptr, IdOf(1), false, false, false, After(60'000), true, 0));
  ASSERT_TRUE(queue_.RetryPackage(nullptr, IdOf(2), false, false, false, After(120'000), true, 0));
  EXPECT_FALSE(queue_.PromoteDueEntries());
  EXPECT_EQ(queue_.Front(), IdOf(3));

  clock_->Advance(59'000);  // due within a second: promoted
  EXPECT_TRUE(queue_.PromoteDueEntries());
  EXPECT_EQ(queue_.Front(), IdOf(1));  // ahead of the lower priority
  EXPECT_TRUE(queue_.IsRetryPending(IdOf(2)));
  EXPECT_FALSE(queue_.PromoteDueEntries());

  clock_->Advance(59'000);  // 2 is due in 2 seconds: not yet
  EXPECT_FALSE(queue_.PromoteDueEntries());
  clock_->Advance(1'000);
  EXPECT_TRUE(queue_.PromoteDueEntries());
  const std::vector<QueueEntry> entries = queue_.Entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].id, IdOf(1));
  EXPECT_EQ(entries[1].id, IdOf(2));
  EXPECT_EQ(entries[2].id, IdOf(3));
  EXPECT_EQ(entries[1].attemptCount, 0);  // kept: causedDelay false does not count
}

// ---- Peer configuration ----

struct PeerFailureCase {
  std::string name;
  bool failAttach;
  uint32_t structureSize;
  std::string description;  // empty: no failure
};

class QueuePeerConfigurationTest : public DownloadQueueTest, public ::testing::WithParamInterface<PeerFailureCase> {};

TEST_P(QueuePeerConfigurationTest, UnreadableConfigurationFailsTheRetry) {
  const PeerFailureCase& c = GetParam();
  FakePeerConfigurationSource peer;
  PeerConfiguration config;
  config.structureSize = c.structureSize;
  config.retryDelaySeconds = 90;
  peer.Set(config);
  peer.FailAttach(c.failAttach);
  queue_.SetPriority(IdOf(1), 0, 1000);

  try {
    const bool retried = Fail(IdOf(1), false, false, 0, &peer);
    EXPECT_TRUE(c.description.empty()) << "no failure";
    EXPECT_TRUE(retried);
    EXPECT_EQ(RetryDelayOf(IdOf(1)), 90'000);
  } catch (const Error& error) {
    EXPECT_EQ(error.code(), 0x80070FDFu);
    EXPECT_EQ(error.description(), c.description);
    EXPECT_FALSE(queue_.IsRetryPending(IdOf(1)));
  }
  EXPECT_EQ(peer.Readers(), std::vector<std::string>{"DownloadQueue"});
}

INSTANTIATE_TEST_SUITE_P(Cases, QueuePeerConfigurationTest,
                         ::testing::Values(PeerFailureCase{"CannotAttach", true, 56, "Can't attach to the configuration"},
                                           PeerFailureCase{"ShortStructure", false, 55, "Invalid structure size received"},
                                           PeerFailureCase{"FullStructure", false, 56, ""}),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace pkgdlv
