#include "records/configuration_document.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace pkgdlv
