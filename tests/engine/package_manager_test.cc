#include "engine/package_manager.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "agent/crypto.h"
#include "records/package_request.h"
#include "snapshot/snapshot_builder.h"
#include "support/fake_clock.h"
#include "support/fake_multicast_core.h"
#include "support/fake_peer_configuration.h"
#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "support/scripted_downloader.h"
#include "support/temp_dir.h"

namespace pkgdlv {
namespace {

using namespace std::chrono_literals;
using testing::FakeClientAgent;
using testing::FakeClock;
using testing::MemorySettingsStore;
using testing::RecordingLogger;
using testing::ScriptedDownloader;
using testing::ScriptedStep;
using testing::TempDir;

constexpr uint64_t kMinuteMs = 60'000;
using StatusText = std::pair<int32_t, std::string>;

Guid IdOf(int n) { return *Guid::Parse(Format("{00000000-0000-0000-0000-%012d}", n)); }

std::string PackageDocument(const Guid& id, std::string_view status, int priority, uint64_t size) {
  return Format("<Package id=\"%ls\" name=\"p\" size=\"%I64u\" version=\"1\" priority=\"%d\" status=\"%ls\"><Source/></Package>",
                id.ToString(), size, priority, std::string(status));
}

ScriptedStep Failure(Result code = 0x80004005, std::string description = "Server unreachable") {
  ScriptedStep step;
  step.outcome.code = code;
  step.outcome.description = std::move(description);
  return step;
}
// A transfer that runs until something interrupts it.
ScriptedStep Hold() {
  ScriptedStep step;
  step.holdUntilInterrupted = true;
  return step;
}

// Records every line, and first runs a hook on each line containing a text:
// a test can hold the engine at a point it logs.
class HookedLogger final : public Logger {
 public:
  HookedLogger(std::shared_ptr<RecordingLogger> log, std::string text, std::function<void()> hook)
      : log_(std::move(log)), text_(std::move(text)), hook_(std::move(hook)) {}
  bool IsEnabled(uint32_t level) override { return log_->IsEnabled(level); }
  void Write(uint32_t level, std::string_view component, std::string_view message) noexcept override {
    if (message.find(text_) != std::string_view::npos) hook_();
    log_->Write(level, component, message);
  }

 private:
  std::shared_ptr<RecordingLogger> log_;
  std::string text_;
  std::function<void()> hook_;
};

class PackageManagerTest : public ::testing::Test {
 protected:
  PackageManagerTest() {
    services_.data_folder = dir_.path();
    services_.clock = clock_;
    services_.settings = store_;
    services_.log = log_;
    services_.crypto = NewOpenSslCrypto();
    services_.client = client_;
    services_.peer_configuration = std::make_shared<testing::FakePeerConfigurationSource>();
  }
  ~PackageManagerTest() override {
    if (engine_) engine_->Stop();
  }

  PackageManager& Engine() {
    if (!engine_) engine_ = std::make_unique<PackageManager>(services_, WorkFolder(), downloader_);
    return *engine_;
  }
  std::filesystem::path WorkFolder() const { return dir_ / "work"; }
  void SetSetting(std::string_view name, uint32_t value) {
    store_->Set(kDeliverySettingsKey, name, SettingValue::Number(value));
  }
  void WritePackage(const Guid& id, std::string_view status, int priority = 0, uint64_t size = 0) {
    std::filesystem::create_directories(WorkFolder() / id.ToString());
    testing::WriteFile(WorkFolder() / id.ToString() / "package.xml", PackageDocument(id, status, priority, size));
  }
  std::shared_ptr<PackageRequest> Queue(const Guid& id, int priority = 0, uint64_t size = 0) {
    auto request = std::make_shared<PackageRequest>(services_);
    EXPECT_TRUE(request->LoadFromXml(PackageDocument(id, "invalid", priority, size)));
    Engine().QueuePackage(request, false);
    return request;
  }
  // The status and description "package.xml" holds now (the description as
  // written: a load replaces it when the status differs from a new record's).
  StatusText OnDisk(const Guid& id) {
    const std::filesystem::path path = WorkFolder() / id.ToString() / "package.xml";
    PackageRequest saved(services_);
    if (!std::filesystem::exists(path) || !saved.Load(path)) return {-1, ""};
    const std::string text = testing::ReadFile(path);
    const std::string marker = "statusDescription=\"";
    const size_t start = text.find(marker) + marker.size();
    return {saved.status(), text.substr(start, text.find('"', start) - start)};
  }
  // A request that brings its own snapshot, listing count files that are
  // present and complete but not checked yet.
  std::shared_ptr<PackageRequest> PackageWithFiles(const Guid& id, int count) {
    const std::filesystem::path folder = WorkFolder() / id.ToString();
    std::filesystem::create_directories(folder);
    for (int i = 0; i < count; ++i) {
      testing::WriteFile(folder / Format("file%d.bin", i), std::string(4096, static_cast<char>('a' + i)));
    }
    auto request = std::make_shared<PackageRequest>(services_);
    EXPECT_TRUE(request->LoadFromXml(PackageDocument(id, "invalid", 0, 0)));
    auto lock = request->Lock();
    request->hasSnapshot = true;
    Snapshot& snapshot = request->snapshot();
    BuildSnapshotFromFolder(folder, {}, snapshot);
    snapshot.path = folder.string();
    for (SnapshotEntry& entry : snapshot.entries) entry.state = entrystate::kNotChecked;
    return request;
  }
  std::vector<Guid> AttemptIds() {
    std::vector<Guid> ids;
    for (const testing::Attempt& attempt : downloader_->Attempts()) ids.push_back(attempt.id);
    return ids;
  }
  // Waits for the engine thread to sleep on a retry time and returns how long
  // it sleeps, in minutes of the fake clock.
  uint64_t AwaitRetryWaitMinutes() {
    EXPECT_TRUE(clock_->AwaitTimedWaiters(1));
    return (clock_->EarliestDeadline() - clock_->TickCount()) / kMinuteMs;
  }
  // Polls in real time for at most ten seconds.
  static bool Await(const std::function<bool()>& condition) {
    for (int i = 0; i < 1000; ++i) {
      if (condition()) return true;
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }
  bool AwaitLog(std::string_view text) {
    return Await([&] { return log_->Contains(text); });
  }

  TempDir dir_;
  std::shared_ptr<FakeClock> clock_ = std::make_shared<FakeClock>();
  std::shared_ptr<MemorySettingsStore> store_ = std::make_shared<MemorySettingsStore>();
  std::shared_ptr<RecordingLogger> log_ = std::make_shared<RecordingLogger>();
  std::shared_ptr<FakeClientAgent> client_ = std::make_shared<FakeClientAgent>();
  std::shared_ptr<ScriptedDownloader> downloader_ = std::make_shared<ScriptedDownloader>(clock_);
  AgentServices services_;
  std::unique_ptr<PackageManager> engine_;
};

// ---- Order and preemption, through the running thread ----

TEST_F(PackageManagerTest, EqualPrioritiesGoSmallerFirstThenFirstComeAndHigherPriorityFirstOfAll) {
  Queue(IdOf(1), 0, 300);
  Queue(IdOf(2), 0, 100);
  Queue(IdOf(3), 0, 100);
  Queue(IdOf(4), 10, 900);
  Engine().Start();
  ASSERT_TRUE(downloader_->AwaitAttempts(4));
  EXPECT_EQ(AttemptIds(), (std::vector<Guid>{IdOf(4), IdOf(2), IdOf(3), IdOf(1)}));
  engine_->Stop();
  for (int n = 1; n <= 4; ++n) EXPECT_EQ(OnDisk(IdOf(n)).first, PKGDLV_VALID) << n;
  EXPECT_EQ(engine_->queue().Size(), 0u);
}

TEST_F(PackageManagerTest, HigherPriorityRequestPreemptsTheRunningDownloadWhichResumesAfterIt) {
  downloader_->Script(IdOf(1), {Hold()});
  Queue(IdOf(1), 0, 100);
  Engine().Start();
  ASSERT_TRUE(downloader_->AwaitAttempts(1));
  EXPECT_EQ(OnDisk(IdOf(1)).first, PKGDLV_DOWNLOADING);

  // Neither a lower priority nor an equal one that is larger takes the front
  // (the order of attempts below would show it).
  Queue(IdOf(3), -10, 10);
  Queue(IdOf(4), 0, 5000);
  downloader_->Script(IdOf(2), {Hold()});
  Queue(IdOf(2), 10, 5000);
  ASSERT_TRUE(downloader_->AwaitAttempts(2));
  EXPECT_EQ(OnDisk(IdOf(1)),
            StatusText(PKGDLV_PENDING, std::string("Package download waiting for completion of higher priority job")));
  engine_->InterruptDownload(2);  // cancels package 2
  ASSERT_TRUE(downloader_->AwaitAttempts(5));
  EXPECT_EQ(AttemptIds(), (std::vector<Guid>{IdOf(1), IdOf(2), IdOf(1), IdOf(4), IdOf(3)}));
  EXPECT_TRUE(log_->Contains(Format("Package '%ls' was preempted by higher priority package '%ls'",
                                    IdOf(1).ToString(), IdOf(2).ToString())));
  engine_->Stop();
  EXPECT_EQ(OnDisk(IdOf(1)).first, PKGDLV_VALID);
  EXPECT_EQ(OnDisk(IdOf(2)), StatusText(PKGDLV_INVALID, std::string("Package download cancelled")));
}

// A stop or a more urgent request that comes after the package was taken but
// before its transfer began still ends the attempt.
TEST_F(PackageManagerTest, InterruptionBeforeTheTransferBeginsIsNotLost) {
  struct Case {
    const char* name;
    std::function<void()> interrupt;
    StatusText status;
  } cases[] = {
      {"preempted", [&] { Queue(IdOf(2), 10); },
       {PKGDLV_PENDING, "Package download waiting for completion of higher priority job"}},
      {"stopped", [&] { Engine().Stop(); }, {PKGDLV_PENDING, "Package download suspended"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    downloader_->SetDefault(Hold());
    Queue(IdOf(1));
    std::shared_ptr<PackageRequest> request = Engine().WaitForReadyPackage();
    ASSERT_TRUE(request);
    c.interrupt();
    Engine().PerformDownload(request);  // would hold for ever if the interruption were lost
    EXPECT_EQ(OnDisk(IdOf(1)), c.status);
    engine_.reset();
  }
}

// ---- Retry and back-off ----

TEST_F(PackageManagerTest, BackOffDoublesToTheMaximumRestartsAfterProgressAndAfterANetworkChange) {
  SetSetting("Retry delay (mins)", 3);
  SetSetting("Maximum retry delay (mins)", 120);
  downloader_->SetDefault(Failure());
  Queue(IdOf(1));
  Engine().Start();

  ScriptedStep progress = Failure();
  progress.outcome.progressMade = true;
  std::vector<uint64_t> waits;
  for (int i = 0; i < 8; ++i) {
    ASSERT_TRUE(downloader_->AwaitAttempts(i + 1));
    waits.push_back(AwaitRetryWaitMinutes());
    EXPECT_EQ(OnDisk(IdOf(1)), StatusText(PKGDLV_RETRYING, std::string("Server unreachable")));
    if (i == 7) downloader_->Script(IdOf(1), {progress});
    clock_->Advance(waits.back() * kMinuteMs);
  }
  EXPECT_EQ(waits, (std::vector<uint64_t>{3, 6, 12, 24, 48, 96, 120, 120}));

  ASSERT_TRUE(downloader_->AwaitAttempts(9));
  EXPECT_EQ(AwaitRetryWaitMinutes(), 3u);
  clock_->Advance(3 * kMinuteMs);
  ASSERT_TRUE(downloader_->AwaitAttempts(10));
  EXPECT_EQ(AwaitRetryWaitMinutes(), 6u);

  // A network change releases the package at once and forgets its delay.
  const FileTime before = clock_->Now();
  engine_->OnNetworkStateChanged(0x1);
  ASSERT_TRUE(downloader_->AwaitAttempts(11));
  EXPECT_EQ(downloader_->Attempts().back().time, before);
  EXPECT_EQ(AwaitRetryWaitMinutes(), 3u);
  EXPECT_EQ(engine_->LastNetworkChangeTime(), before);
}

// ---- The end of one attempt, without the thread ----

struct EndCase {
  const char* name;
  std::vector<int> interruptions;  // handed to the running transfer during the attempt, in order
  bool stopEvent;  // then the stop event is set, as by a stop that has not reached the transfer yet
  bool noRetry;
  int32_t status;
  const char* description;
  bool staysQueued;
  uint32_t maxAttempts = 0;  // 0: no limit
};

void PrintTo(const EndCase& c, std::ostream* os) { *os << c.name; }

class AttemptEndTest : public PackageManagerTest, public ::testing::WithParamInterface<EndCase> {};

TEST_P(AttemptEndTest, OutcomeSetsStatusAndQueue) {
  const EndCase& c = GetParam();
  SetSetting("Maximum download attempts", c.maxAttempts);
  ScriptedStep step = Failure(0x80004005, "Transfer failed");
  step.holdUntilInterrupted = !c.interruptions.empty() || c.stopEvent;
  step.outcome.noRetry = c.noRetry;
  downloader_->Script(IdOf(1), {step});
  downloader_->OnAttempt([&](const Guid&) {
    for (int reason : c.interruptions) Engine().InterruptDownload(reason);
    if (c.stopEvent) Engine().stopEvent().Set();
  });
  Queue(IdOf(1));

  std::shared_ptr<PackageRequest> request = Engine().WaitForReadyPackage();
  ASSERT_TRUE(request);
  Engine().PerformDownload(request);
  EXPECT_EQ(OnDisk(IdOf(1)), StatusText(c.status, std::string(c.description)));
  EXPECT_EQ(Engine().queue().Contains(IdOf(1)), c.staysQueued);
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, AttemptEndTest,
    ::testing::Values(
        EndCase{"Preempted", {1}, false, false, PKGDLV_PENDING,
                "Package download waiting for completion of higher priority job", true},
        EndCase{"Cancelled", {2}, false, false, PKGDLV_INVALID, "Package download cancelled", false},
        EndCase{"Suspended", {3}, false, false, PKGDLV_PENDING, "Package download suspended", true},
        EndCase{"Stopped", {}, true, false, PKGDLV_PENDING, "Package download suspended", true},
        EndCase{"Retried", {}, false, false, PKGDLV_RETRYING, "Transfer failed", true},
        EndCase{"NotToBeRetried", {}, false, true, PKGDLV_INVALID, "Transfer failed", false},
        EndCase{"AttemptsUsedUp", {}, false, false, PKGDLV_INVALID, "Transfer failed", false, 1},
        // A reason of higher consequence is never overwritten by a lesser
        // one that comes after it.
        EndCase{"CancelledThenPreempted", {2, 1}, false, false, PKGDLV_INVALID, "Package download cancelled", false},
        EndCase{"CancelledThenSuspended", {2, 3}, false, false, PKGDLV_INVALID, "Package download cancelled", false},
        EndCase{"CancelledThenStopped", {2}, true, false, PKGDLV_INVALID, "Package download cancelled", false},
        EndCase{"PreemptedThenCancelled", {1, 2}, false, false, PKGDLV_INVALID, "Package download cancelled", false},
        EndCase{"SuspendedThenPreempted", {3, 1}, false, false, PKGDLV_PENDING, "Package download suspended", true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PackageManagerTest, DecryptFailuresInARowResetTheClientIdentity) {
  SetSetting("Maximum decrypt failures", 3);
  ScriptedStep decrypt = Failure(0x80090005, "Unable to decrypt the GetPackageInfo response");
  ScriptedStep sourcesThenFailure = Failure();
  sourcesThenFailure.outcome.sourcesObtained = true;
  downloader_->Script(IdOf(1), {decrypt, sourcesThenFailure, decrypt, decrypt, decrypt});
  Queue(IdOf(1));
  Engine().Start();

  const std::vector<uint32_t> countAfter{1, 0, 1, 2, 0};
  for (size_t i = 0; i < countAfter.size(); ++i) {
    ASSERT_TRUE(downloader_->AwaitAttempts(i + 1));
    clock_->AwaitTimedWaiters(1);
    EXPECT_EQ(engine_->DecryptFailureCount(), countAfter[i]) << i;
    engine_->OnNetworkStateChanged(0x2);
  }
  EXPECT_EQ(client_->resets.load(), 1);
  EXPECT_EQ(log_->Count("decrypt failure in a row of maximum allowed 3."), 4u);
  EXPECT_TRUE(log_->Contains("Decrypting errors are reached the allowed maximum (3)."));
}

// ---- Resume and robustness ----

TEST_F(PackageManagerTest, ResumeRunsInBatchesAndTheFirstDownloadDoesNotWaitForAllOfThem) {
  for (int n = 1; n <= 600; ++n) WritePackage(IdOf(n), n % 2 ? "pending" : "retrying");
  std::vector<size_t> leftAtAttempt;
  downloader_->OnAttempt([&](const Guid&) { leftAtAttempt.push_back(engine_->ResumeQueueSize()); });
  Engine().Start();
  ASSERT_TRUE(downloader_->AwaitAttempts(3));
  engine_->Stop();
  EXPECT_EQ(std::vector<size_t>(leftAtAttempt.begin(), leftAtAttempt.begin() + 3), (std::vector<size_t>{350, 100, 0}));
  EXPECT_TRUE(log_->Contains("ProcessResumeQueue: processed 250 packages (Remaining: 350)."));
  EXPECT_TRUE(log_->Contains("ProcessResumeQueue: processed 250 packages (Remaining: 100)."));
  EXPECT_TRUE(log_->Contains("All packages are resumed and loaded."));
  EXPECT_EQ(log_->Count("ResumeDownloads: resume package "), 600u);
}

TEST_F(PackageManagerTest, DamagedVanishedAndStrayFoldersNeverStopTheEngine) {
  WritePackage(IdOf(1), "pending");
  std::filesystem::create_directories(WorkFolder() / IdOf(2).ToString());
  testing::WriteFile(WorkFolder() / IdOf(2).ToString() / "package.xml", "<Package id=");
  std::filesystem::create_directories(WorkFolder() / "not-a-guid");
  testing::WriteFile(WorkFolder() / "not-a-guid" / "package.xml", PackageDocument(IdOf(3), "pending", 0, 0));
  std::filesystem::create_directories(WorkFolder() / IdOf(4).ToString());  // no document
  WritePackage(IdOf(5), "valid");
  WritePackage(IdOf(6), "pending", 0, 10);  // vanishes while queued
  WritePackage(IdOf(7), "pending", 0, 20);

  Engine().ResumeDownloads();
  std::filesystem::remove_all(WorkFolder() / IdOf(6).ToString());
  Engine().Start();
  ASSERT_TRUE(downloader_->AwaitAttempts(2));
  ASSERT_TRUE(AwaitLog("PackageRequest has been deleted during download"));
  engine_->Stop();
  EXPECT_EQ(AttemptIds(), (std::vector<Guid>{IdOf(1), IdOf(7)}));
  EXPECT_FALSE(log_->Contains("Error in Run ()"));
  EXPECT_EQ(OnDisk(IdOf(5)).first, PKGDLV_VALID);
}

TEST_F(PackageManagerTest, RunLoopFailureFlushesTheQueueButKeepsEveryRequestOnDisk) {
  client_->failQueries = true;
  Queue(IdOf(1));
  Engine().Start();
  ASSERT_TRUE(AwaitLog("Error in Run (), flushing package queue: The client object failed (0x80004005)"));
  EXPECT_EQ(engine_->queue().Size(), 0u);
  EXPECT_EQ(OnDisk(IdOf(1)).first, PKGDLV_PENDING);

  client_->failQueries = false;
  ASSERT_TRUE(clock_->AwaitTimedWaiters(1));
  clock_->Advance(PackageManager::kRunFailurePauseMs);
  engine_->ResumeDownloads();
  ASSERT_TRUE(downloader_->AwaitAttempts(1));
  engine_->Stop();
  EXPECT_EQ(OnDisk(IdOf(1)).first, PKGDLV_VALID);
}

TEST_F(PackageManagerTest, UnregisteredOrBlockedClientDownloadsNothingUntilWoken) {
  client_->registered = false;
  Queue(IdOf(1));
  Engine().Start();
  ASSERT_TRUE(AwaitLog("Client is not registered. Package download is suspended."));
  client_->registered = true;
  client_->blocked = true;
  const int queriesBefore = client_->blockedQueries;
  engine_->InterruptDownload(1);  // wakes the thread, which finds downloads blocked
  ASSERT_TRUE(Await([&] { return client_->blockedQueries > queriesBefore; }));
  EXPECT_TRUE(downloader_->Attempts().empty());
  client_->blocked = false;
  engine_->InterruptDownload(1);
  ASSERT_TRUE(downloader_->AwaitAttempts(1));
}

TEST_F(PackageManagerTest, OnlyTheLowFourStateBitsReleaseWaitingPackages) {
  struct Case {
    const char* name;
    void (PackageManager::*handler)(uint32_t);
    uint32_t state;
    bool releases;
  } cases[] = {
      {"network, address bit", &PackageManager::OnNetworkStateChanged, 0x4, true},
      {"network, high bit only", &PackageManager::OnNetworkStateChanged, 0x10, false},
      {"server, state bit", &PackageManager::OnServerStateChanged, 0x8, true},
      {"server, high bit only", &PackageManager::OnServerStateChanged, 0x100, false},
  };
  downloader_->SetDefault(Failure());
  Queue(IdOf(1));
  std::shared_ptr<PackageRequest> request = Engine().WaitForReadyPackage();
  Engine().PerformDownload(request);
  request.reset();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(engine_->queue().IsRetryPending(IdOf(1)));
    (engine_.get()->*c.handler)(c.state);
    EXPECT_EQ(engine_->queue().IsRetryPending(IdOf(1)), !c.releases);
    if (c.releases) {
      engine_->PerformDownload(engine_->WaitForReadyPackage());  // fails again: waiting once more
    }
  }
  EXPECT_EQ(log_->Count("Server state changed to 0x"), 2u);
  EXPECT_TRUE(log_->Contains("QS server state changed to 0x00000008, retry downloads if needed"));
  EXPECT_TRUE(log_->Contains("Network state changed to 0x00000004, retry downloads if needed"));
  EXPECT_FALSE(log_->Contains("0x00000010, retry"));
}

// What queuing decides about a resumed record reaches its document, even when
// the status stays the same: the record is let go and read again before it is
// downloaded.
TEST_F(PackageManagerTest, QueuingAResumedUrgentPackageKeepsItsDeadlineStart) {
  std::filesystem::create_directories(WorkFolder() / IdOf(1).ToString());
  testing::WriteFile(WorkFolder() / IdOf(1).ToString() / "package.xml",
                     Format("<Package id=\"%ls\" name=\"p\" version=\"1\" status=\"pending\" "
                            "urgentDownload=\"true\" downloadStartSLA=\"60\"><Source/></Package>",
                            IdOf(1).ToString()));
  clock_->Advance(10 * kMinuteMs);
  const FileTime queuedAt = clock_->Now();
  Engine().ResumeDownloads();
  clock_->Advance(30 * kMinuteMs);
  std::shared_ptr<PackageRequest> request = engine_->WaitForReadyPackage();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->SLAStartTime / kFileTimeTicksPerSecond, queuedAt / kFileTimeTicksPerSecond);
  EXPECT_EQ(request->GetSlaRemainingMinutes(), 30u);
}

TEST_F(PackageManagerTest, AFailingDownloadMachineryFlushesTheQueueAndTheNextRequestRuns) {
  ScriptedStep broken;
  broken.throwFailure = true;
  downloader_->Script(IdOf(1), {broken});
  Queue(IdOf(1));
  Queue(IdOf(2), 0, 100);
  Engine().Start();
  ASSERT_TRUE(AwaitLog("Error in Run (), flushing package queue: The download machinery failed (0x80004005)"));
  ASSERT_TRUE(clock_->AwaitTimedWaiters(1));
  EXPECT_EQ(engine_->queue().Size(), 0u);
  EXPECT_EQ(OnDisk(IdOf(1)).first, PKGDLV_DOWNLOADING);
  EXPECT_EQ(OnDisk(IdOf(2)).first, PKGDLV_PENDING);
  clock_->Advance(PackageManager::kRunFailurePauseMs);
  Queue(IdOf(2), 0, 100);
  ASSERT_TRUE(downloader_->AwaitAttempts(2));
  engine_->Stop();
  EXPECT_EQ(AttemptIds(), (std::vector<Guid>{IdOf(1), IdOf(2)}));
  EXPECT_EQ(OnDisk(IdOf(2)).first, PKGDLV_VALID);
}

// The client's events reach the multicast engine, and the end of a blockout
// wakes the thread, which waits without a time-out while downloads are blocked.
TEST_F(PackageManagerTest, ClientEventsReachTheMulticastEngineAndABlockoutsEndWakesTheThread) {
  auto core = std::make_shared<testing::FakeMulticastCore>();
  services_.multicast_core = core;
  store_->Set(kMulticastSettingsKey, "Enabled", SettingValue::Number(1));
  Engine().Start();
  ASSERT_EQ(engine_->multicast().state(), MulticastEngine::kIdle);

  store_->Set(kMulticastSettingsKey, "Port", SettingValue::Number(52031));
  client_->events().RaiseSettingsChanged();
  EXPECT_EQ(core->Parameters().port, 52031u);
  EXPECT_EQ(core->opened, 2);

  client_->blocked = true;
  client_->events().RaiseBlockoutStarted();
  EXPECT_EQ(engine_->multicast().state(), MulticastEngine::kInterfaceClosed);
  const int queriesBefore = client_->blockedQueries;
  Queue(IdOf(1));  // wakes the thread, which finds downloads blocked
  ASSERT_TRUE(Await([&] { return client_->blockedQueries > queriesBefore; }));

  client_->blocked = false;
  client_->events().RaiseBlockoutExpired();
  EXPECT_TRUE(log_->Contains("OnBlockoutExpired() Communication blockout expired."));
  ASSERT_TRUE(downloader_->AwaitAttempts(1));
  engine_->Stop();
  engine_.reset();
  client_->events().RaiseBlockoutStarted();  // no longer subscribed: reaches nothing
  EXPECT_EQ(log_->Count("OnBlockoutStarted()"), 1u);
}

// Work that holds the queue lock (the quick check of a queued package's
// files) never keeps a stop waiting, and is itself cut short by the stop.
TEST_F(PackageManagerTest, StopDoesNotWaitForTheQueueLockAndCutsTheQuickCheckShort) {
  Event checking, release;
  services_.log = std::make_shared<HookedLogger>(log_, "GetUpdateList checking Hash for file", [&] {
    checking.Set();
    release.Wait(10000);
  });
  {
    std::shared_ptr<PackageRequest> request = PackageWithFiles(IdOf(1), 3);
    // The thread sleeps on a retry time, needing no lock to see the stop.
    downloader_->Script(IdOf(2), {Failure()});
    Queue(IdOf(2));
    Engine().Start();
    ASSERT_TRUE(clock_->AwaitTimedWaiters(1));
    std::jthread queuing([&] { engine_->QueuePackage(request, false); });
    ASSERT_TRUE(checking.Wait(10000));
    std::future<void> stopped = std::async(std::launch::async, [&] { engine_->Stop(); });
    const bool stoppedWhileHeld = stopped.wait_for(10s) == std::future_status::ready;
    release.Set();
    EXPECT_TRUE(stoppedWhileHeld);
  }
  EXPECT_FALSE(engine_->IsRunning());
  // Complete files would make it valid; a check cut short judges nothing
  // complete, and the package resumes at the next start.
  EXPECT_EQ(OnDisk(IdOf(1)).first, PKGDLV_PENDING);
}

TEST_F(PackageManagerTest, StopEndsAWaitAndARunningDownloadPromptlyAndLeavesTheDocumentConsistent) {
  struct Case {
    const char* name;
    ScriptedStep step;
    bool queue;
    StatusText status;  // of package 1 after the stop; -1: never queued
  } cases[] = {
      {"during a download", Hold(), true, {PKGDLV_PENDING, "Package download suspended"}},
      {"during a retry wait", Failure(), true, {PKGDLV_RETRYING, "Server unreachable"}},
      {"waiting for a request", {}, false, {-1, ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(WorkFolder());
    downloader_->SetDefault(c.step);
    const size_t attemptsBefore = downloader_->Attempts().size();
    if (c.queue) Queue(IdOf(1));
    Engine().Start();
    if (c.queue) {
      ASSERT_TRUE(downloader_->AwaitAttempts(attemptsBefore + 1));
    }
    if (!c.step.holdUntilInterrupted) {
      // The thread sleeps: on the retry time, or with no time-out at all.
      ASSERT_EQ(clock_->AwaitTimedWaiters(1, 200), c.queue);
    }
    const auto started = std::chrono::steady_clock::now();
    engine_->Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 250ms);
    EXPECT_EQ(OnDisk(IdOf(1)), c.status);
    engine_.reset();
  }
}

}  // namespace
}  // namespace pkgdlv
