// Block-range downloads from an in-process server on 127.0.0.1 and from a
// local folder: complete downloads byte for byte, blocks the local map
// already has, faults that end a file, a cancel from another thread and
// hostile names.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <map>
#include <thread>

#include "block_test_support.h"
#include "support/http_test_server.h"
#include "support/transport_services.h"
#include "util/errno_result.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;
using testing::AttemptRunner;
using testing::BlockPackage;
using testing::HttpFault;
using testing::HttpTestServer;
using testing::kBlock;
using testing::PatternBytes;
using testing::ReadFile;
using testing::UrlPath;
using testing::WriteFile;

// Blocks 0-2 a.bin (the last one half), 3-5 c.bin, 6 sub\b.txt; empty.dat
// has none.
BlockPackage::Files StandardFiles() {
  return {{"a.bin", PatternBytes(10240, 1)},
          {"c.bin", PatternBytes(3 * kBlock, 2)},
          {"empty.dat", ""},
          {"sub\\b.txt", PatternBytes(100, 3)}};
}

void ExpectTargetMatches(const BlockPackage& package) {
  for (const auto& [path, content] : package.files()) {
    const fs::path file = package.target / UrlPath(path);
    EXPECT_TRUE(ReadFile(file) == content) << path << " differs from the source";
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0) << path;
    EXPECT_TRUE(SameSecond(FileTimeFromTimespec(info.st_mtim), package.Entry(path).lastModified)) << path;
  }
}

// The Range headers each path was asked for, in order.
std::map<std::string, std::vector<std::string>> RangesAsked(const HttpTestServer& server) {
  std::map<std::string, std::vector<std::string>> ranges;
  for (const auto& request : server.Requests()) ranges[request.path].push_back(request.Header("Range"));
  return ranges;
}

class BlockDownloadTest : public ::testing::Test {
 protected:
  void Serve(HttpTestServer& server) {
    for (const auto& [path, content] : package_.files()) server.AddFile("/pkg/" + UrlPath(path), content);
  }

  testing::TransportServices env_;
  BlockPackage package_{StandardFiles()};
  HttpTestServer server_;
};

TEST_F(BlockDownloadTest, AsksOnlyForTheBlocksTheLocalMapLacks) {
  const std::string a = package_.Content("a.bin");
  struct Case {
    std::optional<std::string> a;  // what the target's a.bin holds; nullopt: an empty target
    bool mapHasAllOfA;
    std::map<std::string, std::vector<std::string>> ranges;
  } cases[] = {
      {std::nullopt, false,
       {{"/pkg/a.bin", {"bytes=0-4095", "bytes=4096-8191", "bytes=8192-10239"}},
        {"/pkg/c.bin", {"bytes=0-4095", "bytes=4096-8191", "bytes=8192-12287"}},
        {"/pkg/sub/b.txt", {"bytes=0-99"}}}},
      // A file cut short keeps its whole blocks; only the rest is asked for.
      {a.substr(0, 9000), false, {{"/pkg/a.bin", {"bytes=8192-10239"}}}},
      // Every block of a.bin in the map: nothing asked, but the file is still
      // cut to its size and given its time.
      {a + "trailing bytes", true, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.a ? c.a->size() : 0);
    fs::remove_all(package_.target);
    if (c.a) {
      // Complete copies with the snapshot's times: nothing to fetch for them.
      for (const auto& [path, content] : package_.files()) {
        const fs::path file = package_.target / UrlPath(path);
        WriteFile(file, content);
        const timespec time = TimespecFromFileTime(package_.Entry(path).lastModified);
        const timespec times[2] = {time, time};
        ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
      }
      WriteFile(package_.target / "a.bin", *c.a);
    }
    HttpTestServer server;
    Serve(server);
    AttemptRunner runner(env_.services, package_);
    const Result code = runner.Run(server.Url("/pkg"), [&](AttemptInput& input) {
      if (c.mapHasAllOfA) input.localMap->SetRange(0, 2, true);
    });
    EXPECT_EQ(code, 0u) << runner.download.LastDescription();
    EXPECT_EQ(RangesAsked(server), c.ranges);
    ExpectTargetMatches(package_);
  }
}

TEST_F(BlockDownloadTest, AFaultEndsTheFileWithItsCodeAndTheMapKeepsWhatArrived) {
  // A block is written only once verified, and marked only once written:
  // what c.bin holds on disk is exactly its marked blocks, even when the
  // next block had already arrived while the bad one was checked.
  struct Case {
    std::string name;
    HttpFault fault;
    size_t servedBytes;  // of c.bin
    uint64_t fileSizeLimit;  // RLIMIT_FSIZE during the attempt; 0: none
    Result code;
    std::vector<uint32_t> blocksOfC;
    uint64_t bytesOfCOnDisk;
  } cases[] = {
      {"not found", {.status = 404}, 3 * kBlock, 0, 0x80042D21, {}, 0},
      {"connection reset mid-block", {.truncateAfter = 1000}, 3 * kBlock, 0, 0x800C0008, {}, 0},
      {"block 1 corrupt", {.corruptByte = kBlock + 10}, 3 * kBlock, 0, 0x80090002, {0}, kBlock},
      {"block 0 corrupt", {.corruptByte = 10}, 3 * kBlock, 0, 0x80090002, {}, 0},
      {"server's file shorter: short last block", {}, 3 * kBlock - 1000, 0, 1629, {0, 1}, 2 * kBlock},
      // Block 0 is with the writer when block 1's request fails: it is
      // still written and marked.
      {"error status mid-file (416)", {}, kBlock, 0, 0x80042D21, {0}, kBlock},
      // a.bin (10240 bytes) just fits; the write of c.bin's block 2 is cut short.
      {"write of block 2 fails", {}, 3 * kBlock, 10240, ResultFromErrno(EFBIG), {0, 1}, 10240},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(package_.target);
    env_.log->Clear();
    HttpTestServer server;
    Serve(server);
    server.AddFile("/pkg/c.bin", package_.Content("c.bin").substr(0, c.servedBytes));
    server.SetFault("/pkg/c.bin", c.fault);
    AttemptRunner runner(env_.services, package_);
    // Without its signal, a write past the limit fails with EFBIG.
    const auto previousHandler = ::signal(SIGXFSZ, SIG_IGN);
    rlimit previous{};
    ::getrlimit(RLIMIT_FSIZE, &previous);
    const rlimit limited{c.fileSizeLimit ? c.fileSizeLimit : previous.rlim_cur, previous.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limited);
    const Result code = runner.Run(server.Url("/pkg"));
    ::setrlimit(RLIMIT_FSIZE, &previous);
    ::signal(SIGXFSZ, previousHandler);
    EXPECT_EQ(code, c.code);
    EXPECT_EQ(runner.download.LastResult(), c.code);
    std::error_code ec;
    EXPECT_EQ(fs::file_size(package_.target / "c.bin", ec), c.bytesOfCOnDisk);
    EXPECT_EQ(ReadFile(package_.target / "c.bin"), package_.Content("c.bin").substr(0, c.bytesOfCOnDisk));
    EXPECT_EQ(package_.BitsOf("a.bin", runner.map), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(package_.BitsOf("c.bin", runner.map), c.blocksOfC);
    ASSERT_FALSE(runner.stored.empty());
    EXPECT_EQ(package_.BitsOf("c.bin", runner.stored.back()), c.blocksOfC) << "the map is stored whatever the result";
    EXPECT_EQ(server.RequestCount("/pkg/sub/b.txt"), 0u) << "the attempt ends with the failing file";
    EXPECT_EQ(runner.events.LastEnd(), Format("end c.bin 0x%08X", c.code));
    EXPECT_TRUE(env_.log->Contains("Failed to download package 'Demo' from: " + server.Url("/pkg") +
                                   ", local blocks: " + std::to_string(3 + c.blocksOfC.size()) + "/7"));
  }
}

TEST_F(BlockDownloadTest, ACancelFromAnotherThreadEndsTheAttemptPromptly) {
  Serve(server_);
  server_.SetFault("/pkg/c.bin", {.bytesPerSecond = 2048});  // two seconds a block
  AttemptRunner runner(env_.services, package_);
  std::chrono::steady_clock::time_point cancelledAt;
  std::thread canceller([&] {
    while (server_.RequestCount("/pkg/c.bin") == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    cancelledAt = std::chrono::steady_clock::now();
    runner.download.Cancel();
  });
  const Result code = runner.Run(server_.Url("/pkg"));
  const auto ended = std::chrono::steady_clock::now();
  canceller.join();
  EXPECT_EQ(code, 1223u);
  EXPECT_LT(ended - cancelledAt, std::chrono::milliseconds(1000));
  EXPECT_EQ(package_.BitsOf("c.bin", runner.map), std::vector<uint32_t>{});
  EXPECT_EQ(runner.stored.size(), 1u);
  EXPECT_TRUE(env_.log->Contains("Package 'Demo' download cancelled"));
}

TEST_F(BlockDownloadTest, HostileNamesNeverLeaveThePackageFolder) {
  Serve(server_);
  const fs::path outside = package_.dir / "outside";
  fs::create_directories(outside);
  struct Case {
    std::string name;
    std::string folder;
    std::string file;
    bool linkSub;  // target/sub is a link to the outside folder
  } cases[] = {
      {"parent folder", "..", "b.txt", false},
      {"separator in the name", "", "..\\outside\\b.txt", false},
      {"absolute folder", testing::StoredFolder(outside).substr(2), "b.txt", false},
      {"link on the way", "sub", "b.txt", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(package_.target);
    fs::create_directories(package_.target);
    if (c.linkSub) fs::create_directory_symlink(outside, package_.target / "sub");
    AttemptRunner runner(env_.services, package_);
    const size_t requestsBefore = server_.Requests().size();
    const Result code = runner.Run(server_.Url("/pkg"), [&](AttemptInput&) {
      SnapshotEntry entry = package_.Entry("sub\\b.txt");
      entry.folder = c.folder;
      entry.name = c.file;
      runner.updateList.entries = {entry};
    });
    EXPECT_EQ(code, result::kInvalidArg);
    EXPECT_TRUE(fs::is_empty(outside));
    EXPECT_FALSE(fs::exists(package_.dir / "b.txt"));
    EXPECT_EQ(server_.Requests().size(), requestsBefore);
  }
}

}  // namespace
}  // namespace pkgdlv
