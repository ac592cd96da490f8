// pkgdlv site transfer, run as a separate process against a server on
// 127.0.0.1.
#include "cli_test_support.h"
#include "support/http_test_server.h"

namespace pkgdlv {
namespace {

using testing::HttpTestServer;

const std::string kId = kCliPackageId;
const std::string kPage = "/QS/Agent/SiteTransfer.aspx";

TEST(SiteCliTest, SendsOneActionAndPrintsTheOutcome) {
  TempDir home;
  HttpTestServer server;
  server.AddFile(kPage, "<SiteTransfer/>", {{"Content-Type", "text/xml"}});
  server.AddFile("/full" + kPage, "<Error number=\"8004200D\"/>", {{"Content-Type", "text/xml"}});
  const std::string common = " --site S-1 --package '" + kId + "' --resource R-9";
  struct Case {
    std::string arguments;
    int exitCode;
    std::string out;
    std::string err;
  } cases[] = {
      {"start --server " + server.Url("") + common + " --limit 2 --total 500", 0,
       "site transfer Start: accepted (site 'S-1', limit 2, total 500, done 0)\n", ""},
      {"done --server " + server.Url("") + common + " --limit 2 --total 500 --done 500", 0,
       "site transfer Done: accepted (site 'S-1', limit 2, total 500, done 500)\n", ""},
      {"start --server " + server.Url("/full") + common + " --limit 2", 1, "",
       "pkgdlv: WARNING: The server is not ready to process (0x8004200D)\n"},
      {"update" + common + " --limit 2", 1, "",
       "pkgdlv: no site transfer server URL: give --server or set \"Site Transfer Server URL\" under "
       "\"Communications\\Package Delivery\\Sites\"\n"},
      {"start --server " + server.Url("") + common, 1, "", "pkgdlv: no limit is defined for site 'S-1': give --limit\n"},
  };
  for (const Case& c : cases) {
    ToolResult run = RunTool("site transfer " + c.arguments, {}, home.path());
    EXPECT_EQ(run.exit_code, c.exitCode) << c.arguments << run.err;
    EXPECT_EQ(run.out, c.out) << c.arguments;
    EXPECT_EQ(run.err, c.err) << c.arguments;
  }
  const std::vector<testing::RecordedRequest> requests = server.Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[1].query,
            "xml=<resource guid='R-9' op='Done'><site>S-1</site><entity>" + kId +
                "</entity><max>2</max><total>500</total><done>500</done></resource>");
}

}  // namespace
}  // namespace pkgdlv
