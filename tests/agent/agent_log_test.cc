#include "agent/agent_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "agent/log_record.h"
#include "support/agent_log_parser.h"
#include "support/fake_clock.h"
#include "support/memory_settings_store.h"
#include "support/temp_dir.h"
#include "util/xml.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;
using namespace loglevel;
using testing::MemorySettingsStore;
using testing::ReadFile;
using testing::WriteFile;

constexpr std::string_view kLogKey = "Event Logging\\logfile";

class AgentLogTest : public ::testing::Test {
 protected:
  AgentLogTest() {
    options_.default_folder = dir_ / "log";
    options_.process_name = "testproc";
    options_.console = &console_;
    options_.debug_output = &debug_;
  }

  std::shared_ptr<Logger> NewLog() { return NewAgentLog(store_, clock_, options_); }
  void SetNumber(std::string_view name, uint32_t value) { store_->Set(kLogKey, name, SettingValue::Number(value)); }
  fs::path LogFile(std::string_view name = "Agent.log") const { return dir_ / "log" / name; }
  // The event records of the file, without its start record; the whole file must be well-formed.
  std::vector<testing::ParsedLogRecord> Events() const {
    testing::ParsedLogFile parsed = testing::ParseAgentLog(ReadFile(LogFile()));
    EXPECT_EQ(parsed.error, "");
    std::erase_if(parsed.records, [](const auto& r) { return r.start; });
    return parsed.records;
  }

  testing::TempDir dir_;
  std::shared_ptr<MemorySettingsStore> store_ = std::make_shared<MemorySettingsStore>();
  std::shared_ptr<testing::FakeClock> clock_ = std::make_shared<testing::FakeClock>();
  std::ostringstream console_, debug_;
  AgentLogOptions options_;
};

TEST_F(AgentLogTest, MessageAndSourceSurviveTheRecord) {
  auto x = [](std::string_view piece, size_t times) {
    std::string out;
    while (times--) out += piece;
    return out;
  };
  struct Case {
    std::string component, message, text;
    std::optional<std::string> source = std::nullopt;  // nullopt: the component as given
  } cases[] = {
      {"Snapshot", "a]]>b]]>", "a]]>b]]>"},
      {"it's <\"x\"> & co", "m", "m"},
      {"C", x("x", 5000), x("x", 4096)},
      {"C", x("x", 4095) + "\xC3\xA9\xE2\x82\xAC", x("x", 4095) + "\xC3\xA9"},  // a character is never split
      {"C", x("\xE2\x82\xAC", 4097), x("\xE2\x82\xAC", 4096)},                  // characters, not bytes
      {"Src\x1B\n\xE2\x80\xAE", std::string("a\0\x01\tb\r\nc\xE2\x80\xAE\xFF]]>", 15), "a\\x00\\x01\tb\r\nc\\u202E\\xFF]]>",
       "Src\\x1B\\n\\u202E"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.component);
    fs::remove(LogFile());
    NewLog()->Write(kInfo, c.component, c.message);
    auto events = Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].Attribute("source"), c.source.value_or(c.component));
    EXPECT_EQ(events[0].text, c.text);
    // Log readers parse the records as XML: the file must stay well-formed.
    std::string error;
    EXPECT_TRUE(xml::Document::TryParse("<log>" + ReadFile(LogFile()) + "</log>", &error)) << error;
  }
}

TEST_F(AgentLogTest, ConsoleAndDebugOutputCopies) {
  struct Case {
    uint32_t severity, level;
    std::string console, debug;
  } cases[] = {
      {0xFF, kInfo, "", ""},
      {0xFF, kInfo | kConsole, " INFO\tMulticastEngine\t\tjoined 3\r\n", ""},
      {0xFF, kError | kDebugOutput | kConsole, "*ERRR\tMulticastEngine\t\tjoined 3\r\n",
       "*ERRR\tMulticastEngine\t\tjoined 3\n"},
      {0xFF, kWarning | kForceTrace | kConsole, "<TRC>\tMulticastEngine\t\tjoined 3\r\n", ""},
      {0xFF, kError | kSilent | kConsole, "", ""},
      {1, kInfo | kConsole | kDebugOutput, "", ""},
  };
  for (const Case& c : cases) {
    SetNumber("Severity", c.severity);
    console_.str("");
    debug_.str("");
    NewLog()->Log(c.level, "MulticastEngine", "joined %d", 3);
    EXPECT_EQ(std::make_pair(console_.str(), debug_.str()), std::make_pair(c.console, c.debug)) << c.level;
  }
  // A server's text never reaches a terminal as control sequences.
  console_.str("");
  NewLog()->Log(kInfo | kConsole, "MulticastEngine", "%ls", std::string("name\x1b[2J\x07"));
  EXPECT_EQ(console_.str().find_first_of("\x1b\x07"), std::string::npos) << console_.str();
}

// A change in the store takes effect once the change counter is looked at
// again (at most every 250 ms), without waiting for the cache to expire.
TEST_F(AgentLogTest, AChangedSeverityTakesEffectAtTheNextCounterPoll) {
  SetNumber("Severity", 1);  // errors only
  std::shared_ptr<Logger> log = NewLog();
  auto consoleAfterInfo = [&] {
    console_.str("");
    log->Log(kInfo | kConsole, "MulticastEngine", "joined");
    return !console_.str().empty();
  };
  EXPECT_FALSE(consoleAfterInfo());
  SetNumber("Severity", 0xFF);
  EXPECT_FALSE(consoleAfterInfo()) << "the counter was looked at less than 250 ms ago";
  clock_->Advance(250);
  EXPECT_TRUE(consoleAfterInfo());
}

TEST_F(AgentLogTest, RolloverRemovesTheOldestOtherFileAndRenamesToTheFirstFreeNumber) {
  struct Case {
    uint32_t maxSize, maxFiles;
    std::vector<std::pair<std::string, int>> others;  // besides Agent.log: name and age in seconds
    std::vector<std::string> expected;                // besides Agent.log and its lock
    std::string renamedTo;                            // empty: no rollover
  } cases[] = {
      {5, 2, {}, {}, ""},  // below ten, the size is ten kilobytes
      {10, 2, {{"Agent1.log", 60}}, {"Agent1.log"}, "Agent1.log"},
      {10, 3, {{"Agent1.log", 10}, {"Agent2.log", 50}, {"Other.log", 900}}, {"Agent1.log", "Agent2.log", "Other.log"},
       "Agent2.log"},
      {10, 20, {{"Agent1.log", 1}, {"Agent2.log", 1}, {"Agent4.log", 1}},
       {"Agent1.log", "Agent2.log", "Agent3.log", "Agent4.log"}, "Agent3.log"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.renamedTo + std::to_string(c.others.size()));
    fs::remove_all(dir_ / "log");
    SetNumber("MaxSize", c.maxSize);
    SetNumber("MaxFiles", c.maxFiles);
    const auto now = fs::file_time_type::clock::now();
    for (const auto& [name, age] : c.others) {
      WriteFile(LogFile(name), name);
      fs::last_write_time(LogFile(name), now - std::chrono::seconds(age));
    }
    const std::string current(c.renamedTo.empty() ? 10'240 : 10'241, 'c');
    WriteFile(LogFile(), current);

    NewLog()->Log(kInfo, "C", "new");

    std::vector<std::string> names, expected = c.expected;
    for (auto& entry : fs::directory_iterator(dir_ / "log")) names.push_back(entry.path().filename().string());
    expected.insert(expected.end(), {"Agent.log", "Agent.log.lock"});
    std::sort(names.begin(), names.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names, expected);
    if (!c.renamedTo.empty()) {
      EXPECT_EQ(ReadFile(LogFile(c.renamedTo)), current);
      EXPECT_EQ(Events().back().text, "new");
    }
  }
}

// Answers nothing and fails every call.
class BrokenStore final : public SettingsStore {
 public:
  std::optional<SettingValue> Get(std::string_view, std::string_view) override { throw std::runtime_error("get"); }
  void Set(std::string_view, std::string_view, const SettingValue&) override { throw std::runtime_error("set"); }
  bool Delete(std::string_view, std::string_view) override { throw std::runtime_error("delete"); }
  std::vector<NamedSetting> List(std::string_view) override { throw std::runtime_error("list"); }
  uint64_t ChangeCounter() override { throw std::runtime_error("counter"); }
};

TEST_F(AgentLogTest, WithoutStoreOrClockEveryLineIsDroppedAndABrokenStoreGivesDefaults) {
  NewAgentLog(nullptr, clock_, options_)->Log(kError, "C", "m");
  NewAgentLog(store_, nullptr, options_)->Log(kError, "C", "m");
  EXPECT_FALSE(fs::exists(dir_ / "log"));

  auto log = NewAgentLog(std::make_shared<BrokenStore>(), clock_, options_);
  EXPECT_TRUE(log->IsEnabled(kInfo));
  EXPECT_FALSE(log->IsEnabled(kTrace));
  log->Log(kInfo, "C", "still logged");
  ASSERT_EQ(Events().size(), 1u);
  EXPECT_EQ(Events()[0].text, "still logged");
  // Defaults that cannot be saved do not stop the log either.
  store_->FailWrites(true);
  NewLog()->Log(kInfo, "C", "unsaved defaults");
  EXPECT_EQ(Events().back().text, "unsaved defaults");
  EXPECT_EQ(store_->WriteCount(), 0u);
}

TEST_F(AgentLogTest, CurrentFileFollowsSettingsWithoutWritingThem) {
  EXPECT_EQ(CurrentAgentLogFile(*store_, dir_ / "log"), dir_ / "log" / "Agent.log");
  store_->Set(kLogKey, "FilePath", SettingValue::Text("/var/tmp/x"));
  store_->Set(kLogKey, "FileName", SettingValue::Text("Custom.log"));
  EXPECT_EQ(CurrentAgentLogFile(*store_, dir_ / "log"), fs::path("/var/tmp/x/Custom.log"));
  store_->Set(kLogKey, "FileName", SettingValue::Text("../escape.log"));
  EXPECT_EQ(CurrentAgentLogFile(*store_, dir_ / "log"), fs::path("/var/tmp/x/Agent.log"));
  EXPECT_EQ(store_->WriteCount(), 3u);
  BrokenStore broken;
  EXPECT_EQ(CurrentAgentLogFile(broken, dir_ / "log"), dir_ / "log" / "Agent.log");
}

}  // namespace
}  // namespace pkgdlv
