#include "multicast/multicast_settings.h"

#include <gtest/gtest.h>

#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

class MulticastSettingsTest : public ::testing::Test {
 protected:
  void Store(std::string_view name, int32_t value) {
    store_.Set(kMulticastSettingsKey, name, SettingValue::Number(static_cast<uint32_t>(value)));
  }
  void StoreText(std::string_view name, std::string text) {
    store_.Set(kMulticastSettingsKey, name, SettingValue::Text(std::move(text)));
  }

  testing::MemorySettingsStore store_;
  testing::RecordingLogger log_;
  MulticastSettings settings_{store_, log_};
};

TEST_F(MulticastSettingsTest, AFreshStoreReadsTheDefaultsAndWritesOnlyTheInactiveTime) {
  EXPECT_FALSE(settings_.Enabled());
  EXPECT_EQ(settings_.IPAddress(), "224.0.255.135");
  EXPECT_EQ(settings_.Port(), 52030u);
  EXPECT_EQ(settings_.TimeToWaitToBeginSession(), 240u);
  EXPECT_EQ(settings_.NumClientsToWaitToBegin(), 5u);
  EXPECT_EQ(settings_.MaxBandwidth(), 5000u);
  EXPECT_EQ(settings_.MinBandwidth(), 5000u);  // 65536 capped by the maximum
  EXPECT_TRUE(settings_.ByDefaultUseMulticast());
  EXPECT_EQ(store_.WriteCount(), 0u);
  EXPECT_EQ(settings_.MasterSessionInactiveMinutes(), 360u);
  EXPECT_EQ(store_.Get(kMulticastSettingsKey, "Master session inactive time (min)"), SettingValue::Number(360));
}

struct ReadingCase {
  const char* name;
  int32_t stored;
  uint32_t (MulticastSettings::*read)();
  uint32_t expected;
};

TEST_F(MulticastSettingsTest, ReadingRulesClampWhatIsStored) {
  const ReadingCase cases[] = {
      {"Port", -1, &MulticastSettings::Port, 52030},
      {"Max Master sessions per client", 0, &MulticastSettings::MaxMastersPerClient, 1},
      {"Min Bandwidth (bytes per sec)", 2000, &MulticastSettings::MinBandwidth, 2000},
      {"Min Bandwidth (bytes per sec)", 9000, &MulticastSettings::MinBandwidth, 5000},
      {"Min Bandwidth (bytes per sec)", -4, &MulticastSettings::MinBandwidth, 0},
      {"Master session inactive time (min)", 1, &MulticastSettings::MasterSessionInactiveMinutes, 5},
      {"Master session inactive time (min)", 20000, &MulticastSettings::MasterSessionInactiveMinutes, 10080},
  };
  for (const ReadingCase& c : cases) {
    Store(c.name, c.stored);
    EXPECT_EQ((settings_.*c.read)(), c.expected) << c.name << " = " << c.stored;
  }
  StoreText("IP Address", "");
  EXPECT_EQ(settings_.IPAddress(), "224.0.255.135");
}

TEST_F(MulticastSettingsTest, RangesAreReadUpToTheFirstGapAndReplacedWhole) {
  for (int n : {1, 2, 4}) {
    StoreText(Format("Listen Range IP %d Start", n), Format("10.0.%d.1", n));
    StoreText(Format("Listen Range IP %d End", n), n == 2 ? "" : Format("10.0.%d.9", n));
  }
  EXPECT_EQ(settings_.ListenerRanges(), (std::vector<AddressRange>{{"10.0.1.1", "10.0.1.9"}, {"10.0.2.1", ""}}));

  settings_.SetListenerRangeDocument(
      "<listenRange><address><start>192.168.0.1</start><end>192.168.0.50</end></address></listenRange>");
  EXPECT_EQ(settings_.ListenerRanges(), (std::vector<AddressRange>{{"192.168.0.1", "192.168.0.50"}}));
  EXPECT_FALSE(store_.Get(kMulticastSettingsKey, "Listen Range IP 2 Start").has_value());

  // The getter's own document has another root name and selects nothing.
  const std::string produced = settings_.ListenerRangeDocument();
  EXPECT_EQ(produced,
            "<listenerRange><address><start>192.168.0.1</start><end>192.168.0.50</end></address></listenerRange>");
  settings_.SetListenerRangeDocument(produced);
  EXPECT_TRUE(settings_.ListenerRanges().empty());

  settings_.SetExclusionRangeDocument(
      "<exclusionRange><address><start>10.1.1.1</start><end/></address></exclusionRange>");
  EXPECT_EQ(settings_.ExclusionRanges(), (std::vector<AddressRange>{{"10.1.1.1", ""}}));
  try {
    settings_.SetExclusionRangeDocument("<exclusionRange>");
    ADD_FAILURE() << "a broken document was taken";
  } catch (const Error& e) {
    EXPECT_EQ(e.description(), "Multicast Exclusion Range XML failed to load");
  }
  EXPECT_EQ(settings_.ExclusionRanges().size(), 1u);
}

}  // namespace
}  // namespace pkgdlv
