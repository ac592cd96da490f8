// pkgdlv request show, run as a separate process.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "support/temp_dir.h"

namespace pkgdlv {
namespace {

using testing::RunTool;
using testing::TempDir;
using testing::ToolResult;
using testing::WriteFile;

const std::string kId = "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}";
const std::string kRequest = "<Package id=\"" + kId +
                             "\" name=\"Tools\" version=\"2\" status=\"Valid\" priority=\"HIGH\" "
                             "UserAccessName=\"u\" UserAccessPassword=\"hunter2\">"
                             "<Source><Codebase href=\"file:///srv/a%20b/\"/></Source></Package>";
const std::string kWarning = "Invalid package XML: Invalid status: \"invalid\" assumed";

std::string Quote(const std::filesystem::path& path) { return "'" + path.string() + "'"; }

class RequestCliTest : public ::testing::Test {
 protected:
  void SetUp() override { WriteFile(dir_ / "request.xml", kRequest); }
  TempDir dir_;
};

TEST_F(RequestCliTest, ShowPrintsThePackageDocumentThenTheWarnings) {
  ToolResult shown = RunTool("request show " + Quote(dir_ / "request.xml"));
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

  ToolResult fromStdin = RunTool("request show -", kRequest);
  EXPECT_EQ(fromStdin.exit_code, 0);
  EXPECT_EQ(fromStdin.out, shown.out);
}

TEST_F(RequestCliTest, JsonCarriesTheDocumentTheSummaryAndTheWarnings) {
  ToolResult text = RunTool("request show " + Quote(dir_ / "request.xml"));
  ToolResult shown = RunTool("request show --json " + Quote(dir_ / "request.xml"));
  ASSERT_EQ(shown.exit_code, 0) << shown.err;
  EXPECT_EQ(shown.err, "");
  nlohmann::json out = nlohmann::json::parse(shown.out);
  EXPECT_TRUE(out["loaded"].get<bool>());
  EXPECT_EQ(out["packageXml"].get<std::string>(), text.out);
  EXPECT_EQ(out["package"]["id"], kId);
  EXPECT_EQ(out["package"]["priority"], 10);
  EXPECT_EQ(out["package"]["status"], "invalid");
  EXPECT_EQ(out["package"]["codebases"][0]["location"], "\\\\\\srv\\a b\\");
  ASSERT_EQ(out["warnings"].size(), 1u);
  EXPECT_EQ(out["warnings"][0]["level"], "warning");
  EXPECT_EQ(out["warnings"][0]["component"], "PackageRequest");
  EXPECT_EQ(out["warnings"][0]["message"], kWarning);
}

TEST_F(RequestCliTest, RefusedDocumentExitsWithOne) {
  WriteFile(dir_ / "bad.xml", "<Package id=\"" + kId + "\" fileStore=\"../../etc\"/>");
  ToolResult shown = RunTool("request show " + Quote(dir_ / "bad.xml"));
  EXPECT_EQ(shown.exit_code, 1);
  EXPECT_EQ(shown.out, "");
  EXPECT_NE(shown.err.find("*WARN PackageRequest: Invalid package XML: fileStore is not an absolute folder path"),
            std::string::npos)
      << shown.err;
  EXPECT_NE(shown.err.find("pkgdlv: '" + (dir_ / "bad.xml").string() + "' is not a valid package request"),
            std::string::npos)
      << shown.err;

  ToolResult json = RunTool("request show --json " + Quote(dir_ / "bad.xml"));
  EXPECT_EQ(json.exit_code, 1);
  nlohmann::json out = nlohmann::json::parse(json.out);
  EXPECT_FALSE(out["loaded"].get<bool>());
  EXPECT_FALSE(out.contains("packageXml"));
  ASSERT_EQ(out["warnings"].size(), 1u);

  ToolResult missing = RunTool("request show " + Quote(dir_ / "missing.xml"));
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.err.find("pkgdlv: "), std::string::npos);
}

}  // namespace
}  // namespace pkgdlv
