// The log subcommand, end to end through the pkgdlv tool and its settings database.
#include "cli_test_support.h"
#include "support/agent_log_parser.h"

namespace pkgdlv {
namespace {

using testing::ParseAgentLog;
using testing::ParsedLogRecord;

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

// The escaping of what is written is the agent log's own; the tool reports
// the lines it could not write and refuses what it cannot parse.
TEST_F(LogCliTest, FailuresExitWithOne) {
  WriteFile(home_ / "plainfile", "");
  const fs::path folder = home_ / "plainfile" / "log";
  Ok(std::string("settings set ") + kLogKey + " FilePath '" + folder.string() + "' --text");
  EXPECT_EQ(Ok("log write --level 8 'filtered is not a failure'"), "");
  const std::string unwritable = " lines not written to the agent log: cannot create the log folder '" +
                                 folder.string() + "': Not a directory\n";
  const std::pair<const char*, std::string> cases[] = {
      {"log write lost", "pkgdlv: 1 of 1" + unwritable},
      {"log write --count 3 lost", "pkgdlv: 3 of 3" + unwritable},
      {"log write", ""},
      {"log write --level abc x", ""},
      {"log write --level 0x1FFFFFFFF x", ""},
  };
  for (const auto& [arguments, error] : cases) {
    ToolResult result = Run(arguments);
    EXPECT_EQ(result.exit_code, 1) << arguments;
    if (!error.empty()) {
      EXPECT_EQ(result.err, error) << arguments;
    } else {
      EXPECT_EQ(result.err.rfind("pkgdlv: ", 0), 0u) << arguments << ": " << result.err;
    }
  }
}

}  // namespace
}  // namespace pkgdlv
