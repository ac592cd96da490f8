// The curl transport on local folders ("\\\path"): files, ranges, missing
// files and folders, listings that must never leave the folder; and the
// connection options as the package download transport sets them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "agent/network_transport.h"
#include "agent/transport_test_support.h"
#include "support/temp_dir.h"

namespace pkgdlv {
namespace {

using ::pkgdlv::testing::CodeOf;
using ::pkgdlv::testing::PatternBytes;
using ::pkgdlv::testing::StoredLocalPath;

class LocalTransportTest : public ::testing::Test {
 protected:
  std::string Stored(std::string_view relative) const { return StoredLocalPath(dir_ / relative); }

  testing::TempDir dir_;
  std::unique_ptr<NetworkTransport> transport_ = NewCurlTransportFactory()->Create();
};

TEST_F(LocalTransportTest, ReadsFilesAndRanges) {
  std::string data = PatternBytes(300'000);
  testing::WriteFile(dir_ / "pkg" / "setup file.bin", data);
  EXPECT_EQ(transport_->DownloadText(Stored("pkg/setup file.bin")), data);
  EXPECT_EQ(transport_->HttpStatus(), 0);

  const std::pair<uint64_t, uint64_t> ranges[] = {{0, 65536}, {65536, 65536}, {262144, 65536}, {299'999, 10}};
  for (auto [first, length] : ranges) {
    SCOPED_TRACE(first);
    std::vector<uint8_t> buffer(length);
    RangeResult got = transport_->DownloadRange(Stored("pkg/setup file.bin"), first, buffer);
    uint64_t expected = std::min<uint64_t>(length, data.size() - first);
    ASSERT_EQ(got.received, expected);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + static_cast<ptrdiff_t>(expected)),
              data.substr(first, expected));
  }
}

TEST_F(LocalTransportTest, MissingFilesAndFoldersAndBadPathsAreTold) {
  testing::WriteFile(dir_ / "pkg" / "a.txt", "a");
  EXPECT_EQ(CodeOf([&] { transport_->DownloadText(Stored("pkg/dirlisting.tavorin.xml")); }), result::kFileNotFound);
  EXPECT_EQ(CodeOf([&] { transport_->DownloadText(Stored("gone/dirlisting.tavorin.xml")); }), result::kPathNotFound);
  EXPECT_EQ(CodeOf([&] { transport_->DownloadText(Stored("pkg\\..\\pkg\\a.txt")); }), result::kInvalidArg);
  EXPECT_EQ(CodeOf([&] { transport_->ListDirectory(Stored("missing"), true); }), result::kPathNotFound);
  EXPECT_EQ(CodeOf([&] { transport_->ListDirectory("http://127.0.0.1/pkg/", true); }), result::kNotImplemented);
  EXPECT_EQ(CodeOf([&] { transport_->ListDirectory("ftp://host/pkg", true); }), result::kInvalidProtocol);
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

  std::vector<DirectoryEntry> entries = transport_->ListDirectory(StoredLocalPath(dir_.path()), true);
  std::vector<std::string> names;
  for (const auto& e : entries) names.push_back(e.relativePath + (e.isDirectory ? "/" : ""));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"a.txt", "sub/", "sub\\b.bin", "sub\\deeper/", "sub\\deeper\\c"}));
  auto a = std::find_if(entries.begin(), entries.end(), [](const auto& e) { return e.relativePath == "a.txt"; });
  ASSERT_NE(a, entries.end());
  EXPECT_EQ(a->size, 5u);
  EXPECT_GT(a->lastWriteTime, kUnixEpochFileTime);

  EXPECT_EQ(transport_->ListDirectory(StoredLocalPath(dir_.path()), false).size(), 2u);
}

TEST(ConnectionOptionsTest, NamedOptionsAsTheDownloadTransportSetsThem) {
  struct Case {
    const char* rate;
    uint64_t bytesPerSecond;
  };
  const Case rates[] = {{"100d", 102400}, {"0", 0}, {"", 0}, {"d", 0}, {" 7d", 7168}, {"99999999999999999999d", UINT64_MAX}};
  for (const Case& c : rates) {
    SCOPED_TRACE(c.rate);
    ConnectionOptions options;
    options.maxReceiveBytesPerSecond = 1;
    options.Set(ConnectionOptions::kPeerDownloadMaxRate, c.rate);
    EXPECT_EQ(options.maxReceiveBytesPerSecond, c.bytesPerSecond);
  }
  ConnectionOptions options;
  options.Set(ConnectionOptions::kPeerConnectionModeOn, "");
  options.Set(ConnectionOptions::kSecureConnectionMode, "2");
  options.Set(ConnectionOptions::kLoggingFlags, "2097152");
  options.Set("com.brelmont.Unknown", "5");
  EXPECT_TRUE(options.peerConnection);
  EXPECT_EQ(options.secureConnectionMode, 2u);
  EXPECT_EQ(options.loggingFlags, 0x200000u);
  options.Set(ConnectionOptions::kPeerConnectionModeOff, "");
  EXPECT_FALSE(options.peerConnection);
}

}  // namespace
}  // namespace pkgdlv
