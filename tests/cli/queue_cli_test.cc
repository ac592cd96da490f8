// pkgdlv queue over a work folder written by the test.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/temp_dir.h"
#include "util/format.h"

namespace pkgdlv {
namespace {

using testing::RunTool;
using testing::TempDir;
using testing::ToolResult;
using testing::WriteFile;

void WritePackage(const std::filesystem::path& work, const char* id, const char* status, const char* priority,
                  int size) {
  WriteFile(work / id / "package.xml",
            Format("<Package id=\"%hs\" name=\"n%d\" size=\"%d\" version=\"1\" priority=\"%hs\" status=\"%hs\"/>", id,
                   size, size, priority, status));
}

TEST(QueueCliTest, ListsUnfinishedPackagesInDownloadOrderAndSkipsTheRest) {
  TempDir dir;
  const std::filesystem::path work = dir / "work";
  WritePackage(work, "{00000000-0000-0000-0000-000000000001}", "pending", "Normal", 300);
  WritePackage(work, "{00000000-0000-0000-0000-000000000002}", "retrying", "Normal", 100);
  WritePackage(work, "{00000000-0000-0000-0000-000000000003}", "downloading", "High", 900);
  WritePackage(work, "{00000000-0000-0000-0000-000000000004}", "valid", "High", 1);
  WriteFile(work / "{00000000-0000-0000-0000-000000000005}" / "package.xml", "not xml");
  WriteFile(work / "stray" / "package.xml", "<Package/>");

  ToolResult listed = RunTool("queue --json --work-folder '" + work.string() + "'", {}, dir / "home");
  ASSERT_EQ(listed.exit_code, 0) << listed.err;
  nlohmann::json entries = nlohmann::json::parse(listed.out);
  ASSERT_EQ(entries.size(), 3u) << listed.out;
  EXPECT_EQ(entries[0]["id"], "{00000000-0000-0000-0000-000000000003}");
  EXPECT_EQ(entries[1]["id"], "{00000000-0000-0000-0000-000000000002}");
  EXPECT_EQ(entries[2]["id"], "{00000000-0000-0000-0000-000000000001}");
  EXPECT_EQ(entries[0]["priority"], 10);
  EXPECT_EQ(entries[0]["missingBytes"], 900);
  EXPECT_EQ(entries[0]["status"], "pending");
}

}  // namespace
}  // namespace pkgdlv
