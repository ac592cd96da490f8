// Redirects the curl transport follows and refuses, against two servers: the
// in-process test server and nginx serving the same package folder.
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
    testing::WriteFile(folder_ / "pkg" / "small.txt", kSmallText);
    if (GetParam() == Backend::kNginx) {
      if (!testing::NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
      std::string locations;
      for (const auto& r : kRedirects) locations += std::string("location = ") + r[0] + " { return 302 " + r[1] + "; }\n";
      nginx_ = std::make_unique<testing::NginxServer>(folder_.path(), locations);
    } else {
      server_ = std::make_unique<testing::HttpTestServer>();
      server_->AddFile("/pkg/small.txt", kSmallText);
      for (const auto& r : kRedirects) server_->AddRedirect(r[0], r[1]);
    }
    transport_ = NewCurlTransportFactory()->Create();
  }

  std::string Url(std::string_view path) const { return nginx_ ? nginx_->Url(path) : server_->Url(path); }

  testing::TempDir folder_;
  std::unique_ptr<testing::HttpTestServer> server_;
  std::unique_ptr<testing::NginxServer> nginx_;
  std::unique_ptr<NetworkTransport> transport_;
};

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
  EXPECT_EQ(server_ ? server_->RequestCount("/loop") : 11u, 11u);  // the first request and ten redirects
}

INSTANTIATE_TEST_SUITE_P(Servers, TransportContractTest, ::testing::Values(Backend::kTestServer, Backend::kNginx),
                         [](const auto& info) { return info.param == Backend::kNginx ? "Nginx" : "TestServer"; });

}  // namespace
}  // namespace pkgdlv
