// pkgdlv check, run as a separate process over a package made with pkgdlv
// snapshot create.
#include "cli_test_support.h"

namespace pkgdlv {
namespace {

TEST(CheckCliTest, ExitCodeAndListFollowTheFolder) {
  TempDir dir;
  WriteFile(dir / "pkg" / "data.bin", std::string(10 * 4096, 'd'));
  WriteFile(dir / "pkg" / "sub" / "note.txt", "note");
  CreateSnapshot(dir / "pkg", dir / "doc", "--block-size 4096", dir / "home");
  auto check = [&](const std::string& options, const fs::path& snapshot) {
    return RunTool("check " + Quote(dir / "pkg") + " --snapshot " + Quote(snapshot) + " " + options, {}, dir / "home");
  };
  const fs::path snapshot = dir / "doc" / "snapshot.xml";
  ToolResult intact = check("", snapshot);
  EXPECT_EQ(intact.exit_code, 0) << intact.err;
  EXPECT_EQ(intact.out, "11/11 blocks found\n");

  WriteFile(dir / "pkg" / "data.bin", std::string(3 * 4096 + 10, 'd'));  // cut short
  fs::remove(dir / "pkg" / "sub" / "note.txt");
  ToolResult changed = check("--json", snapshot);
  ASSERT_EQ(changed.exit_code, 2) << changed.err;
  nlohmann::json out = nlohmann::json::parse(changed.out);
  EXPECT_EQ(out["complete"], false);
  EXPECT_EQ(out["blocksFound"], 3);
  EXPECT_EQ(out["totalBlocks"], 11);
  EXPECT_EQ(out["goodBlocks"], nlohmann::json::parse("[[0, 2]]"));
  ASSERT_EQ(out["files"].size(), 2u);
  EXPECT_EQ(out["files"][0]["reason"], "shorter than expected");
  EXPECT_EQ(out["files"][1], nlohmann::json::parse(R"({"path": "sub\\note.txt", "reason": "missing", "size": 4})"));

  ToolResult text = check("--skip-hash", snapshot);
  EXPECT_EQ(text.exit_code, 2);
  EXPECT_NE(text.out.find("sub\\note.txt\t4 bytes\tmissing\n"), std::string::npos) << text.out;

  WriteFile(dir / "broken.xml", "<Snapshot");
  const ToolResult broken = check("", dir / "broken.xml");
  fs::remove_all(dir / "pkg");
  for (const ToolResult& failed : {broken, check("", snapshot)}) {
    EXPECT_EQ(failed.exit_code, 1);
    EXPECT_NE(failed.err.find("pkgdlv: "), std::string::npos) << failed.err;
  }
}

}  // namespace
}  // namespace pkgdlv
