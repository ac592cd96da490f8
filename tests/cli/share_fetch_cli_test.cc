// pkgdlv fetch from a file share served by smbd on 127.0.0.1, run as a
// separate process that finds the share's port in PKGDLV_SMB_PORT.
#include <cstdlib>

#include "cli_test_support.h"
#include "support/smbd_server.h"
#include "support/test_util.h"

namespace pkgdlv {
namespace {

using ShareFetchCliTest = CliTest;

TEST_F(ShareFetchCliTest, CompletesAFolderFromAShareAndResumesAHalfFileByRange) {
  const std::string big = testing::PatternBytes(6 * 4096 + 1000);  // seven blocks, the last one short
  const std::string small = testing::PatternBytes(300, 2);
  WriteFile(dir_ / "share" / "demo" / "big.bin", big);
  WriteFile(dir_ / "share" / "demo" / "docs" / "small.txt", small);
  CreateSnapshot(dir_ / "share" / "demo", dir_ / "meta", "--block-size 4096");
  testing::SmbdServer server({{"pkgs", dir_ / "share", true}, {"private", dir_ / "share", false}},
                              testing::SmbdServer::User{"tester", "s3cret pass"});
  ::setenv("PKGDLV_SMB_PORT", std::to_string(server.port()).c_str(), 1);
  // The password as the agent stores it: Base64 of "s3cret pass".
  const std::string fetch = "fetch --json --snapshot " + Quote(dir_ / "meta" / "snapshot.xml") + " --source '" +
                            server.Location("private\\demo") +
                            "' --user 'TESTDOM\\tester' --password-b64 czNjcmV0IHBhc3M= --dest " + Quote(dir_ / "to");
  nlohmann::json outcome = JsonLines(Ok(fetch)).back();
  EXPECT_EQ(std::tuple(outcome["blocksFetched"], outcome["blocksPresent"]), std::tuple(8, 8));
  EXPECT_EQ(std::tuple(ReadFile(dir_ / "to" / "big.bin"), ReadFile(dir_ / "to" / "docs" / "small.txt")),
            std::tuple(big, small));

  // Half of big.bin is lost: the three whole blocks left are kept, the rest
  // is read from the share by range.
  fs::resize_file(dir_ / "to" / "big.bin", big.size() / 2);
  outcome = JsonLines(Ok(fetch)).back();
  EXPECT_EQ(std::tuple(outcome["blocksFetched"], outcome["bytes"]), std::tuple(4, big.size() - 3 * 4096));
  EXPECT_EQ(ReadFile(dir_ / "to" / "big.bin"), big);

  EXPECT_TRUE(Fails("fetch --snapshot " + Quote(dir_ / "meta" / "snapshot.xml") + " --source '" +
                    server.Location("pkgs\\nothing") + "' --dest " + Quote(dir_ / "elsewhere"))
                  .ends_with("(0x80070003)\n"));
  ::unsetenv("PKGDLV_SMB_PORT");
}

}  // namespace
}  // namespace pkgdlv
