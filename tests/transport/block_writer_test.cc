// The block writer: blocks reach the disk only verified, a failure surfaces
// at the next Collect, a file's last block is written before Submit returns,
// and one writer serves file after file whatever happened in the file
// before.
#include "transport/block_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/logger.h"
#include "block_test_support.h"
#include "util/errno_result.h"

namespace pkgdlv {
namespace {

using testing::BlockPackage;
using testing::kBlock;
using testing::PatternBytes;
using testing::ReadFile;

constexpr uint32_t kNone = UINT32_MAX;
const std::string kContent = PatternBytes(5 * kBlock + 300, 7);  // six blocks, the last one short
constexpr uint32_t kBlocks = 6;

struct Outcome {
  std::vector<uint32_t> collected;
  Result failure = 0;
  bool lastOnDiskAtSubmit = false;  // the file held the last block when Submit returned
};

// Feeds the file's blocks as the block download walks them: fill, Collect
// the block before, Submit (the last one at once when lastNow); the first
// failure ends the walk, and the block in hand is still collected.
Outcome Feed(BlockWriter& writer, int fd, uint32_t corrupt, bool lastNow) {
  Outcome outcome;
  auto collect = [&] {
    if (std::optional<BlockWriter::Block> block = writer.Collect()) outcome.collected.push_back(block->index);
  };
  try {
    for (uint32_t index = 0; index < kBlocks; ++index) {
      const uint64_t offset = uint64_t{index} * kBlock;
      const uint32_t length = static_cast<uint32_t>(std::min<uint64_t>(kBlock, kContent.size() - offset));
      std::span<uint8_t> buffer = writer.Buffer(length);
      std::memcpy(buffer.data(), kContent.data() + offset, length);
      if (index == corrupt) buffer[length / 2] ^= 0xFF;
      collect();
      const bool now = lastNow && index + 1 == kBlocks;
      writer.Submit({index, offset, length}, now ? BlockWriter::Handling::kNow : BlockWriter::Handling::kInBackground);
      struct stat info {};
      if (now && ::fstat(fd, &info) == 0) {
        outcome.lastOnDiskAtSubmit = static_cast<uint64_t>(info.st_size) == kContent.size();
      }
    }
    collect();
  } catch (const Error& e) {
    outcome.failure = e.code();
    collect();
  }
  return outcome;
}

TEST(BlockWriterTest, OnlyVerifiedBlocksReachTheDiskAndFailuresSurfaceAtCollect) {
  BlockPackage package({{"c.bin", kContent}});
  ASSERT_TRUE(package.snapshot.LoadBlockHashes());
  SnapshotEntry unhashed = package.Entry("c.bin");
  unhashed.blockHashes.clear();
  const std::vector<uint32_t> all = {0, 1, 2, 3, 4, 5};
  struct Case {
    std::string name;
    uint32_t corrupt;
    bool lastNow;
    bool unverified;  // the entry holds no block hashes
    bool readOnly;    // every write fails
    std::vector<uint32_t> collected;
    Result failure;
    uint64_t bytesOnDisk;  // a prefix of the source, nothing after it
  } cases[] = {
      {"all good, the last block at once", kNone, true, false, false, all, 0, kContent.size()},
      {"all good, all on the writer's thread", kNone, false, false, false, all, 0, kContent.size()},
      {"block 0 corrupt", 0, true, false, false, {}, validation::kBadBlock, 0},
      {"block 2 corrupt", 2, true, false, false, {0, 1}, validation::kBadBlock, 2 * kBlock},
      {"last block corrupt, checked at once", 5, true, false, false, {0, 1, 2, 3, 4}, validation::kBadBlock,
       5 * kBlock},
      {"no block hashes: nothing is checked", 3, true, true, false, all, 0, kContent.size()},
      {"every write fails", kNone, true, false, true, {}, ResultFromErrno(EBADF), 0},
  };
  // One writer for every case, as one attempt walks file after file.
  NullLogger log;
  BlockWriter writer(log);
  std::filesystem::create_directories(package.target);
  const std::filesystem::path path = package.target / "c.bin";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove(path);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    if (c.readOnly) {
      ::close(fd);
      fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    writer.Begin({fd, &package.snapshot, c.unverified ? &unhashed : &package.Entry("c.bin"), path.string()});
    const Outcome outcome = Feed(writer, fd, c.corrupt, c.lastNow);
    ::close(fd);
    EXPECT_EQ(outcome.collected, c.collected);
    EXPECT_EQ(outcome.failure, c.failure);
    if (c.lastNow && c.failure == 0) {
      EXPECT_TRUE(outcome.lastOnDiskAtSubmit);
    }
    std::string expected = kContent.substr(0, c.bytesOnDisk);
    if (c.unverified && c.corrupt != kNone) expected[c.corrupt * kBlock + kBlock / 2] ^= static_cast<char>(0xFF);
    EXPECT_EQ(ReadFile(path), expected);
  }
}

}  // namespace
}  // namespace pkgdlv
