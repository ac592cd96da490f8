#include "snapshot/file_operations.h"

#include <gtest/gtest.h>

#include "validation_test_support.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;
using testing::PackageFixture;
using testing::ReadFile;
using testing::WriteFile;

SnapshotEntry FileEntry(std::string folder, std::string name) {
  SnapshotEntry entry;
  entry.folder = std::move(folder);
  entry.name = std::move(name);
  entry.size = 1;
  return entry;
}

// Leaves the entry as a document that does not know the file's facts would.
SnapshotEntry& Unknown(SnapshotEntry& entry) {
  entry.size = -1;
  entry.lastModified = 0;
  entry.fileHash.clear();
  entry.hasBlockHash = false;
  return entry;
}

TEST(FileOperationsTest, CopySkipsUnchangedTargetsOnlyWhenAsked) {
  PackageFixture package;
  fs::path target = package.dir / "copy";
  ASSERT_TRUE(CopyFiles(package.snapshot, target, false));
  EXPECT_EQ(ReadFile(target / "big.bin"), package.big);
  WriteFile(package.PathOf("sub/small.txt"), std::string(100, 'n'));  // same size, time set back below
  testing::SetFileTime(package.PathOf("sub/small.txt"), package.Entry("sub", "small.txt").lastModified);
  ASSERT_TRUE(CopyFiles(package.snapshot, target, true));
  EXPECT_EQ(ReadFile(target / "sub" / "small.txt"), package.small);
  ASSERT_TRUE(CopyFiles(package.snapshot, target, false));
  EXPECT_EQ(ReadFile(target / "sub" / "small.txt"), std::string(100, 'n'));

  // A file gone from the package does not stop the others from moving.
  fs::remove(package.PathOf("big.bin"));
  const fs::path moved = package.dir / "moved";
  EXPECT_TRUE(MoveFiles(package.snapshot, moved));
  EXPECT_EQ(ReadFile(moved / "sub" / "small.txt"), std::string(100, 'n'));
  EXPECT_FALSE(fs::exists(moved / "big.bin") || fs::exists(package.PathOf("sub/small.txt")));
  EXPECT_FALSE(package.log.Contains("Failed to"));
}

TEST(FileOperationsTest, DeletesInvalidFilesOrTheWholePackage) {
  PackageFixture package;
  package.Entry("", "big.bin").state = entrystate::kInvalid;
  fs::remove(package.PathOf("empty.dat"));
  package.Entry("", "empty.dat").state = entrystate::kInvalid;  // already gone: silent
  EXPECT_TRUE(DeleteInvalidFiles(package.snapshot, true));
  EXPECT_FALSE(fs::exists(package.PathOf("big.bin")));
  EXPECT_TRUE(fs::exists(package.PathOf("sub/small.txt")));
  EXPECT_EQ(package.log.Count("Deleting invalid file: "), 1u);

  WriteFile(package.PathOf("unlisted.txt"), "kept");
  package.snapshot.deleteInvalidOnly = 1;
  EXPECT_EQ(DeletePackageFiles(package.snapshot), 0u);
  EXPECT_FALSE(fs::exists(package.PathOf("sub")));  // emptied folder removed
  EXPECT_TRUE(fs::exists(package.PathOf("unlisted.txt")));
  package.snapshot.deleteInvalidOnly = 0;
  EXPECT_EQ(DeletePackageFiles(package.snapshot), 0u);
  EXPECT_FALSE(fs::exists(package.folder));
}

TEST(FileOperationsTest, MovingNothingCreatesTheNewFolderAndNoPathFails) {
  PackageFixture package;
  Snapshot empty(package.loaded.log);
  empty.path = package.folder.string();
  EXPECT_TRUE(MoveFiles(empty, package.dir / "new" / "pkg"));
  EXPECT_TRUE(fs::is_directory(package.dir / "new" / "pkg"));
  empty.path.clear();
  EXPECT_FALSE(CopyFiles(empty, package.dir / "x", false));
  EXPECT_EQ(DeletePackageFiles(empty), result::kInvalidArg);
  EXPECT_TRUE(package.log.Contains("No path specified for snapshot"));
}

TEST(FileOperationsTest, HostileNamesNeverTouchAnythingOutside) {
  PackageFixture package;
  WriteFile(package.dir / "outside" / "victim.txt", "precious");
  fs::create_directory_symlink(package.dir / "outside", package.folder / "link");
  Snapshot& snapshot = package.snapshot;
  snapshot.entries.push_back(FileEntry("..\\outside", "victim.txt"));
  snapshot.entries.push_back(FileEntry("", "..\\outside\\victim.txt"));
  snapshot.entries.push_back(FileEntry("link", "victim.txt"));
  for (SnapshotEntry& entry : snapshot.entries) entry.state = entrystate::kInvalid;

  EXPECT_FALSE(DeleteInvalidFiles(snapshot, true));
  fs::path target = package.dir / "target";
  EXPECT_FALSE(CopyFiles(snapshot, target, false));
  EXPECT_FALSE(MoveFiles(snapshot, package.dir / "moved"));
  snapshot.deleteInvalidOnly = 1;
  snapshot.path = (package.dir / "moved").string();
  DeletePackageFiles(snapshot);
  UpdateUnknownFiles(snapshot);

  EXPECT_EQ(ReadFile(package.dir / "outside" / "victim.txt"), "precious");
  EXPECT_FALSE(fs::exists(target / "link"));
  EXPECT_FALSE(fs::exists(package.dir / "target" / ".." / "outside" / "x"));
  EXPECT_GE(package.log.Count("Unsafe path"), 3u);
}

TEST(FileOperationsTest, APackageFolderOrAFileThatIsALinkIsNeverFollowed) {
  PackageFixture package;
  const fs::path foreign = package.dir / "foreign";
  fs::rename(package.folder, foreign);
  fs::create_directory_symlink(foreign, package.folder);
  for (SnapshotEntry& entry : package.snapshot.entries) entry.state = entrystate::kInvalid;
  EXPECT_FALSE(DeleteInvalidFiles(package.snapshot, true));
  EXPECT_FALSE(MoveFiles(package.snapshot, package.dir / "moved"));
  EXPECT_FALSE(CopyFiles(package.snapshot, package.dir / "copy", false));
  EXPECT_EQ(ReadFile(foreign / "big.bin"), package.big);
  EXPECT_EQ(ReadFile(foreign / "sub" / "small.txt"), package.small);
  EXPECT_FALSE(fs::exists(package.dir / "copy" / "big.bin"));
  EXPECT_FALSE(fs::exists(package.dir / "moved" / "big.bin"));

  // A listed file that is a link: what it leads to is never read for a hash.
  PackageFixture other;
  WriteFile(other.dir / "outside" / "secret.txt", "secret");
  fs::remove(other.PathOf("sub/small.txt"));
  fs::create_symlink(other.dir / "outside" / "secret.txt", other.PathOf("sub/small.txt"));
  SnapshotEntry& small = Unknown(other.Entry("sub", "small.txt"));
  UpdateUnknownFiles(other.snapshot);
  EXPECT_TRUE(small.fileHash.empty());
  EXPECT_EQ(small.size, -1);
}

TEST(FileOperationsTest, UpdateUnknownFilesFillsSizeTimeAndHash) {
  PackageFixture package;
  const std::string expectedHash = package.Entry("sub", "small.txt").fileHash;
  SnapshotEntry& small = Unknown(package.Entry("sub", "small.txt"));
  UpdateUnknownFiles(package.snapshot);
  EXPECT_EQ(small.size, 100);
  EXPECT_NE(small.lastModified, 0u);
  EXPECT_EQ(small.fileHash, expectedHash);
  EXPECT_TRUE(package.log.Contains("UpdateUnknownFiles: hashed file: '"));
}

}  // namespace
}  // namespace pkgdlv
