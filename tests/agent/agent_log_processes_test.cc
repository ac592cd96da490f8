// Two processes of two threads each append to one log set at once, with
// rollover running: the file lock and the log's own lock must keep every
// record whole and every line exactly once.
#include <gtest/gtest.h>
#include <map>
#include <thread>

#include "agent/agent_log.h"
#include "support/agent_log_parser.h"
#include "support/memory_settings_store.h"
#include "support/temp_dir.h"
#include "support/test_util.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;

constexpr int kThreadsPerProcess = 2;
constexpr int kLinesPerThread = 5'000;
constexpr int kLinesPerProcess = kThreadsPerProcess * kLinesPerThread;

TEST(AgentLogProcessesTest, TwoProcessesShareTheSetWithoutLosingOrMixingLines) {
  testing::TempDir dir;
  const fs::path folder = dir / "log";
  const char* const components[] = {"ProcessA", "ProcessB"};
  // Each child has its own store, clock and log over the shared folder.
  ASSERT_TRUE(testing::RunInChildren(2, [&](int child) {
    const std::string component = components[child];
    auto store = std::make_shared<testing::MemorySettingsStore>();
    store->Set("Event Logging\\logfile", "MaxSize", SettingValue::Number(50));  // KB: about a hundred rollovers
    store->Set("Event Logging\\logfile", "MaxFiles", SettingValue::Number(100'000));
    AgentLogOptions options;
    options.default_folder = folder;
    options.process_name = component;
    auto log = NewAgentLog(store, NewSystemClock(), options);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreadsPerProcess; ++t) {
      threads.emplace_back([&, t] {
        for (int i = t * kLinesPerThread; i < (t + 1) * kLinesPerThread; ++i) log->Log(loglevel::kInfo, component, "line %d", i);
      });
    }
    for (auto& thread : threads) thread.join();
  }));

  std::map<std::string, int> seen;
  size_t files = 0;
  for (auto& entry : fs::directory_iterator(folder)) {
    if (entry.path().extension() != ".log") continue;
    ++files;
    testing::ParsedLogFile parsed = testing::ParseAgentLog(testing::ReadFile(entry.path()));
    EXPECT_EQ(parsed.error, "") << entry.path();
    ASSERT_FALSE(parsed.records.empty()) << entry.path();
    EXPECT_TRUE(parsed.records.front().start) << entry.path();
    for (auto& record : parsed.records) {
      if (!record.start) ++seen[record.Attribute("process") + "/" + record.Attribute("source") + "/" + record.text];
    }
  }
  EXPECT_GT(files, 10u) << "rollover did not run while both processes wrote";
  std::map<std::string, int> expected;
  for (const char* component : components) {
    for (int i = 0; i < kLinesPerProcess; ++i) expected[std::string(component) + "/" + component + "/line " + std::to_string(i)] = 1;
  }
  EXPECT_TRUE(seen == expected) << seen.size() << " distinct lines of " << expected.size();
}

}  // namespace
}  // namespace pkgdlv
