// pkgdlv workfolder and the work folder of pkgdlv config: a relocation run
// end to end, with the queue read from the new folder afterwards.
#include "agent/volume_info.h"
#include "cli_test_support.h"

namespace pkgdlv {
namespace {

constexpr const char* kId = "{00000000-0000-0000-0000-000000000007}";

class WorkFolderCliTest : public CliTest {
 protected:
  void SetUp() override {
    std::optional<VolumeDetails> volume = NewLinuxVolumeInfo()->Query(dir_.path());
    if (!volume || !volume->fixedDrive || !volume->sparseFiles) GTEST_SKIP() << "temporary folder is not a local disk";
  }
};

TEST_F(WorkFolderCliTest, RelocationMovesTheStoreAndTheToolFollowsIt) {
  const fs::path work = dir_ / "work", moved = dir_ / "moved";
  Ok("config set '<Configuration workFolder=\"" + work.string() + "\"/>'");
  WriteFile(work / kId / "package.xml",
            std::string("<Package id=\"") + kId + "\" name=\"app\" size=\"5\" status=\"pending\"/>");
  WriteFile(work / kId / "app.bin", "12345");

  EXPECT_EQ(nlohmann::json::parse(Ok("workfolder relocate --json " + Quote(moved)))["flags"], 0);
  EXPECT_EQ(ReadFile(moved / kId / "app.bin"), "12345");
  EXPECT_FALSE(fs::exists(work));
  EXPECT_EQ(Ok("workfolder"), moved.string() + "\n");
  EXPECT_EQ(nlohmann::json::parse(Ok("queue --json"))[0]["id"], kId);

  ToolResult refused = Run("workfolder relocate /usr/share/pkgdlv-store");
  EXPECT_EQ(std::make_tuple(refused.exit_code, refused.out.find("refused: a system folder") != std::string::npos),
            std::make_tuple(1, true))
      << refused.out;
}

}  // namespace
}  // namespace pkgdlv
