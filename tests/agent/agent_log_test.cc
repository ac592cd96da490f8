#include "agent/agent_log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "agent/log_record.h"
#include "support/agent_log_parser.h"
#include "support/fake_clock.h"
#include "support/memory_settings_store.h"
#include "support/temp_dir.h"
#include "util/format.h"
#include "util/xml.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;
using testing::FakeClock;
using testing::MemorySettingsStore;
using testing::ParseAgentLog;
using testing::ParsedLogFile;
using testing::ReadFile;
using testing::TempDir;
using testing::WriteFile;

constexpr std::string_view kLogKey = "Event Logging\\logfile";

// Sets TZ for the life of the object and restores the previous zone.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone)
      : old_(std::getenv("TZ") ? std::getenv("TZ") : std::optional<std::string>()) {
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    old_ ? setenv("TZ", old_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }

 private:
  std::optional<std::string> old_;
};

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
  void SetText(std::string_view name, std::string value) { store_->Set(kLogKey, name, SettingValue::Text(value)); }

  fs::path LogFile(std::string_view name = "Agent.log") const { return dir_ / "log" / name; }
  ParsedLogFile Parse(std::string_view name = "Agent.log") const {
    ParsedLogFile parsed = ParseAgentLog(ReadFile(LogFile(name)));
    EXPECT_EQ(parsed.error, "") << name;
    return parsed;
  }
  // The event records of the file, without its start record.
  std::vector<testing::ParsedLogRecord> Events(std::string_view name = "Agent.log") const {
    std::vector<testing::ParsedLogRecord> events;
    for (auto& record : Parse(name).records) {
      if (!record.start) events.push_back(record);
    }
    return events;
  }

  ScopedTimeZone zone_{"UTC0"};
  TempDir dir_;
  std::shared_ptr<MemorySettingsStore> store_ = std::make_shared<MemorySettingsStore>();
  std::shared_ptr<FakeClock> clock_ = std::make_shared<FakeClock>();
  std::ostringstream console_;
  std::ostringstream debug_;
  AgentLogOptions options_;
};

TEST_F(AgentLogTest, NewFileStartsWithHeaderRecordThenEventRecordsExactly) {
  store_->Set("Dynamic Data", "LogFileHeader", SettingValue::Text("Agent 9.1 on testhost"));
  clock_->Advance(1234);  // 00:00:01.234, tick 1001234
  auto log = NewLog();
  log->Log(loglevel::kInfo, "PackageManager", "Queued %ls", "{1}");
  clock_->Advance(1);
  log->Log(loglevel::kWarning | loglevel::kErrorAsInfo, "DownloadQueue", "second");

  char host[256] = {};
  gethostname(host, sizeof host - 1);
  auto head = [&](const char* date, int severity, const char* source, const char* tick) {
    return Format(
        "<event date='%ls' severity='%d' hostName='%ls' source='%ls' module='pkgdlv' process='testproc' pid='%d' "
        "thread='%d' tickCount='%ls'",
        date, severity, host, source, getpid(), gettid(), tick);
  };
  const std::string expected = head("01/01/2026 00:00:01.2340000 +00:00", 4, "Log File Start", "1001234") +
                               ">\r\n <![CDATA[Agent 9.1 on testhost]]>\r\n</event>" + "\r\n" +
                               head("01/01/2026 00:00:01.2340000 +00:00", 4, "PackageManager", "1001234") +
                               " >\r\n  <![CDATA[Queued {1}]]>\r\n</event>" + "\r\n" +
                               head("01/01/2026 00:00:01.2350000 +00:00", 2, "DownloadQueue", "1001235") +
                               " >\r\n  <![CDATA[second]]>\r\n</event>";
  EXPECT_EQ(ReadFile(LogFile()), expected);
}

TEST(LogDateTest, LocalTimeWithZoneOffset) {
  const std::pair<const char*, const char*> cases[] = {{"UTC0", "01/01/2026 00:00:00.1230000 +00:00"},
                                                       {"<-0330>3:30", "12/31/2025 20:30:00.1230000 -03:30"},
                                                       {"IST-5:30", "01/01/2026 05:30:00.1230000 +05:30"}};
  for (const auto& [zoneName, expected] : cases) {
    ScopedTimeZone zone(zoneName);
    EXPECT_EQ(agent_log::FormatLogDate(*FromCivilUtc({2026, 1, 1, 0, 0, 0, 123})), expected) << zoneName;
  }
}

std::string Repeat(std::string_view piece, size_t times) {
  std::string out;
  for (size_t i = 0; i < times; ++i) out += piece;
  return out;
}

TEST_F(AgentLogTest, MessageAndSourceSurviveTheRecord) {
  struct Case {
    std::string name, component, message, expected_text;
    std::optional<std::string> expected_source = std::nullopt;  // nullopt: the component as given
  };
  const Case cases[] = {
      {"CdataEndInside", "Snapshot", "a]]>b]]>", "a]]>b]]>"},
      {"QuotesInSource", "it's <\"x\"> & co", "m", "m"},
      {"LongAsciiCut", "C", Repeat("x", 5000), Repeat("x", 4096)},
      {"ExactlyAtLimit", "C", Repeat("y", 4096), Repeat("y", 4096)},
      {"MultiByteNotSplit", "C", Repeat("x", 4095) + "\xC3\xA9\xE2\x82\xAC", Repeat("x", 4095) + "\xC3\xA9"},
      {"CountsCharactersNotBytes", "C", Repeat("\xE2\x82\xAC", 4097), Repeat("\xE2\x82\xAC", 4096)},
      {"ControlsAndInvalidBytesEscaped", "Src\x1B\n\xE2\x80\xAE", std::string("a\0\x01\tb\r\nc\xE2\x80\xAE\xFF]]>", 15),
       "a\\x00\\x01\tb\r\nc\\u202E\\xFF]]>", "Src\\x1B\\n\\u202E"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(LogFile());
    NewLog()->Write(loglevel::kInfo, c.component, c.message);
    auto events = Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].Attribute("source"), c.expected_source.value_or(c.component));
    EXPECT_EQ(events[0].text, c.expected_text);
    // Log readers parse the records as XML: the file must stay well-formed.
    std::string error;
    EXPECT_TRUE(xml::Document::TryParse("<log>" + ReadFile(LogFile()) + "</log>", &error)) << error;
  }
}

using loglevel::kDebugOutput;
using loglevel::kError;
using loglevel::kErrorAsInfo;
using loglevel::kForceTrace;
using loglevel::kInfo;
using loglevel::kSilent;
using loglevel::kTrace;
using loglevel::kWarning;

TEST_F(AgentLogTest, SeverityMaskAndFlagsDecideWhatIsWritten) {
  struct Case {
    std::string name;
    std::optional<SettingValue> severity_setting;
    uint32_t process_mask;
    uint32_t level;
    std::optional<uint32_t> written_severity;  // nullopt: dropped
  };
  const Case cases[] = {
      {"DefaultDropsTrace", std::nullopt, 0, kTrace, std::nullopt},
      {"Severity3DropsInfo", SettingValue::Number(3), 0, kInfo, std::nullopt},
      {"ErrorAsInfoDroppedBySeverity3", SettingValue::Number(3), 0, kError | kErrorAsInfo, std::nullopt},
      {"ErrorAsInfoWrittenAsInfo", std::nullopt, 0, kError | kErrorAsInfo, kInfo},
      {"ErrorAsInfoLeavesWarning", SettingValue::Number(3), 0, kWarning | kErrorAsInfo, kWarning},
      {"TextSeverityReadsSeven", SettingValue::Text("15"), 0, kTrace, std::nullopt},
      {"ProcessMaskAddsInfo", SettingValue::Number(3), kInfo, kInfo, kInfo},
      {"ForceTraceDroppedByDefault", std::nullopt, 0, kError | kForceTrace, std::nullopt},
      {"ForceTraceWrittenAtTrace", SettingValue::Number(8), 0, kError | kForceTrace, kTrace},
      {"SilentDropsEvenErrors", std::nullopt, 0xFF, kError | kSilent, std::nullopt},
      {"SeverityZeroDropsAll", SettingValue::Number(0), 0, kInfo, std::nullopt},
      {"OutOfRangeClampsToDebug", SettingValue::Number(32), 0, 0xC0, loglevel::kDebug},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(LogFile());
    store_ = std::make_shared<MemorySettingsStore>();
    if (c.severity_setting) store_->Set(kLogKey, "Severity", *c.severity_setting);
    options_.process_mask = c.process_mask;
    auto log = NewLog();
    EXPECT_EQ(log->IsEnabled(c.level), c.written_severity.has_value());
    log->Log(c.level, "Filter", "line");
    // A marker line at error level shows the file is writable in every case.
    log->Log(loglevel::kError, "Marker", "marker");
    std::vector<std::string> severities;
    for (auto& e : Events()) {
      if (e.Attribute("source") == "Filter") severities.push_back(e.Attribute("severity"));
    }
    std::vector<std::string> expected;
    if (c.written_severity) expected.push_back(std::to_string(*c.written_severity));
    EXPECT_EQ(severities, expected);
  }
}

using loglevel::kConsole;

TEST_F(AgentLogTest, ConsoleAndDebugOutputCopies) {
  struct Case {
    const char* name;
    uint32_t severity;
    uint32_t level;
    std::string console;
    std::string debug;
  };
  const Case cases[] = {
      {"NoFlag", 0xFF, kInfo, "", ""},
      {"Console", 0xFF, kInfo | kConsole, " INFO\tMulticastEngine\t\tjoined 3\r\n", ""},
      {"Debug", 0xFF, kWarning | kDebugOutput, "", "*WARN\tMulticastEngine\t\tjoined 3\n"},
      {"Both", 0xFF, kError | kDebugOutput | kConsole, "*ERRR\tMulticastEngine\t\tjoined 3\r\n",
       "*ERRR\tMulticastEngine\t\tjoined 3\n"},
      {"ForcedTraceTag", 0xFF, kError | kForceTrace | kConsole, "<TRC>\tMulticastEngine\t\tjoined 3\r\n", ""},
      {"SilentBeatsConsole", 0xFF, kError | kSilent | kConsole, "", ""},
      {"FilteredReachesNoStream", 1, kInfo | kConsole | kDebugOutput, "", ""},
  };
  for (const Case& c : cases) {
    SetNumber("Severity", c.severity);
    console_.str("");
    debug_.str("");
    NewLog()->Log(c.level, "MulticastEngine", "joined %d", 3);
    EXPECT_EQ(console_.str(), c.console) << c.name;
    EXPECT_EQ(debug_.str(), c.debug) << c.name;
  }
  // A server's text never reaches a terminal as control sequences.
  console_.str("");
  NewLog()->Log(kInfo | kConsole, "MulticastEngine", "%ls", std::string("name\x1b[2J\x07"));
  EXPECT_EQ(console_.str().find_first_of("\x1b\x07"), std::string::npos) << console_.str();
}

TEST_F(AgentLogTest, MissingFixedSettingsAreWrittenWithDefaultsButNotTheFolderWhenWritesWork) {
  SetText("Severity", "loud");
  NewLog()->Log(kInfo, "C", "m");
  EXPECT_EQ(store_->Get(kLogKey, "Severity"), SettingValue::Text("loud"));  // wrong type kept, read as 7
  EXPECT_EQ(store_->Get(kLogKey, "MaxSize"), SettingValue::Number(100));
  EXPECT_EQ(store_->Get(kLogKey, "MaxFiles"), SettingValue::Number(20));
  EXPECT_EQ(store_->Get(kLogKey, "FileName"), SettingValue::Text("Agent.log"));
  EXPECT_EQ(store_->Get(kLogKey, "FilePath"), std::nullopt);
  EXPECT_EQ(Events().size(), 1u);

  // Settings that cannot be written do not stop the log.
  store_ = std::make_shared<MemorySettingsStore>();
  store_->FailWrites(true);
  auto log = NewLog();
  for (int i = 0; i < 3; ++i) log->Log(kInfo, "C", "m%d", i);
  EXPECT_EQ(Events().size(), 4u);
  EXPECT_EQ(store_->WriteCount(), 0u);
}

TEST_F(AgentLogTest, SettingsAreCachedUntilTheCounterMovesOrTheIntervalPasses) {
  options_.settings_cache_ms = 60'000;
  auto log = NewLog();
  log->Log(kInfo, "C", "first");  // writes the defaults, which moves the counter once
  log->Log(kInfo, "C", "second");
  const uint64_t reads = store_->GetCount();
  log->Log(kInfo, "C", "third");
  EXPECT_EQ(store_->GetCount(), reads) << "settings read again without a change";

  SetNumber("Severity", 3);
  log->Log(kInfo, "C", "dropped");
  SetText("FilePath", (dir_ / "elsewhere").string());
  log->Log(kWarning, "C", "moved");

  std::vector<std::string> texts;
  for (auto& e : Events()) texts.push_back(e.text);
  EXPECT_EQ(texts, (std::vector<std::string>{"first", "second", "third"}));
  auto moved = ParseAgentLog(ReadFile(dir_ / "elsewhere" / "Agent.log"));
  ASSERT_EQ(moved.records.size(), 2u);
  EXPECT_EQ(moved.records[1].text, "moved");

  // Without a change the settings are read again once the interval passes.
  const uint64_t before_interval = store_->GetCount();
  clock_->Advance(59'999);
  log->Log(kWarning, "C", "cached");
  EXPECT_EQ(store_->GetCount(), before_interval);
  clock_->Advance(1);
  log->Log(kWarning, "C", "read again");
  EXPECT_GT(store_->GetCount(), before_interval);
}

// Appends event lines of about 200 bytes until the file passes the size.
void FillPast(Logger& log, const fs::path& file, uintmax_t bytes) {
  const std::string padding(150, 'p');
  while (!fs::exists(file) || fs::file_size(file) <= bytes) log.Log(kInfo, "Fill", "%ls", padding);
}

TEST_F(AgentLogTest, MaxSizeBelowTenRollsOverOnlyAfterTenKilobytes) {
  SetNumber("MaxSize", 5);
  auto log = NewLog();
  FillPast(*log, LogFile(), 10'240);
  EXPECT_FALSE(fs::exists(LogFile("Agent1.log"))) << "rolled over before passing 10,240 bytes";
  const std::string full = ReadFile(LogFile());

  log->Log(kInfo, "C", "after");
  EXPECT_EQ(ReadFile(LogFile("Agent1.log")), full);
  ParsedLogFile fresh = Parse();
  ASSERT_EQ(fresh.records.size(), 2u);
  EXPECT_TRUE(fresh.records[0].start);
  EXPECT_EQ(fresh.records[1].text, "after");
}

TEST_F(AgentLogTest, RolloverRemovesTheOldestOtherFileAndRenamesToTheFirstFreeNumber) {
  struct Case {
    std::string name;
    uint32_t max_files;
    std::vector<std::pair<std::string, int>> others;  // besides Agent.log, the newest: name and age in seconds
    std::vector<std::string> expected_names;          // besides Agent.log and its lock, always there
    std::string renamed_to;
  };
  const Case cases[] = {
      {"MaxFilesTwoDeletesTheNumberedFile", 2, {{"Agent1.log", 60}}, {"Agent1.log"}, "Agent1.log"},
      {"RoomLeftTakesNextNumber", 3, {{"Agent1.log", 60}}, {"Agent1.log", "Agent2.log"}, "Agent2.log"},
      {"OldestByTimeNotByName", 3, {{"Agent1.log", 10}, {"Agent2.log", 50}}, {"Agent1.log", "Agent2.log"},
       "Agent2.log"},
      {"OtherNamesAreNotMembers", 2, {{"Other.log", 900}, {"Agent.txt", 900}, {"Agent1.log", 5}},
       {"Agent.txt", "Agent1.log", "Other.log"}, "Agent1.log"},
      {"FreeNumberSkipsTakenNames", 20, {{"Agent1.log", 1}, {"Agent2.log", 1}, {"Agent4.log", 1}},
       {"Agent1.log", "Agent2.log", "Agent3.log", "Agent4.log"}, "Agent3.log"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(dir_ / "log");
    SetNumber("MaxSize", 10);
    SetNumber("MaxFiles", c.max_files);
    const auto now = fs::file_time_type::clock::now();
    for (const auto& [name, age] : c.others) {
      WriteFile(LogFile(name), name);
      fs::last_write_time(LogFile(name), now - std::chrono::seconds(age));
    }
    const std::string current(10'241, 'c');
    WriteFile(LogFile(), current);

    NewLog()->Log(kInfo, "C", "new");

    std::vector<std::string> names;
    for (auto& entry : fs::directory_iterator(dir_ / "log")) names.push_back(entry.path().filename().string());
    std::vector<std::string> expected = c.expected_names;
    expected.insert(expected.end(), {"Agent.log", "Agent.log.lock"});
    std::sort(names.begin(), names.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names, expected);
    EXPECT_EQ(ReadFile(LogFile(c.renamed_to)), current);
    EXPECT_EQ(Events().back().text, "new");
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
  ParsedLogFile parsed = Parse();
  ASSERT_EQ(parsed.records.size(), 2u);
  EXPECT_EQ(parsed.records[0].text, "");  // no header from a broken store
  EXPECT_EQ(parsed.records[1].text, "still logged");
}

TEST_F(AgentLogTest, UnwritableFolderDropsLinesQuietly) {
  WriteFile(dir_ / "plainfile", "not a folder");
  SetText("FilePath", (dir_ / "plainfile" / "log").string());
  auto log = NewLog();
  for (int i = 0; i < 3; ++i) log->Log(kError, "C", "lost %d", i);
  log->Log(kTrace, "C", "filtered, so not a drop");
  EXPECT_EQ(ReadFile(dir_ / "plainfile"), "not a folder");
  AgentLogDrops drops = DroppedAgentLogLines(*log);
  EXPECT_EQ(drops.lines, 3u);
  EXPECT_EQ(drops.last_reason,
            "cannot create the log folder '" + (dir_ / "plainfile" / "log").string() + "': Not a directory");

  // The same logger writes again once the folder can be had.
  SetText("FilePath", (dir_ / "log").string());
  log->Log(kError, "C", "kept");
  EXPECT_EQ(Events().back().text, "kept");
  EXPECT_EQ(DroppedAgentLogLines(*log).lines, 3u);
}

TEST_F(AgentLogTest, CurrentFileFollowsSettingsWithoutWritingThem) {
  EXPECT_EQ(CurrentAgentLogFile(*store_, dir_ / "log"), dir_ / "log" / "Agent.log");
  SetText("FilePath", "/var/tmp/x");
  SetText("FileName", "Custom.log");
  EXPECT_EQ(CurrentAgentLogFile(*store_, dir_ / "log"), fs::path("/var/tmp/x/Custom.log"));
  SetText("FileName", "../escape.log");
  EXPECT_EQ(CurrentAgentLogFile(*store_, dir_ / "log"), fs::path("/var/tmp/x/Agent.log"));
  EXPECT_EQ(store_->WriteCount(), 3u);
  BrokenStore broken;
  EXPECT_EQ(CurrentAgentLogFile(broken, dir_ / "log"), dir_ / "log" / "Agent.log");
}

}  // namespace
}  // namespace pkgdlv
