// pkgdlv fetch, run as a separate process against nginx on 127.0.0.1: a
// folder completed and checked, its output forms, and a run ended by a
// signal that a second run finishes without fetching much twice.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <random>
#include <sstream>
#include <thread>

#include "cli_test_support.h"
#include "support/nginx_server.h"

extern char** environ;

namespace pkgdlv {
namespace {

std::vector<nlohmann::json> JsonLines(const std::string& out) {
  std::vector<nlohmann::json> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
  return lines;
}

// The tool started in the background, its output in files.
class RunningTool {
 public:
  RunningTool(const std::string& arguments, const fs::path& home) {
    const std::string command = "exec env PKGDLV_HOME=" + Quote(home) + " '" + PKGDLV_CLI_PATH + "' " + arguments +
                                " >" + Quote(io_ / "out") + " 2>" + Quote(io_ / "err");
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    if (posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) pid_ = -1;
  }
  ~RunningTool() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      Wait();
    }
  }
  bool started() const { return pid_ > 0; }
  void Signal(int signal) { ::kill(pid_, signal); }
  int Wait() {
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }
  std::string err() const { return ReadFile(io_ / "err"); }

 private:
  TempDir io_;
  pid_t pid_ = -1;
};

TEST(FetchCliTest, CompletesTheFolderThenFindsNothingToDo) {
  ASSERT_TRUE(testing::NginxServer::Available()) << "nginx is not installed";
  TempDir home, dir;
  const std::string big(3 * 4096 + 500, 'b');
  WriteFile(dir / "pkg" / "big.bin", big);
  WriteFile(dir / "pkg" / "docs" / "readme.txt", "read me");
  CreateSnapshot(dir / "pkg", dir / "meta", "--block-size 4096");
  testing::NginxServer nginx(dir.path());
  // The folder already holds the first block of big.bin.
  WriteFile(dir / "to" / "big.bin", big.substr(0, 4096));
  const std::string args = "--snapshot " + Quote(dir / "meta" / "snapshot.xml") + " --dest " + Quote(dir / "to");

  ToolResult first = RunTool("fetch " + args + " --source " + nginx.Url("/pkg") + " --json", {}, home.path());
  ASSERT_EQ(first.exit_code, 0) << first.err;
  const std::vector<nlohmann::json> lines = JsonLines(first.out);
  ASSERT_GE(lines.size(), 2u);
  for (size_t i = 0; i + 1 < lines.size(); ++i) EXPECT_EQ(lines[i]["event"], "progress") << lines[i];
  EXPECT_EQ(lines[lines.size() - 2]["packageDone"], 3 * 4096 + 500 + 7);
  const nlohmann::json& end = lines.back();
  EXPECT_EQ(end["event"], "end");
  EXPECT_EQ(end["result"], 0);
  EXPECT_EQ(end["blocksFetched"], 4);
  EXPECT_EQ(end["bytes"], 3 * 4096 + 500 - 4096 + 7);
  EXPECT_EQ(end["blocksPresent"], 5);
  EXPECT_EQ(ReadFile(dir / "to" / "big.bin"), big);
  EXPECT_EQ(ReadFile(dir / "to" / "docs" / "readme.txt"), "read me");

  // A folder source this time; nothing is missing, and off a terminal only
  // the outcome is printed.
  ToolResult again = RunTool("fetch " + args + " --source " + Quote(dir / "pkg"), {}, home.path());
  EXPECT_EQ(again.exit_code, 0) << again.err;
  EXPECT_EQ(again.out, "0 blocks fetched, 0 bytes at 0 bytes per second; 5/5 blocks present\n");
  EXPECT_EQ(again.err, "");

  ToolResult missing = RunTool("fetch --snapshot " + Quote(dir / "meta" / "snapshot.xml") + " --source " +
                                   nginx.Url("/nothing") + " --dest " + Quote(dir / "elsewhere"),
                               {}, home.path());
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.err.find("pkgdlv: HTTP status 404 from "), std::string::npos) << missing.err;
  EXPECT_TRUE(missing.err.ends_with("(0x80042D21)\n")) << missing.err;
}

// Eight files of 8 MiB in 1 MiB blocks. The first run is stopped after a
// random number of answered requests; the second completes the folder. The
// server never sends much twice: a cancelled run writes the blocks it holds,
// a killed one loses at most the three blocks of the pipeline (one being
// written, one being checked, one being received).
TEST(FetchCliTest, ASecondRunFinishesWhatASignalInterrupted) {
  ASSERT_TRUE(testing::NginxServer::Available()) << "nginx is not installed";
  constexpr uint64_t kFileBytes = 8u << 20;
  constexpr uint32_t kBlockBytes = 1u << 20;
  constexpr uint64_t kPackageBytes = 8 * kFileBytes;
  TempDir dir;
  std::mt19937 random(std::random_device{}());
  for (int f = 0; f < 8; ++f) {
    std::string data(kFileBytes, '\0');
    for (auto& c : data) c = static_cast<char>(random());
    WriteFile(dir / "pkg" / ("f" + std::to_string(f) + ".bin"), data);
  }
  CreateSnapshot(dir / "pkg", dir / "meta", "--block-size " + std::to_string(kBlockBytes));

  struct Case {
    int signal;
    int exitStatus;         // the first run's, as waitpid gives it
    uint64_t extraAllowed;  // bytes the server may send twice
  } cases[] = {
      {SIGINT, 130 << 8, kBlockBytes},
      {SIGTERM, 143 << 8, kBlockBytes},
      {SIGKILL, SIGKILL, 3 * kBlockBytes},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(strsignal(c.signal));
    TempDir home, dest;
    // Slowed down so that the signal lands while blocks are on the way.
    testing::NginxServer nginx(dir.path(), "limit_rate 64m;");
    const std::string fetch = "fetch --snapshot " + Quote(dir / "meta" / "snapshot.xml") + " --source " +
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
      const int status = first.Wait();
      EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::seconds(2));
      EXPECT_EQ(status, c.exitStatus) << first.err();
      if (c.signal != SIGKILL) {
        EXPECT_NE(first.err().find("run again to resume"), std::string::npos) << first.err();
      }
    }
    const uint64_t firstRun = nginx.BodyBytesSent();
    EXPECT_LT(firstRun, kPackageBytes) << "the first run was not interrupted";

    ToolResult second = RunTool(fetch, {}, home.path());
    ASSERT_EQ(second.exit_code, 0) << second.err;
    for (int f = 0; f < 8; ++f) {
      const std::string name = "f" + std::to_string(f) + ".bin";
      EXPECT_TRUE(ReadFile(dest / name) == ReadFile(dir / "pkg" / name)) << name;
    }
    EXPECT_LE(nginx.BodyBytesSent(), kPackageBytes + c.extraAllowed) << "first run: " << firstRun;
  }
}

}  // namespace
}  // namespace pkgdlv
