// The settings, config and log subcommands, end to end through the pkgdlv
// tool and its settings database.
#include "cli_test_support.h"
#include "support/agent_log_parser.h"

namespace pkgdlv {
namespace {

constexpr const char* kDelivery = "'Communications\\Package Delivery'";

using SettingsCliTest = CliTest;

TEST_F(SettingsCliTest, SetGetListAndDeleteValuesOfBothTypesAndOnly32BitNumbers) {
  const std::pair<std::string, std::string> cases[] = {
      {"K Number 0x1F", "31\n"},
      {"K Number '-2147483648'", "2147483648\n"},
      {"K Text 'C:\\x y' --text", "C:\\x y\n"},
  };
  for (const auto& [arguments, printed] : cases) {
    Ok("settings set " + arguments);
    EXPECT_EQ(Ok("settings get k " + arguments.substr(2, arguments.find(' ', 2) - 2)), printed) << arguments;
  }
  Ok("settings set 'K\\B' n 2");
  Ok("settings set 'KB' n 3");
  EXPECT_EQ(nlohmann::json::parse(Ok("settings list k --json")), nlohmann::json::parse(R"([
    {"key": "K", "name": "Number", "type": "number", "value": 2147483648},
    {"key": "K", "name": "Text", "type": "text", "value": "C:\\x y"},
    {"key": "K\\B", "name": "n", "type": "number", "value": 2}])"));
  EXPECT_EQ(Ok("settings list 'K\\B'"), "K\\B\n  n = 2 (0x00000002)\n");

  Ok("settings delete K Number");
  EXPECT_NE(Fails("settings get K Number").find("no value 'Number' under 'K'"), std::string::npos);
  EXPECT_NE(Fails("settings set K N 4294967296").find("not a 32-bit number"), std::string::npos);

  // Every delivery setting is written, with its stored and its effective value.
  Ok(std::string("settings set ") + kDelivery + " 'Retry delay (mins)' 0");
  nlohmann::json defaults = nlohmann::json::parse(Ok("settings defaults --json"));
  ASSERT_EQ(defaults.size(), 11u);
  EXPECT_EQ(defaults[0], nlohmann::json::parse(
                             R"j({"name": "Retry delay (mins)", "stored": 0, "effective": 60000, "unit": "ms"})j"));
  EXPECT_EQ(Ok(std::string("settings get ") + kDelivery + " 'maximum RETRY delay (mins)'"), "120\n");  // any case
}

TEST_F(SettingsCliTest, ConfigShowsAndAppliesTheDocument) {
  const std::string store = (home_ / "packages").string();
  Ok("config set -", "<PackageDelivery historySize='9' retryDelay='300000' workFolder='" + store + "'/>");
  EXPECT_EQ(Ok(std::string("settings get ") + kDelivery + " 'Download history size'"), "9\n");
  EXPECT_EQ(Ok("settings get 'Communications\\Package Delivery\\Engine' WorkFolder"), store + "\n");
  const std::string document = Ok("config get");
  EXPECT_NE(document.find("<PackageDelivery workFolder=\"" + store + "\""), std::string::npos) << document;
  EXPECT_NE(document.find("retryDelay=\"300000\""), std::string::npos) << document;

  const std::string bad = Fails("config set '<PackageDelivery'");
  EXPECT_TRUE(bad.starts_with("pkgdlv: Configuration XML failed to load: ") && bad.ends_with(" (0x80070057)\n")) << bad;
}

constexpr const char* kLogKey = "settings set 'Event Logging\\logfile' ";

using LogCliTest = CliTest;

// A record goes to the file that path names and the settings name; the tool
// reports the lines it could not write and refuses what it cannot parse.
TEST_F(LogCliTest, WritesARecordToTheFileThatPathNamesOrFailsWithOne) {
  EXPECT_EQ(Ok("log path"), (home_ / "log" / "Agent.log").string() + "\n");
  Ok("log write --component CliTest hello  'wide world'");
  Ok("log write --level 8 'trace is filtered by default'");
  testing::ParsedLogFile parsed = testing::ParseAgentLog(ReadFile(home_ / "log" / "Agent.log"));
  ASSERT_EQ(parsed.error, "");
  std::vector<std::tuple<std::string, std::string, std::string, std::string>> events;
  for (const auto& record : parsed.records) {
    if (!record.start) {
      events.emplace_back(record.Attribute("source"), record.Attribute("severity"), record.Attribute("process"),
                          record.text);
    }
  }
  EXPECT_EQ(events, (decltype(events){{"CliTest", "4", "pkgdlv", "hello wide world"}}));

  WriteFile(home_ / "plainfile", "");
  const fs::path folder = home_ / "plainfile" / "log";
  Ok(kLogKey + std::string("FilePath ") + Quote(folder) + " --text");
  EXPECT_EQ(Ok("log write --level 8 'filtered is not a failure'"), "");
  EXPECT_EQ(Fails("log write --count 3 lost"),
            "pkgdlv: 3 of 3 lines not written to the agent log: cannot create the log folder '" + folder.string() +
                "': Not a directory\n");
}

}  // namespace
}  // namespace pkgdlv
