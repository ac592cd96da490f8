// pkgdlv workfolder: the configured folder, and a relocation run end to end
// (with the queue read from the new folder afterwards).
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "agent/volume_info.h"
#include "support/temp_dir.h"
#include "util/format.h"

namespace pkgdlv {
namespace {

using testing::RunTool;
using testing::TempDir;
using testing::ToolResult;
using testing::WriteFile;

constexpr const char* kId = "{00000000-0000-0000-0000-000000000007}";

TEST(WorkFolderCliTest, RelocationMovesTheStoreAndTheToolFollowsIt) {
  TempDir dir;
  std::optional<VolumeDetails> volume = NewLinuxVolumeInfo()->Query(dir.path());
  if (!volume || !volume->fixedDrive || !volume->sparseFiles) GTEST_SKIP() << "temporary folder is not a local disk";
  const auto home = dir / "home";
  const auto work = dir / "work";
  const auto moved = dir / "moved";
  ASSERT_EQ(RunTool("config set '<Configuration workFolder=\"" + work.string() + "\"/>'", {}, home).exit_code, 0);
  WriteFile(work / kId / "package.xml", Format("<Package id=\"%hs\" name=\"app\" size=\"5\" status=\"pending\"/>", kId));
  WriteFile(work / kId / "app.bin", "12345");

  ToolResult relocated = RunTool("workfolder relocate --json '" + moved.string() + "'", {}, home);
  ASSERT_EQ(relocated.exit_code, 0) << relocated.err << relocated.out;
  EXPECT_EQ(nlohmann::json::parse(relocated.out)["flags"], 0);
  EXPECT_EQ(testing::ReadFile(moved / kId / "app.bin"), "12345");
  EXPECT_FALSE(std::filesystem::exists(work));

  ToolResult shown = RunTool("workfolder", {}, home);
  EXPECT_EQ(shown.out, moved.string() + "\n");
  ToolResult queued = RunTool("queue --json", {}, home);
  ASSERT_EQ(queued.exit_code, 0) << queued.err;
  EXPECT_EQ(nlohmann::json::parse(queued.out)[0]["id"], kId);

  ToolResult refused = RunTool("workfolder relocate /usr/share/pkgdlv-store", {}, home);
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_NE(refused.out.find("refused: a system folder"), std::string::npos) << refused.out;
}

}  // namespace
}  // namespace pkgdlv
