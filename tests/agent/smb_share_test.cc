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
#include "agent/transport_test_support.h"
#include "support/nginx_server.h"
#include "support/smbd_server.h"
#include "support/temp_dir.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

using testing::CodeOf;
using testing::SmbdServer;
using testing::TempDir;
using testing::WriteFile;

constexpr size_t kDataSize = 2 * SmbShare::kMaxReadBytes + 18'928;  // ends inside a third piece

std::string Data() {
  std::string data(kDataSize, '\0');
  uint32_t x = 12345;
  for (char& c : data) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 24);
  }
  return data;
}

class SmbShareTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder_ = new TempDir();
    const auto& root = folder_->path();
    WriteFile(root / "data.bin", Data());
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

TEST_F(SmbShareTest, ReadsRangesThroughBothFormsIncludingTheLastPartialBlock) {
  const std::string data = Data();
  const uint64_t block = SmbShare::kMaxReadBytes;
  struct Case {
    uint64_t first;
    uint64_t length;
    uint64_t expected;
  };
  const Case cases[] = {
      {0, block, block},
      {block, block, block},
      {2 * block, block, kDataSize - 2 * block},  // the last block, cut by the end of the file
      {kDataSize - 1, 10, 1},
      {kDataSize, 10, 0},
      {5, kDataSize, kDataSize - 5},  // several pieces in one range
  };
  const std::string location = server_->Location("pkgs\\data.bin");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.first);
    std::vector<uint8_t> buffer(c.length);
    RangeResult got = transport_->DownloadRange(location, c.first, buffer);
    ASSERT_EQ(got.received, c.expected);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + got.received), data.substr(c.first, c.expected));

    std::string streamed;
    size_t largest_piece = 0;
    RangeResult sunk = transport_->DownloadRange(location, c.first, c.length, [&](std::span<const uint8_t> bytes) {
      largest_piece = std::max(largest_piece, bytes.size());
      streamed.append(bytes.begin(), bytes.end());
    });
    EXPECT_EQ(sunk.received, c.expected);
    EXPECT_EQ(streamed, data.substr(c.first, c.expected));
    EXPECT_LE(largest_piece, SmbShare::kMaxReadBytes);
    EXPECT_EQ(transport_->State(), TransportState::kCompleted);
  }
}

TEST_F(SmbShareTest, ReadsWholeFilesWithinTheCallersLimit) {
  std::vector<uint8_t> bytes = transport_->DownloadBytes(server_->Location("pkgs\\data.bin"));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), Data());
  EXPECT_EQ(transport_->DownloadText(server_->Location("pkgs\\sub\\inner.txt")), "inner text");
  EXPECT_EQ(transport_->HttpStatus(), 0);

  RequestOptions small;
  small.maxBodyBytes = 5;
  EXPECT_EQ(CodeOf([&] { transport_->DownloadText(server_->Location("pkgs\\sub\\inner.txt"), small); }),
            result::kResponseTooLarge);
  EXPECT_EQ(transport_->State(), TransportState::kFailed);
}

TEST_F(SmbShareTest, ListsSafeEntriesOnlyAndStopsAtAFolderThatIsItsOwnParent) {
  auto listed = [&](bool recursive) {
    std::map<std::string, std::pair<bool, uint64_t>> entries;
    for (const DirectoryEntry& e : transport_->ListDirectory(server_->Location("pkgs"), recursive)) {
      EXPECT_TRUE(entries.emplace(e.relativePath, std::make_pair(e.isDirectory, e.size)).second) << e.relativePath;
      EXPECT_GT(e.lastWriteTime, 0u) << e.relativePath;
    }
    return entries;
  };
  using Entries = std::map<std::string, std::pair<bool, uint64_t>>;
  EXPECT_EQ(listed(true), (Entries{{"data.bin", {false, kDataSize}},
                                   {"sub", {true, 0}},
                                   {"sub\\inner.txt", {false, 10}}}));
  EXPECT_EQ(listed(false), (Entries{{"data.bin", {false, kDataSize}}, {"sub", {true, 0}}}));
}

TEST_F(SmbShareTest, FailuresBecomeTheTransportsCodes) {
  const int closed_port = testing::FreeLocalPort();
  struct Case {
    const char* name;
    std::string user;
    std::string password;
    std::string location;
    bool list;
    Result expected;
  };
  const Case cases[] = {
      {"domain user", "TESTDOM\\tester", "s3cret pass", "private\\sub\\inner.txt", false, result::kOk},
      {"plain user", "tester", "s3cret pass", "private\\sub", true, result::kOk},
      {"wrong password", "TESTDOM\\tester", "wrong", "private\\sub\\inner.txt", false, result::kAccessDenied},
      {"wrong password, listing", "tester", "wrong", "private\\sub", true, result::kAccessDenied},
      {"no credentials on a private share", "", "", "private\\sub\\inner.txt", false, result::kAccessDenied},
      {"missing file", "", "", "pkgs\\sub\\missing.txt", false, result::kFileNotFound},
      {"file in a missing folder", "", "", "pkgs\\nothing\\missing.txt", false, result::kPathNotFound},
      {"missing folder listed", "", "", "pkgs\\nothing", true, result::kPathNotFound},
      {"file listed as a folder", "", "", "pkgs\\data.bin", true, result::kPathNotFound},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    transport_->Reset();
    if (!c.user.empty()) transport_->SetCredentials(c.user, c.password);
    const std::string location = server_->Location(c.location);
    Result code = CodeOf([&] {
      if (c.list) {
        EXPECT_FALSE(transport_->ListDirectory(location, true).empty());
      } else {
        EXPECT_EQ(transport_->DownloadText(location), "inner text");
      }
    });
    EXPECT_EQ(code, c.expected);
  }

  // The port is read when the transport first reaches a share.
  ::setenv(SmbShare::kPortVariable, std::to_string(closed_port).c_str(), 1);
  std::unique_ptr<NetworkTransport> elsewhere = NewCurlTransportFactory()->Create();
  EXPECT_EQ(CodeOf([&] { elsewhere->DownloadText(server_->Location("pkgs\\sub\\inner.txt")); }),
            result::kConnectionRefused);
  ::setenv(SmbShare::kPortVariable, std::to_string(server_->port()).c_str(), 1);
}

TEST_F(SmbShareTest, AbortEndsAReadBetweenPiecesAndLaterOnesAtOnce) {
  uint64_t delivered = 0;
  Result code = CodeOf([&] {
    transport_->DownloadRange(server_->Location("pkgs\\data.bin"), 0, kDataSize, [&](std::span<const uint8_t> b) {
      delivered += b.size();
      transport_->Abort();
    });
  });
  EXPECT_EQ(code, result::kCancelled);
  EXPECT_EQ(delivered, SmbShare::kMaxReadBytes);
  EXPECT_EQ(CodeOf([&] { transport_->ListDirectory(server_->Location("pkgs"), true); }), result::kCancelled);
  transport_->Reset();
  EXPECT_EQ(transport_->DownloadText(server_->Location("pkgs\\sub\\inner.txt")), "inner text");
}

TEST(SmbSharePortTest, TakesOnlyAValidPortFromTheEnvironment) {
  const std::pair<const char*, uint16_t> cases[] = {
      {"4450", 4450}, {"1", 1}, {"65535", 65535}, {"0", 0}, {"65536", 0}, {"445x", 0}, {"", 0}, {"-1", 0}};
  for (const auto& [text, expected] : cases) {
    ::setenv(SmbShare::kPortVariable, text, 1);
    EXPECT_EQ(SmbShare::PortFromEnvironment(), expected) << text;
  }
  ::unsetenv(SmbShare::kPortVariable);
  EXPECT_EQ(SmbShare::PortFromEnvironment(), 0);
}

}  // namespace
}  // namespace pkgdlv
