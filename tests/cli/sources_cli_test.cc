// pkgdlv sources and pkgdlv snapshot fetch, run as separate processes
// against a server on 127.0.0.1.
#include "cli_test_support.h"
#include "support/http_test_server.h"

namespace pkgdlv {
namespace {

using testing::HttpTestServer;

const std::string kId = kCliPackageId;
const std::string kSources = "<PackageSources><Codebases/></PackageSources>";

TEST(SourcesCliTest, PrintsTheAnswerOrTheFailure) {
  TempDir home;
  HttpTestServer server;
  server.AddFile("/GetPackageInfo.aspx", kSources, {{"Content-Type", "text/xml"}});
  server.AddFile("/busy.aspx", "<Error number=\"8004200C\"/>", {{"Content-Type", "text/xml"}});
  struct Case {
    std::string arguments;
    int exitCode;
    std::string out;
    std::string err;
  } cases[] = {
      {"--server " + server.Url("/GetPackageInfo.aspx") + " --package '" + kId + "' --codebases", 0, kSources + "\n",
       ""},
      {"--server " + server.Url("/busy.aspx") + " --package '" + kId + "'", 1, "",
       "pkgdlv: WARNING: The server is currently busy (0x8004200C)\n"},
      {"--server " + server.Url("/GetPackageInfo.aspx") + " --package nope", 1, "",
       "pkgdlv: 'nope' is not a package identifier\n"},
  };
  for (const Case& c : cases) {
    ToolResult run = RunTool("sources " + c.arguments, {}, home.path());
    EXPECT_EQ(run.exit_code, c.exitCode) << c.arguments << run.err;
    EXPECT_EQ(run.out, c.out) << c.arguments;
    EXPECT_EQ(run.err, c.err) << c.arguments;
  }
  ToolResult json = RunTool("sources --json --server " + server.Url("/GetPackageInfo.aspx") + " --package '" + kId + "'",
                            {}, home.path());
  EXPECT_EQ(nlohmann::json::parse(json.out)["answer"], kSources) << json.err;
}

TEST(SourcesCliTest, SnapshotFetchWritesBothDocuments) {
  TempDir home, out, package;
  const fs::path source = package / "pkg dir";
  WriteFile(source / "a.txt", "data");
  WriteFile(source / "sub" / "b.txt", "more");
  HttpTestServer server;
  const std::string document =
      "<Snapshot id=\"{00000000-0000-0000-0000-000000000001}\" time=\"2026-01-01T00:00:00\" version=\"2\"><Root "
      "size=\"4\" files=\"1\" folders=\"0\"><File name=\"a.txt\" size=\"4\"/></Root></Snapshot>";
  server.AddFile("/pkg/snapshot.xml", document, {{"Content-Signature", "c2ln"}});

  ToolResult fetched = RunTool("snapshot fetch --url " + server.Url("/pkg/snapshot.xml") + " --package '" + kId +
                                   "' -o '" + (out / "url").string() + "'",
                               {}, home.path());
  ASSERT_EQ(fetched.exit_code, 0) << fetched.err;
  EXPECT_EQ(ReadFile(out / "url" / "snapshot.xml"), document) << "kept byte for byte";
  EXPECT_NE(ReadFile(out / "url" / "snapdata.xml").find("signature=\"c2ln\""), std::string::npos);

  // The source folder as a path, a path relative to the current folder, and a file: URL.
  std::string url = "file://" + source.string();
  url.replace(url.find(' '), 1, "%20");
  const std::string forms[] = {source.string(), fs::relative(source).string(), url};
  for (const std::string& form : forms) {
    const fs::path written = out / std::to_string(&form - forms);
    ToolResult listed = RunTool("snapshot fetch --dir '" + form + "' --package '" + kId + "' -o '" +
                                    written.string() + "'",
                                {}, home.path());
    ASSERT_EQ(listed.exit_code, 0) << form << ": " << listed.err;
    EXPECT_NE(listed.out.find("2 files, unsigned"), std::string::npos) << form << ": " << listed.out;
    EXPECT_NE(ReadFile(written / "snapshot.xml").find("<File name=\"b.txt\" size=\"4\""), std::string::npos);
  }

  ToolResult missing = RunTool("snapshot fetch --url " + server.Url("/none/snapshot.xml") + " --package '" + kId +
                                   "' -o '" + (out / "none").string() + "'",
                               {}, home.path());
  EXPECT_TRUE(missing.exit_code == 1 && missing.err.ends_with("(0x80042D21)\n")) << missing.err;
}

}  // namespace
}  // namespace pkgdlv
