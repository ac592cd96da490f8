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

// Passes everything to a real store and notes the order of the writes.
class JournalingStore final : public SettingsStore {
 public:
  JournalingStore(SettingsStore& inner, std::vector<std::string>& journal) : inner_(inner), journal_(journal) {}
  std::optional<SettingValue> Get(std::string_view key, std::string_view name) override {
    return inner_.Get(key, name);
  }
  void Set(std::string_view key, std::string_view name, const SettingValue& value) override {
    journal_.emplace_back(name);
    inner_.Set(key, name, value);
  }
  bool Delete(std::string_view key, std::string_view name) override { return inner_.Delete(key, name); }
  std::vector<NamedSetting> List(std::string_view prefix) override { return inner_.List(prefix); }
  uint64_t ChangeCounter() override { return inner_.ChangeCounter(); }

 private:
  SettingsStore& inner_;
  std::vector<std::string>& journal_;
};

class ConfigurationDocumentTest : public ::testing::Test {
 protected:
  std::string Read() { return ReadConfigurationDocument(settings_, work_folder_); }
  void Write(std::string_view xml) { WriteConfigurationDocument(xml, settings_, work_folder_); }
  Attributes ReadAttributes() {
    xml::Document document = xml::Document::Parse(Read());
    EXPECT_EQ(document.Root().Name(), "PackageDelivery");
    return document.Root().Attributes();
  }
  std::optional<SettingValue> Stored(std::string_view name) { return store_->Get(kDeliverySettingsKey, name); }

  TempDir dir_;
  std::shared_ptr<SettingsStore> store_ = OpenSqliteSettingsStore(dir_ / "settings.db");
  std::vector<std::string> journal_;
  JournalingStore journaling_store_{*store_, journal_};
  RecordingLogger log_;
  DeliverySettings settings_{journaling_store_, log_};
  std::string folder_ = "/var/lib/pkgdlv/Package Delivery";
  WorkFolderAccess work_folder_{[this] { return folder_; },
                                [this](const std::string& folder) {
                                  journal_.push_back("workFolder");
                                  folder_ = folder;
                                }};
};

TEST_F(ConfigurationDocumentTest, ReadGivesOneElementWithTheAttributesInOrder) {
  store_->Set(kDeliverySettingsKey, "Download history size", SettingValue::Number(101));
  store_->Set(kDeliverySettingsKey, "Maximum download attempt time (mins)", SettingValue::Number(2));
  folder_ = "/srv/a \"b\" & <c>";
  EXPECT_EQ(ReadAttributes(), (Attributes{{"workFolder", "/srv/a \"b\" & <c>"},
                                          {"historySize", "0"},
                                          {"retryDelay", "180000"},
                                          {"retryMaxDelay", "7200000"},
                                          {"retryMaxTries", "0"},
                                          {"retryMaxTime", "120000"}}));
}

TEST_F(ConfigurationDocumentTest, WriteAppliesPresentAttributesInTheirOrder) {
  // Attributes deliberately in another order than they are applied.
  Write(
      "<Anything retryMaxTime='15' retryMaxTries='4' retryMaxDelay='600000' retryDelay='120000'"
      " historySize='12' workFolder='/data/store'/>");
  EXPECT_EQ(journal_, (std::vector<std::string>{"workFolder", "Download history size", "Retry delay (mins)",
                                                "Maximum retry delay (mins)", "Maximum download attempts",
                                                "Maximum download attempt time (mins)"}));
  EXPECT_EQ(folder_, "/data/store");
  EXPECT_EQ(Stored("Download history size"), SettingValue::Number(12));
  EXPECT_EQ(Stored("Retry delay (mins)"), SettingValue::Number(2));
  EXPECT_EQ(Stored("Maximum retry delay (mins)"), SettingValue::Number(10));
  EXPECT_EQ(Stored("Maximum download attempts"), SettingValue::Number(4));
  EXPECT_EQ(Stored("Maximum download attempt time (mins)"), SettingValue::Number(15));
}

// Absent attributes leave their settings alone; negative counts are stored
// as their 32 bits.
TEST_F(ConfigurationDocumentTest, APartialDocumentChangesOnlyItsSettings) {
  store_->Set(kDeliverySettingsKey, "Download history size", SettingValue::Number(44));
  Write("<PackageDelivery retryDelay='600000'/>");
  EXPECT_EQ(journal_, (std::vector<std::string>{"Retry delay (mins)"}));
  EXPECT_EQ(Stored("Retry delay (mins)"), SettingValue::Number(10));
  EXPECT_EQ(Stored("Download history size"), SettingValue::Number(44));
  EXPECT_EQ(folder_, "/var/lib/pkgdlv/Package Delivery");

  Write("<PackageDelivery retryMaxTries='-1' historySize='4294967295'/>");
  EXPECT_EQ(Stored("Maximum download attempts"), SettingValue::Number(0xFFFFFFFF));
  EXPECT_EQ(Stored("Download history size"), SettingValue::Number(0xFFFFFFFF));
  EXPECT_EQ(settings_.MaxDownloadAttempts(), 0u);
}

TEST_F(ConfigurationDocumentTest, ReadingAndWritingBackMultipliesTheMaximumAttemptTime) {
  store_->Set(kDeliverySettingsKey, "Maximum download attempt time (mins)", SettingValue::Number(5));
  store_->Set(kDeliverySettingsKey, "Retry delay (mins)", SettingValue::Number(7));
  std::string document = Read();
  Write(document);
  EXPECT_EQ(Stored("Maximum download attempt time (mins)"), SettingValue::Number(300'000));
  EXPECT_EQ(Stored("Retry delay (mins)"), SettingValue::Number(7)) << "delays survive the round trip";
  Attributes after = ReadAttributes();
  EXPECT_EQ(after[5], (std::pair<std::string, std::string>{"retryMaxTime", "0"}));
  EXPECT_EQ(after[2], (std::pair<std::string, std::string>{"retryDelay", "420000"}));
}

TEST_F(ConfigurationDocumentTest, RefusedDocumentsChangeNothing) {
  // The document, and the error's whole description or, for a bad value, the attribute it names.
  std::vector<std::pair<std::string, std::string>> cases;
  for (const char* text : {"", "   ", "not xml", "<PackageDelivery historySize='5'", "<?xml version='1.0'?>"}) {
    cases.emplace_back(text, "Configuration XML failed to load: ");  // and the parser's reason
  }
  // A value that is not a 32-bit number refuses the whole document, attributes before it too.
  for (const char* value : {"abc", "", "12x", "1.5", "4294967296", "-2147483649", "0x10"}) {
    cases.emplace_back(std::string("<PackageDelivery workFolder='/new' historySize='5' retryMaxTime='") + value + "'/>",
                       "retryMaxTime");
  }
  for (const auto& [document, description] : cases) {
    try {
      Write(document);
      ADD_FAILURE() << "accepted: " << document;
    } catch (const Error& e) {
      EXPECT_EQ(e.code(), result::kInvalidArg) << document;
      if (description == "retryMaxTime") {
        EXPECT_NE(e.description().find(description), std::string::npos) << e.description();
      } else {
        EXPECT_TRUE(e.description().starts_with(description) && e.description().size() > description.size())
            << e.description();
      }
    }
  }
  EXPECT_TRUE(journal_.empty());
  EXPECT_EQ(folder_, "/var/lib/pkgdlv/Package Delivery");
}

}  // namespace
}  // namespace pkgdlv
