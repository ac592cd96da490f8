// Snapshots built from a folder on disk and from a directory listing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "agent/crypto.h"
#include "snapshot/snapshot_builder.h"
#include "validation_test_support.h"

namespace pkgdlv {
namespace {

using testing::Pattern;
using testing::TempDir;
using testing::WriteFile;
namespace fs = std::filesystem;

std::vector<uint8_t> ExpectedBlockHashes(const std::string& data, uint32_t blockSize) {
  std::vector<uint8_t> out;
  std::span<const uint8_t> previous;
  for (size_t offset = 0; offset < data.size(); offset += blockSize) {
    size_t length = std::min<size_t>(blockSize, data.size() - offset);
    Sha256Digest h = BlockHash(std::span(reinterpret_cast<const uint8_t*>(data.data()) + offset, length), previous);
    out.insert(out.end(), h.begin(), h.end());
    previous = std::span(out).subspan(out.size() - 32);
  }
  return out;
}

TEST(SnapshotBuilderTest, ListsHashesAndNumbersAFolder) {
  TempDir dir;
  const std::string big = Pattern(10'000, 1), small = Pattern(5, 2);
  WriteFile(dir / "pkg" / "big.bin", big);
  WriteFile(dir / "pkg" / "Sub" / "small.txt", small);
  WriteFile(dir / "pkg" / "Sub" / "empty", "");
  fs::create_directories(dir / "pkg" / "Sub" / "none");
  WriteFile(dir / "pkg" / "snapshot.xml", "old");  // excluded below
  timespec times[2] = {{0, UTIME_OMIT}, {1'700'000'000, 250'000'000}};
  ASSERT_EQ(utimensat(AT_FDCWD, (dir / "pkg" / "big.bin").c_str(), times, 0), 0);

  Snapshot snapshot;
  SnapshotBuildOptions options;
  options.blockSize = 4096;
  options.excludedFiles = {dir / "pkg" / "." / "snapshot.xml"};
  BuildSnapshotFromFolder(dir / "pkg", options, snapshot);

  std::vector<std::string> paths;
  for (const SnapshotEntry& e : snapshot.entries) {
    paths.push_back(e.RelativePath() + (e.IsFolder() ? "\\" : "|" + std::to_string(e.firstBlock)));
  }
  EXPECT_EQ(paths, (std::vector<std::string>{"big.bin|0", "Sub\\", "Sub\\empty|3", "Sub\\small.txt|3", "Sub\\none\\"}));
  EXPECT_EQ(std::tuple(snapshot.blockSize, snapshot.declaredBlockSize, snapshot.totalBlocks, snapshot.hasUnhashedFiles),
            std::tuple(4096u, 4096u, 4u, false));

  std::shared_ptr<Crypto> crypto = NewOpenSslCrypto();
  const SnapshotEntry& b = *snapshot.FindEntry("", "big.bin");
  EXPECT_EQ(std::tuple(b.size, b.lastModified, b.hasBlockHash),
            std::tuple(10'000, FileTimeFromTimespec(times[1]), true));
  EXPECT_EQ(b.fileHash, Base64Encode(crypto->Sha256File(dir / "pkg" / "big.bin")));
  EXPECT_EQ(b.blockHashes, ExpectedBlockHashes(big, 4096));
  const SnapshotEntry& s = *snapshot.FindEntry("sub", "SMALL.TXT");
  EXPECT_EQ(std::pair(s.blockHashes, s.state), std::pair(ExpectedBlockHashes(small, 4096), entrystate::kValid));
  EXPECT_FALSE(snapshot.FindEntry("Sub", "empty")->hasBlockHash);

}

TEST(SnapshotBuilderTest, LinksInsideAreFollowedOnlyToFiles) {
  TempDir dir;
  WriteFile(dir / "pkg" / "real.txt", "abc");
  fs::create_directories(dir / "pkg" / "dir");
  fs::create_symlink("real.txt", dir / "pkg" / "alias.txt");
  fs::create_directory_symlink("dir", dir / "pkg" / "dirlink");
  mkfifo((dir / "pkg" / "pipe").c_str(), 0600);
  auto log = std::make_shared<testing::RecordingLogger>();
  Snapshot snapshot;
  SnapshotBuildOptions options;
  options.log = log.get();
  BuildSnapshotFromFolder(dir / "pkg", options, snapshot);
  ASSERT_NE(snapshot.FindEntry("", "alias.txt"), nullptr);
  EXPECT_EQ(snapshot.FindEntry("", "alias.txt")->size, 3);
  EXPECT_TRUE(snapshot.FindEntry("dirlink", "") == nullptr && snapshot.FindEntry("", "pipe") == nullptr);
  EXPECT_TRUE(log->Contains("Skipping symbolic link to a folder"));
  EXPECT_TRUE(log->Contains("not a regular file or folder"));
}

TEST(SnapshotBuilderTest, RefusalsLeaveTheSnapshotUnchanged) {
  struct Case {
    std::string title;
    std::function<void(const fs::path& pkg, const fs::path& outside)> make;
    std::string message;
  };
  const Case cases[] = {
      {"LinkToAFileOutside", [](auto& pkg, auto& out) { fs::create_symlink(out / "secret", pkg / "s"); },
       "leads outside the folder"},
      {"LinkToAFolderOutside", [](auto& pkg, auto& out) { fs::create_directory_symlink(out, pkg / "d"); },
       "leads outside the folder"},
      {"DanglingLink", [](auto& pkg, auto&) { fs::create_symlink(pkg / "gone", pkg / "s"); },
       "leads outside the folder"},
      {"Colon", [](auto& pkg, auto&) { WriteFile(pkg / "C:x", ""); }, "Unsafe file name 'C:x'"},
      {"Backslash", [](auto& pkg, auto&) { WriteFile(pkg / "sub" / "a\\b", ""); }, "Unsafe file name 'sub\\a\\b'"},
      {"ControlCharacter", [](auto& pkg, auto&) { WriteFile(pkg / "a\tb", ""); }, "Unsafe file name 'a?b'"},
      {"NotUtf8", [](auto& pkg, auto&) { WriteFile(pkg / "\xC3\x28", ""); }, "Unsafe file name"},
      {"CaseTwins", [](auto& pkg, auto&) { WriteFile(pkg / "Readme", ""), WriteFile(pkg / "README", ""); },
       "Names differ only in letter case"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.title);
    TempDir dir;
    WriteFile(dir / "outside" / "secret", "s");
    WriteFile(dir / "pkg" / "ok.txt", "ok");
    c.make(dir / "pkg", dir / "outside");
    Snapshot snapshot;
    snapshot.entries.resize(1);
    try {
      BuildSnapshotFromFolder(dir / "pkg", SnapshotBuildOptions{}, snapshot);
      ADD_FAILURE() << "accepted";
    } catch (const Error& e) {
      EXPECT_EQ(e.code(), 0x80070057u);
      EXPECT_NE(e.description().find(c.message), std::string::npos) << e.description();
    }
    EXPECT_EQ(snapshot.entries.size(), 1u);
  }
  Snapshot snapshot;
  EXPECT_THROW(BuildSnapshotFromFolder("/nonexistent/folder", SnapshotBuildOptions{}, snapshot), Error);
}

// A listing keeps its folders in order and refuses a name that would leave the package folder.
TEST(SnapshotBuilderTest, FromAListing) {
  Snapshot snapshot;
  snapshot.blockSize = 10;
  const ListedItem items[] = {{"b\\c\\file.txt", false, 25, 7}, {"a.txt", false, 10, 0}, {"nosize", false}};
  SetEntriesFromListing(items, snapshot);
  std::vector<std::string> paths;
  for (const SnapshotEntry& e : snapshot.entries) {
    paths.push_back(e.RelativePath() + "|" + std::to_string(e.firstBlock));
  }
  EXPECT_EQ(paths,
            (std::vector<std::string>{"a.txt|0", "nosize|1", "b|4294967295", "b\\c|4294967295", "b\\c\\file.txt|1"}));
  for (const char* bad : {"..\\x", "\\abs", "C:\\x", "", "x/y"}) {
    const ListedItem item[] = {{bad, false, 1}};
    EXPECT_THROW(SetEntriesFromListing(item, snapshot), Error) << bad;
  }
  EXPECT_EQ(snapshot.entries.size(), 5u);
}

}  // namespace
}  // namespace pkgdlv
