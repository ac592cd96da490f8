#include "multicast/multicast_engine.h"

#include <gtest/gtest.h>

#include <future>

#include "support/fake_multicast_core.h"
#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "support/scripted_downloader.h"

namespace pkgdlv {
namespace {

using E = MulticastEngine;

class MulticastEngineTest : public ::testing::Test {
 protected:
  MulticastEngineTest() {
    Store("Enabled", 1);
    StoreText("Listen Range IP 1 Start", "10.0.0.1");
    StoreText("Listen Range IP 1 End", "");
  }
  void Store(std::string_view name, uint32_t value) {
    store_.Set(kMulticastSettingsKey, name, SettingValue::Number(value));
  }
  void StoreText(std::string_view name, std::string_view value) {
    store_.Set(kMulticastSettingsKey, name, SettingValue::Text(std::string(value)));
  }
  std::unique_ptr<MulticastEngine> Make() {
    E::Dependencies deps;
    deps.core = core_;
    deps.client = client_;
    deps.localAddress = [] { return std::string("192.168.1.20"); };
    return std::make_unique<MulticastEngine>(store_, log_, deps);
  }
  // An engine brought up to its idle state (interface open).
  std::unique_ptr<MulticastEngine> Running() {
    auto engine = Make();
    engine->Manage(E::kReevaluate);
    EXPECT_EQ(engine->Manage(E::kStart), E::kIdle);
    return engine;
  }
  // Starts a download on another thread and waits until its session runs.
  std::future<int> StartDownload(MulticastEngine& engine) {
    auto result = std::async(std::launch::async, [&engine] { return engine.Download_Try(Guid::Generate(), 1 << 20); });
    EXPECT_TRUE(core_->prepared.Wait(5000));
    EXPECT_TRUE(core_->session->running.Wait(5000));
    return result;
  }

  // How often the core was closed, opened, reconfigured and initialised.
  std::tuple<int, int, int, int> Counts() const {
    return {core_->closed.load(), core_->opened.load(), core_->reconfigured.load(), core_->initialised.load()};
  }

  testing::MemorySettingsStore store_;
  testing::RecordingLogger log_;
  std::shared_ptr<testing::FakeClientAgent> client_ = std::make_shared<testing::FakeClientAgent>();
  std::shared_ptr<testing::FakeMulticastCore> core_ = std::make_shared<testing::FakeMulticastCore>();
};

TEST_F(MulticastEngineTest, NothingIsAttemptedWhenDisabledUnregisteredBlockedOrTheCoreFails) {
  const struct {
    const char* name;
    bool enabled, registered, registrationFails, coreInitialises, blockedAtStart;
    int stateAfterStart;
    const char* line;  // logged by CanDownloadPackage or the registration check
  } cases[] = {
      {"disabled", false, true, false, true, false, E::kDisabled,
       "Multicast is disabled. Multicast download not attempted."},
      {"not registered", true, false, false, true, false, E::kDisabled, "Multicast is disabled."},
      {"registration check fails", true, true, true, true, false, E::kDisabled,
       "Exception checking client status. Multicast is disabled."},
      {"core cannot start", true, true, false, false, false, E::kNotInitialised,
       "Engine is not multicast owner. Multicast download not attempted."},
      {"blockout at start", true, true, false, true, true, E::kInterfaceClosed,
       "Manage(): Communication blockout is now in effect. Multicast engine can not be started"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Store("Enabled", c.enabled);
    client_->registered = c.registered;
    client_->failQueries = c.registrationFails;
    core_->initialiseWorks = c.coreInitialises;
    core_->sessionsEndAtOnce = true;
    client_->blocked = c.blockedAtStart;  // no blockout event reaches this engine
    log_.Clear();
    auto engine = Make();
    engine->Manage(E::kReevaluate);
    EXPECT_EQ(engine->Manage(E::kStart), c.stateAfterStart);
    EXPECT_EQ(engine->Download_Try(Guid::Generate(), 1 << 30), kMulticastNotAttempted);
    EXPECT_TRUE(log_.Contains(c.line));
  }
}

TEST_F(MulticastEngineTest, InvalidSettingsOrASmallPackageAreNotAttempted) {
  auto engine = Running();
  EXPECT_EQ(engine->Download_Try(Guid::Generate(), 400 * 1024), kMulticastNotAttempted);
  EXPECT_TRUE(log_.Contains(
      "Download_Try(): Multicast not attempted, package too small (Package Size = 409600, MinPackageSize = 512000)"));
  store_.Delete(kMulticastSettingsKey, "Listen Range IP 1 Start");
  EXPECT_FALSE(engine->CanDownloadPackage());
  EXPECT_TRUE(log_.Contains("Multicast settings are not valid. Multicast download not attempted."));
}

TEST_F(MulticastEngineTest, BlockoutDuringADownloadStopsItAndOnlyAStartMessageReopensAfterExpiry) {
  auto engine = Running();
  std::future<int> download = StartDownload(*engine);
  EXPECT_EQ(engine->state(), E::kDownloading);
  engine->OnBlockoutStarted();
  EXPECT_EQ(download.get(), kMulticastNothing);
  EXPECT_TRUE(core_->session->stopped);
  EXPECT_EQ(engine->state(), E::kInterfaceClosed);
  EXPECT_EQ(engine->Manage(E::kStart), E::kInterfaceClosed);
  engine->OnBlockoutExpired();
  EXPECT_EQ(engine->state(), E::kInterfaceClosed);
  EXPECT_EQ(engine->Manage(E::kStart), E::kIdle);
}

TEST_F(MulticastEngineTest, SettingsChangeDuringADownloadIsAppliedWhenItEnds) {
  auto engine = Running();
  EXPECT_EQ(engine->Manage(E::kSettingsMayHaveChanged), E::kIdle);
  EXPECT_TRUE(log_.Contains("Manage(): no multicast settings changed"));

  std::future<int> download = StartDownload(*engine);
  Store("Port", 52031);
  EXPECT_EQ(engine->Manage(E::kSettingsMayHaveChanged), E::kDownloading);
  EXPECT_EQ(core_->closed, 0);
  core_->session->Finish(kMulticastReceived);
  EXPECT_EQ(download.get(), kMulticastReceived);
  EXPECT_EQ(std::make_tuple(engine->state(), core_->closed.load(), core_->opened.load(), core_->Parameters().port),
            std::make_tuple(E::kIdle, 1, 2, 52031u));
}

// Changed settings reach the core when the interface reopens; a core that
// refuses new settings keeps its interface closed.
TEST_F(MulticastEngineTest, ChangedSettingsReachTheCoreWhenTheInterfaceReopens) {
  auto engine = Running();
  StoreText("IP Address", "239.1.2.3");
  StoreText("Listen Range IP 2 Start", "10.0.1.1");
  StoreText("Listen Range IP 2 End", "10.0.1.9");
  StoreText("Exclusion Range IP 1 Start", "10.0.0.5");
  StoreText("Exclusion Range IP 1 End", "");
  EXPECT_EQ(engine->Manage(E::kSettingsMayHaveChanged), E::kIdle);
  MulticastCoreParameters parameters = core_->Parameters();
  EXPECT_EQ(std::make_tuple(parameters.groupAddress, parameters.listenerRanges, parameters.exclusionRanges),
            std::make_tuple("239.1.2.3", std::vector<AddressRange>{{"10.0.0.1", ""}, {"10.0.1.1", "10.0.1.9"}},
                            std::vector<AddressRange>{{"10.0.0.5", ""}}));
  EXPECT_EQ(Counts(), std::make_tuple(1, 2, 1, 1));


  core_->reconfigureWorks = false;
  Store("Port", 40000);
  EXPECT_EQ(engine->Manage(E::kSettingsMayHaveChanged), E::kInterfaceClosed);
  EXPECT_NE(core_->Parameters().port, 40000u);
  EXPECT_EQ(core_->opened, 2);
}

TEST_F(MulticastEngineTest, MasterSessionsAreLimitedPerClient) {
  auto engine = Make();
  const Guid first = Guid::Generate(), second = Guid::Generate();
  EXPECT_TRUE(engine->AddMasterSession(first));
  EXPECT_FALSE(engine->AddMasterSession(second));
  EXPECT_TRUE(log_.Contains("Too many local active master sessions: local = 1. Max master sessions per client = 1"));
  engine->EndMasterSession(first);
  EXPECT_TRUE(engine->AddMasterSession(second));
}

}  // namespace
}  // namespace pkgdlv
