// Two processes of two threads each append to one log set at once, with
// rollover running: the file lock and the log's own lock must keep every
// record whole and every line exactly once.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <thread>

#include "agent/agent_log.h"
#include "support/agent_log_parser.h"
#include "support/memory_settings_store.h"
#include "support/temp_dir.h"

namespace pkgdlv {
namespace {

namespace fs = std::filesystem;

constexpr int kThreadsPerProcess = 2;
constexpr int kLinesPerThread = 5'000;
constexpr int kLinesPerProcess = kThreadsPerProcess * kLinesPerThread;

// Runs in the child: its own store, clock and log over the shared folder.
[[noreturn]] void LogFromChild(const fs::path& folder, const std::string& component) {
  int status = 1;
  try {
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
        for (int i = t * kLinesPerThread; i < (t + 1) * kLinesPerThread; ++i) {
          log->Log(loglevel::kInfo, component, "line %d", i);
        }
      });
    }
    for (auto& thread : threads) thread.join();
    status = 0;
  } catch (...) {
  }
  _exit(status);
}

TEST(AgentLogProcessesTest, TwoProcessesShareTheSetWithoutLosingOrMixingLines) {
  testing::TempDir dir;
  const fs::path folder = dir / "log";
  std::vector<pid_t> children;
  for (const char* component : {"ProcessA", "ProcessB"}) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) LogFromChild(folder, component);
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

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
      if (record.start) continue;
      EXPECT_EQ(record.Attribute("process"), record.Attribute("source"));
      ++seen[record.Attribute("source") + "/" + record.text];
    }
  }
  EXPECT_GT(files, 10u) << "rollover did not run while both processes wrote";
  EXPECT_EQ(seen.size(), size_t{2 * kLinesPerProcess});
  int duplicates = 0;
  for (auto& [line, count] : seen) duplicates += count != 1;
  EXPECT_EQ(duplicates, 0);
  for (const char* component : {"ProcessA", "ProcessB"}) {
    for (int i : {0, kLinesPerProcess / 2, kLinesPerProcess - 1}) {
      EXPECT_EQ(seen.count(std::string(component) + "/line " + std::to_string(i)), 1u);
    }
  }
}

}  // namespace
}  // namespace pkgdlv
