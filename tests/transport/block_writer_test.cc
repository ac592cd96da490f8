// The block writer: blocks reach the disk only verified, a failure surfaces
// at a later Collect, and one writer serves file after file whatever happened
// in the file before.
#include "transport/block_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "agent/logger.h"
#include "block_test_support.h"
#include "util/errno_result.h"

namespace pkgdlv {
namespace {

using testing::kBlock;

constexpr uint32_t kNone = UINT32_MAX, kBlocks = 6;
const std::string kContent = testing::PatternBytes(5 * kBlock + 300, 7);  // the last block short

TEST(BlockWriterTest, OnlyVerifiedBlocksReachTheDiskAndFailuresSurfaceAtCollect) {
  testing::BlockPackage package({{"c.bin", kContent}});
  ASSERT_TRUE(package.snapshot.LoadBlockHashes());
  SnapshotEntry unhashed = package.Entry("c.bin");
  unhashed.blockHashes.clear();
  struct Case {
    uint32_t corrupt;
    bool unverified, readOnly;  // the entry holds no block hashes; every write fails
    std::vector<uint32_t> collected;
    Result failure;
    uint64_t bytesOnDisk;  // a prefix of the source, nothing after it
  } cases[] = {
      {kNone, false, false, {0, 1, 2, 3, 4, 5}, 0, kContent.size()},
      {0, false, false, {}, validation::kBadBlock, 0},
      {2, false, false, {0, 1}, validation::kBadBlock, 2 * kBlock},
      {5, false, false, {0, 1, 2, 3, 4}, validation::kBadBlock, 5 * kBlock},  // the last, checked at once
      {3, true, false, {0, 1, 2, 3, 4, 5}, 0, kContent.size()},
      {kNone, false, true, {}, ResultFromErrno(EBADF), 0},
  };
  NullLogger log;
  BlockWriter writer(log);  // one for every case, as one attempt walks file after file
  std::filesystem::create_directories(package.target);
  const std::filesystem::path path = package.target / "c.bin";
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.corrupt << c.unverified << c.readOnly);
    std::filesystem::remove(path);
    ::close(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    const int fd = ::open(path.c_str(), (c.readOnly ? O_RDONLY : O_WRONLY) | O_CLOEXEC);
    writer.Begin({fd, &package.snapshot, c.unverified ? &unhashed : &package.Entry("c.bin"), path.string()});
    // As the block download walks a file: fill, collect the block before,
    // submit (the last at once); the first failure ends the walk.
    std::vector<uint32_t> collected;
    Result failure = 0;
    auto collect = [&] {
      while (std::optional<BlockWriter::Block> block = writer.Collect()) collected.push_back(block->index);
    };
    try {
      for (uint32_t index = 0; index < kBlocks; ++index) {
        const uint64_t offset = uint64_t{index} * kBlock;
        const auto length = static_cast<uint32_t>(std::min<uint64_t>(kBlock, kContent.size() - offset));
        std::span<uint8_t> buffer = writer.Buffer(length);
        std::memcpy(buffer.data(), kContent.data() + offset, length);
        if (index == c.corrupt) buffer[length / 2] ^= 0xFF;
        if (writer.InHand() == BlockWriter::kDepth - 1 || index + 1 == kBlocks) collect();
        writer.Submit({index, offset, length},
                      index + 1 == kBlocks ? BlockWriter::Handling::kNow : BlockWriter::Handling::kInBackground);
      }
      collect();
    } catch (const Error& e) {
      failure = e.code();
    }
    ::close(fd);
    EXPECT_EQ(collected, c.collected);
    EXPECT_EQ(failure, c.failure);
    std::string expected = kContent.substr(0, c.bytesOnDisk);
    if (c.unverified && c.corrupt != kNone) expected[c.corrupt * kBlock + kBlock / 2] ^= static_cast<char>(0xFF);
    EXPECT_EQ(testing::ReadFile(path), expected);
  }
}

}  // namespace
}  // namespace pkgdlv
