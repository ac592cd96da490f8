// The update list and block validation against a snapshot made by the
// snapshot builder, with a small block size.
#include "snapshot/validation.h"

#include <gtest/gtest.h>
#include <linux/falloc.h>
#include <unistd.h>

#include <fstream>

#include "agent/crypto.h"
#include "agent/secure_store.h"
#include "snapshot/hash_store.h"
#include "support/temp_dir.h"
#include "util/base64.h"
#include "util/filetime.h"
#include "validation_test_support.h"

namespace pkgdlv {
namespace {

using testing::FakeVolumeInfo;
using testing::kSmallBlock;
using testing::PackageFixture;
using testing::ReadFile;
using testing::SetFileTime;
using testing::WriteFile;

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

std::vector<std::string> ListedNames(const Snapshot& list) {
  std::vector<std::string> names;
  for (const SnapshotEntry& entry : list.entries) names.push_back(entry.RelativePath());
  return names;
}

class ValidationTest : public ::testing::Test {
 protected:
  Snapshot Run(const UpdateListOptions& options = {}) {
    Snapshot list;
    validator_.GetUpdateList(package_.snapshot, list, &good_, options);
    return list;
  }
  uint32_t BigFirst() { return package_.Entry("", "big.bin").firstBlock; }

  PackageFixture package_;
  Validator validator_;
  DynamicBitset good_;
};

TEST_F(ValidationTest, OneFlippedByteMarksExactlyThatBlockBad) {
  PatchFile(package_.PathOf("big.bin"), 7 * kSmallBlock + 100, std::string(1, package_.big[7 * kSmallBlock + 100] ^ 1));
  Snapshot list = Run();
  EXPECT_EQ(ListedNames(list), std::vector<std::string>{"big.bin"});

  ASSERT_TRUE(package_.snapshot.LoadBlockHashes());
  SnapshotEntry& big = package_.Entry("", "big.bin");
  DynamicBitset bits;
  bits.Create(package_.snapshot.totalBlocks);
  validator_.ValidateFile(package_.snapshot, big, &bits);
  EXPECT_EQ(big.state, entrystate::kInvalid);
  EXPECT_EQ(big.validBytes, 39 * kSmallBlock);
  for (uint32_t i = 0; i < 40; ++i) EXPECT_EQ(bits.Check(big.firstBlock + i), i != 7) << "block " << i;
  EXPECT_EQ(package_.log.Count("Block 7 ("), 2u);  // once by the list, once here
  // Without a bitset the first bad block ends the walk.
  validator_.ValidateFile(package_.snapshot, big, nullptr);
  EXPECT_EQ(big.validBytes, 7 * kSmallBlock);
}

TEST_F(ValidationTest, MissingAndIncompleteFilesAreListedUnread) {
  std::filesystem::remove(package_.PathOf("sub/small.txt"));
  package_.Entry("", "empty.dat").lastModified = 0;  // incomplete: no time
  Snapshot list = Run();
  EXPECT_EQ(ListedNames(list), (std::vector<std::string>{"empty.dat", "sub\\small.txt"}));
  EXPECT_EQ(good_.Count(), 40u);
  EXPECT_TRUE(validator_.HasUpdates(package_.snapshot, false, true));
}

TEST_F(ValidationTest, TimeRulesDecideBetweenListingAndHashing) {
  struct Case {
    const char* name;
    bool exactTimes, strict, skipHash;
    int64_t diskMinusSnapshotSeconds;
    bool listed, hashed;
  };
  const Case cases[] = {
      {"older on exact volume", true, false, false, -10, true, false},
      {"newer on exact volume", true, false, false, 10, false, true},
      {"older within 2 s on FAT", false, false, false, -1, false, true},
      {"older beyond 2 s on FAT", false, false, false, -3, true, false},
      {"strict: newer on exact volume", true, true, false, 1, true, false},
      {"strict: FAT never mismatches", false, true, false, -10, false, true},
      {"skip hashing, same time", true, false, true, 0, false, false},
      {"skip hashing, older", true, false, true, -10, true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SnapshotEntry& big = package_.Entry("", "big.bin");
    big.state = entrystate::kNotChecked;
    SetFileTime(package_.PathOf("big.bin"),
                big.lastModified + c.diskMinusSnapshotSeconds * static_cast<int64_t>(kFileTimeTicksPerSecond));
    Validator validator(Options([&](ValidatorOptions& o) { o.volumes = std::make_shared<FakeVolumeInfo>(c.exactTimes); }));
    package_.log.Clear();
    Snapshot list;
    validator.GetUpdateList(package_.snapshot, list, &good_,
                            {.strictTime = c.strict, .skipHash = c.skipHash, .forceHash = true});
    bool listed = !list.entries.empty() && list.entries.front().name == "big.bin";
    EXPECT_EQ(listed, c.listed);
    EXPECT_EQ(package_.log.Contains("GetUpdateList checking Hash for file: '" + package_.PathOf("big.bin").string()),
              c.hashed);
    EXPECT_EQ(package_.log.Contains(" (skip hashing)"), c.skipHash);
  }
}

TEST_F(ValidationTest, BlockHashFailuresCountAsBadBlocks) {
  ASSERT_TRUE(package_.snapshot.LoadBlockHashes());
  const SnapshotEntry& big = package_.Entry("", "big.bin");
  std::span<const uint8_t> block0(reinterpret_cast<const uint8_t*>(package_.big.data()), kSmallBlock);
  std::span<const uint8_t> block1 = std::span(reinterpret_cast<const uint8_t*>(package_.big.data()) + kSmallBlock, kSmallBlock);
  std::vector<uint8_t> seenKey;
  struct Case {
    const char* name;
    BlockHashFunction hash;
    Result expected;
  };
  const Case cases[] = {
      {"33-byte result", [](std::span<const uint8_t>, std::span<const uint8_t>, std::vector<uint8_t>& out) { out.assign(33, 0); return Result{0}; },
       validation::kBadHashSize},
      {"service failure", [](std::span<const uint8_t>, std::span<const uint8_t>, std::vector<uint8_t>&) { return Result{0x8009000F}; }, 0x8009000F},
      {"keyed with the snapshot's hash of the block before",
       [&](std::span<const uint8_t> block, std::span<const uint8_t> previous, std::vector<uint8_t>& out) {
         seenKey.assign(previous.begin(), previous.end());
         Sha256Digest d = BlockHash(block, previous);
         out.assign(d.begin(), d.end());
         return Result{0};
       },
       0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Validator validator(Options([&](ValidatorOptions& o) { o.hashBlock = c.hash; }));
    EXPECT_EQ(validator.ValidateBlock(package_.snapshot, big, 1, block1, "big.bin", 0, true), c.expected);
  }
  EXPECT_EQ(seenKey, std::vector<uint8_t>(big.blockHashes.begin(), big.blockHashes.begin() + 32));
  EXPECT_EQ(validator_.ValidateBlock(package_.snapshot, big, 1, block0, "big.bin", 0, true), validation::kBadBlock);
  EXPECT_TRUE(package_.log.Contains("Failed to calculate block hash for file 'big.bin'"));
  EXPECT_TRUE(package_.log.Contains("Block 1 (2/41) is invalid for file 'big.bin'"));
  Validator cancelled(Options([](ValidatorOptions& o) { o.cancelled = [] { return true; }; }));
  EXPECT_EQ(cancelled.ValidateBlock(package_.snapshot, big, 0, block0, "big.bin", 0, false), validation::kCancelled);
}

TEST_F(ValidationTest, WithoutBlockHashesTheWholeFileHashDecides) {
  struct Case {
    const char* name;
    std::string fileHash;
    uint32_t state;
    const char* line;
  };
  SnapshotEntry& small = package_.Entry("sub", "small.txt");
  const std::string good = small.fileHash;
  const Case cases[] = {
      {"matching", good, entrystate::kValid, nullptr},
      {"different", Base64Encode(std::string(32, 'x')), entrystate::kInvalid, "Hashes are different for file: '"},
      {"not Base64", "%%%", entrystate::kInvalid, "Failed to decode Base64 data while validating the file '"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    package_.log.Clear();
    small.fileHash = c.fileHash;
    small.blockHashes.clear();
    validator_.ValidateFile(package_.snapshot, small, nullptr);
    EXPECT_EQ(small.state, c.state);
    EXPECT_EQ(small.validBytes, c.state == entrystate::kValid ? 100 : 0);
    if (c.line) {
      EXPECT_TRUE(package_.log.Contains(c.line));
    }
  }
  std::filesystem::remove(package_.PathOf("sub/small.txt"));
  validator_.ValidateFile(package_.snapshot, small, nullptr);
  EXPECT_EQ(small.state, entrystate::kHashNotComputed);
}

// A stop seen during the walk never lets an unread file pass as complete:
// what was not looked at is listed, and a whole-file hash cut short is not
// a match.
TEST_F(ValidationTest, AStopDuringTheWalkListsWhatWasNotRead) {
  bool stop = false;
  ValidatorOptions options;
  options.cancelled = [&stop] { return stop; };
  Validator stoppable(options);
  stop = true;
  Snapshot list;
  stoppable.GetUpdateList(package_.snapshot, list, &good_, {});
  EXPECT_EQ(ListedNames(list), (std::vector<std::string>{"big.bin", "empty.dat", "sub\\small.txt"}));
  EXPECT_EQ(good_.Count(), 0u);

  SnapshotEntry& big = package_.Entry("", "big.bin");
  big.blockHashes.clear();  // judged by its whole-file hash, read in chunks
  stoppable.ValidateFile(package_.snapshot, big, nullptr);
  EXPECT_EQ(big.state, entrystate::kInvalid);
  stop = false;
  stoppable.ValidateFile(package_.snapshot, big, nullptr);
  EXPECT_EQ(big.state, entrystate::kValid);
}

TEST_F(ValidationTest, FilesFoundValidAreNotHashedAgainUnlessForced) {
  EXPECT_TRUE(Run().entries.empty());
  EXPECT_TRUE(package_.log.Contains("41/41 blocks found in package '" + std::string(testing::kTestId) + "'"));
  EXPECT_TRUE(package_.Entry("", "big.bin").blockHashes.empty());  // dropped again after the list
  EXPECT_FALSE(validator_.HasUpdates(package_.snapshot, false, false));
  PatchFile(package_.PathOf("big.bin"), 5, "?");
  SetFileTime(package_.PathOf("big.bin"), package_.Entry("", "big.bin").lastModified);
  EXPECT_TRUE(Run().entries.empty());
  EXPECT_EQ(ListedNames(Run({.forceHash = true})), std::vector<std::string>{"big.bin"});
  // Once invalid, it is judged again on the next list, not kept invalid.
  PatchFile(package_.PathOf("big.bin"), 5, std::string(1, package_.big[5]));
  SetFileTime(package_.PathOf("big.bin"), package_.Entry("", "big.bin").lastModified);
  EXPECT_TRUE(Run().entries.empty());
}

bool CanPunchHoles(const std::filesystem::path& folder) {
  std::filesystem::path probe = folder / "probe";
  WriteFile(probe, std::string(3 * kSmallBlock, 'x'));
  int fd = ::open(probe.c_str(), O_RDWR);
  bool ok = fd >= 0 && ::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, kSmallBlock, kSmallBlock) == 0 &&
            ::lseek(fd, 0, SEEK_HOLE) == kSmallBlock;
  if (fd >= 0) ::close(fd);
  std::filesystem::remove(probe);
  return ok;
}

TEST_F(ValidationTest, ASparseFileLosesItsCorruptBlockToAHole) {
  if (!CanPunchHoles(package_.dir.path())) GTEST_SKIP() << "the temporary file system cannot punch holes";
  // big.bin as a block download leaves it: blocks 0-2 and 5 written, block 3
  // written with wrong bytes, the rest holes.
  std::filesystem::path path = package_.PathOf("big.bin");
  std::filesystem::remove(path);
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(package_.big.size())), 0);
  for (uint32_t block : {0u, 1u, 2u, 5u}) {
    ::pwrite(fd, package_.big.data() + block * kSmallBlock, kSmallBlock, block * kSmallBlock);
  }
  ::pwrite(fd, std::string(kSmallBlock, 'Z').data(), kSmallBlock, 3 * kSmallBlock);
  ::close(fd);

  Snapshot list = Run({.sparseMode = true});
  EXPECT_TRUE(list.entries.empty());
  for (uint32_t i = 0; i < 40; ++i) {
    EXPECT_EQ(good_.Check(BigFirst() + i), i <= 2 || i == 5) << "block " << i;
  }
  EXPECT_TRUE(package_.log.Contains("Zero the invalid block 12288-16384 of sparse file"));
  std::string after = ReadFile(path);
  ASSERT_EQ(after.size(), package_.big.size());
  EXPECT_EQ(after.substr(3 * kSmallBlock, kSmallBlock), std::string(kSmallBlock, '\0'));
  EXPECT_EQ(after.substr(0, 3 * kSmallBlock), package_.big.substr(0, 3 * kSmallBlock));

  // Skipping hashes, allocation alone decides: the punched block stays out.
  Run({.sparseMode = true, .skipHash = true});
  EXPECT_FALSE(good_.Check(BigFirst() + 3));
  EXPECT_TRUE(good_.Check(BigFirst() + 5));
}

// The process's peak resident memory since the last reset, in bytes.
uint64_t PeakResidentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stoull(line.substr(6)) * 1024;
  }
  return 0;
}
void ResetPeakResidentBytes() { std::ofstream("/proc/self/clear_refs") << "5"; }

// The block size of a document sizes no buffer beyond the file: a 10-byte
// file under a block size of 4 GiB (claimed at its size, or at 4 GiB) is
// checked with memory in proportion to its 10 bytes.
TEST(ValidationLimitsTest, AHugeBlockSizeReadsNoMoreThanTheFile) {
  testing::TempDir dir;
  const std::string data = "0123456789";
  WriteFile(dir / "a", data);
  const Sha256Digest hash = BlockHash(std::span(reinterpret_cast<const uint8_t*>(data.data()), data.size()), {});
  const std::string time = "2024-03-01 10:20:30";
  SetFileTime(dir / "a", *ParseDocumentTime(time));
  for (const auto& [size, listed] : std::vector<std::pair<std::string, bool>>{{"10", false}, {"4294967295", true}}) {
    SCOPED_TRACE(size);
    Snapshot snapshot;
    const std::string hashText = Base64Encode(std::vector<uint8_t>(hash.begin(), hash.end()));
    ASSERT_TRUE(snapshot.LoadXml(R"(<Snapshot blockSize="4294967295"><Root size=")" + size +
                                 R"("><File name="a" size=")" + size + R"(" lastModifiedTime=")" + time +
                                 R"(" blockHash=")" + hashText + R"("/></Root></Snapshot>)"));
    snapshot.path = dir.path().string();
    Validator validator;
    Snapshot list;
    DynamicBitset good;
    ResetPeakResidentBytes();
    const uint64_t before = PeakResidentBytes();
    validator.GetUpdateList(snapshot, list, &good, {});
    EXPECT_LT(PeakResidentBytes() - before, uint64_t{64} << 20);
    EXPECT_EQ(list.entries.size(), listed ? 1u : 0u);
    EXPECT_EQ(good.Count(), listed ? 0u : 1u);
  }
}

TEST(HashFileIntoStoreTest, ComputesOnceThenReadsTheStoreAndComposesTheHashes) {
  PackageFixture package;
  auto store = std::make_shared<HashStore>(
      OpenSqliteSecureStore(package.dir / "data" / "securestore.db", package.dir / "data" / "machine.key"));
  Snapshot walked(package.loaded.log);
  walked.id = package.snapshot.id;
  walked.path = package.snapshot.path;
  walked.blockSize = kSmallBlock;
  Validator validator(Options([&](ValidatorOptions& o) { o.hashStore = store; }));

  ASSERT_EQ(validator.HashFileIntoStore(walked, "", true), 0u);
  EXPECT_EQ(package.log.Count("Stored newly calulated hash while adding the file: '"), 3u);
  const SnapshotEntry* small = walked.FindEntry("sub", "small.txt");
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(small->size, 100);
  EXPECT_EQ(small->state, entrystate::kValid);
  EXPECT_TRUE(small->hasBlockHash);
  EXPECT_TRUE(small->blockHashes.empty());
  ASSERT_NE(walked.FindEntry("sub", ""), nullptr);

  package.log.Clear();
  Snapshot again(package.loaded.log);
  again.id = walked.id;
  again.path = walked.path;
  again.blockSize = kSmallBlock;
  ASSERT_EQ(validator.HashFileIntoStore(again, "", true), 0u);
  EXPECT_EQ(package.log.Count("Failed to read hash from Secure Storage"), 0u);

  // The stored hashes are the publisher's: the composed document carries them.
  ASSERT_TRUE(package.snapshot.LoadBlockHashes());
  walked.OrderEntries();
  std::string xml = walked.ComposeXml(store.get());
  EXPECT_NE(xml.find(Base64Encode(package.Entry("", "big.bin").blockHashes)), std::string::npos);
}

}  // namespace
}  // namespace pkgdlv
