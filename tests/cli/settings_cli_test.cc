// The settings and config subcommands, end to end through the pkgdlv tool.
#include "cli_test_support.h"
#include "util/strings.h"

namespace pkgdlv {
namespace {

constexpr const char* kDelivery = "'Communications\\Package Delivery'";

class SettingsCliTest : public ::testing::Test {
 protected:
  ToolResult Run(const std::string& arguments, std::string_view input = {}) {
    return RunTool(arguments, input, home_.path());
  }
  // Runs a command that must succeed and returns its output.
  std::string Ok(const std::string& arguments, std::string_view input = {}) {
    ToolResult result = Run(arguments, input);
    EXPECT_EQ(result.exit_code, 0) << arguments << "\n" << result.err;
    return result.out;
  }

  TempDir home_;
};

TEST_F(SettingsCliTest, SetGetAndDeleteValuesOfBothTypesAndOnly32BitNumbers) {
  struct Case {
    std::string set_arguments;
    std::string printed;
  };
  const std::vector<Case> cases = {
      {"settings set K Number 0x1F", "31\n"},
      {"settings set K Number '-2147483648'", "2147483648\n"},
      {"settings set K Text 'C:\\x y' --text", "C:\\x y\n"},
      {"settings set K Text 42 --text", "42\n"},
  };
  for (const Case& c : cases) {
    Ok(c.set_arguments);
    std::string name = c.set_arguments.find("--text") != std::string::npos ? "Text" : "Number";
    EXPECT_EQ(Ok("settings get k " + ToLowerAscii(name)), c.printed) << c.set_arguments;
  }

  Ok("settings delete K Number");
  ToolResult missing = Run("settings get K Number");
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.err.find("no value 'Number' under 'K'"), std::string::npos) << missing.err;
  EXPECT_EQ(Run("settings delete K Number").exit_code, 1);

  for (const char* value : {"abc", "4294967296", "'-2147483649'", "0x100000000", "1.5"}) {
    ToolResult result = Run(std::string("settings set K N ") + value);
    EXPECT_EQ(result.exit_code, 1) << value;
    EXPECT_NE(result.err.find("not a 32-bit number"), std::string::npos) << value << ": " << result.err;
  }
  EXPECT_EQ(Run("settings get K N").exit_code, 1) << "nothing was stored";
}

TEST_F(SettingsCliTest, ListsAKeyAndTheKeysBelowItAsJson) {
  Ok("settings set 'A' n 1");
  Ok("settings set 'A\\B' n 2");
  Ok("settings set 'AB' n 3");
  Ok("settings set 'A\\B' t hello --text");

  nlohmann::json listed = nlohmann::json::parse(Ok("settings list a --json"));
  EXPECT_EQ(listed, nlohmann::json::parse(R"([
    {"key": "A", "name": "n", "type": "number", "value": 1},
    {"key": "A\\B", "name": "n", "type": "number", "value": 2},
    {"key": "A\\B", "name": "t", "type": "text", "value": "hello"}])"));

  std::string text = Ok("settings list 'A\\B'");
  EXPECT_EQ(text, "A\\B\n  n = 2 (0x00000002)\n  t = \"hello\"\n");
}

TEST_F(SettingsCliTest, DefaultsWritesEveryDeliverySettingAndShowsStoredAndEffective) {
  Ok(std::string("settings set ") + kDelivery + " 'Retry delay (mins)' 0");
  nlohmann::json defaults = nlohmann::json::parse(Ok("settings defaults --json"));
  ASSERT_EQ(defaults.size(), 11u);
  EXPECT_EQ(defaults[0]["name"], "Retry delay (mins)");
  EXPECT_EQ(defaults[0]["stored"], 0);
  EXPECT_EQ(defaults[0]["effective"], 60000);
  EXPECT_EQ(nlohmann::json::parse(Ok(std::string("settings list ") + kDelivery + " --json")).size(), 11u);
  EXPECT_EQ(Ok(std::string("settings get ") + kDelivery + " 'maximum RETRY delay (mins)'"), "120\n");  // any case
  EXPECT_NE(Ok("settings defaults").find("effective 22500 ms"), std::string::npos);
}

TEST_F(SettingsCliTest, ConfigShowsAndAppliesTheDocument) {
  std::string document = Ok("config get");
  EXPECT_NE(document.find("<PackageDelivery workFolder=\"" + (home_.path() / "Package Delivery").string() + "\""),
            std::string::npos)
      << document;
  EXPECT_NE(document.find("retryDelay=\"180000\""), std::string::npos) << document;

  const std::string store = (home_ / "packages").string();
  Ok("config set -", "<PackageDelivery historySize='9' retryDelay='300000' workFolder='" + store + "'/>");
  EXPECT_EQ(Ok(std::string("settings get ") + kDelivery + " 'Download history size'"), "9\n");
  EXPECT_EQ(Ok("settings get 'Communications\\Package Delivery\\Engine' WorkFolder"), store + "\n");
  document = Ok("config get");
  EXPECT_NE(document.find("workFolder=\"" + store + "\""), std::string::npos) << document;
  EXPECT_NE(document.find("retryDelay=\"300000\""), std::string::npos) << document;

  ToolResult bad = Run("config set '<PackageDelivery'");
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_TRUE(bad.err.starts_with("pkgdlv: Configuration XML failed to load: ")) << bad.err;
  EXPECT_TRUE(bad.err.ends_with(" (0x80070057)\n")) << bad.err;
}

}  // namespace
}  // namespace pkgdlv
