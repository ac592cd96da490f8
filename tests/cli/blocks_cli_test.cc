// pkgdlv blocks fetch, run as a separate process against nginx on 127.0.0.1.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "support/nginx_server.h"
#include "support/temp_dir.h"

namespace pkgdlv {
namespace {

using testing::ReadFile;
using testing::RunTool;
using testing::TempDir;
using testing::ToolResult;
using testing::WriteFile;

std::string Quote(const std::filesystem::path& path) { return "'" + path.string() + "'"; }

TEST(BlocksCliTest, FetchesWhatTheFolderMissesThenNothing) {
  if (!testing::NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
  TempDir home, dir;
  const std::string big(3 * 4096 + 500, 'b');
  WriteFile(dir / "pkg" / "big.bin", big);
  WriteFile(dir / "pkg" / "docs" / "readme.txt", "read me");
  ToolResult created = RunTool("snapshot create " + Quote(dir / "pkg") +
                               " --id '{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}' --version 1 --block-size 4096 --out " +
                               Quote(dir / "meta"));
  ASSERT_EQ(created.exit_code, 0) << created.err;
  testing::NginxServer nginx(dir.path());
  // The folder already holds the first block of big.bin.
  WriteFile(dir / "to" / "big.bin", big.substr(0, 4096));
  const std::string fetch = "blocks fetch --snapshot " + Quote(dir / "meta" / "snapshot.xml") + " --source " +
                            nginx.Url("/pkg") + " --to " + Quote(dir / "to");

  ToolResult first = RunTool(fetch + " --json", {}, home.path());
  ASSERT_EQ(first.exit_code, 0) << first.err;
  const nlohmann::json summary = nlohmann::json::parse(first.out);
  EXPECT_EQ(summary["blocksFetched"], 4);
  EXPECT_EQ(summary["bytes"], 3 * 4096 + 500 - 4096 + 7);
  EXPECT_EQ(summary["blocksPresent"], 5);
  EXPECT_EQ(summary["totalBlocks"], 5);
  EXPECT_EQ(ReadFile(dir / "to" / "big.bin"), big);
  EXPECT_EQ(ReadFile(dir / "to" / "docs" / "readme.txt"), "read me");
  EXPECT_NE(first.err.find("progress: 100%"), std::string::npos) << first.err;

  ToolResult again = RunTool(fetch, {}, home.path());
  EXPECT_EQ(again.exit_code, 0) << again.err;
  EXPECT_EQ(again.out, "0 blocks fetched, 0 bytes at 0 bytes per second; 5/5 blocks present\n");

  ToolResult missing = RunTool("blocks fetch --snapshot " + Quote(dir / "meta" / "snapshot.xml") + " --source " +
                                   nginx.Url("/nothing") + " --to " + Quote(dir / "elsewhere"),
                               {}, home.path());
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.err.find("\npkgdlv: HTTP status 404 from "), std::string::npos) << missing.err;
  EXPECT_TRUE(missing.err.ends_with("(0x80042D21)\n")) << missing.err;
}

}  // namespace
}  // namespace pkgdlv
