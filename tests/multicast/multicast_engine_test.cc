#include "multicast/multicast_engine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "support/fake_multicast_core.h"
#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "support/scripted_downloader.h"
#include "util/event.h"

namespace pkgdlv {
namespace {

using E = MulticastEngine;

class MulticastEngineTest : public ::testing::Test {
 protected:
  MulticastEngineTest() {
    Store("Enabled", 1);
    store_.Set(kMulticastSettingsKey, "Listen Range IP 1 Start", SettingValue::Text("10.0.0.1"));
    store_.Set(kMulticastSettingsKey, "Listen Range IP 1 End", SettingValue::Text(""));
  }
  void Store(std::string_view name, uint32_t value) {
    store_.Set(kMulticastSettingsKey, name, SettingValue::Number(value));
  }
  std::unique_ptr<MulticastEngine> Make(std::shared_ptr<MulticastCore> core) {
    E::Dependencies deps;
    deps.core = std::move(core);
    deps.client = client_;
    deps.localAddress = [] { return std::string("192.168.1.20"); };
    return std::make_unique<MulticastEngine>(store_, log_, deps);
  }
  // An engine brought up to its idle state (interface open).
  std::unique_ptr<MulticastEngine> Running() {
    auto engine = Make(core_);
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

  testing::MemorySettingsStore store_;
  testing::RecordingLogger log_;
  std::shared_ptr<testing::FakeClientAgent> client_ = std::make_shared<testing::FakeClientAgent>();
  std::shared_ptr<testing::FakeMulticastCore> core_ = std::make_shared<testing::FakeMulticastCore>();
};

TEST_F(MulticastEngineTest, StartUpDecidesEnablementThenInitialisesTheCoreWithTheSettings) {
  auto engine = Running();
  const MulticastCoreParameters parameters = core_->Parameters();
  EXPECT_EQ(parameters.localAddress, "192.168.1.20");
  EXPECT_EQ(parameters.waitSeconds, 240u);
  EXPECT_EQ(parameters.listenerRanges, (std::vector<AddressRange>{{"10.0.0.1", ""}}));
  EXPECT_EQ(core_->Limits(), std::make_pair(5000u, 5000u));
  EXPECT_EQ(core_->opened, 1);
  EXPECT_TRUE(engine->CanDownloadPackage());

  engine->Manage(E::kTerminate);
  EXPECT_EQ(engine->state(), E::kEnded);
  EXPECT_EQ(core_->closed, 1);
  EXPECT_EQ(core_->shutdowns, 1);
  EXPECT_EQ(engine->Manage(E::kStart), E::kEnded);
}

struct EnablementCase {
  const char* name;
  bool enabled, registered, registrationFails, coreInitialises, blockedAtStart;
  int stateAfterStart;
  const char* line;  // logged by CanDownloadPackage or the registration check
};

void PrintTo(const EnablementCase& c, std::ostream* os) { *os << c.name; }

class EnablementTest : public MulticastEngineTest, public ::testing::WithParamInterface<EnablementCase> {};

TEST_P(EnablementTest, DecidesTheStateAndWhyNothingIsAttempted) {
  const EnablementCase& c = GetParam();
  Store("Enabled", c.enabled);
  client_->registered = c.registered;
  client_->failQueries = c.registrationFails;
  core_->initialiseWorks = c.coreInitialises;
  core_->sessionsEndAtOnce = true;
  client_->blocked = c.blockedAtStart;  // no blockout event reaches this engine
  auto engine = Make(core_);
  engine->Manage(E::kReevaluate);
  EXPECT_EQ(engine->Manage(E::kStart), c.stateAfterStart);
  EXPECT_EQ(engine->Download_Try(Guid::Generate(), 1 << 30), kMulticastNotAttempted);
  EXPECT_TRUE(log_.Contains(c.line)) << c.line;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, EnablementTest,
    ::testing::Values(
        EnablementCase{"Disabled", false, true, false, true, false, E::kDisabled,
                       "Multicast is disabled. Multicast download not attempted."},
        EnablementCase{"NotRegistered", true, false, false, true, false, E::kDisabled,
                       "Multicast is disabled. Multicast download not attempted."},
        EnablementCase{"RegistrationCheckFails", true, true, true, true, false, E::kDisabled,
                       "Exception checking client status. Multicast is disabled."},
        EnablementCase{"CoreCannotStart", true, true, false, false, false, E::kNotInitialised,
                       "Engine is not multicast owner. Multicast download not attempted."},
        EnablementCase{"BlockoutInForceAtStart", true, true, false, true, true, E::kInterfaceClosed,
                       "Manage(): Communication blockout is now in effect. Multicast engine can not be started"}),
    [](const auto& info) { return std::string(info.param.name); });

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
  EXPECT_TRUE(log_.Contains("Manage(): Communication blockout is now in effect. Multicast engine can not be started"));

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
  EXPECT_EQ(engine->state(), E::kIdle);
  EXPECT_EQ(core_->closed, 1);
  EXPECT_EQ(core_->opened, 2);
  EXPECT_EQ(core_->Parameters().port, 52031u);
}

struct SettingsChangeCase {
  const char* name;
  std::function<void(testing::MemorySettingsStore&)> change;
  std::function<bool(const MulticastCoreParameters&, std::pair<uint32_t, uint32_t>)> reachedCore;
  bool reconfigures;  // the speed limits alone need no new parameters
};

void PrintTo(const SettingsChangeCase& c, std::ostream* os) { *os << c.name; }

class SettingsChangeTest : public MulticastEngineTest, public ::testing::WithParamInterface<SettingsChangeCase> {};

TEST_P(SettingsChangeTest, ReachesTheCoreWhenTheInterfaceReopens) {
  const SettingsChangeCase& c = GetParam();
  auto engine = Running();
  c.change(store_);
  EXPECT_EQ(engine->Manage(E::kSettingsMayHaveChanged), E::kIdle);
  EXPECT_EQ(core_->closed, 1);
  EXPECT_EQ(core_->opened, 2);
  EXPECT_EQ(core_->reconfigured, c.reconfigures ? 1 : 0);
  EXPECT_TRUE(c.reachedCore(core_->Parameters(), core_->Limits()));
  EXPECT_EQ(core_->initialised, 1);

  // A core that refuses new settings keeps its interface closed.
  const uint32_t portBefore = core_->Parameters().port;
  core_->reconfigureWorks = false;
  Store("Port", 40000);
  EXPECT_EQ(engine->Manage(E::kSettingsMayHaveChanged), E::kInterfaceClosed);
  EXPECT_EQ(core_->Parameters().port, portBefore);
  EXPECT_EQ(core_->opened, 2);
}

void StoreText(testing::MemorySettingsStore& store, std::string_view name, std::string_view value) {
  store.Set(kMulticastSettingsKey, name, SettingValue::Text(std::string(value)));
}

INSTANTIATE_TEST_SUITE_P(
    Settings, SettingsChangeTest,
    ::testing::Values(
        SettingsChangeCase{"Group", [](auto& s) { StoreText(s, "IP Address", "239.1.2.3"); },
                           [](const auto& p, auto) { return p.groupAddress == "239.1.2.3"; }, true},
        SettingsChangeCase{
            "Bandwidth",
            [](auto& s) { s.Set(kMulticastSettingsKey, "Max Bandwidth (bytes per sec)", SettingValue::Number(9000)); },
            [](auto, auto limits) { return limits.first == 9000u; }, false},
        SettingsChangeCase{"ListenerRange",
                           [](auto& s) {
                             StoreText(s, "Listen Range IP 2 Start", "10.0.1.1");
                             StoreText(s, "Listen Range IP 2 End", "10.0.1.9");
                           },
                           [](const auto& p, auto) {
                             return p.listenerRanges ==
                                    std::vector<AddressRange>{{"10.0.0.1", ""}, {"10.0.1.1", "10.0.1.9"}};
                           },
                           true},
        SettingsChangeCase{"ExclusionRange",
                           [](auto& s) {
                             StoreText(s, "Exclusion Range IP 1 Start", "10.0.0.5");
                             StoreText(s, "Exclusion Range IP 1 End", "");
                           },
                           [](const auto& p, auto) {
                             return p.exclusionRanges == std::vector<AddressRange>{{"10.0.0.5", ""}};
                           },
                           true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(MulticastEngineTest, MasterSessionsAreLimitedPerClient) {
  auto engine = Make(core_);
  const Guid first = Guid::Generate(), second = Guid::Generate();
  EXPECT_TRUE(engine->AddMasterSession(first));
  EXPECT_FALSE(engine->AddMasterSession(second));
  EXPECT_TRUE(log_.Contains(
      "Cannot add package to master session. Too many local active master sessions: local = 1. Max master sessions per "
      "client = 1"));
  engine->EndMasterSession(first);
  EXPECT_TRUE(engine->AddMasterSession(second));
}

}  // namespace
}  // namespace pkgdlv
