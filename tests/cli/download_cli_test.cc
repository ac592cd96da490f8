// pkgdlv download, run as a separate process: the package, its repair, the
// exit codes, and a run stopped with Ctrl-C resumed by the next.
#include <chrono>
#include <thread>

#include "cli_test_support.h"
#include "support/http_test_server.h"
#include "support/nginx_server.h"
#include "support/test_keys.h"

namespace pkgdlv {
namespace {

constexpr const char* kId = "{3A4B5C6D-7E8F-4091-A2B3-C4D5E6F70819}";
constexpr uint32_t kBlock = 1u << 20;

// A package of four 4 MiB files published with a signed snapshot; the
// request document names nginx (or another server) and the key.
class DownloadCliTest : public CliTest {
 protected:
  void SetUp() override {
    if (!testing::NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
    for (int f = 0; f < 4; ++f) {
      std::string data(4 * kBlock, '\0');
      for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 2654435761u + f) >> 13);
      WriteFile(Published(f), data);
    }
    const std::string out = Ok("snapshot create " + Quote(dir_ / "pub" / "pkg") + " --id '" + kId +
                               "' --version 1 --block-size " + std::to_string(kBlock) + " --sign-key " +
                               Quote(testing::TestKey("EC", 0)) + " --out " + Quote(dir_ / "pub" / "snap") +
                               " --print-key");
    key_ = out.substr(out.rfind('\n', out.size() - 2) + 1);
    key_.pop_back();
  }

  fs::path Published(int f) const { return dir_ / "pub" / "pkg" / ("f" + std::to_string(f) + ".bin"); }
  fs::path Received(int f) const { return PackageFolder() / Published(f).filename(); }
  fs::path PackageFolder() const { return home_ / "Package Delivery" / kId; }
  void ExpectPackageReceived() const {
    for (int f = 0; f < 4; ++f) EXPECT_TRUE(ReadFile(Received(f)) == ReadFile(Published(f))) << f;
  }
  std::string Request(const std::string& base) {
    WriteFile(dir_ / "request.xml", std::string("<Package id=\"") + kId + "\" name=\"demo\" version=\"1\" " +
                                        "sourceKey=\"" + key_ + "\"><Source><Codebase href=\"" + base +
                                        "/pkg\" snapshot=\"" + base + "/snap/snapshot.xml\"/></Source></Package>");
    return "download " + Quote(dir_ / "request.xml");
  }

  std::string key_;
};

TEST_F(DownloadCliTest, DownloadsThePackageAndRepairsOnlyTheDamagedFile) {
  testing::NginxServer nginx(dir_ / "pub", "types { text/xml xml; }");
  const std::string download = Request(nginx.Url(""));
  const std::vector<nlohmann::json> lines = JsonLines(Ok(download + " --json"));
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines.front()["event"], "progress");
  EXPECT_EQ(std::make_tuple(lines.back()["event"], lines.back()["status"], lines.back()["folder"]),
            std::make_tuple("end", "valid", PackageFolder().string()));
  ExpectPackageReceived();

  std::string damaged = ReadFile(Received(2));
  damaged[kBlock + 5] ^= 0x5A;
  WriteFile(Received(2), damaged);
  const uint64_t before = nginx.BodyBytesSent();
  EXPECT_EQ(Ok(download), std::string("demo ") + kId + ": valid\nfolder: " + PackageFolder().string() + "\n");
  EXPECT_EQ(nginx.BodyBytesSent() - before, 4u * kBlock) << "the damaged file only";
  ExpectPackageReceived();
  EXPECT_NE(Ok("history " + Quote(PackageFolder())).find("2 downloads, 0 failed"), std::string::npos);
}

TEST_F(DownloadCliTest, TheExitCodeSaysWhetherThePackageWaitsForARetryOrWasGivenUp) {
  const std::string download = Request("http://127.0.0.1:1");
  ToolResult waiting = Run(download + " --no-wait");
  EXPECT_EQ(waiting.exit_code, 2) << waiting.err;
  EXPECT_NE(waiting.out.find("attempt 1 failed: "), std::string::npos) << waiting.out;
  EXPECT_NE(waiting.out.find("; next attempt at "), std::string::npos) << waiting.out;
  EXPECT_NE(Ok("queue").find(kId), std::string::npos);

  Ok("settings set 'Communications\\Package Delivery' 'Maximum download attempts' 1");
  fs::remove_all(PackageFolder());
  ToolResult invalid = Run(download);
  EXPECT_EQ(invalid.exit_code, 1);
  EXPECT_NE(invalid.out.find(": invalid ("), std::string::npos) << invalid.out;
  EXPECT_TRUE(invalid.err.starts_with("pkgdlv: ")) << invalid.err;
}

TEST_F(DownloadCliTest, CtrlCStopsCleanlyAndTheNextRunResumes) {
  // Slowed down to 4 MiB/s, so that the signal lands while blocks are on the way.
  testing::HttpTestServer server;
  for (const auto& entry : fs::recursive_directory_iterator(dir_ / "pub")) {
    if (!entry.is_regular_file()) continue;
    const std::string path = "/" + fs::relative(entry.path(), dir_ / "pub").string();
    server.AddFile(path, ReadFile(entry.path()), {{"Content-Type", "text/xml"}});
    if (path.starts_with("/pkg/")) server.SetFault(path, testing::HttpFault{.bytesPerSecond = 4 * kBlock});
  }
  const auto blockRequests = [&server] {
    size_t count = 0;
    for (const testing::RecordedRequest& asked : server.Requests()) count += asked.path.starts_with("/pkg/");
    return count;
  };
  const std::string download = Request(server.Url(""));
  RunningTool first(download, home_);
  ASSERT_TRUE(first.started());
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (blockRequests() < 3 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  // Another terminal sees the live state of the running engine.
  EXPECT_NE(Ok("queue").find(std::string(kId) + "  downloading"), std::string::npos);
  first.Signal(SIGINT);
  EXPECT_EQ(first.Wait(), 130 << 8) << first.err();
  EXPECT_NE(first.err().find("resumes it"), std::string::npos);
  EXPECT_EQ(ReadFile(PackageFolder() / "package.xml").find("status=\"downloading\""), std::string::npos);
  const size_t firstRun = blockRequests();
  EXPECT_LT(firstRun, 16u) << "the first run was not interrupted";

  Ok(download);
  ExpectPackageReceived();
  // At most the block in flight at the stop comes twice.
  EXPECT_LE(blockRequests(), 16u + 1u) << "first run: " << firstRun;
}

}  // namespace
}  // namespace pkgdlv
