#include "records/package_log.h"

#include <gtest/gtest.h>

#include "records/package_request.h"
#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "support/temp_dir.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

using testing::MemorySettingsStore;
using testing::RecordingLogger;

class PackageLogTest : public ::testing::Test {
 protected:
  void SetHistorySize(uint32_t size) {
    store_.Set(kDeliverySettingsKey, "Download history size", SettingValue::Number(size));
  }
  DownloadRecord Cycle(int n, Result result = 0) {
    DownloadRecord record;
    record.version = 2;
    record.status = result == 0 ? PKGDLV_VALID : PKGDLV_RETRYING;
    record.statusDescr = result == 0 ? "" : "Server is busy";
    record.nextRetry = result == 0 ? 0 : *ParseDocumentTime("2026-03-01 10:00:00");
    record.transferBytes = 1000u * n;
    record.packageSize = 5'000'000'000ull;
    record.startTime = *ParseDocumentTime("2026-03-01 09:00:00") + n * kFileTimeTicksPerSecond;
    record.endTime = record.startTime + 30 * kFileTimeTicksPerSecond;
    record.source = "http://ps/Pkg/{id}";
    record.transferRate = 100u * n;
    record.transferCache = 7;
    record.result = result;
    return record;
  }
  size_t WrittenDownloads(const std::string& text) {
    size_t count = 0;
    for (size_t at = text.find("<Download "); at != std::string::npos; at = text.find("<Download ", at + 1)) ++count;
    return count;
  }

  std::shared_ptr<RecordingLogger> log_ = std::make_shared<RecordingLogger>();
  MemorySettingsStore store_;
  DeliverySettings settings_{store_, *log_};
  PackageLog history_{*log_, settings_};
};

TEST_F(PackageLogTest, CyclesUpdateTheTotalsAndTheDocumentReadsBackTheSame) {
  history_.totals.id = "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}";
  history_.RecordCycle(Cycle(1, 0x8004200C));
  history_.RecordCycle(Cycle(3));
  EXPECT_EQ(history_.totals.attempts, 2u);
  EXPECT_EQ(history_.totals.successes, 1u);
  EXPECT_EQ(history_.totals.downloadEvent, 2u);
  EXPECT_EQ(history_.totals.transferBytes, 4000u);
  EXPECT_EQ(history_.totals.transferRate, 200u);
  EXPECT_EQ(history_.totals.attemptTime, Cycle(3).startTime);
  EXPECT_EQ(history_.totals.downloadFailureTime, Cycle(1).endTime);
  EXPECT_EQ(history_.entries.front().transferBytes, 3000u);  // newest first

  const std::string text = history_.Save();
  EXPECT_NE(text.find("downloadFailureTime=\"2026-03-01 09:00:31\""), std::string::npos) << text;
  EXPECT_NE(text.find("result=\"-2147213300\""), std::string::npos) << text;
  PackageLog read(*log_, settings_);
  read.Load(text);
  EXPECT_EQ(read.totals, history_.totals);
  EXPECT_EQ(read.entries, history_.entries);
}

TEST_F(PackageLogTest, NextRetryIsWrittenOnlyForARetryAndUnsetTimesAsTimeOfDay) {
  history_.totals.id = "{X}";
  history_.RecordCycle(Cycle(1));
  std::string text = history_.Save();
  EXPECT_EQ(text.find("nextRetry"), std::string::npos);
  EXPECT_NE(text.find("downloadFailureTime=\"00:00:00\""), std::string::npos) << text;
  history_.RecordCycle(Cycle(2, 0x80004005));
  EXPECT_NE(history_.Save().find("nextRetry=\"2026-03-01 10:00:00\""), std::string::npos);
}

TEST_F(PackageLogTest, HistorySizeLimitsTheRecordsWritten) {
  SetHistorySize(0);  // keep all 60 in memory first
  history_.totals.id = "{X}";
  for (int n = 0; n < 60; ++n) history_.RecordCycle(Cycle(n));
  const std::tuple<uint32_t, size_t, bool> cases[] = {{0, 60, true}, {51, 51, true}, {10, 10, false}};
  for (const auto& [size, written, warned] : cases) {
    log_->Clear();
    SetHistorySize(size);
    EXPECT_EQ(WrittenDownloads(history_.Save()), written) << size;
    EXPECT_EQ(log_->Contains("Storing log file with very large history: "), warned) << size;
  }
}

TEST_F(PackageLogTest, RefusedDocumentsLeaveTheHistoryAsItWas) {
  history_.totals.id = "{KEEP}";
  history_.RecordCycle(Cycle(1));
  const std::vector<std::pair<const char*, const char*>> refused = {
      {"<Log id=", "Invalid XML: XML failed to load: "},  // and the parser's reason
      {"<PackageLog id=\"{X}\"/>", "Invalid XML: Incorrect root element"},
      {"<Log attempts=\"3\"/>", "Invalid XML: Missing ID"},
  };
  for (const auto& [text, message] : refused) {
    try {
      history_.Load(text);
      ADD_FAILURE() << text;
    } catch (const Error& e) {
      EXPECT_TRUE(e.description().starts_with(message)) << e.description();
    }
    EXPECT_EQ(history_.totals.id, "{KEEP}");
    EXPECT_EQ(history_.entries.size(), 1u);
  }
}

TEST_F(PackageLogTest, KeepsItsFileInThePackageFolder) {
  testing::TempDir dir;
  history_.totals.id = "{X}";
  history_.RecordCycle(Cycle(4));
  history_.SaveToFolder(dir.path());
  PackageLog read(*log_, settings_);
  read.LoadFromFolder(dir.path());
  EXPECT_EQ(read.entries, history_.entries);
  read.LoadFromFolder(dir / "absent");
  EXPECT_TRUE(read.entries.empty());
  EXPECT_EQ(read.totals.id, "{X}");
}

}  // namespace
}  // namespace pkgdlv
