// pkgdlv request show, run as a separate process.
#include "cli_test_support.h"

namespace pkgdlv {
namespace {

using RequestCliTest = CliTest;

const std::string kId = kCliPackageId;
const std::string kWarning = "Invalid package XML: Invalid status: \"invalid\" assumed";

TEST_F(RequestCliTest, ShowPrintsThePackageDocumentThenTheWarningsOrJson) {
  const std::string request = "<Package id=\"" + kId +
                              "\" name=\"Tools\" version=\"2\" status=\"Valid\" priority=\"HIGH\" "
                              "UserAccessName=\"u\" UserAccessPassword=\"hunter2\">"
                              "<Source><Codebase href=\"file:///srv/a%20b/\"/></Source></Package>";
  WriteFile(dir_ / "request.xml", request);
  ToolResult shown = Run("request show " + Quote(dir_ / "request.xml"));
  ASSERT_EQ(shown.exit_code, 0) << shown.err;
  EXPECT_TRUE(shown.out.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Package id=\"" + kId +
                                    "\" name=\"Tools\" size=\"0\" version=\"2\" remote=\"false\" priority=\"High\" "
                                    "status=\"invalid\""))
      << shown.out;
  EXPECT_EQ(shown.out.find("hunter2"), std::string::npos) << "the account is not read from a request";
  EXPECT_EQ(shown.err, "*WARN PackageRequest: " + kWarning + "\n");

  nlohmann::json out = nlohmann::json::parse(Ok("request show --json " + Quote(dir_ / "request.xml")));
  EXPECT_EQ(std::make_tuple(out["loaded"], out["packageXml"], out["package"]["priority"],
                            out["package"]["codebases"][0]["location"]),
            std::make_tuple(true, shown.out, 10, "\\\\\\srv\\a b\\"));
  EXPECT_EQ(out["warnings"],
            nlohmann::json::array({{{"level", "warning"}, {"component", "PackageRequest"}, {"message", kWarning}}}));
}

}  // namespace
}  // namespace pkgdlv
