// pkgdlv request show, run as a separate process.
#include "cli_test_support.h"

namespace pkgdlv {
namespace {

const std::string kId = kCliPackageId;
const std::string kRequest = "<Package id=\"" + kId +
                             "\" name=\"Tools\" version=\"2\" status=\"Valid\" priority=\"HIGH\" "
                             "UserAccessName=\"u\" UserAccessPassword=\"hunter2\">"
                             "<Source><Codebase href=\"file:///srv/a%20b/\"/></Source></Package>";
const std::string kWarning = "Invalid package XML: Invalid status: \"invalid\" assumed";

TEST(RequestCliTest, ShowPrintsThePackageDocumentThenTheWarningsOrJson) {
  TempDir dir;
  WriteFile(dir / "request.xml", kRequest);
  ToolResult shown = RunTool("request show " + Quote(dir / "request.xml"));
  ASSERT_EQ(shown.exit_code, 0) << shown.err;
  EXPECT_EQ(shown.out.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Package id=\"" + kId +
                                "\" name=\"Tools\" size=\"0\" version=\"2\" remote=\"false\" priority=\"High\" "
                                "status=\"invalid\"",
                            0),
            0u)
      << shown.out;
  EXPECT_NE(shown.out.find("<Codebase unc=\"\\\\\\srv\\a b\\\"/>"), std::string::npos) << shown.out;
  EXPECT_EQ(shown.out.find("hunter2"), std::string::npos) << "the account is not read from a request";
  EXPECT_EQ(shown.err, "*WARN PackageRequest: " + kWarning + "\n");
  EXPECT_EQ(RunTool("request show -", kRequest).out, shown.out);

  ToolResult json = RunTool("request show --json " + Quote(dir / "request.xml"));
  ASSERT_EQ(json.exit_code, 0) << json.err;
  EXPECT_EQ(json.err, "");
  nlohmann::json out = nlohmann::json::parse(json.out);
  EXPECT_TRUE(out["loaded"].get<bool>());
  EXPECT_EQ(out["packageXml"].get<std::string>(), shown.out);
  EXPECT_EQ(out["package"]["id"], kId);
  EXPECT_EQ(out["package"]["priority"], 10);
  EXPECT_EQ(out["package"]["status"], "invalid");
  EXPECT_EQ(out["package"]["codebases"][0]["location"], "\\\\\\srv\\a b\\");
  EXPECT_EQ(out["warnings"],
            nlohmann::json::array({{{"level", "warning"}, {"component", "PackageRequest"}, {"message", kWarning}}}));
}

TEST(RequestCliTest, RefusedDocumentExitsWithOne) {
  TempDir dir;
  WriteFile(dir / "bad.xml", "<Package id=\"" + kId + "\" fileStore=\"../../etc\"/>");
  ToolResult shown = RunTool("request show " + Quote(dir / "bad.xml"));
  EXPECT_EQ(shown.exit_code, 1);
  EXPECT_EQ(shown.out, "");
  EXPECT_NE(shown.err.find("*WARN PackageRequest: Invalid package XML: fileStore is not an absolute folder path"),
            std::string::npos)
      << shown.err;
  EXPECT_NE(shown.err.find("pkgdlv: '" + (dir / "bad.xml").string() + "' is not a valid package request"),
            std::string::npos)
      << shown.err;

  ToolResult json = RunTool("request show --json " + Quote(dir / "bad.xml"));
  EXPECT_EQ(json.exit_code, 1);
  nlohmann::json out = nlohmann::json::parse(json.out);
  EXPECT_FALSE(out["loaded"].get<bool>());
  EXPECT_FALSE(out.contains("packageXml"));
  EXPECT_EQ(out["warnings"].size(), 1u);
}

}  // namespace
}  // namespace pkgdlv
