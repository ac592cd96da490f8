// pkgdlv package copy | move | clean, run as a separate process.
#include "cli_test_support.h"

namespace pkgdlv {
namespace {

// Describes the package in dir/pkg into dir/doc; gives the --snapshot option naming it.
std::string SnapshotOption(const fs::path& dir, const fs::path& home, const std::string& options = "") {
  CreateSnapshot(dir / "pkg", dir / "doc", options, home);
  return " --snapshot " + Quote(dir / "doc" / "snapshot.xml");
}

TEST(PackageCliTest, CopyCleanAndMoveAPackage) {
  TempDir dir;
  WriteFile(dir / "pkg" / "a.bin", std::string(9000, 'a'));
  WriteFile(dir / "pkg" / "sub" / "b.txt", "bee");
  const std::string snapshot = SnapshotOption(dir.path(), dir / "home", "--block-size 4096");

  ToolResult copy = RunTool("package copy " + Quote(dir / "pkg") + snapshot + " --to " + Quote(dir / "copy"), {},
                            dir / "home");
  ASSERT_EQ(copy.exit_code, 0) << copy.err;
  EXPECT_EQ(ReadFile(dir / "copy" / "sub" / "b.txt"), "bee");

  WriteFile(dir / "pkg" / "sub" / "b.txt", "BEE");  // same size, other bytes
  ToolResult clean = RunTool("package clean " + Quote(dir / "pkg") + snapshot, {}, dir / "home");
  ASSERT_EQ(clean.exit_code, 0) << clean.err;
  EXPECT_EQ(clean.out, "1 invalid file(s) deleted\n");
  EXPECT_FALSE(fs::exists(dir / "pkg" / "sub" / "b.txt"));
  EXPECT_TRUE(fs::exists(dir / "pkg" / "a.bin"));

  ToolResult move = RunTool("package move " + Quote(dir / "pkg") + snapshot + " --to " + Quote(dir / "moved"), {},
                            dir / "home");
  ASSERT_EQ(move.exit_code, 0) << move.err;  // the deleted file is not a failure
  EXPECT_EQ(ReadFile(dir / "moved" / "a.bin"), std::string(9000, 'a'));
  EXPECT_FALSE(fs::exists(dir / "pkg" / "a.bin"));

  // Removing a whole folder needs the package's own document in it.
  ToolResult unproven = RunTool("package clean " + Quote(dir / "moved") + snapshot + " --all", {}, dir / "home");
  EXPECT_EQ(unproven.exit_code, 1);
  EXPECT_NE(unproven.err.find("is not the package folder of"), std::string::npos) << unproven.err;
  EXPECT_TRUE(fs::exists(dir / "moved" / "a.bin"));
  fs::copy_file(dir / "doc" / "snapshot.xml", dir / "moved" / "snapshot.xml");
  ToolResult all = RunTool("package clean " + Quote(dir / "moved") + snapshot + " --all", {}, dir / "home");
  ASSERT_EQ(all.exit_code, 0) << all.err;
  EXPECT_FALSE(fs::exists(dir / "moved"));
}

TEST(PackageCliTest, CleanAllNeverRemovesAFolderTheAgentOrTheUserLivesIn) {
  TempDir dir;
  const fs::path home = dir / "home";
  const fs::path work = dir / "work";
  ASSERT_EQ(RunTool("config set '<Configuration workFolder=\"" + work.string() + "\"/>'", {}, home).exit_code, 0);
  WriteFile(dir / "pkg" / "a.bin", "a");
  const std::string snapshot = SnapshotOption(dir.path(), home);
  const fs::path user = dir / "user";
  fs::create_directories(user);
  const char* savedHome = std::getenv("HOME");
  const std::string restoreHome = savedHome ? savedHome : "";
  ::setenv("HOME", user.c_str(), 1);
  fs::create_directory_symlink(dir / "pkg", dir / "link");
  // Even holding the package's snapshot, none of these goes (a folder that
  // holds the agent's data folder stands for the root folder too).
  for (const fs::path& folder : {home, work, user, dir.path(), dir / "link"}) {
    if (!fs::is_symlink(folder)) {
      fs::copy_file(dir / "doc" / "snapshot.xml", folder / "snapshot.xml", fs::copy_options::overwrite_existing);
    }
    ToolResult clean = RunTool("package clean " + Quote(folder) + snapshot + " --all", {}, home);
    EXPECT_EQ(clean.exit_code, 1) << folder;
    EXPECT_NE(clean.err.find("refused"), std::string::npos) << folder << ": " << clean.err;
    EXPECT_TRUE(fs::exists(folder)) << folder;
  }
  ::setenv("HOME", restoreHome.c_str(), 1);
  EXPECT_TRUE(fs::exists(home / "settings.db"));
  EXPECT_EQ(ReadFile(dir / "pkg" / "a.bin"), "a");
}

}  // namespace
}  // namespace pkgdlv
