// The download of one byte range of one package file into a sparse target,
// against the in-process server: the covering blocks and nothing else are
// asked for, verified and written in place; bad ranges, bad blocks and a bad
// source leave the target without them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "block_test_support.h"
#include "support/http_test_server.h"
#include "support/transport_services.h"
#include "transport/file_range_download.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;
using testing::BlockPackage;
using testing::HttpFault;
using testing::HttpTestServer;
using testing::kBlock;
using testing::PatternBytes;
using testing::ReadFile;

TEST(FileRangeDownloadTest, FetchesTheBlocksCoveringTheRangeIntoASparseFile) {
  testing::TransportServices env;
  BlockPackage package({{"c.bin", PatternBytes(3 * kBlock + 100, 2)}});  // blocks 0-3, the last one short
  ASSERT_TRUE(package.snapshot.LoadBlockHashes());
  const std::string content = package.Content("c.bin");
  const std::string zeros(kBlock, '\0');

  struct Case {
    uint64_t first, last;
    std::vector<uint32_t> mapHas;  // blocks the local map already has
    bool dropHashes;
    int64_t corruptByte;
    std::string source;  // empty: the server's "/pkg"
    Result code;
    std::vector<std::string> ranges;    // asked of the server
    std::vector<uint32_t> blocksOnDisk;  // of the target
    std::string line;                    // logged
  } cases[] = {
      {5000, 9000, {}, false, -1, "", 0, {"bytes=4096-8191", "bytes=8192-12287"}, {1, 2},
       "Requested range 5000-9000 download of a file 'c.bin'"},
      {12290, 12300, {}, false, -1, "", 0, {"bytes=12288-12387"}, {3}, ""},  // inside the short last block
      {4096, 4096, {1}, false, -1, "", 0, {}, {}, ""},                        // a block the map has
      {0, 100, {}, true, -1, "", 0, {"bytes=0-4095"}, {0},
       "Downloaded block hash is not verified: file block hash is missing."},
      {0, 8000, {}, false, kBlock + 7, "", 0x80090002, {"bytes=0-4095", "bytes=4096-8191"}, {0},
       "Failed to download file range 0-8000 of 'c.bin' (0x80090002)"},
      {12000, 12388, {}, false, -1, "", result::kInvalidArg, {}, {},
       "Invalid range request specified (12000-12388) for downloading the file 'c.bin'"},
      {20, 10, {}, false, -1, "", result::kInvalidArg, {}, {}, "Failed to download file range 20-10 of 'c.bin' (0x80070057)"},
      {0, 10, {}, false, -1, "ftp://127.0.0.1/pkg", result::kInvalidProtocol, {}, {},
       "Failed to download range of a file 'c.bin', invalid protocol specified in 'ftp://127.0.0.1/pkg'"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.first) + "-" + std::to_string(c.last));
    env.log->Clear();
    fs::remove_all(package.target);
    fs::create_directories(package.target);
    HttpTestServer server;
    server.AddFile("/pkg/c.bin", content);
    server.SetFault("/pkg/c.bin", {.corruptByte = c.corruptByte});
    SnapshotEntry file = package.Entry("c.bin");
    if (c.dropHashes) file.blockHashes.clear();
    DynamicBitset map;
    map.Create(package.snapshot.totalBlocks);
    for (uint32_t bit : c.mapHas) map.Set(bit, true);

    PackageDownload download(env.services);
    FileRangeRequest request{&package.snapshot, &file, c.source.empty() ? server.Url("/pkg") : c.source, c.first,
                             c.last, (package.target / "c.bin").string(), false, 0, &map};
    EXPECT_EQ(DownloadFileRange(download, request), c.code) << download.LastDescription();
    EXPECT_EQ(download.LastResult(), c.code);

    std::vector<std::string> ranges;
    for (const auto& asked : server.Requests()) ranges.push_back(asked.Header("Range"));
    EXPECT_EQ(ranges, c.ranges);
    EXPECT_TRUE(c.line.empty() || env.log->Contains(c.line)) << c.line;
    if (c.code != 0 && c.code != 0x80090002) continue;  // refused before the target was opened

    // The target has the package file's size; the blocks written hold the
    // source's bytes and are set in the map, every other block reads as zeros.
    const std::string disk = ReadFile(package.target / "c.bin");
    ASSERT_EQ(disk.size(), content.size());
    for (uint32_t block = 0; block < 4; ++block) {
      const bool written = std::find(c.blocksOnDisk.begin(), c.blocksOnDisk.end(), block) != c.blocksOnDisk.end();
      const std::string bytes = disk.substr(block * kBlock, kBlock);
      EXPECT_EQ(bytes, written ? content.substr(block * kBlock, kBlock) : zeros.substr(0, bytes.size()))
          << "block " << block;
      EXPECT_EQ(map.Check(block), written || std::count(c.mapHas.begin(), c.mapHas.end(), block) > 0)
          << "block " << block;
    }
  }
}

}  // namespace
}  // namespace pkgdlv
