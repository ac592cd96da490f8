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
using testing::ScriptedStep;

using StatusText = std::pair<int32_t, std::string>;
const std::string kPreempted = "Package download waiting for completion of higher priority job";
const std::string kSuspended = "Package download suspended";
const std::string kCancelled = "Package download cancelled";

Guid IdOf(int n) { return *Guid::Parse(Format("{00000000-0000-0000-0000-%012d}", n)); }

std::string PackageDocument(const Guid& id, std::string_view status, int priority = 0, uint64_t size = 0) {
  return Format("<Package id=\"%ls\" name=\"p\" size=\"%I64u\" version=\"1\" priority=\"%d\" status=\"%ls\">"
                "<Source/></Package>",
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
  HookedLogger(std::shared_ptr<testing::RecordingLogger> log, std::string text, std::function<void()> hook)
      : log_(std::move(log)), text_(std::move(text)), hook_(std::move(hook)) {}
  bool IsEnabled(uint32_t level) override { return log_->IsEnabled(level); }
  void Write(uint32_t level, std::string_view component, std::string_view message) noexcept override {
    if (message.find(text_) != std::string_view::npos) hook_();
    log_->Write(level, component, message);
  }

 private:
  std::shared_ptr<testing::RecordingLogger> log_;
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
  void WritePackage(const Guid& id, const std::string& document) {
    testing::WriteFile(WorkFolder() / id.ToString() / "package.xml", document);
  }
  std::shared_ptr<PackageRequest> NewRequest(const Guid& id, int priority = 0, uint64_t size = 0) {
    auto request = std::make_shared<PackageRequest>(services_);
    EXPECT_TRUE(request->LoadFromXml(PackageDocument(id, "invalid", priority, size)));
    return request;
  }
  void Queue(const Guid& id, int priority = 0, uint64_t size = 0) {
    Engine().QueuePackage(NewRequest(id, priority, size), false);
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
  std::vector<Guid> AttemptIds() {
    std::vector<Guid> ids;
    for (const testing::Attempt& attempt : downloader_->Attempts()) ids.push_back(attempt.id);
    return ids;
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

  testing::TempDir dir_;
  std::shared_ptr<testing::FakeClock> clock_ = std::make_shared<testing::FakeClock>();
  std::shared_ptr<testing::MemorySettingsStore> store_ = std::make_shared<testing::MemorySettingsStore>();
  std::shared_ptr<testing::RecordingLogger> log_ = std::make_shared<testing::RecordingLogger>();
  std::shared_ptr<testing::FakeClientAgent> client_ = std::make_shared<testing::FakeClientAgent>();
  std::shared_ptr<testing::ScriptedDownloader> downloader_ = std::make_shared<testing::ScriptedDownloader>(clock_);
  AgentServices services_;
  std::unique_ptr<PackageManager> engine_;
};

// Neither a lower priority nor an equal one that is larger takes the front.
TEST_F(PackageManagerTest, HigherPriorityRequestPreemptsTheRunningDownloadWhichResumesAfterIt) {
  downloader_->Script(IdOf(1), {Hold()});
  downloader_->Script(IdOf(2), {Hold()});
  Queue(IdOf(1), 0, 100);
  Engine().Start();
  ASSERT_TRUE(downloader_->AwaitAttempts(1));
  EXPECT_EQ(OnDisk(IdOf(1)).first, PKGDLV_DOWNLOADING);
  Queue(IdOf(3), -10, 10);
  Queue(IdOf(4), 0, 5000);
  Queue(IdOf(2), 10, 5000);
  ASSERT_TRUE(downloader_->AwaitAttempts(2));
  EXPECT_EQ(OnDisk(IdOf(1)), StatusText(PKGDLV_PENDING, kPreempted));
  engine_->InterruptDownload(2);  // cancels package 2
  ASSERT_TRUE(downloader_->AwaitAttempts(5));
  EXPECT_EQ(AttemptIds(), (std::vector<Guid>{IdOf(1), IdOf(2), IdOf(1), IdOf(4), IdOf(3)}));
  EXPECT_TRUE(log_->Contains(Format("Package '%ls' was preempted by higher priority package '%ls'",
                                    IdOf(1).ToString(), IdOf(2).ToString())));
  engine_->Stop();
  EXPECT_EQ(OnDisk(IdOf(1)).first, PKGDLV_VALID);
  EXPECT_EQ(OnDisk(IdOf(2)), StatusText(PKGDLV_INVALID, kCancelled));
}

// A stop or a more urgent request that comes after the package was taken but
// before its transfer began still ends the attempt.
TEST_F(PackageManagerTest, InterruptionBeforeTheTransferBeginsIsNotLost) {
  const struct {
    const char* name;
    std::function<void()> interrupt;
    StatusText status;
  } cases[] = {
      {"preempted", [&] { Queue(IdOf(2), 10); }, {PKGDLV_PENDING, kPreempted}},
      {"stopped", [&] { Engine().Stop(); }, {PKGDLV_PENDING, kSuspended}},
  };
  for (const auto& c : cases) {
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

struct EndCase {
  const char* name;
  std::vector<int> interruptions;  // handed to the running transfer during the attempt, in order
  bool stopEvent;  // then the stop event is set, as by a stop that has not reached the transfer yet
  bool noRetry;
  uint32_t maxAttempts;  // 0: no limit
  StatusText status;
  bool staysQueued;
};

void PrintTo(const EndCase& c, std::ostream* os) { *os << c.name; }

class AttemptEndTest : public PackageManagerTest, public ::testing::WithParamInterface<EndCase> {};

// The end of one attempt, without the thread.
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
  EXPECT_EQ(OnDisk(IdOf(1)), c.status);
  EXPECT_EQ(Engine().queue().Contains(IdOf(1)), c.staysQueued);
}

// A reason of higher consequence is never overwritten by a lesser one that comes after it.
INSTANTIATE_TEST_SUITE_P(
    Reasons, AttemptEndTest,
    ::testing::Values(EndCase{"Preempted", {1}, false, false, 0, {PKGDLV_PENDING, kPreempted}, true},
                      EndCase{"Cancelled", {2}, false, false, 0, {PKGDLV_INVALID, kCancelled}, false},
                      EndCase{"Suspended", {3}, false, false, 0, {PKGDLV_PENDING, kSuspended}, true},
                      EndCase{"Stopped", {}, true, false, 0, {PKGDLV_PENDING, kSuspended}, true},
                      EndCase{"Retried", {}, false, false, 0, {PKGDLV_RETRYING, "Transfer failed"}, true},
                      EndCase{"NotToBeRetried", {}, false, true, 0, {PKGDLV_INVALID, "Transfer failed"}, false},
                      EndCase{"AttemptsUsedUp", {}, false, false, 1, {PKGDLV_INVALID, "Transfer failed"}, false},
                      EndCase{"CancelledThenPreempted", {2, 1}, false, false, 0, {PKGDLV_INVALID, kCancelled}, false},
                      EndCase{"SuspendedThenPreempted", {3, 1}, false, false, 0, {PKGDLV_PENDING, kSuspended}, true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PackageManagerTest, DecryptFailuresInARowResetTheClientIdentity) {
  SetSetting("Maximum decrypt failures", 3);
  ScriptedStep decrypt = Failure(0x80090005, "Unable to decrypt the GetPackageInfo response");
  ScriptedStep sourcesThenFailure = Failure();
  sourcesThenFailure.outcome.sourcesObtained = true;
  downloader_->Script(IdOf(1), {decrypt, sourcesThenFailure, decrypt, decrypt, decrypt});
  Queue(IdOf(1));
  Engine().Start();
  std::vector<uint32_t> counts;
  for (size_t i = 1; i <= 5; ++i) {
    ASSERT_TRUE(downloader_->AwaitAttempts(i));
    clock_->AwaitTimedWaiters(1);
    counts.push_back(engine_->DecryptFailureCount());
    i % 2 ? engine_->OnNetworkStateChanged(0x2) : engine_->OnServerStateChanged(0x8);  // either releases the wait
  }
  EXPECT_EQ(counts, (std::vector<uint32_t>{1, 0, 1, 2, 0}));
  EXPECT_EQ(client_->resets.load(), 1);
  EXPECT_TRUE(log_->Contains("Decrypting errors are reached the allowed maximum (3)."));
}

TEST_F(PackageManagerTest, DamagedVanishedAndStrayFoldersNeverStopTheEngine) {
  WritePackage(IdOf(1), PackageDocument(IdOf(1), "pending"));
  WritePackage(IdOf(2), "<Package id=");
  testing::WriteFile(WorkFolder() / "not-a-guid" / "package.xml", PackageDocument(IdOf(3), "pending"));
  std::filesystem::create_directories(WorkFolder() / IdOf(4).ToString());  // no document
  WritePackage(IdOf(5), PackageDocument(IdOf(5), "valid"));
  WritePackage(IdOf(6), PackageDocument(IdOf(6), "pending", 0, 10));  // vanishes while queued
  WritePackage(IdOf(7), PackageDocument(IdOf(7), "pending", 0, 20));

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

// A failure of the client or of the download machinery flushes the queue;
// every request stays on disk, and after a pause the next ones run.
TEST_F(PackageManagerTest, ARunLoopFailureFlushesTheQueueButKeepsEveryRequestOnDisk) {
  ScriptedStep broken;
  broken.throwFailure = true;
  const struct {
    const char* name;
    std::function<void(bool)> breakIt;
    const char* failure;
  } cases[] = {
      {"client", [&](bool on) { client_->failQueries = on; }, "The client object failed"},
      {"machinery", [&](bool on) { if (on) downloader_->Script(IdOf(1), {broken}); }, "The download machinery failed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    engine_.reset();
    log_->Clear();
    std::filesystem::remove_all(WorkFolder());
    c.breakIt(true);
    Queue(IdOf(1));
    Queue(IdOf(2), 0, 100);
    Engine().Start();
    ASSERT_TRUE(AwaitLog(std::string("Error in Run (), flushing package queue: ") + c.failure + " (0x80004005)"));
    ASSERT_TRUE(clock_->AwaitTimedWaiters(1));
    EXPECT_EQ(engine_->queue().Size(), 0u);
    EXPECT_EQ(OnDisk(IdOf(2)).first, PKGDLV_PENDING);
    c.breakIt(false);
    clock_->Advance(PackageManager::kRunFailurePauseMs);
    engine_->ResumeDownloads();
    EXPECT_TRUE(Await([&] { return OnDisk(IdOf(2)).first == PKGDLV_VALID; }));
  }
}

// The client's events reach the multicast engine; an unregistered or blocked
// client downloads nothing, and the end of a blockout wakes the thread.
TEST_F(PackageManagerTest, ClientStateAndEventsGovernDownloadsAndReachTheMulticastEngine) {
  auto core = std::make_shared<testing::FakeMulticastCore>();
  services_.multicast_core = core;
  store_->Set(kMulticastSettingsKey, "Enabled", SettingValue::Number(1));
  Engine().Start();
  ASSERT_EQ(engine_->multicast().state(), MulticastEngine::kIdle);
  store_->Set(kMulticastSettingsKey, "Port", SettingValue::Number(52031));
  client_->events().RaiseSettingsChanged();
  EXPECT_EQ(std::make_tuple(core->Parameters().port, core->opened.load()), std::make_tuple(52031u, 2));

  client_->registered = false;
  engine_->InterruptDownload(1);  // wakes the thread, which finds the client unregistered
  ASSERT_TRUE(AwaitLog("Client is not registered. Package download is suspended."));
  Queue(IdOf(1));
  client_->blocked = true;  // before the registration, which the woken thread may see at once
  client_->registered = true;
  client_->events().RaiseBlockoutStarted();
  EXPECT_EQ(engine_->multicast().state(), MulticastEngine::kInterfaceClosed);
  const int queriesBefore = client_->blockedQueries;
  engine_->InterruptDownload(1);  // wakes the thread, which finds downloads blocked
  ASSERT_TRUE(Await([&] { return client_->blockedQueries > queriesBefore; }));
  EXPECT_TRUE(downloader_->Attempts().empty());

  client_->blocked = false;
  client_->events().RaiseBlockoutExpired();
  EXPECT_TRUE(log_->Contains("OnBlockoutExpired() Communication blockout expired."));
  ASSERT_TRUE(downloader_->AwaitAttempts(1));
  engine_.reset();
  client_->events().RaiseBlockoutStarted();  // no longer subscribed: reaches nothing
  EXPECT_EQ(log_->Count("OnBlockoutStarted()"), 1u);
}

// The thread judges the client before it waits for the queue; a client that
// stops being registered during the wait is seen before a package is taken.
TEST_F(PackageManagerTest, AClientThatChangesDuringTheWaitIsJudgedAgain) {
  downloader_->Script(IdOf(2), {Failure()});
  Engine().Start();
  Queue(IdOf(2));
  ASSERT_TRUE(downloader_->AwaitAttempts(1));
  ASSERT_TRUE(clock_->AwaitTimedWaiters(1));  // waiting for the retry, with the client judged fit
  client_->registered = false;
  Queue(IdOf(1));  // wakes the thread
  ASSERT_TRUE(AwaitLog("Client is not registered. Package download is suspended."));
  EXPECT_EQ(downloader_->Attempts().size(), 1u);
}

// Work that holds the queue lock (the quick check of a queued package's
// files) never keeps a stop waiting, and is itself cut short by the stop.
TEST_F(PackageManagerTest, StopDoesNotWaitForTheQueueLockAndCutsTheQuickCheckShort) {
  Event checking, release;
  services_.log = std::make_shared<HookedLogger>(log_, "GetUpdateList checking Hash for file", [&] {
    checking.Set();
    release.Wait(10000);
  });
  // A request that brings its own snapshot of three complete files not checked yet.
  const std::filesystem::path folder = WorkFolder() / IdOf(1).ToString();
  for (int i = 0; i < 3; ++i) testing::WriteFile(folder / Format("file%d.bin", i), std::string(4096, 'a'));
  std::shared_ptr<PackageRequest> request = NewRequest(IdOf(1));
  {
    auto lock = request->Lock();
    request->hasSnapshot = true;
    BuildSnapshotFromFolder(folder, {}, request->snapshot());
    request->snapshot().path = folder.string();
    for (SnapshotEntry& entry : request->snapshot().entries) entry.state = entrystate::kNotChecked;
  }
  {
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

}  // namespace
}  // namespace pkgdlv
