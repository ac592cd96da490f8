#include "records/configuration_document.h"

#include <gtest/gtest.h>

#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "support/temp_dir.h"
#include "util/error.h"
#include "util/xml.h"

namespace pkgdlv {
namespace {

using testing::RecordingLogger;
using testing::TempDir;
using Attributes = std::vector<std::pair<std::string, std::string>>;

class ConfigurationDocumentTest : public ::testing::Test {
 protected:
  void Write(std::string_view xml) { WriteConfigurationDocument(xml, settings_, work_folder_); }
  std::optional<SettingValue> Stored(std::string_view name) { return store_->Get(kDeliverySettingsKey, name); }

  TempDir dir_;
  std::shared_ptr<SettingsStore> store_ = OpenSqliteSettingsStore(dir_ / "settings.db");
  RecordingLogger log_;
  DeliverySettings settings_{*store_, log_};
  std::string folder_ = "/var/lib/pkgdlv/Package Delivery";
  WorkFolderAccess work_folder_{[this] { return folder_; },
                                [this](const std::string& folder) { folder_ = folder; }};
};

// The document gives the attempt time in milliseconds but stores what it is
// given unchanged as minutes: a read written back multiplies it.
TEST_F(ConfigurationDocumentTest, ReadingAndWritingBackMultipliesTheMaximumAttemptTime) {
  store_->Set(kDeliverySettingsKey, "Maximum download attempt time (mins)", SettingValue::Number(5));
  store_->Set(kDeliverySettingsKey, "Retry delay (mins)", SettingValue::Number(7));
  store_->Set(kDeliverySettingsKey, "Download history size", SettingValue::Number(101));
  folder_ = "/srv/a \"b\" & <c>";
  const std::string document = ReadConfigurationDocument(settings_, work_folder_);
  EXPECT_EQ(xml::Document::Parse(document).Root().Attributes(),
            (Attributes{{"workFolder", "/srv/a \"b\" & <c>"},
                        {"historySize", "0"},
                        {"retryDelay", "420000"},
                        {"retryMaxDelay", "7200000"},
                        {"retryMaxTries", "0"},
                        {"retryMaxTime", "300000"}}));
  Write(document);
  EXPECT_EQ(Stored("Maximum download attempt time (mins)"), SettingValue::Number(300'000));
  EXPECT_EQ(Stored("Retry delay (mins)"), SettingValue::Number(7)) << "delays survive the round trip";
  EXPECT_EQ(folder_, "/srv/a \"b\" & <c>");
}

// A document that does not load, or a value that is not a 32-bit number,
// refuses the whole document, attributes before the bad value too.
TEST_F(ConfigurationDocumentTest, RefusedDocumentsChangeNothing) {
  std::vector<std::string> documents = {"", "not xml", "<PackageDelivery historySize='5'", "<?xml version='1.0'?>"};
  for (const char* value : {"abc", "", "12x", "1.5", "4294967296", "-2147483649", "0x10"}) {
    documents.push_back(std::string("<PackageDelivery workFolder='/new' historySize='5' retryMaxTime='") + value +
                        "'/>");
  }
  for (const std::string& document : documents) {
    SCOPED_TRACE(document);
    try {
      Write(document);
      ADD_FAILURE() << "accepted";
    } catch (const Error& e) {
      EXPECT_EQ(e.code(), result::kInvalidArg);
      // The parser's reason follows; a bad value is named.
      EXPECT_TRUE(document.size() > 40 ? e.description().find("retryMaxTime") != std::string::npos
                                       : e.description().starts_with("Configuration XML failed to load: "))
          << e.description();
    }
  }
  EXPECT_EQ(Stored("Download history size"), std::nullopt);
  EXPECT_EQ(folder_, "/var/lib/pkgdlv/Package Delivery");
}

// ---- The settings behind it

// A missing value is written with its default at its first read; a stored
// value is limited to its range but never corrected, and read as signed or
// unsigned as the setting is. Names are spelled here, not taken from the table.
TEST(DeliverySettingsTest, DefaultsAreWrittenAndStoredValuesLimitedButNeverCorrected) {
  using D = DeliverySetting;
  testing::MemorySettingsStore store;
  testing::RecordingLogger log;
  DeliverySettings settings(store, log);
  const auto stored = [&](const char* name) { return store.Get(kDeliverySettingsKey, name); };
  constexpr bool kMissing = true;  // the value is not stored before the read
  const std::tuple<const char*, D, uint32_t, uint64_t, bool> cases[] = {  // name, id, stored, read, missing
      {"Retry delay (mins)", D::kRetryDelay, 3, 180'000, kMissing},
      {"Retry delay (mins)", D::kRetryDelay, 500, 3'600'000, false},
      {"Retry delay (mins)", D::kRetryDelay, 0xFFFFFFFF, 60'000, false},  // signed: -1
      {"Urgent retry delay (ms)", D::kUrgentRetryDelay, 4'999, 5'000, false},
      {"Maximum download attempts", D::kMaxDownloadAttempts, 0xFFFFFFFF, 0, false},  // unsigned: very large
      {"Download history size", D::kHistorySize, 30, 30, kMissing},
      {"Min Disk Free Space (MBytes)", D::kMinDiskFreeSpace, 0x1000001, 0x1000000ull * 1'048'576, false},
      {"Site transfer keep-alive interval (seconds)", D::kSiteTransferKeepAlive, 9, 10, false},
      {"Maximum decrypt failures", D::kMaxDecryptFailures, 0, 10, false},
  };
  for (const auto& [name, id, value, result, missing] : cases) {
    SCOPED_TRACE(name);
    if (!missing) store.Set(kDeliverySettingsKey, name, SettingValue::Number(value));
    EXPECT_EQ(settings.Read(id), result);
    EXPECT_EQ(stored(name), SettingValue::Number(value));
  }
  // A value of the wrong type is replaced by the default.
  store.Set(kDeliverySettingsKey, "Download history size", SettingValue::Text("50"));
  EXPECT_EQ(settings.HistorySize(), 30u);
  EXPECT_EQ(stored("Download history size"), SettingValue::Number(30));
}

}  // namespace
}  // namespace pkgdlv
