// pkgdlv download, run as a separate process: a request document becomes a
// verified package in the work folder, a damaged block is repaired by
// fetching only its file, the exit code tells a script how the package
// ended, pkgdlv queue shows the live state meanwhile, and a run stopped with
// Ctrl-C is resumed by the next.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>

#include "cli_test_support.h"
#include "support/http_test_server.h"
#include "support/nginx_server.h"
#include "support/test_keys.h"

extern char** environ;

namespace pkgdlv {
namespace {

constexpr const char* kId = "{3A4B5C6D-7E8F-4091-A2B3-C4D5E6F70819}";
constexpr uint32_t kBlock = 1u << 20;

// A package of four 4 MiB files published with a signed snapshot; the
// request document names nginx (or another server) and the key.
class DownloadCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
    for (int f = 0; f < 4; ++f) {
      std::string data(4 * kBlock, '\0');
      for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 2654435761u + f) >> 13);
      WriteFile(dir_ / "pub" / "pkg" / ("f" + std::to_string(f) + ".bin"), data);
    }
    ToolResult created = RunTool("snapshot create " + Quote(dir_ / "pub" / "pkg") + " --id '" + kId +
                                     "' --version 1 --block-size " + std::to_string(kBlock) + " --sign-key " +
                                     Quote(testing::TestKey("EC", 0)) + " --out " + Quote(dir_ / "pub" / "snap") +
                                     " --print-key",
                                 {}, home_.path());
    ASSERT_EQ(created.exit_code, 0) << created.err;
    key_ = created.out.substr(created.out.rfind('\n', created.out.size() - 2) + 1);
    key_.pop_back();
  }

  fs::path WriteRequest(const std::string& base) {
    const fs::path path = dir_ / "request.xml";
    WriteFile(path, std::string("<Package id=\"") + kId + "\" name=\"demo\" version=\"1\" sourceKey=\"" + key_ +
                        "\"><Source><Codebase href=\"" + base + "/pkg\" snapshot=\"" + base +
                        "/snap/snapshot.xml\"/></Source></Package>");
    return path;
  }
  fs::path PackageFolder() const { return home_ / "Package Delivery" / kId; }
  ToolResult Download(const fs::path& request, const std::string& options = {}) {
    return RunTool("download " + Quote(request) + " " + options, {}, home_.path());
  }

  TempDir home_, dir_;
  std::string key_;
};

TEST_F(DownloadCliTest, DownloadsThePackageAndRepairsOnlyTheDamagedFile) {
  testing::NginxServer nginx(dir_ / "pub", "types { text/xml xml; }");
  const fs::path request = WriteRequest(nginx.Url(""));

  ToolResult first = Download(request, "--json");
  ASSERT_EQ(first.exit_code, 0) << first.err;
  std::istringstream lines(first.out);
  nlohmann::json last;
  size_t progress = 0;
  for (std::string line; std::getline(lines, line);) {
    last = nlohmann::json::parse(line);
    progress += last["event"] == "progress" ? 1 : 0;
  }
  EXPECT_GT(progress, 0u);
  EXPECT_EQ(last["event"], "end");
  EXPECT_EQ(last["status"], "valid");
  EXPECT_EQ(last["folder"], PackageFolder().string());
  for (int f = 0; f < 4; ++f) {
    const std::string name = "f" + std::to_string(f) + ".bin";
    EXPECT_TRUE(ReadFile(PackageFolder() / name) == ReadFile(dir_ / "pub" / "pkg" / name)) << name;
  }

  // A damaged block: the next download fetches that file again, nothing else.
  {
    std::string damaged = ReadFile(PackageFolder() / "f2.bin");
    damaged[kBlock + 5] ^= 0x5A;
    WriteFile(PackageFolder() / "f2.bin", damaged);
  }
  const uint64_t before = nginx.BodyBytesSent();
  ToolResult repair = Download(request);
  ASSERT_EQ(repair.exit_code, 0) << repair.err;
  EXPECT_EQ(repair.out, std::string("demo ") + kId + ": valid\nfolder: " + PackageFolder().string() + "\n");
  EXPECT_EQ(nginx.BodyBytesSent() - before, 4u * kBlock);
  EXPECT_TRUE(ReadFile(PackageFolder() / "f2.bin") == ReadFile(dir_ / "pub" / "pkg" / "f2.bin"));

  ToolResult history = RunTool("history " + Quote(PackageFolder()), {}, home_.path());
  EXPECT_EQ(history.exit_code, 0) << history.err;
  EXPECT_NE(history.out.find("2 downloads, 0 failed"), std::string::npos) << history.out;
}

TEST_F(DownloadCliTest, TheExitCodeSaysWhetherThePackageWaitsForARetryOrWasGivenUp) {
  const fs::path request = WriteRequest("http://127.0.0.1:1");
  ToolResult waiting = Download(request, "--no-wait");
  EXPECT_EQ(waiting.exit_code, 2) << waiting.err;
  EXPECT_NE(waiting.out.find("attempt 1 failed: "), std::string::npos) << waiting.out;
  EXPECT_NE(waiting.out.find("; next attempt at "), std::string::npos) << waiting.out;
  ToolResult queue = RunTool("queue", {}, home_.path());
  EXPECT_NE(queue.out.find(kId), std::string::npos) << queue.out;

  // One attempt allowed: the package is given up at once.
  ASSERT_EQ(RunTool("settings set 'Communications\\Package Delivery' 'Maximum download attempts' 1", {}, home_.path())
                .exit_code,
            0);
  fs::remove_all(PackageFolder());
  ToolResult invalid = Download(request);
  EXPECT_EQ(invalid.exit_code, 1);
  EXPECT_NE(invalid.out.find(": invalid ("), std::string::npos) << invalid.out;
  EXPECT_NE(invalid.err.find("pkgdlv: "), std::string::npos) << invalid.err;
}

TEST_F(DownloadCliTest, CtrlCStopsCleanlyAndTheNextRunResumes) {
  // The package from a server slowed down to 4 MiB/s, so that the signal
  // lands while blocks are on the way.
  testing::HttpTestServer server;
  testing::HttpFault slow;
  slow.bytesPerSecond = 4 * kBlock;
  for (const auto& entry : fs::recursive_directory_iterator(dir_ / "pub")) {
    if (!entry.is_regular_file()) continue;
    const std::string path = "/" + fs::relative(entry.path(), dir_ / "pub").string();
    server.AddFile(path, ReadFile(entry.path()), {{"Content-Type", "text/xml"}});
    if (path.starts_with("/pkg/")) server.SetFault(path, slow);
  }
  const fs::path request = WriteRequest(server.Url(""));
  const auto blockRequests = [&server] {
    size_t count = 0;
    for (const testing::RecordedRequest& asked : server.Requests()) count += asked.path.starts_with("/pkg/") ? 1 : 0;
    return count;
  };
  const std::string command = "exec env PKGDLV_HOME=" + Quote(home_.path()) + " '" + PKGDLV_CLI_PATH +
                              "' download " + Quote(request) + " >/dev/null 2>" + Quote(dir_ / "err");
  const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  pid_t pid = -1;
  ASSERT_EQ(posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ), 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (blockRequests() < 3 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  // Another terminal sees the live state of the running engine.
  ToolResult live = RunTool("queue", {}, home_.path());
  EXPECT_NE(live.out.find(std::string(kId) + "  downloading"), std::string::npos) << live.out << live.err;
  ::kill(pid, SIGINT);
  int status = 0;
  ::waitpid(pid, &status, 0);
  EXPECT_EQ(status, 130 << 8) << ReadFile(dir_ / "err");
  EXPECT_NE(ReadFile(dir_ / "err").find("resumes it"), std::string::npos);
  const std::string saved = ReadFile(PackageFolder() / "package.xml");
  EXPECT_EQ(saved.find("status=\"downloading\""), std::string::npos) << saved;
  const size_t firstRun = blockRequests();
  EXPECT_LT(firstRun, 16u) << "the first run was not interrupted";

  ToolResult second = Download(request);
  ASSERT_EQ(second.exit_code, 0) << second.err;
  for (int f = 0; f < 4; ++f) {
    const std::string name = "f" + std::to_string(f) + ".bin";
    EXPECT_TRUE(ReadFile(PackageFolder() / name) == ReadFile(dir_ / "pub" / "pkg" / name)) << name;
  }
  // The blocks written before the stop are not asked for again: at most the
  // block in flight comes twice.
  EXPECT_LE(blockRequests(), 16u + 1u) << "first run: " << firstRun;
}

}  // namespace
}  // namespace pkgdlv
