// pkgdlv check and pkgdlv package copy | move | clean, run as separate
// processes over a package made with pkgdlv snapshot create.
#include "cli_test_support.h"

namespace pkgdlv {
namespace {

// A package in dir/pkg described into dir/doc.
class PackageCliTest : public CliTest {
 protected:
  void SetUp() override {
    WriteFile(dir_ / "pkg" / "a.bin", std::string(9000, 'a'));
    WriteFile(dir_ / "pkg" / "sub" / "b.txt", "bee");
    CreateSnapshot(dir_ / "pkg", dir_ / "doc", "--block-size 4096", home_);
  }
  std::string Command(const std::string& verb, const fs::path& folder, const std::string& options = {}) const {
    return "package " + verb + " " + Quote(folder) + " --snapshot " + Quote(dir_ / "doc" / "snapshot.xml") + options;
  }
};

TEST_F(PackageCliTest, CheckExitCodeAndListFollowTheFolder) {
  const std::string check = "check " + Quote(dir_ / "pkg") + " --snapshot ";
  const std::string snapshot = Quote(dir_ / "doc" / "snapshot.xml");
  EXPECT_EQ(Ok(check + snapshot), "4/4 blocks found\n");

  WriteFile(dir_ / "pkg" / "a.bin", std::string(4096 + 10, 'a'));  // cut short
  fs::remove(dir_ / "pkg" / "sub" / "b.txt");
  ToolResult changed = Run(check + snapshot + " --json");
  ASSERT_EQ(changed.exit_code, 2) << changed.err;
  nlohmann::json out = nlohmann::json::parse(changed.out);
  EXPECT_EQ(std::make_tuple(out["complete"], out["blocksFound"], out["totalBlocks"], out["goodBlocks"]),
            std::make_tuple(false, 1, 4, nlohmann::json::parse("[[0, 0]]")));
  ASSERT_EQ(out["files"].size(), 2u);
  EXPECT_EQ(out["files"][0]["reason"], "shorter than expected");
  EXPECT_EQ(out["files"][1], nlohmann::json::parse(R"({"path": "sub\\b.txt", "reason": "missing", "size": 3})"));

  fs::remove_all(dir_ / "pkg");
  EXPECT_NE(Fails(check + snapshot).find("pkgdlv: "), std::string::npos);
}

TEST_F(PackageCliTest, CopyCleanAndMoveAPackage) {
  Ok(Command("copy", dir_ / "pkg", " --to " + Quote(dir_ / "copy")));
  EXPECT_EQ(ReadFile(dir_ / "copy" / "sub" / "b.txt"), "bee");

  WriteFile(dir_ / "pkg" / "sub" / "b.txt", "BEE");  // same size, other bytes
  EXPECT_EQ(Ok(Command("clean", dir_ / "pkg")), "1 invalid file(s) deleted\n");
  EXPECT_FALSE(fs::exists(dir_ / "pkg" / "sub" / "b.txt"));

  Ok(Command("move", dir_ / "pkg", " --to " + Quote(dir_ / "moved")));  // the deleted file is not a failure
  EXPECT_EQ(ReadFile(dir_ / "moved" / "a.bin"), std::string(9000, 'a'));
  EXPECT_FALSE(fs::exists(dir_ / "pkg" / "a.bin"));

  // Removing a whole folder needs the package's own document in it.
  EXPECT_NE(Fails(Command("clean", dir_ / "moved", " --all")).find("is not the package folder of"), std::string::npos);
  EXPECT_TRUE(fs::exists(dir_ / "moved" / "a.bin"));
  fs::copy_file(dir_ / "doc" / "snapshot.xml", dir_ / "moved" / "snapshot.xml");
  Ok(Command("clean", dir_ / "moved", " --all"));
  EXPECT_FALSE(fs::exists(dir_ / "moved"));
}

TEST_F(PackageCliTest, CleanAllNeverRemovesAFolderTheAgentOrTheUserLivesIn) {
  const fs::path work = dir_ / "work", user = dir_ / "user";
  Ok("config set '<Configuration workFolder=\"" + work.string() + "\"/>'");
  fs::create_directories(user);
  const char* savedHome = std::getenv("HOME");
  const std::string restoreHome = savedHome ? savedHome : "";
  ::setenv("HOME", user.c_str(), 1);
  fs::create_directory_symlink(dir_ / "pkg", dir_ / "link");
  // Even holding the package's snapshot, none of these goes (a folder that
  // holds the agent's data folder stands for the root folder too).
  for (const fs::path& folder : {home_, work, user, dir_.path(), dir_ / "link"}) {
    if (!fs::is_symlink(folder)) {
      fs::copy_file(dir_ / "doc" / "snapshot.xml", folder / "snapshot.xml", fs::copy_options::overwrite_existing);
    }
    EXPECT_NE(Fails(Command("clean", folder, " --all")).find("refused"), std::string::npos) << folder;
    EXPECT_TRUE(fs::exists(folder)) << folder;
  }
  ::setenv("HOME", restoreHome.c_str(), 1);
  EXPECT_TRUE(fs::exists(home_ / "settings.db"));
  EXPECT_EQ(ReadFile(dir_ / "pkg" / "a.bin"), std::string(9000, 'a'));
}

}  // namespace
}  // namespace pkgdlv
