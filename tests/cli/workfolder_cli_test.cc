// pkgdlv workfolder and the work folder of pkgdlv config: a relocation run
// end to end (with the queue read from the new folder afterwards), and the
// rules every change of the folder goes through.
#include "agent/volume_info.h"
#include "cli_test_support.h"
#include "util/format.h"

namespace pkgdlv {
namespace {

constexpr const char* kId = "{00000000-0000-0000-0000-000000000007}";

std::string SetFolder(const std::string& folder) {
  return "config set '<Configuration workFolder=\"" + folder + "\"/>'";
}

void WritePackage(const fs::path& work) {
  WriteFile(work / kId / "package.xml",
            Format("<Package id=\"%hs\" name=\"app\" size=\"5\" status=\"pending\"/>", kId));
  WriteFile(work / kId / "app.bin", "12345");
}

class WorkFolderCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::optional<VolumeDetails> volume = NewLinuxVolumeInfo()->Query(dir_.path());
    if (!volume || !volume->fixedDrive || !volume->sparseFiles) GTEST_SKIP() << "temporary folder is not a local disk";
  }
  std::string Shown() { return RunTool("workfolder", {}, home_).out; }

  TempDir dir_;
  fs::path home_ = dir_ / "home";
};

TEST_F(WorkFolderCliTest, RelocationMovesTheStoreAndTheToolFollowsIt) {
  const fs::path work = dir_ / "work";
  const fs::path moved = dir_ / "moved";
  ASSERT_EQ(RunTool(SetFolder(work.string()), {}, home_).exit_code, 0);
  WritePackage(work);

  ToolResult relocated = RunTool("workfolder relocate --json '" + moved.string() + "'", {}, home_);
  ASSERT_EQ(relocated.exit_code, 0) << relocated.err << relocated.out;
  EXPECT_EQ(nlohmann::json::parse(relocated.out)["flags"], 0);
  EXPECT_EQ(ReadFile(moved / kId / "app.bin"), "12345");
  EXPECT_FALSE(fs::exists(work));
  EXPECT_EQ(Shown(), moved.string() + "\n");
  ToolResult queued = RunTool("queue --json", {}, home_);
  ASSERT_EQ(queued.exit_code, 0) << queued.err;
  EXPECT_EQ(nlohmann::json::parse(queued.out)[0]["id"], kId);

  ToolResult refused = RunTool("workfolder relocate /usr/share/pkgdlv-store", {}, home_);
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_NE(refused.out.find("refused: a system folder"), std::string::npos) << refused.out;
  ToolResult empty = RunTool("workfolder relocate ''", {}, home_);
  EXPECT_EQ(empty.exit_code, 1);
  EXPECT_NE(empty.err.find("New working folder is not specified"), std::string::npos) << empty.err;
  EXPECT_EQ(Shown(), moved.string() + "\n");
}

TEST_F(WorkFolderCliTest, ConfigChangesTheFolderOnlyByTheRulesOfAWorkFolder) {
  const fs::path work = dir_ / "work";
  ASSERT_EQ(RunTool(SetFolder(work.string()), {}, home_).exit_code, 0);
  WriteFile(dir_ / "file", "x");
  struct Case {
    std::string folder;
    const char* error;
  };
  const Case refused[] = {
      {"/proc", "system folder"},
      {"relative/store", "absolute path"},
      {(dir_ / "file").string(), "Cannot create work folder"},
  };
  for (const Case& c : refused) {
    ToolResult result = RunTool(SetFolder(c.folder), {}, home_);
    EXPECT_EQ(result.exit_code, 1) << c.folder;
    EXPECT_NE(result.err.find(c.error), std::string::npos) << c.folder << ": " << result.err;
    EXPECT_EQ(Shown(), work.string() + "\n") << c.folder;
  }

  // A missing folder is made; a folder with unfinished packages is not left.
  const fs::path fresh = dir_ / "fresh" / "store";
  ASSERT_EQ(RunTool(SetFolder(fresh.string()), {}, home_).exit_code, 0);
  EXPECT_TRUE(fs::is_directory(fresh));
  WritePackage(fresh);
  ToolResult pending = RunTool(SetFolder(work.string()), {}, home_);
  EXPECT_EQ(pending.exit_code, 1);
  EXPECT_NE(pending.err.find("there are active downloads in the queue"), std::string::npos) << pending.err;
  EXPECT_EQ(Shown(), fresh.string() + "\n");
}

}  // namespace
}  // namespace pkgdlv
