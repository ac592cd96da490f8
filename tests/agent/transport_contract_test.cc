// What every package server must get right from the curl transport, run
// against two servers: the in-process test server and nginx serving the same
// package folder.
#include <gtest/gtest.h>

#include <memory>

#include "agent/network_transport.h"
#include "support/http_test_server.h"
#include "support/nginx_server.h"
#include "support/temp_dir.h"
#include "support/test_util.h"

namespace pkgdlv {
namespace {

using ::pkgdlv::testing::CodeOf;
using ::pkgdlv::testing::PatternBytes;

constexpr size_t kBlock = 65536;
const std::string kSmallText = "hello package\n";

// Redirects every server offers besides the package folder.
const char* const kRedirects[][2] = {
    {"/redirect-ok", "/pkg/small.txt"},
    {"/redirect-ftp", "ftp://127.0.0.1:1/x"},
    {"/redirect-gopher", "gopher://127.0.0.1:1/x"},
    {"/redirect-file", "file:///etc/passwd"},
    {"/loop", "/loop"},
};

enum class Backend { kTestServer, kNginx };

class TransportContractTest : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override {
    blocks_ = PatternBytes(3 * kBlock + kBlock / 2);
    huge_ = PatternBytes(3 << 20, 2);
    testing::WriteFile(folder_ / "pkg" / "small.txt", kSmallText);
    testing::WriteFile(folder_ / "pkg" / "blocks.bin", blocks_);
    testing::WriteFile(folder_ / "pkg" / "huge.bin", huge_);
    if (GetParam() == Backend::kNginx) {
      if (!testing::NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
      std::string locations;
      for (const auto& r : kRedirects) locations += std::string("location = ") + r[0] + " { return 302 " + r[1] + "; }\n";
      nginx_ = std::make_unique<testing::NginxServer>(folder_.path(), locations);
    } else {
      server_ = std::make_unique<testing::HttpTestServer>();
      server_->AddFile("/pkg/small.txt", kSmallText);
      server_->AddFile("/pkg/blocks.bin", blocks_);
      server_->AddFile("/pkg/huge.bin", huge_);
      for (const auto& r : kRedirects) server_->AddRedirect(r[0], r[1]);
    }
    transport_ = NewCurlTransportFactory()->Create();
  }

  std::string Url(std::string_view path) const { return nginx_ ? nginx_->Url(path) : server_->Url(path); }

  testing::TempDir folder_;
  std::string blocks_;
  std::string huge_;
  std::unique_ptr<testing::HttpTestServer> server_;
  std::unique_ptr<testing::NginxServer> nginx_;
  std::unique_ptr<NetworkTransport> transport_;
};

TEST_P(TransportContractTest, DownloadsTextAndBytesWithHeadersAndStatus) {
  EXPECT_EQ(transport_->DownloadText(Url("/pkg/small.txt")), kSmallText);
  EXPECT_EQ(transport_->HttpStatus(), 200);
  EXPECT_EQ(transport_->ResponseHeader("CONTENT-length"), std::to_string(kSmallText.size()));
  EXPECT_NE(transport_->ResponseHeaderText().find("200"), std::string::npos);
  EXPECT_EQ(transport_->State(), TransportState::kCompleted);

  std::vector<uint8_t> bytes = transport_->DownloadBytes(Url("/pkg/blocks.bin"));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), blocks_);

  // A body over the caller's limit fails cleanly; one at the limit arrives.
  RequestOptions options;
  options.maxBodyBytes = 1 << 20;
  EXPECT_EQ(CodeOf([&] { transport_->DownloadBytes(Url("/pkg/huge.bin"), options); }), result::kResponseTooLarge);
  options.maxBodyBytes = huge_.size();
  EXPECT_EQ(transport_->DownloadBytes(Url("/pkg/huge.bin"), options).size(), huge_.size());
}

TEST_P(TransportContractTest, ByteRangesGiveExactlyTheBytesAsked) {
  struct Case {
    uint64_t first, length, expected;
  } cases[] = {
      {0, kBlock, kBlock},
      {kBlock, kBlock, kBlock},
      {3 * kBlock, kBlock, kBlock / 2},  // the file ends inside the range
      {12345, 1, 1},
      {0, blocks_.size(), blocks_.size()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.first);
    std::vector<uint8_t> buffer(c.length, 0xEE);
    RangeResult got = transport_->DownloadRange(Url("/pkg/blocks.bin"), c.first, buffer);
    ASSERT_EQ(got.received, c.expected);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + static_cast<ptrdiff_t>(got.received)),
              blocks_.substr(c.first, c.expected));
    EXPECT_EQ(got.effectiveUrl, Url("/pkg/blocks.bin"));

    std::string sunk;
    got = transport_->DownloadRange(Url("/pkg/blocks.bin"), c.first, c.length,
                                    [&](std::span<const uint8_t> b) { sunk.append(b.begin(), b.end()); });
    EXPECT_EQ(sunk, blocks_.substr(c.first, c.expected));
  }
}

TEST_P(TransportContractTest, RedirectsOnlyToHttp) {
  const std::pair<const char*, Result> cases[] = {{"/redirect-ok", result::kOk},
                                                  {"/redirect-ftp", result::kInvalidProtocol},
                                                  {"/redirect-gopher", result::kInvalidProtocol},
                                                  {"/redirect-file", result::kInvalidProtocol},
                                                  {"/loop", result::kRedirectFailed}};
  for (const auto& [path, code] : cases) {
    std::string body;
    EXPECT_EQ(CodeOf([&] { body = transport_->DownloadText(Url(path)); }), code) << path;
    EXPECT_EQ(body, code == result::kOk ? kSmallText : "") << path;
  }
  if (server_) {
    EXPECT_EQ(server_->RequestCount("/loop"), 11u);  // the first request and ten redirects
  }
}

INSTANTIATE_TEST_SUITE_P(Servers, TransportContractTest, ::testing::Values(Backend::kTestServer, Backend::kNginx),
                         [](const auto& info) { return info.param == Backend::kNginx ? "Nginx" : "TestServer"; });

}  // namespace
}  // namespace pkgdlv
