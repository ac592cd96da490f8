// pkgdlv sources, pkgdlv snapshot fetch and pkgdlv site transfer, run as
// separate processes against a server on 127.0.0.1.
#include "cli_test_support.h"
#include "support/http_test_server.h"

namespace pkgdlv {
namespace {

using SourcesCliTest = CliTest;

const std::string kPackage = " --package '" + std::string(kCliPackageId) + "'";

TEST_F(SourcesCliTest, PrintsTheAnswerOrTheFailure) {
  const std::string sources = "<PackageSources><Codebases/></PackageSources>";
  testing::HttpTestServer server;
  server.AddFile("/GetPackageInfo.aspx", sources, {{"Content-Type", "text/xml"}});
  server.AddFile("/busy.aspx", "<Error number=\"8004200C\"/>", {{"Content-Type", "text/xml"}});
  const std::string info = "sources --server " + server.Url("/GetPackageInfo.aspx");
  EXPECT_EQ(Ok(info + kPackage + " --codebases"), sources + "\n");
  EXPECT_EQ(nlohmann::json::parse(Ok(info + kPackage + " --json"))["answer"], sources);
  EXPECT_EQ(Fails("sources --server " + server.Url("/busy.aspx") + kPackage),
            "pkgdlv: WARNING: The server is currently busy (0x8004200C)\n");
}

TEST_F(SourcesCliTest, SnapshotFetchWritesBothDocuments) {
  const fs::path source = dir_ / "pkg dir";
  WriteFile(source / "a.txt", "data");
  WriteFile(source / "sub" / "b.txt", "more");
  testing::HttpTestServer server;
  const std::string document =
      "<Snapshot id=\"{00000000-0000-0000-0000-000000000001}\" time=\"2026-01-01T00:00:00\" version=\"2\"><Root "
      "size=\"4\" files=\"1\" folders=\"0\"><File name=\"a.txt\" size=\"4\"/></Root></Snapshot>";
  server.AddFile("/pkg/snapshot.xml", document, {{"Content-Signature", "c2ln"}});
  const std::string fetch = "snapshot fetch" + kPackage + " -o ";

  Ok(fetch + Quote(dir_ / "url") + " --url " + server.Url("/pkg/snapshot.xml"));
  EXPECT_EQ(ReadFile(dir_ / "url" / "snapshot.xml"), document) << "kept byte for byte";
  EXPECT_NE(ReadFile(dir_ / "url" / "snapdata.xml").find("signature=\"c2ln\""), std::string::npos);

  // The source folder as a file: URL.
  std::string url = "file://" + source.string();
  url.replace(url.find(' '), 1, "%20");
  EXPECT_NE(Ok(fetch + Quote(dir_ / "dir") + " --dir '" + url + "'").find("2 files, unsigned"), std::string::npos);
  EXPECT_NE(ReadFile(dir_ / "dir" / "snapshot.xml").find("<File name=\"b.txt\" size=\"4\""), std::string::npos);
  EXPECT_TRUE(Fails(fetch + Quote(dir_ / "none") + " --url " + server.Url("/none/snapshot.xml"))
                  .ends_with("(0x80042D21)\n"));
}

using SiteCliTest = CliTest;

TEST_F(SiteCliTest, SendsOneActionAndPrintsTheOutcome) {
  const std::string page = "/QS/Agent/SiteTransfer.aspx";
  testing::HttpTestServer server;
  server.AddFile(page, "<SiteTransfer/>", {{"Content-Type", "text/xml"}});
  server.AddFile("/full" + page, "<Error number=\"8004200D\"/>", {{"Content-Type", "text/xml"}});
  const std::string common = " --site S-1 --package '" + std::string(kCliPackageId) + "' --resource R-9 --limit 2";
  const struct {
    std::string arguments;
    int exitCode;
    std::string out;
    std::string err;
  } cases[] = {
      {"done --server " + server.Url("") + common + " --total 500 --done 500", 0,
       "site transfer Done: accepted (site 'S-1', limit 2, total 500, done 500)\n", ""},
      {"start --server " + server.Url("/full") + common, 1, "",
       "pkgdlv: WARNING: The server is not ready to process (0x8004200D)\n"},
      {"update" + common, 1, "",
       "pkgdlv: no site transfer server URL: give --server or set \"Site Transfer Server URL\" under "
       "\"Communications\\Package Delivery\\Sites\"\n"},
      {"start --server " + server.Url("") + common.substr(0, common.size() - 10), 1, "",
       "pkgdlv: no limit is defined for site 'S-1': give --limit\n"},
  };
  for (const auto& c : cases) {
    ToolResult run = Run("site transfer " + c.arguments);
    EXPECT_EQ(std::make_tuple(run.exit_code, run.out, run.err), std::make_tuple(c.exitCode, c.out, c.err))
        << c.arguments;
  }
  const std::vector<testing::RecordedRequest> requests = server.Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].query, "xml=<resource guid='R-9' op='Done'><site>S-1</site><entity>" +
                                   std::string(kCliPackageId) +
                                   "</entity><max>2</max><total>500</total><done>500</done></resource>");
}

}  // namespace
}  // namespace pkgdlv
