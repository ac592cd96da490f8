// pkgdlv fetch from a file share served by smbd on 127.0.0.1, run as a
// separate process that finds the share's port in PKGDLV_SMB_PORT.
#include <cstdlib>

#include "cli_test_support.h"
#include "support/smbd_server.h"

namespace pkgdlv {
namespace {

std::string Pattern(size_t size, char seed) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>(seed + i * 7 + i / 4096);
  return text;
}

// The outcome: the last of the JSON lines.
nlohmann::json Outcome(const std::string& out) {
  size_t end = out.find_last_not_of('\n');
  size_t start = out.rfind('\n', end);
  return nlohmann::json::parse(out.substr(start == std::string::npos ? 0 : start + 1));
}

class SmbPortVariable {
 public:
  explicit SmbPortVariable(int port) { ::setenv("PKGDLV_SMB_PORT", std::to_string(port).c_str(), 1); }
  ~SmbPortVariable() { ::unsetenv("PKGDLV_SMB_PORT"); }
};

TEST(ShareFetchCliTest, CompletesAFolderFromAShareAndResumesAHalfFileByRange) {
  TempDir home, dir;
  const std::string big = Pattern(6 * 4096 + 1000, 'a');  // seven blocks, the last one short
  const std::string small = Pattern(300, 'k');
  WriteFile(dir / "share" / "demo" / "big.bin", big);
  WriteFile(dir / "share" / "demo" / "docs" / "small.txt", small);
  CreateSnapshot(dir / "share" / "demo", dir / "meta", "--block-size 4096");
  testing::SmbdServer server({{"pkgs", dir / "share", true}, {"private", dir / "share", false}},
                              testing::SmbdServer::User{"tester", "s3cret pass"});
  SmbPortVariable port(server.port());
  // The password as the agent stores it: Base64 of "s3cret pass".
  const std::string fetch = "fetch --json --snapshot " + Quote(dir / "meta" / "snapshot.xml") + " --source '" +
                            server.Location("private\\demo") +
                            "' --user 'TESTDOM\\tester' --password-b64 czNjcmV0IHBhc3M= --dest " + Quote(dir / "to");

  ToolResult first = RunTool(fetch, {}, home.path());
  ASSERT_EQ(first.exit_code, 0) << first.err;
  nlohmann::json summary = Outcome(first.out);
  EXPECT_EQ(summary["blocksFetched"], 8);
  EXPECT_EQ(summary["blocksPresent"], 8);
  EXPECT_EQ(ReadFile(dir / "to" / "big.bin"), big);
  EXPECT_EQ(ReadFile(dir / "to" / "docs" / "small.txt"), small);

  // Half of big.bin is lost: the three whole blocks left are kept, the rest
  // is read from the share by range.
  fs::resize_file(dir / "to" / "big.bin", big.size() / 2);
  ToolResult resumed = RunTool(fetch, {}, home.path());
  ASSERT_EQ(resumed.exit_code, 0) << resumed.err;
  summary = Outcome(resumed.out);
  EXPECT_EQ(summary["blocksFetched"], 4);
  EXPECT_EQ(summary["bytes"], big.size() - 3 * 4096);
  EXPECT_EQ(ReadFile(dir / "to" / "big.bin"), big);

  ToolResult missing = RunTool("fetch --snapshot " + Quote(dir / "meta" / "snapshot.xml") + " --source '" +
                                   server.Location("pkgs\\nothing") + "' --dest " + Quote(dir / "elsewhere"),
                               {}, home.path());
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_TRUE(missing.err.ends_with("(0x80070003)\n")) << missing.err;
}

}  // namespace
}  // namespace pkgdlv
