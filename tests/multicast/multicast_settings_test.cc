#include "multicast/multicast_settings.h"

#include <gtest/gtest.h>

#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

class MulticastSettingsTest : public ::testing::Test {
 protected:
  void StoreText(std::string_view name, std::string text) {
    store_.Set(kMulticastSettingsKey, name, SettingValue::Text(std::move(text)));
  }

  testing::MemorySettingsStore store_;
  testing::RecordingLogger log_;
  MulticastSettings settings_{store_, log_};
};

TEST_F(MulticastSettingsTest, ReadingClampsWhatIsStoredAndWritesOnlyTheInactiveTime) {
  EXPECT_EQ(settings_.MinBandwidth(), 5000u);  // 65536 capped by the maximum
  EXPECT_EQ(store_.WriteCount(), 0u);
  EXPECT_EQ(settings_.MasterSessionInactiveMinutes(), 360u);
  EXPECT_EQ(store_.Get(kMulticastSettingsKey, "Master session inactive time (min)"), SettingValue::Number(360));
  const struct {
    const char* name;
    int32_t stored;
    uint32_t (MulticastSettings::*read)();
    uint32_t expected;
  } cases[] = {
      {"Port", -1, &MulticastSettings::Port, 52030},
      {"Max Master sessions per client", 0, &MulticastSettings::MaxMastersPerClient, 1},
      {"Min Bandwidth (bytes per sec)", -4, &MulticastSettings::MinBandwidth, 0},
      {"Master session inactive time (min)", 1, &MulticastSettings::MasterSessionInactiveMinutes, 5},
  };
  for (const auto& c : cases) {
    store_.Set(kMulticastSettingsKey, c.name, SettingValue::Number(static_cast<uint32_t>(c.stored)));
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
}

std::string RangeDocument(size_t ranges, const std::string& start) {
  std::string text = "<listenRange>";
  for (size_t i = 0; i < ranges; ++i) text += "<address><start>" + start + "</start><end/></address>";
  return text + "</listenRange>";
}

// A document that does not load says why and where; a list past the limits
// (number of ranges, length of an address) is refused whole and changes
// nothing, and so is a group address past the length limit.
TEST_F(MulticastSettingsTest, RangeDocumentsAndAddressesHaveLimits) {
  settings_.SetListenerRanges({{"10.0.0.1", "10.0.0.9"}});
  const std::string longAddress(kMaxAddressTextBytes + 1, '1');
  const struct {
    const char* name;
    std::string document;
    std::string failure;  // the start of the description; empty: taken
  } cases[] = {
      {"broken", "<listenRange>\n<address>", "Multicast Listener Range XML failed to load: "},
      {"most ranges", RangeDocument(kMaxAddressRanges, "10.0.0.2"), ""},
      {"too many ranges", RangeDocument(kMaxAddressRanges + 1, "10.0.0.3"),
       "Multicast Listener Range: 257 ranges are more than the 256 allowed"},
      {"longest address", RangeDocument(1, std::string(kMaxAddressTextBytes, '2')), ""},
      {"address too long", RangeDocument(1, longAddress),
       "Multicast Listener Range: an address of 65 bytes is longer than the 64 allowed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::vector<AddressRange> before = settings_.ListenerRanges();
    try {
      settings_.SetListenerRangeDocument(c.document);
      EXPECT_TRUE(c.failure.empty());
      EXPECT_NE(settings_.ListenerRanges(), before);
    } catch (const Error& e) {
      EXPECT_EQ(e.code(), result::kInvalidArg);
      EXPECT_TRUE(!c.failure.empty() && e.description().starts_with(c.failure)) << e.description();
      EXPECT_EQ(settings_.ListenerRanges(), before);
    }
  }
  try {
    settings_.SetExclusionRangeDocument("<exclusionRange>");
    ADD_FAILURE() << "a broken document was taken";
  } catch (const Error& e) {
    EXPECT_NE(e.description().find("(line 1)"), std::string::npos) << e.description();
  }
  EXPECT_THROW(settings_.SetIPAddress(longAddress), Error);
  EXPECT_EQ(settings_.IPAddress(), "224.0.255.135");
}

}  // namespace
}  // namespace pkgdlv
