// pkgdlv check, run as a separate process over a package made with pkgdlv
// snapshot create.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/temp_dir.h"

namespace pkgdlv {
namespace {

using testing::RunTool;
using testing::TempDir;
using testing::ToolResult;
using testing::WriteFile;

std::string Quote(const std::filesystem::path& path) { return "'" + path.string() + "'"; }

class CheckCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(dir_ / "pkg" / "data.bin", std::string(10 * 4096, 'd'));
    WriteFile(dir_ / "pkg" / "sub" / "note.txt", "note");
    ToolResult made = RunTool("snapshot create " + Quote(dir_ / "pkg") +
                                  " --id {8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B} --version 1 --block-size 4096 --out " +
                                  Quote(dir_ / "doc"),
                              {}, dir_ / "home");
    ASSERT_EQ(made.exit_code, 0) << made.err;
  }
  ToolResult Check(const std::string& options) {
    return RunTool("check " + Quote(dir_ / "pkg") + " --snapshot " + Quote(dir_ / "doc" / "snapshot.xml") + " " + options,
                   {}, dir_ / "home");
  }
  TempDir dir_;
};

TEST_F(CheckCliTest, ExitCodeAndListFollowTheFolder) {
  ToolResult intact = Check("");
  EXPECT_EQ(intact.exit_code, 0) << intact.err;
  EXPECT_EQ(intact.out, "11/11 blocks found\n");

  WriteFile(dir_ / "pkg" / "data.bin", std::string(3 * 4096 + 10, 'd'));  // cut short
  std::filesystem::remove(dir_ / "pkg" / "sub" / "note.txt");
  ToolResult changed = Check("--json");
  ASSERT_EQ(changed.exit_code, 2) << changed.err;
  nlohmann::json out = nlohmann::json::parse(changed.out);
  EXPECT_FALSE(out["complete"].get<bool>());
  EXPECT_EQ(out["blocksFound"], 3);
  EXPECT_EQ(out["totalBlocks"], 11);
  EXPECT_EQ(out["goodBlocks"], nlohmann::json::parse("[[0, 2]]"));
  ASSERT_EQ(out["files"].size(), 2u);
  EXPECT_EQ(out["files"][0]["path"], "data.bin");
  EXPECT_EQ(out["files"][0]["reason"], "shorter than expected");
  EXPECT_EQ(out["files"][1]["path"], "sub\\note.txt");
  EXPECT_EQ(out["files"][1]["reason"], "missing");
  EXPECT_EQ(out["files"][1]["size"], 4);

  ToolResult text = Check("--skip-hash");
  EXPECT_EQ(text.exit_code, 2);
  EXPECT_NE(text.out.find("sub\\note.txt\t4 bytes\tmissing\n"), std::string::npos) << text.out;
}

TEST_F(CheckCliTest, ErrorsExitWithOne) {
  WriteFile(dir_ / "broken.xml", "<Snapshot");
  for (const std::string& args :
       {"check " + Quote(dir_ / "pkg") + " --snapshot " + Quote(dir_ / "broken.xml"),
        "check " + Quote(dir_ / "pkg") + " --snapshot " + Quote(dir_ / "absent.xml"),
        "check " + Quote(dir_ / "nofolder") + " --snapshot " + Quote(dir_ / "doc" / "snapshot.xml")}) {
    ToolResult result = RunTool(args, {}, dir_ / "home");
    EXPECT_EQ(result.exit_code, 1) << args;
    EXPECT_NE(result.err.find("pkgdlv: "), std::string::npos) << result.err;
  }
}

}  // namespace
}  // namespace pkgdlv
