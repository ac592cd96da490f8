#include "records/delivery_settings.h"

#include <gtest/gtest.h>

#include <functional>

#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "support/temp_dir.h"

namespace pkgdlv {
namespace {

using testing::RecordingLogger;
using testing::TempDir;

using Getter = std::function<uint64_t(DeliverySettings&)>;

// The accessors, named independently of the implementation's table.
const Getter kRetryDelayMs = [](DeliverySettings& s) -> uint64_t { return s.RetryDelayMs(); };
const Getter kUrgentRetryDelayMs = [](DeliverySettings& s) -> uint64_t { return s.UrgentRetryDelayMs(); };
const Getter kMaxRetryDelayMs = [](DeliverySettings& s) -> uint64_t { return s.MaxRetryDelayMs(); };
const Getter kMaxDownloadAttempts = [](DeliverySettings& s) -> uint64_t { return s.MaxDownloadAttempts(); };
const Getter kMaxAttemptTimeMs = [](DeliverySettings& s) -> uint64_t { return s.MaxDownloadAttemptTimeMs(); };
const Getter kHistorySize = [](DeliverySettings& s) -> uint64_t { return s.HistorySize(); };
const Getter kMinDiskFreeBytes = [](DeliverySettings& s) -> uint64_t { return s.MinDiskFreeSpaceBytes(); };
const Getter kSourceExpiryMinutes = [](DeliverySettings& s) -> uint64_t { return s.PackageSourceExpiryMinutes(); };
const Getter kKeepAliveSeconds = [](DeliverySettings& s) -> uint64_t { return s.SiteTransferKeepAliveSeconds(); };
const Getter kMaxBackoffMinutes = [](DeliverySettings& s) -> uint64_t { return s.ServerRequestMaxBackoffMinutes(); };
const Getter kMaxDecryptFailures = [](DeliverySettings& s) -> uint64_t { return s.MaxDecryptFailures(); };

class DeliverySettingsTest : public ::testing::Test {
 protected:
  std::optional<SettingValue> Stored(std::string_view name) { return store_->Get(kDeliverySettingsKey, name); }
  void Store(std::string_view name, uint32_t value) {
    store_->Set(kDeliverySettingsKey, name, SettingValue::Number(value));
  }

  TempDir dir_;
  std::shared_ptr<SettingsStore> store_ = OpenSqliteSettingsStore(dir_ / "settings.db");
  RecordingLogger log_;
  DeliverySettings settings_{*store_, log_};
};

// A setting's name and accessor, a stored number and what the accessor
// gives; or, for a missing setting, the default that its first read writes.
constexpr bool kMissing = true;
struct ValueCase {
  const char* name;
  Getter read;
  uint32_t stored;
  uint64_t result;
  bool missing = false;
};

// A missing value is written with its default at its first read; a stored
// value is limited to its range but never corrected, and read as signed or
// unsigned as the setting is.
TEST_F(DeliverySettingsTest, DefaultsAreWrittenAndStoredValuesLimitedButNeverCorrected) {
  const std::vector<ValueCase> cases = {
      {"Retry delay (mins)", kRetryDelayMs, 3, 180'000, kMissing},
      {"Retry delay (mins)", kRetryDelayMs, 0, 60'000},
      {"Retry delay (mins)", kRetryDelayMs, 500, 3'600'000},
      {"Retry delay (mins)", kRetryDelayMs, 0xFFFFFFFF, 60'000},  // signed: -1
      {"Urgent retry delay (ms)", kUrgentRetryDelayMs, 22'500, 22'500, kMissing},
      {"Urgent retry delay (ms)", kUrgentRetryDelayMs, 4'999, 5'000},
      {"Urgent retry delay (ms)", kUrgentRetryDelayMs, 1'000'000, 180'000},
      {"Urgent retry delay (ms)", kUrgentRetryDelayMs, 0x80000000, 5'000},
      {"Maximum retry delay (mins)", kMaxRetryDelayMs, 120, 7'200'000, kMissing},
      {"Maximum retry delay (mins)", kMaxRetryDelayMs, 0, 60'000},
      {"Maximum retry delay (mins)", kMaxRetryDelayMs, 1'441, 86'400'000},
      {"Maximum download attempts", kMaxDownloadAttempts, 0, 0, kMissing},
      {"Maximum download attempts", kMaxDownloadAttempts, 100, 100},
      {"Maximum download attempts", kMaxDownloadAttempts, 101, 0},
      {"Maximum download attempts", kMaxDownloadAttempts, 0xFFFFFFFF, 0},  // unsigned: very large
      {"Maximum download attempt time (mins)", kMaxAttemptTimeMs, 0, 0, kMissing},
      {"Maximum download attempt time (mins)", kMaxAttemptTimeMs, 20'160, 1'209'600'000},
      {"Maximum download attempt time (mins)", kMaxAttemptTimeMs, 20'161, 0},
      {"Download history size", kHistorySize, 30, 30, kMissing},
      {"Download history size", kHistorySize, 100, 100},
      {"Download history size", kHistorySize, 101, 0},
      {"Min Disk Free Space (MBytes)", kMinDiskFreeBytes, 500, 524'288'000, kMissing},
      {"Min Disk Free Space (MBytes)", kMinDiskFreeBytes, 10, 52'428'800},
      {"Min Disk Free Space (MBytes)", kMinDiskFreeBytes, 0x1000001, 0x1000000ull * 1'048'576},
      {"Min Disk Free Space (MBytes)", kMinDiskFreeBytes, 0xFFFFFFFF, 52'428'800},
      {"Package Source Expiry (mins)", kSourceExpiryMinutes, 10, 10, kMissing},
      {"Package Source Expiry (mins)", kSourceExpiryMinutes, 0, 1},
      {"Package Source Expiry (mins)", kSourceExpiryMinutes, 10'081, 10'080},
      {"Site transfer keep-alive interval (seconds)", kKeepAliveSeconds, 300, 300, kMissing},
      {"Site transfer keep-alive interval (seconds)", kKeepAliveSeconds, 9, 10},
      {"Site transfer keep-alive interval (seconds)", kKeepAliveSeconds, 901, 900},
      {"Server Request Maximum Backoff Interval (mins)", kMaxBackoffMinutes, 120, 120, kMissing},
      {"Server Request Maximum Backoff Interval (mins)", kMaxBackoffMinutes, 0, 1},
      {"Server Request Maximum Backoff Interval (mins)", kMaxBackoffMinutes, 1'441, 1'440},
      {"Maximum decrypt failures", kMaxDecryptFailures, 10, 10, kMissing},
      {"Maximum decrypt failures", kMaxDecryptFailures, 0, 10},
      {"Maximum decrypt failures", kMaxDecryptFailures, 1, 1},
      {"Maximum decrypt failures", kMaxDecryptFailures, 0xFFFFFFFF, 10},
  };
  for (const ValueCase& c : cases) {
    SCOPED_TRACE(std::string(c.name) + (c.missing ? " missing" : " stored " + std::to_string(c.stored)));
    if (c.missing) {
      ASSERT_EQ(Stored(c.name), std::nullopt);
    } else {
      Store(c.name, c.stored);
    }
    EXPECT_EQ(c.read(settings_), c.result);
    EXPECT_EQ(Stored(c.name), SettingValue::Number(c.stored));
  }
  EXPECT_EQ(DeliverySettings::Rules().size(), 11u);
  EXPECT_FALSE(log_.Contains("Unable to save setting"));

  // A value of the wrong type is replaced by the default.
  store_->Set(kDeliverySettingsKey, "Download history size", SettingValue::Text("50"));
  EXPECT_EQ(settings_.HistorySize(), 30u);
  EXPECT_EQ(Stored("Download history size"), SettingValue::Number(30));
}

struct SetterCase {
  const char* description;
  std::function<void(DeliverySettings&)> set;
  const char* name;
  uint32_t stored;
  Getter read;
  uint64_t read_back;
};

TEST_F(DeliverySettingsTest, SettersStoreTheirArgumentInTheStoredUnit) {
  using S = DeliverySettings;
  const std::vector<SetterCase> cases = {
      {"retry 119999 ms", [](S& s) { s.SetRetryDelayMs(119'999); }, "Retry delay (mins)", 1, kRetryDelayMs, 60'000},
      {"retry 300000 ms", [](S& s) { s.SetRetryDelayMs(300'000); }, "Retry delay (mins)", 5, kRetryDelayMs, 300'000},
      {"retry -120000 ms", [](S& s) { s.SetRetryDelayMs(-120'000); }, "Retry delay (mins)", 0xFFFFFFFE,
       kRetryDelayMs, 60'000},
      {"retry -59999 ms", [](S& s) { s.SetRetryDelayMs(-59'999); }, "Retry delay (mins)", 0, kRetryDelayMs, 60'000},
      {"max retry 100000000 ms", [](S& s) { s.SetMaxRetryDelayMs(100'000'000); }, "Maximum retry delay (mins)",
       1'666, kMaxRetryDelayMs, 86'400'000},
      {"history 101", [](S& s) { s.SetHistorySize(101); }, "Download history size", 101, kHistorySize, 0},
      {"attempts 7", [](S& s) { s.SetMaxDownloadAttempts(7); }, "Maximum download attempts", 7,
       kMaxDownloadAttempts, 7},
      // Stored unchanged as minutes; its getter gives milliseconds.
      {"attempt time 90", [](S& s) { s.SetMaxDownloadAttemptTime(90); }, "Maximum download attempt time (mins)", 90,
       kMaxAttemptTimeMs, 5'400'000},
  };
  for (const SetterCase& c : cases) {
    c.set(settings_);
    EXPECT_EQ(Stored(c.name), SettingValue::Number(c.stored)) << c.description;
    EXPECT_EQ(c.read(settings_), c.read_back) << c.description;
  }
}

TEST_F(DeliverySettingsTest, FailedWritesAreLoggedAndOtherwiseIgnored) {
  testing::MemorySettingsStore failing;
  failing.FailWrites(true);
  DeliverySettings settings(failing, log_);

  EXPECT_EQ(settings.RetryDelayMs(), 180'000u);  // the default is still used
  EXPECT_EQ(settings.SiteTransferKeepAliveSeconds(), 300u);
  EXPECT_NO_THROW(settings.SetHistorySize(12));

  EXPECT_TRUE(log_.Contains("Unable to save setting: Retry delay (mins): Access is denied. ("));
  EXPECT_TRUE(log_.Contains("Unable to save setting: Site transfer keep-alive interval (seconds): "));
  EXPECT_TRUE(log_.Contains("Unable to save setting: Download history size: "));
  for (const testing::LogLine& line : log_.Lines()) {
    EXPECT_EQ(line.level, loglevel::kError);
    EXPECT_EQ(line.component, "ObjectSettings::SetValue");
  }
  EXPECT_TRUE(failing.List("").empty());
}

}  // namespace
}  // namespace pkgdlv
