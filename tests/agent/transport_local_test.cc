// The curl transport on local folders ("\\\path"): missing files and
// folders, and listings that must never leave the folder.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "agent/network_transport.h"
#include "support/temp_dir.h"
#include "support/test_util.h"

namespace pkgdlv {
namespace {

using ::pkgdlv::testing::CodeOf;
using ::pkgdlv::testing::StoredFolder;

class LocalTransportTest : public ::testing::Test {
 protected:
  std::string Stored(std::string_view relative) const { return StoredFolder(dir_ / relative); }

  testing::TempDir dir_;
  std::unique_ptr<NetworkTransport> transport_ = NewCurlTransportFactory()->Create();
};

TEST_F(LocalTransportTest, MissingFilesAndFoldersAndBadPathsAreTold) {
  testing::WriteFile(dir_ / "pkg" / "a.txt", "a");
  EXPECT_EQ(CodeOf([&] { transport_->DownloadText(Stored("pkg/dirlisting.tavorin.xml")); }), result::kFileNotFound);
  EXPECT_EQ(CodeOf([&] { transport_->DownloadText(Stored("gone/dirlisting.tavorin.xml")); }), result::kPathNotFound);
  EXPECT_EQ(CodeOf([&] { transport_->DownloadText(Stored("pkg\\..\\pkg\\a.txt")); }), result::kInvalidArg);
  // A FIFO would hold the read forever: it is refused, never opened.
  ASSERT_EQ(::mkfifo((dir_ / "pkg" / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(CodeOf([&] { transport_->DownloadText(Stored("pkg/fifo")); }), result::kInvalidArg);
}

TEST_F(LocalTransportTest, ListsSafeNamesOnly) {
  testing::WriteFile(dir_ / "a.txt", "12345");
  testing::WriteFile(dir_ / "sub" / "b.bin", "xy");
  testing::WriteFile(dir_ / "sub" / "deeper" / "c", "");
  // Names a Linux folder can hold but a listing must never hand on.
  testing::WriteFile(dir_ / "..\\..\\etc", "escape");
  testing::WriteFile(dir_ / "sub" / "C:evil", "drive");
  testing::WriteFile(dir_ / "bad\nname", "control");
  std::filesystem::create_directory_symlink("/etc", dir_ / "etc-link");
  std::filesystem::create_symlink("/etc/passwd", dir_ / "passwd-link");

  std::vector<DirectoryEntry> entries = transport_->ListDirectory(StoredFolder(dir_.path()), true);
  std::vector<std::string> names;
  for (const auto& e : entries) names.push_back(e.relativePath + (e.isDirectory ? "/" : ""));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"a.txt", "sub/", "sub\\b.bin", "sub\\deeper/", "sub\\deeper\\c"}));
  auto a = std::find_if(entries.begin(), entries.end(), [](const auto& e) { return e.relativePath == "a.txt"; });
  ASSERT_NE(a, entries.end());
  EXPECT_EQ(a->size, 5u);
  EXPECT_GT(a->lastWriteTime, kUnixEpochFileTime);

  EXPECT_EQ(transport_->ListDirectory(StoredFolder(dir_.path()), false).size(), 2u);
}

}  // namespace
}  // namespace pkgdlv
