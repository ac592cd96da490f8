// pkgdlv fetch, run as a separate process against nginx on 127.0.0.1.
#include <chrono>
#include <random>
#include <thread>

#include "cli_test_support.h"
#include "support/nginx_server.h"

namespace pkgdlv {
namespace {

class FetchCliTest : public CliTest {
 protected:
  void SetUp() override {
    if (!testing::NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
  }
};

TEST_F(FetchCliTest, CompletesTheFolderThenFindsNothingToDo) {
  const std::string big(3 * 4096 + 500, 'b');
  WriteFile(dir_ / "pkg" / "big.bin", big);
  WriteFile(dir_ / "pkg" / "docs" / "readme.txt", "read me");
  CreateSnapshot(dir_ / "pkg", dir_ / "meta", "--block-size 4096");
  testing::NginxServer nginx(dir_.path());
  WriteFile(dir_ / "to" / "big.bin", big.substr(0, 4096));  // the first block is there already
  const std::string fetch = "fetch --snapshot " + Quote(dir_ / "meta" / "snapshot.xml") + " --dest ";

  const std::vector<nlohmann::json> lines =
      JsonLines(Ok(fetch + Quote(dir_ / "to") + " --source " + nginx.Url("/pkg") + " --json"));
  ASSERT_GE(lines.size(), 2u);
  for (size_t i = 0; i + 1 < lines.size(); ++i) EXPECT_EQ(lines[i]["event"], "progress") << lines[i];
  EXPECT_EQ(lines[lines.size() - 2]["packageDone"], 3 * 4096 + 500 + 7);
  const nlohmann::json& end = lines.back();
  EXPECT_EQ(std::make_tuple(end["event"], end["result"], end["blocksFetched"], end["bytes"], end["blocksPresent"]),
            std::make_tuple("end", 0, 4, 3 * 4096 + 500 - 4096 + 7, 5));
  EXPECT_EQ(ReadFile(dir_ / "to" / "big.bin"), big);
  EXPECT_EQ(ReadFile(dir_ / "to" / "docs" / "readme.txt"), "read me");
}

// Eight files of 8 MiB in 1 MiB blocks. The first run is stopped after a
// random number of answered requests; the second completes the folder. The
// server never sends much twice: a cancelled run writes the blocks it holds,
// a killed one loses at most the block it was receiving and the one before,
// whose write may not have reached the disk.
TEST_F(FetchCliTest, ASecondRunFinishesWhatASignalInterrupted) {
  constexpr uint64_t kFileBytes = 8u << 20;
  constexpr uint32_t kBlockBytes = 1u << 20;
  std::mt19937 random(std::random_device{}());
  for (int f = 0; f < 8; ++f) {
    std::string data(kFileBytes, '\0');
    for (auto& c : data) c = static_cast<char>(random());
    WriteFile(dir_ / "pkg" / ("f" + std::to_string(f) + ".bin"), data);
  }
  CreateSnapshot(dir_ / "pkg", dir_ / "meta", "--block-size " + std::to_string(kBlockBytes));

  const struct {
    int signal;
    int exitStatus;         // the first run's, as waitpid gives it
    uint64_t extraAllowed;  // bytes the server may send twice
  } cases[] = {{SIGINT, 130 << 8, kBlockBytes}, {SIGTERM, 143 << 8, kBlockBytes}, {SIGKILL, SIGKILL, 2 * kBlockBytes}};
  for (const auto& c : cases) {
    SCOPED_TRACE(strsignal(c.signal));
    TempDir home, dest;
    testing::NginxServer nginx(dir_.path(), "limit_rate 64m;");  // the signal lands while blocks are on the way
    const std::string fetch = "fetch --snapshot " + Quote(dir_ / "meta" / "snapshot.xml") + " --source " +
                              nginx.Url("/pkg") + " --dest " + Quote(dest.path());
    const size_t stopAfter = std::uniform_int_distribution<size_t>(1, 56)(random);
    {
      RunningTool first(fetch, home.path());
      ASSERT_TRUE(first.started());
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      while (nginx.AccessLog().size() < stopAfter && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      first.Signal(c.signal);
      const auto signalled = std::chrono::steady_clock::now();
      EXPECT_EQ(first.Wait(), c.exitStatus) << first.err();
      EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::seconds(2));
      if (c.signal != SIGKILL) {
        EXPECT_NE(first.err().find("run again to resume"), std::string::npos) << first.err();
      }
    }
    const uint64_t firstRun = nginx.BodyBytesSent();
    EXPECT_LT(firstRun, 8 * kFileBytes) << "the first run was not interrupted";
    ASSERT_EQ(RunTool(fetch, {}, home.path()).exit_code, 0);
    for (int f = 0; f < 8; ++f) {
      const std::string name = "f" + std::to_string(f) + ".bin";
      EXPECT_TRUE(ReadFile(dest / name) == ReadFile(dir_ / "pkg" / name)) << name;
    }
    EXPECT_LE(nginx.BodyBytesSent(), 8 * kFileBytes + c.extraAllowed) << "first run: " << firstRun;
  }
}

}  // namespace
}  // namespace pkgdlv
