// The transport's file share path against a real smbd on 127.0.0.1.
#include "agent/smb_share.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/network_transport.h"
#include "support/smbd_server.h"
#include "support/temp_dir.h"
#include "support/test_util.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

using testing::CodeOf;
using testing::SmbdServer;
using testing::TempDir;
using testing::WriteFile;

constexpr size_t kDataSize = 2 * SmbShare::kMaxReadBytes + 18'928;  // ends inside a third piece

const std::string kData = testing::PatternBytes(kDataSize);

class SmbShareTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder_ = new TempDir();
    const auto& root = folder_->path();
    WriteFile(root / "data.bin", kData);
    WriteFile(root / "sub" / "inner.txt", "inner text");
    WriteFile(root / "bad:name", "x");    // a stream or drive name elsewhere
    WriteFile(root / "ctl\x01name", "x");  // a control character
    ::symlink(".", (root / "loop").c_str());  // served as a folder that is its own parent
    server_ = new SmbdServer({{"pkgs", root, true, true}, {"private", root, false, false}},
                             SmbdServer::User{"tester", "s3cret pass"});
    ::setenv(SmbShare::kPortVariable, std::to_string(server_->port()).c_str(), 1);
  }

  static void TearDownTestSuite() {
    ::unsetenv(SmbShare::kPortVariable);
    delete server_;
    delete folder_;
  }

  std::unique_ptr<NetworkTransport> transport_ = NewCurlTransportFactory()->Create();
  static TempDir* folder_;
  static SmbdServer* server_;
};

TempDir* SmbShareTest::folder_ = nullptr;
SmbdServer* SmbShareTest::server_ = nullptr;

TEST_F(SmbShareTest, ReadsRangesThroughBothFormsAndWholeFilesWithinTheCallersLimit) {
  const uint64_t block = SmbShare::kMaxReadBytes;
  const std::pair<uint64_t, uint64_t> cases[] = {
      {0, block}, {2 * block, block},  // the last block, cut by the end of the file
      {kDataSize - 1, 10}, {kDataSize, 10}, {5, kDataSize},  // several pieces in one range
  };
  const std::string location = server_->Location("pkgs\\data.bin");
  for (const auto& [first, length] : cases) {
    SCOPED_TRACE(first);
    const std::string expected = kData.substr(std::min<uint64_t>(first, kDataSize), length);
    std::vector<uint8_t> buffer(length);
    RangeResult got = transport_->DownloadRange(location, first, buffer);
    ASSERT_EQ(got.received, expected.size());
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + got.received), expected);

    std::string streamed;
    size_t largest_piece = 0;
    transport_->DownloadRange(location, first, length, [&](std::span<const uint8_t> bytes) {
      largest_piece = std::max(largest_piece, bytes.size());
      streamed.append(bytes.begin(), bytes.end());
    });
    EXPECT_EQ(streamed, expected);
    EXPECT_LE(largest_piece, SmbShare::kMaxReadBytes);
    EXPECT_EQ(transport_->State(), TransportState::kCompleted);
  }
  std::vector<uint8_t> bytes = transport_->DownloadBytes(location);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), kData);
  RequestOptions small;
  small.maxBodyBytes = 5;
  EXPECT_EQ(CodeOf([&] { transport_->DownloadText(server_->Location("pkgs\\sub\\inner.txt"), small); }),
            result::kResponseTooLarge);
  EXPECT_EQ(transport_->State(), TransportState::kFailed);
}

TEST_F(SmbShareTest, ListsSafeEntriesOnlyAndStopsAtAFolderThatIsItsOwnParent) {
  using Entries = std::map<std::string, std::pair<bool, uint64_t>>;
  for (bool recursive : {true, false}) {
    Entries entries;
    for (const DirectoryEntry& e : transport_->ListDirectory(server_->Location("pkgs"), recursive)) {
      EXPECT_TRUE(entries.emplace(e.relativePath, std::make_pair(e.isDirectory, e.size)).second) << e.relativePath;
      EXPECT_GT(e.lastWriteTime, 0u) << e.relativePath;
    }
    Entries expected = {{"data.bin", {false, kDataSize}}, {"sub", {true, 0}}};
    if (recursive) expected["sub\\inner.txt"] = {false, 10};
    EXPECT_EQ(entries, expected);
  }
}

TEST_F(SmbShareTest, FailuresBecomeTheTransportsCodes) {
  const int closed_port = testing::FreeLocalPort();
  struct Case {
    std::string user, password, location;
    bool list;
    Result expected;
  } cases[] = {
      {"TESTDOM\\tester", "s3cret pass", "private\\sub\\inner.txt", false, result::kOk},
      {"tester", "s3cret pass", "private\\sub", true, result::kOk},
      {"TESTDOM\\tester", "wrong", "private\\sub\\inner.txt", false, result::kAccessDenied},
      {"tester", "wrong", "private\\sub", true, result::kAccessDenied},
      {"", "", "private\\sub\\inner.txt", false, result::kAccessDenied},
      {"", "", "pkgs\\sub\\missing.txt", false, result::kFileNotFound},
      {"", "", "pkgs\\nothing\\missing.txt", false, result::kPathNotFound},
      {"", "", "pkgs\\nothing", true, result::kPathNotFound},
      {"", "", "pkgs\\data.bin", true, result::kPathNotFound},  // a file listed as a folder
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.user + "/" + c.password + " " + c.location);
    transport_->Reset();
    if (!c.user.empty()) transport_->SetCredentials(c.user, c.password);
    const std::string location = server_->Location(c.location);
    EXPECT_EQ(CodeOf([&] {
                if (c.list) {
                  EXPECT_FALSE(transport_->ListDirectory(location, true).empty());
                } else {
                  EXPECT_EQ(transport_->DownloadText(location), "inner text");
                }
              }),
              c.expected);
  }

  // The port is read when the transport first reaches a share.
  ::setenv(SmbShare::kPortVariable, std::to_string(closed_port).c_str(), 1);
  std::unique_ptr<NetworkTransport> elsewhere = NewCurlTransportFactory()->Create();
  EXPECT_EQ(CodeOf([&] { elsewhere->DownloadText(server_->Location("pkgs\\sub\\inner.txt")); }),
            result::kConnectionRefused);
  ::setenv(SmbShare::kPortVariable, std::to_string(server_->port()).c_str(), 1);
}

}  // namespace
}  // namespace pkgdlv
