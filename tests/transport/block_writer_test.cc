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
constexpr uint32_t kAppend = 1000;  // a transport hands a block over in pieces
constexpr uint32_t kNone = UINT32_MAX, kBlocks = 6;
const std::string kContent = testing::PatternBytes(5 * kBlock + 300, 7);  // the last block short

TEST(BlockWriterTest, OnlyVerifiedBlocksReachTheDiskAndFailuresSurfaceAtCollect) {
  testing::BlockPackage package({{"c.bin", kContent}});
  ASSERT_TRUE(package.snapshot.LoadBlockHashes());
  SnapshotEntry unhashed = package.Entry("c.bin");
  unhashed.blockHashes.clear();
  struct Case {
    uint32_t corrupt, retried;  // a block received with a flipped byte; one received twice, garbage first
    bool unverified, readOnly;  // the entry holds no block hashes; every write fails
    std::vector<uint32_t> collected;
    Result failure;
    uint64_t bytesOnDisk;  // a prefix of the source, nothing after it
    bool large = false;    // every full block counts as large: handled at once, its buffer given back
  } cases[] = {
      {kNone, kNone, false, false, {0, 1, 2, 3, 4, 5}, 0, kContent.size()},
      {kNone, 2, false, false, {0, 1, 2, 3, 4, 5}, 0, kContent.size()},
      {0, kNone, false, false, {}, validation::kBadBlock, 0},
      {2, kNone, false, false, {0, 1}, validation::kBadBlock, 2 * kBlock},
      {5, kNone, false, false, {0, 1, 2, 3, 4}, validation::kBadBlock, 5 * kBlock},  // the last, checked at once
      {3, kNone, true, false, {0, 1, 2, 3, 4, 5}, 0, kContent.size()},
      {kNone, kNone, false, true, {}, ResultFromErrno(EBADF), 0},
      {kNone, kNone, false, false, {0, 1, 2, 3, 4, 5}, 0, kContent.size(), true},
      {2, kNone, false, false, {0, 1}, validation::kBadBlock, 2 * kBlock, true},
  };
  NullLogger log;
  // One for every case, as one attempt walks file after file.
  BlockWriter usual(log), largeBlocks(log, kBlock - 1);
  std::filesystem::create_directories(package.target);
  const std::filesystem::path path = package.target / "c.bin";
  auto append = [](BlockWriter& writer, std::string_view bytes) {
    for (size_t at = 0; at < bytes.size(); at += kAppend) {
      const std::string_view piece = bytes.substr(at, kAppend);
      writer.Append(std::span(reinterpret_cast<const uint8_t*>(piece.data()), piece.size()));
    }
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.corrupt << c.retried << c.unverified << c.readOnly << c.large);
    BlockWriter& writer = c.large ? largeBlocks : usual;
    std::filesystem::remove(path);
    ::close(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    const int fd = ::open(path.c_str(), (c.readOnly ? O_RDONLY : O_WRONLY) | O_CLOEXEC);
    writer.Begin({fd, &package.snapshot, c.unverified ? &unhashed : &package.Entry("c.bin"), path.string()});
    // As the block download walks a file: receive, collect all but the last
    // blocks submitted, append, submit (the last at once); the first failure
    // ends the walk.
    std::vector<uint32_t> collected;
    Result failure = 0;
    auto collect = [&](size_t keep) {
      while (writer.InHand() > keep) collected.push_back(writer.Collect()->index);
    };
    try {
      for (uint32_t index = 0; index < kBlocks; ++index) {
        const uint64_t offset = uint64_t{index} * kBlock;
        const auto length = static_cast<uint32_t>(std::min<uint64_t>(kBlock, kContent.size() - offset));
        const bool last = index + 1 == kBlocks;
        const BlockWriter::Block block{index, offset, length};
        const auto how = last ? BlockWriter::Handling::kNow : BlockWriter::Handling::kInBackground;
        writer.Receive(block, how);
        collect(BlockWriter::kUnsettled);
        if (index == c.retried) {
          append(writer, std::string(length / 2, '\xAA'));
          writer.Receive(block, how);
        }
        std::string bytes = kContent.substr(offset, length);
        if (index == c.corrupt) bytes[length / 2] ^= static_cast<char>(0xFF);
        append(writer, bytes);
        writer.Submit();
      }
      collect(0);
    } catch (const Error& e) {
      failure = e.code();
    }
    ::close(fd);
    EXPECT_EQ(collected, c.collected);
    EXPECT_EQ(failure, c.failure);
    std::string expected = kContent.substr(0, c.bytesOnDisk);
    if (c.unverified && c.corrupt != kNone) expected[c.corrupt * kBlock + kBlock / 2] ^= static_cast<char>(0xFF);
    EXPECT_EQ(testing::ReadFile(path), expected);
    if (c.large) {
      EXPECT_LE(writer.BufferBytes(), size_t{kBlock}) << "large blocks are not kept";
    }
  }
  // A source that sends more than the block is cut off.
  usual.Receive({0, 0, 10}, BlockWriter::Handling::kInBackground);
  EXPECT_THROW(append(usual, std::string(11, 'x')), Error);
}

}  // namespace
}  // namespace pkgdlv
