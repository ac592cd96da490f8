// The update list and block validation against a snapshot made by the
// snapshot builder, with a small block size.
#include "snapshot/validation.h"

#include <gtest/gtest.h>
#include <linux/falloc.h>
#include <unistd.h>

#include "agent/crypto.h"
#include "agent/secure_store.h"
#include "snapshot/dynamic_bitset.h"
#include "snapshot/hash_store.h"
#include "support/temp_dir.h"
#include "util/base64.h"
#include "util/error.h"
#include "util/filetime.h"
#include "util/memory_test_support.h"
#include "validation_test_support.h"

namespace pkgdlv {
namespace {

using testing::kSmallBlock;
using testing::PackageFixture;
using testing::ReadFile;
using testing::SetFileTime;
using testing::WriteFile;
using Names = std::vector<std::string>;

template <class Set>
ValidatorOptions Options(Set set) {
  ValidatorOptions options;
  set(options);
  return options;
}

// Overwrites bytes of a file in place (the size stays).
void PatchFile(const std::filesystem::path& path, size_t offset, std::string_view bytes) {
  int fd = ::open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)), static_cast<ssize_t>(bytes.size()));
  ::close(fd);
}

class ValidationTest : public ::testing::Test {
 protected:
  // The relative paths of the files listed for download.
  Names Run(const UpdateListOptions& options = {}, Validator* validator = nullptr) {
    Snapshot list;
    (validator ? *validator : validator_).GetUpdateList(package_.snapshot, list, &good_, options);
    Names names;
    for (const SnapshotEntry& entry : list.entries) names.push_back(entry.RelativePath());
    return names;
  }
  SnapshotEntry& Big() { return package_.Entry("", "big.bin"); }

  PackageFixture package_;
  Validator validator_;
  DynamicBitset good_;
};

TEST_F(ValidationTest, OneFlippedByteMarksExactlyThatBlockBad) {
  PatchFile(package_.PathOf("big.bin"), 7 * kSmallBlock + 100, std::string(1, package_.big[7 * kSmallBlock + 100] ^ 1));
  std::filesystem::remove(package_.PathOf("sub/small.txt"));
  package_.Entry("", "empty.dat").lastModified = 0;  // incomplete: no time
  EXPECT_EQ(Run(), (Names{"big.bin", "empty.dat", "sub\\small.txt"}));
  EXPECT_TRUE(validator_.HasUpdates(package_.snapshot, false, true));

  ASSERT_TRUE(package_.snapshot.LoadBlockHashes());
  DynamicBitset bits;
  bits.Create(package_.snapshot.totalBlocks);
  validator_.ValidateFile(package_.snapshot, Big(), &bits);
  EXPECT_EQ(std::tuple(Big().state, Big().validBytes), std::tuple(entrystate::kInvalid, 39 * kSmallBlock));
  for (uint32_t i = 0; i < 40; ++i) EXPECT_EQ(bits.Check(Big().firstBlock + i), i != 7) << "block " << i;
  EXPECT_EQ(package_.log.Count("Block 7 ("), 2u);  // once by the list, once here
  // Without a bitset the first bad block ends the walk.
  validator_.ValidateFile(package_.snapshot, Big(), nullptr);
  EXPECT_EQ(Big().validBytes, 7 * kSmallBlock);
}

TEST_F(ValidationTest, BlockHashFailuresCountAsBadBlocks) {
  ASSERT_TRUE(package_.snapshot.LoadBlockHashes());
  const std::span<const uint8_t> block0(reinterpret_cast<const uint8_t*>(package_.big.data()), kSmallBlock),
      block1(block0.data() + kSmallBlock, kSmallBlock);
  std::vector<uint8_t> seenKey;
  using Bytes = std::span<const uint8_t>;
  const std::pair<BlockHashFunction, Result> cases[] = {
      {[](Bytes, Bytes, std::vector<uint8_t>& out) { return out.assign(33, 0), Result{0}; }, validation::kBadHashSize},
      {[](Bytes, Bytes, std::vector<uint8_t>&) { return Result{0x8009000F}; }, 0x8009000F},
      {[&](Bytes block, Bytes previous, std::vector<uint8_t>& out) {  // keyed with the hash of the block before
         seenKey.assign(previous.begin(), previous.end());
         Sha256Digest d = BlockHash(block, previous);
         return out.assign(d.begin(), d.end()), Result{0};
       },
       0},
  };
  for (const auto& [hash, expected] : cases) {
    Validator validator(Options([&](ValidatorOptions& o) { o.hashBlock = hash; }));
    EXPECT_EQ(validator.ValidateBlock(package_.snapshot, Big(), 1, block1, "big.bin", 0, true), expected);
  }
  EXPECT_EQ(seenKey, std::vector<uint8_t>(Big().blockHashes.begin(), Big().blockHashes.begin() + 32));
  EXPECT_EQ(validator_.ValidateBlock(package_.snapshot, Big(), 1, block0, "big.bin", 0, true), validation::kBadBlock);
  EXPECT_TRUE(package_.log.Contains("Failed to calculate block hash for file 'big.bin'"));
  EXPECT_TRUE(package_.log.Contains("Block 1 (2/41) is invalid for file 'big.bin'"));
  Validator cancelled(Options([](ValidatorOptions& o) { o.cancelled = [] { return true; }; }));
  EXPECT_EQ(cancelled.ValidateBlock(package_.snapshot, Big(), 0, block0, "big.bin", 0, false), validation::kCancelled);
}

TEST_F(ValidationTest, WithoutBlockHashesTheWholeFileHashDecides) {
  SnapshotEntry& small = package_.Entry("sub", "small.txt");
  const std::tuple<std::string, uint32_t, const char*> cases[] = {
      {small.fileHash, entrystate::kValid, ""},
      {Base64Encode(std::string(32, 'x')), entrystate::kInvalid, "Hashes are different for file: '"},
      {"%%%", entrystate::kInvalid, "Failed to decode Base64 data while validating the file '"},
  };
  for (const auto& [fileHash, state, line] : cases) {
    SCOPED_TRACE(fileHash);
    small.fileHash = fileHash;
    small.blockHashes.clear();
    validator_.ValidateFile(package_.snapshot, small, nullptr);
    EXPECT_EQ(std::tuple(small.state, small.validBytes), std::tuple(state, state == entrystate::kValid ? 100 : 0));
    EXPECT_TRUE(*line == '\0' || package_.log.Contains(line));
  }
  std::filesystem::remove(package_.PathOf("sub/small.txt"));
  validator_.ValidateFile(package_.snapshot, small, nullptr);
  EXPECT_EQ(small.state, entrystate::kHashNotComputed);
}

// A stop seen during the walk never lets an unread file pass as complete:
// what was not looked at is listed, and a whole-file hash cut short is not
// a match.
TEST_F(ValidationTest, AStopDuringTheWalkListsWhatWasNotRead) {
  bool stop = true;
  Validator stoppable(Options([&](ValidatorOptions& o) { o.cancelled = [&stop] { return stop; }; }));
  EXPECT_EQ(Run({}, &stoppable), (Names{"big.bin", "empty.dat", "sub\\small.txt"}));
  EXPECT_EQ(good_.Count(), 0u);

  Big().blockHashes.clear();  // judged by its whole-file hash, read in chunks
  stoppable.ValidateFile(package_.snapshot, Big(), nullptr);
  EXPECT_EQ(Big().state, entrystate::kInvalid);
  stop = false;
  stoppable.ValidateFile(package_.snapshot, Big(), nullptr);
  EXPECT_EQ(Big().state, entrystate::kValid);
}

TEST_F(ValidationTest, ASparseFileLosesItsCorruptBlockToAHole) {
  // big.bin as a block download leaves it: blocks 0-2 and 5 written, block 3
  // written with wrong bytes, the rest holes.
  const std::filesystem::path path = package_.PathOf("big.bin");
  std::filesystem::remove(path);
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(package_.big.size())), 0);
  for (uint32_t block : {0u, 1u, 2u, 5u}) {
    ::pwrite(fd, package_.big.data() + block * kSmallBlock, kSmallBlock, block * kSmallBlock);
  }
  ::pwrite(fd, std::string(kSmallBlock, 'Z').data(), kSmallBlock, 3 * kSmallBlock);
  const bool holes = ::lseek(fd, 0, SEEK_HOLE) == 4 * kSmallBlock;
  ::close(fd);
  if (!holes) GTEST_SKIP() << "the temporary file system keeps no holes";

  EXPECT_TRUE(Run({.sparseMode = true}).empty());
  for (uint32_t i = 0; i < 40; ++i) EXPECT_EQ(good_.Check(Big().firstBlock + i), i <= 2 || i == 5) << "block " << i;
  EXPECT_TRUE(package_.log.Contains("Zero the invalid block 12288-16384 of sparse file"));
  const std::string after = ReadFile(path);
  ASSERT_EQ(after.size(), package_.big.size());
  EXPECT_EQ(after.substr(3 * kSmallBlock, kSmallBlock), std::string(kSmallBlock, '\0'));
  EXPECT_EQ(after.substr(0, 3 * kSmallBlock), package_.big.substr(0, 3 * kSmallBlock));

  // Skipping hashes, allocation alone decides: the punched block stays out.
  Run({.sparseMode = true, .skipHash = true});
  EXPECT_EQ(std::pair(good_.Check(Big().firstBlock + 3), good_.Check(Big().firstBlock + 5)), std::pair(false, true));
}

// The block size of a document sizes no buffer beyond the file: a 10-byte
// file under a block size of 4 GiB (claimed at its size, or at 4 GiB) is
// checked with memory in proportion to its 10 bytes.
TEST(ValidationLimitsTest, AHugeBlockSizeReadsNoMoreThanTheFile) {
  testing::TempDir dir;
  const std::string data = "0123456789", time = "2024-03-01 10:20:30";
  WriteFile(dir / "a", data);
  SetFileTime(dir / "a", *ParseDocumentTime(time));
  const Sha256Digest hash = BlockHash(std::span(reinterpret_cast<const uint8_t*>(data.data()), data.size()), {});
  const std::string hashText = Base64Encode(std::vector<uint8_t>(hash.begin(), hash.end()));
  for (const auto& [size, listed] : std::vector<std::pair<std::string, bool>>{{"10", false}, {"4294967295", true}}) {
    SCOPED_TRACE(size);
    Snapshot snapshot;
    ASSERT_TRUE(snapshot.LoadXml(R"(<Snapshot blockSize="4294967295"><Root size=")" + size +
                                 R"("><File name="a" size=")" + size + R"(" lastModifiedTime=")" + time +
                                 R"(" blockHash=")" + hashText + R"("/></Root></Snapshot>)"));
    snapshot.path = dir.path().string();
    Snapshot list;
    DynamicBitset good;
    testing::ResetPeakResidentBytes();
    const uint64_t before = testing::PeakResidentBytes();
    Validator().GetUpdateList(snapshot, list, &good, {});
    EXPECT_LT(testing::PeakResidentBytes() - before, uint64_t{64} << 20);
    EXPECT_EQ(std::pair(list.entries.size(), good.Count()),
              listed ? std::pair(size_t{1}, 0u) : std::pair(size_t{0}, 1u));
  }
}

TEST(HashFileIntoStoreTest, ComputesOnceThenReadsTheStoreAndComposesTheHashes) {
  PackageFixture package;
  auto store = std::make_shared<HashStore>(
      OpenSqliteSecureStore(package.dir / "data" / "securestore.db", package.dir / "data" / "machine.key"));
  Validator validator(Options([&](ValidatorOptions& o) { o.hashStore = store; }));
  const auto walk = [&] {
    Snapshot walked(package.loaded.log);
    walked.id = package.snapshot.id;
    walked.path = package.snapshot.path;
    walked.blockSize = kSmallBlock;
    EXPECT_EQ(validator.HashFileIntoStore(walked, "", true), 0u);
    return walked;
  };
  Snapshot walked = walk();
  EXPECT_EQ(package.log.Count("Stored newly calulated hash while adding the file: '"), 3u);
  const SnapshotEntry* small = walked.FindEntry("sub", "small.txt");
  ASSERT_TRUE(small && walked.FindEntry("sub", ""));
  EXPECT_EQ(std::tuple(small->size, small->state, small->hasBlockHash, small->blockHashes.size()),
            std::tuple(100, entrystate::kValid, true, 0u));

  package.log.Clear();
  walk();
  EXPECT_EQ(package.log.Count("Stored newly calulated hash"), 0u) << "the second walk reads the store";
  EXPECT_EQ(package.log.Count("Failed to read hash from Secure Storage"), 0u);

  // The stored hashes are the publisher's: the composed document carries them.
  ASSERT_TRUE(package.snapshot.LoadBlockHashes());
  walked.OrderEntries();
  EXPECT_NE(walked.ComposeXml(store.get()).find(Base64Encode(package.Entry("", "big.bin").blockHashes)),
            std::string::npos);
}

// ---- The bitset of blocks

using Ranges = std::vector<std::pair<uint32_t, uint32_t>>;

TEST(DynamicBitsetTest, RangesAcrossWordsKeepTheCount) {
  DynamicBitset set;
  set.Create(100);
  EXPECT_FALSE(set.Set(70, true));
  EXPECT_TRUE(set.Set(70, true)) << "the previous value";
  set.SetRange(60, 80, true);
  EXPECT_TRUE(set.Set(70, false));
  EXPECT_EQ(set.Count(), 20u);
  EXPECT_EQ(set.CountInRange(0, 69), 10u);
  EXPECT_EQ(set.SetRanges(), (Ranges{{60, 69}, {71, 80}}));
  EXPECT_EQ(set.Words().size(), 2u);

  // Bits past the end of stored bytes are dropped and the count redone.
  DynamicBitset copy;
  copy.Create(70, std::vector<uint8_t>(16, 0xFF));
  EXPECT_EQ(std::pair(copy.Count(), copy.SizeInBytes()), std::pair(70u, 16u));
}

// Misuse throws instead of touching memory outside the bits.
TEST(DynamicBitsetTest, MisuseThrows) {
  DynamicBitset none, ten;
  ten.Create(10);
  EXPECT_THROW(none.Set(0, true), Error);
  EXPECT_THROW(ten.Set(10, true), Error);
  EXPECT_THROW(none.SetRange(0, 1, true), Error);
  EXPECT_THROW(ten.SetRange(5, 4, true), Error);
  EXPECT_THROW(ten.SetRange(0, 10, true), Error);
  EXPECT_THROW(ten.Check(10), Error);
  EXPECT_THROW(none.Words(), Error);
  EXPECT_THROW(ten.CountInRange(3, 10), Error);
  EXPECT_EQ(ten.Count(), 0u);
}

}  // namespace
}  // namespace pkgdlv
