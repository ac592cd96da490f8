// The log subcommand, end to end through the pkgdlv tool and its settings database.
#include <gtest/gtest.h>

#include "support/agent_log_parser.h"
#include "support/temp_dir.h"
#include "util/xml.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;
using testing::ParseAgentLog;
using testing::ParsedLogRecord;
using testing::ReadFile;
using testing::RunTool;
using testing::TempDir;
using testing::ToolResult;
using testing::WriteFile;

constexpr const char* kLogKey = "'Event Logging\\logfile'";

class LogCliTest : public ::testing::Test {
 protected:
  ToolResult Run(const std::string& arguments) { return RunTool(arguments, {}, home_.path()); }
  std::string Ok(const std::string& arguments) {
    ToolResult result = Run(arguments);
    EXPECT_EQ(result.exit_code, 0) << arguments << "\n" << result.err;
    return result.out;
  }
  // Event records of every file of the set, in no particular order.
  std::vector<ParsedLogRecord> AllEvents() {
    std::vector<ParsedLogRecord> events;
    for (auto& entry : fs::directory_iterator(home_ / "log")) {
      if (entry.path().extension() != ".log") continue;
      testing::ParsedLogFile parsed = ParseAgentLog(ReadFile(entry.path()));
      EXPECT_EQ(parsed.error, "") << entry.path();
      for (auto& record : parsed.records) {
        if (!record.start) events.push_back(record);
      }
    }
    return events;
  }

  TempDir home_;
};

TEST_F(LogCliTest, WritesARecordToTheFileThatPathNamesAndTheSettingsName) {
  EXPECT_EQ(Ok("log path"), (home_ / "log" / "Agent.log").string() + "\n");
  Ok("log write --component CliTest hello  'wide world'");
  Ok("log write --level 2 warned");
  Ok("log write --level 8 'trace is filtered by default'");

  auto events = AllEvents();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].Attribute("source"), "CliTest");
  EXPECT_EQ(events[0].Attribute("severity"), "4");
  EXPECT_EQ(events[0].Attribute("process"), "pkgdlv");
  EXPECT_EQ(events[0].text, "hello wide world");
  EXPECT_EQ(events[1].Attribute("source"), "pkgdlv");
  EXPECT_EQ(events[1].Attribute("severity"), "2");
  // A console flag in the level echoes the line.
  EXPECT_EQ(Ok("log write --level 0x4000001 --component Snapshot broken"), "*ERRR\tSnapshot\t\tbroken\r\n");

  // The path follows the settings.
  Ok(std::string("settings set ") + kLogKey + " FilePath " + (home_ / "elsewhere").string() + " --text");
  Ok(std::string("settings set ") + kLogKey + " FileName Custom.log --text");
  EXPECT_EQ(Ok("log path"), (home_ / "elsewhere" / "Custom.log").string() + "\n");
  Ok("log write moved");
  EXPECT_TRUE(fs::exists(home_ / "elsewhere" / "Custom.log"));
}

TEST_F(LogCliTest, HostileTextIsEscapedAndAnUnwritableLogFailsTheCommand) {
  // ESC, SOH, a right-to-left override and a stray byte, made by printf since
  // the shell that runs the tool knows no $'...' quoting.
  Ok(R"sh(log write --component "$(printf 'Evil\033')" "$(printf 'a\001b\342\200\256c\377')")sh");
  auto events = AllEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].Attribute("source"), "Evil\\x1B");
  EXPECT_EQ(events[0].text, "a\\x01b\\u202Ec\\xFF");
  std::string error;
  EXPECT_TRUE(xml::Document::TryParse("<log>" + ReadFile(home_ / "log" / "Agent.log") + "</log>", &error)) << error;

  WriteFile(home_ / "plainfile", "");
  const fs::path folder = home_ / "plainfile" / "log";
  Ok(std::string("settings set ") + kLogKey + " FilePath '" + folder.string() + "' --text");
  EXPECT_EQ(Ok("log write --level 8 'filtered is not a failure'"), "");
  for (const char* arguments : {"log write lost", "log write --count 3 lost"}) {
    ToolResult result = Run(arguments);
    EXPECT_EQ(result.exit_code, 1) << arguments;
    const std::string count = std::string(arguments).ends_with("3 lost") ? "3 of 3" : "1 of 1";
    EXPECT_EQ(result.err, "pkgdlv: " + count + " lines not written to the agent log: cannot create the log folder '" +
                              folder.string() + "': Not a directory\n")
        << arguments;
  }
}

TEST_F(LogCliTest, RejectsBadArguments) {
  for (const char* arguments : {"log write", "log write --level abc x", "log write --level 0x1FFFFFFFF x"}) {
    ToolResult result = Run(arguments);
    EXPECT_EQ(result.exit_code, 1) << arguments;
    EXPECT_NE(result.err.find("pkgdlv: "), std::string::npos) << arguments << ": " << result.err;
  }
}

}  // namespace
}  // namespace pkgdlv
