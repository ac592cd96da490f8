#include "records/package_log.h"

#include <gtest/gtest.h>

#include "records/package_request.h"
#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

TEST(PackageLogTest, RefusedDocumentsLeaveTheHistoryAsItWas) {
  testing::RecordingLogger log;
  testing::MemorySettingsStore store;
  DeliverySettings settings(store, log);
  PackageLog history(log, settings);
  history.totals.id = "{KEEP}";
  DownloadRecord cycle;
  cycle.status = PKGDLV_VALID;
  cycle.startTime = *ParseDocumentTime("2026-03-01 09:00:00");
  history.RecordCycle(cycle);
  for (const char* text : {"<Log id=", "<PackageLog id=\"{X}\"/>", "<Log attempts=\"3\"/>"}) {  // the last: no ID
    EXPECT_THROW(history.Load(text), Error) << text;
    EXPECT_EQ(std::pair(history.totals.id, history.entries.size()), std::pair(std::string("{KEEP}"), size_t{1}));
  }
}

}  // namespace
}  // namespace pkgdlv
