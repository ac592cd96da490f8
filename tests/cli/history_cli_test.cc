// pkgdlv history over a log.xml written by the test.
#include "cli_test_support.h"

namespace pkgdlv {
namespace {

TEST(HistoryCliTest, PrintsTotalsAndCyclesOrFailsWithTheReason) {
  TempDir dir;
  WriteFile(dir / "pkg" / "log.xml",
            R"(<Log id="{X}" attempts="3" successes="1" transferBytes="10"><History>)"
            R"(<Download version="2" status="retrying" statusDescr="Server is busy" transferBytes="4">)"
            R"(<Session startTime="2026-03-01 09:00:03" source="http://ps/x" result="-2147213300"/></Download>)"
            R"(</History></Log>)");
  ToolResult shown = RunTool("history --json " + Quote(dir / "pkg"), {}, dir / "home");
  ASSERT_EQ(shown.exit_code, 0) << shown.err;
  nlohmann::json out = nlohmann::json::parse(shown.out);
  EXPECT_EQ(out["failures"], 2);
  EXPECT_EQ(out["history"][0]["result"], "0x8004200C");
  EXPECT_EQ(out["history"][0]["statusDescr"], "Server is busy");

  WriteFile(dir / "bad" / "log.xml", "<PackageLog id=\"{X}\"/>");
  ToolResult refused = RunTool("history " + Quote(dir / "bad"), {}, dir / "home");
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_NE(refused.err.find("Error loading log: Invalid XML: Incorrect root element"), std::string::npos);
}

}  // namespace
}  // namespace pkgdlv
