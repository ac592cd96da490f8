// Copying, moving and deleting package files, and the names and paths from
// documents that must stay inside their package folder.
#include "snapshot/file_operations.h"

#include <gtest/gtest.h>

#include "util/error.h"
#include "util/safe_path.h"
#include "validation_test_support.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;
using testing::PackageFixture;
using testing::ReadFile;
using testing::WriteFile;

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

TEST(FileOperationsTest, HostileNamesNeverTouchAnythingOutside) {
  PackageFixture package;
  WriteFile(package.dir / "outside" / "victim.txt", "precious");
  fs::create_directory_symlink(package.dir / "outside", package.folder / "link");
  Snapshot& snapshot = package.snapshot;
  for (const auto& [folder, name] : std::vector<std::pair<std::string, std::string>>{
           {"..\\outside", "victim.txt"}, {"", "..\\outside\\victim.txt"}, {"link", "victim.txt"}}) {
    SnapshotEntry& entry = snapshot.entries.emplace_back();
    entry.folder = folder;
    entry.name = name;
    entry.size = 1;
  }
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
  EXPECT_EQ(std::pair(ReadFile(foreign / "big.bin"), ReadFile(foreign / "sub" / "small.txt")),
            std::pair(package.big, package.small));
  EXPECT_FALSE(fs::exists(package.dir / "copy" / "big.bin") || fs::exists(package.dir / "moved" / "big.bin"));

  // Unknown facts are filled from the file, but a listed file that is a link
  // is never read for a hash.
  PackageFixture other;
  WriteFile(other.dir / "outside" / "secret.txt", "secret");
  fs::remove(other.PathOf("sub/small.txt"));
  fs::create_symlink(other.dir / "outside" / "secret.txt", other.PathOf("sub/small.txt"));
  const std::string bigHash = other.Entry("", "big.bin").fileHash;
  SnapshotEntry& small = Unknown(other.Entry("sub", "small.txt"));
  SnapshotEntry& big = Unknown(other.Entry("", "big.bin"));
  UpdateUnknownFiles(other.snapshot);
  EXPECT_EQ(std::pair(small.fileHash, small.size), std::pair(std::string(), int64_t{-1}));
  EXPECT_EQ(std::tuple(big.size, big.lastModified != 0, big.fileHash), std::tuple(40 * 4096, true, bigHash));
}

// ---- Names and paths from documents

TEST(SafePathTest, NamesAndDocumentPaths) {
  const std::pair<std::string, bool> names[] = {
      {"file.txt", true}, {"a b", true},   {"...", true},       {"ünïcode", true},   {"x..y", true},
      {"", false},        {".", false},    {"..", false},       {"a/b", false},      {"a\\b", false},
      {"C:x", false},     {"x:", false},   {"/etc", false},     {"\\etc", false},  {"tab\there", false},
      {"nl\n", false},   {"del\x7F", false}, {"..\\..\\etc", false}, {std::string("nul\0x", 5), false},
  };
  for (const auto& [name, safe] : names) EXPECT_EQ(IsSafeRelativeName(name), safe) << PrintableName(name);
  const std::pair<std::string, bool> paths[] = {
      {"", true},        {"a", true},         {"a\\b\\c.txt", true}, {"\\a", false},  {"a\\", false},
      {"a\\\\b", false}, {"a\\..\\b", false}, {"..\\x", false},      {".\\x", false}, {"a/b", false},
      {"/abs", false},   {"C:\\x", false},    {"a\\b\x01", false},
  };
  for (const auto& [path, safe] : paths) EXPECT_EQ(IsSafeRelativePath(path), safe) << PrintableName(path);
}

TEST(SafePathTest, ResolveInsideJoinsWithSlashesAndRefusesEscapes) {
  EXPECT_EQ(ResolveInside("/pkg", "a\\b\\c.txt"), std::filesystem::path("/pkg/a/b/c.txt"));
  EXPECT_EQ(ResolveInside("/pkg/", "x"), std::filesystem::path("/pkg/x"));
  EXPECT_EQ(ResolveInside("/pkg", ""), std::filesystem::path("/pkg"));
  EXPECT_EQ(ResolveInside("rel/pkg", "a"), std::filesystem::path("rel/pkg/a"));
  for (const char* bad : {"..\\..\\etc\\passwd", "\\etc", "/etc", "a/../../x", "C:\\Windows", "a\\\n"}) {
    try {
      ResolveInside("/pkg", bad);
      ADD_FAILURE() << "accepted " << PrintableName(bad);
    } catch (const Error& e) {
      EXPECT_EQ(e.code(), 0x80070057u);
      EXPECT_EQ(e.description().rfind("Unsafe path '", 0), 0u) << e.description();
      EXPECT_EQ(e.description().find('\n'), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace pkgdlv
