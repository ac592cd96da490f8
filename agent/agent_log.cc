#include "agent/agent_log.h"

#include <errno.h>
#include <sys/types.h>
#include <unistd.h>

#include <iostream>
#include <mutex>

#include "agent/log_file.h"
#include "agent/log_record.h"
#include "agent/log_settings.h"
#include "util/display_text.h"
#include "util/format.h"

namespace pkgdlv {
namespace {

using agent_log::LogFileSettings;

std::string HostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return "localhost";
  return name;
}

std::string ProcessName(const AgentLogOptions& options) {
  if (!options.process_name.empty()) return options.process_name;
  return program_invocation_short_name;
}

class AgentLog final : public Logger {
 public:
  AgentLog(std::shared_ptr<SettingsStore> settings, std::shared_ptr<Clock> clock, AgentLogOptions options)
      : store_(std::move(settings)),
        clock_(std::move(clock)),
        options_(std::move(options)),
        host_name_(HostName()),
        process_name_(ProcessName(options_)) {
    settings_.folder = options_.default_folder;
  }

  bool IsEnabled(uint32_t level) override {
    try {
      return Accepts(level, EffectiveSeverity(level), CurrentSettings());
    } catch (...) {
      return false;
    }
  }

  void Write(uint32_t level, std::string_view component, std::string_view message) noexcept override {
    try {
      const uint32_t severity = EffectiveSeverity(level);
      const LogFileSettings settings = CurrentSettings();
      if (!Accepts(level, severity, settings)) return;
      message = agent_log::TruncateMessage(message);
      CopyToStreams(level, severity, component, message);
      std::lock_guard lock(file_mutex_);
      std::string failure;
      if (!AppendRecord(settings, severity, component, message, failure)) NoteDrop(failure);
    } catch (const std::exception& e) {  // a line that cannot be written is dropped
      NoteDrop(e.what());
    } catch (...) {
      NoteDrop("unknown error");
    }
  }

  AgentLogDrops Drops() const {
    std::lock_guard lock(drops_mutex_);
    return drops_;
  }

 private:
  bool Accepts(uint32_t level, uint32_t severity, const LogFileSettings& settings) const {
    if (level & loglevel::kSilent) return false;
    return (severity & (settings.severity | options_.process_mask)) != 0;
  }

  // The settings are read again when the cache interval has passed on the
  // clock or when a write to the store moved its change counter. The counter
  // is a query of the store, so it is asked at most every kCounterPollMs: a
  // loop that logs a line per block must not query the store per line.
  LogFileSettings CurrentSettings() {
    std::lock_guard lock(settings_mutex_);
    const uint64_t now = clock_->TickCount();
    const bool expired = !settings_read_tick_ || now - *settings_read_tick_ >= options_.settings_cache_ms;
    if (!expired && counter_read_tick_ && now - *counter_read_tick_ < kCounterPollMs) return settings_;
    counter_read_tick_ = now;
    std::optional<uint64_t> counter = ReadChangeCounter();
    if (expired || (counter && counter != settings_counter_)) {
      settings_read_tick_ = now;
      settings_counter_ = counter;
      try {
        settings_ =
            agent_log::ReadLogFileSettings(*store_, options_.default_folder, agent_log::MissingValues::kWriteDefaults);
      } catch (...) {  // a failing store leaves the last settings (at first the defaults) in force
      }
    }
    return settings_;
  }

  std::optional<uint64_t> ReadChangeCounter() {
    try {
      return store_->ChangeCounter();
    } catch (...) {
      return std::nullopt;
    }
  }

  void CopyToStreams(uint32_t level, uint32_t severity, std::string_view component, std::string_view message) {
    if (!(level & (loglevel::kConsole | loglevel::kDebugOutput))) return;
    const char* tag = SeverityTag(severity);
    // A terminal must never take a server's text for control sequences.
    const std::string shown = EscapeForDisplay(message);
    std::lock_guard lock(stream_mutex_);
    if (level & loglevel::kDebugOutput) {
      std::ostream& out = options_.debug_output ? *options_.debug_output : std::cerr;
      out << Format("%ls\t%ls\t\t%ls\n", tag, component, shown) << std::flush;
    }
    if (level & loglevel::kConsole) {
      std::ostream& out = options_.console ? *options_.console : std::cout;
      out << Format("%ls\t%ls\t\t%ls\r\n", tag, component, shown) << std::flush;
    }
  }

  void NoteDrop(std::string_view reason) noexcept {
    std::lock_guard lock(drops_mutex_);
    ++drops_.lines;
    try {
      drops_.last_reason = reason;
    } catch (...) {  // the count alone still tells the caller
    }
  }

  bool AppendRecord(const LogFileSettings& settings, uint32_t severity, std::string_view component,
                    std::string_view message, std::string& failure) {
    agent_log::AppendRequest request{settings.folder, settings.file_name, settings.max_bytes, settings.max_files};
    return agent_log::AppendToLogFile(request, [&](bool is_new_file) {
      // Built under the file lock, so that dates and tick counts follow the
      // order of the records in the file.
      agent_log::RecordContext context = RecordContext(severity);
      std::string text;
      if (is_new_file) text = agent_log::BuildStartRecord(context, agent_log::ReadLogFileHeader(*store_));
      text += agent_log::BuildEventRecord(context, component, message);
      return text;
    }, &failure);
  }

  agent_log::RecordContext RecordContext(uint32_t severity) {
    agent_log::RecordContext context;
    context.date = agent_log::FormatLogDate(clock_->Now());
    context.severity = severity;
    context.host_name = host_name_;
    context.module = options_.module_name;
    context.process = process_name_;
    context.pid = static_cast<uint64_t>(getpid());
    context.thread = static_cast<uint64_t>(gettid());
    context.tick_count = clock_->TickCount();
    return context;
  }

  const std::shared_ptr<SettingsStore> store_;
  const std::shared_ptr<Clock> clock_;
  const AgentLogOptions options_;
  const std::string host_name_;
  const std::string process_name_;

  std::mutex settings_mutex_;
  LogFileSettings settings_;
  static constexpr uint64_t kCounterPollMs = 250;
  std::optional<uint64_t> settings_read_tick_;
  std::optional<uint64_t> counter_read_tick_;
  std::optional<uint64_t> settings_counter_;

  std::mutex stream_mutex_;  // console and debug output
  std::mutex file_mutex_;    // this process's threads, before the file lock that orders the processes

  mutable std::mutex drops_mutex_;
  AgentLogDrops drops_;
};

}  // namespace

std::shared_ptr<Logger> NewAgentLog(std::shared_ptr<SettingsStore> settings, std::shared_ptr<Clock> clock,
                                    AgentLogOptions options) {
  if (!settings || !clock) return std::make_shared<NullLogger>();
  return std::make_shared<AgentLog>(std::move(settings), std::move(clock), std::move(options));
}

AgentLogDrops DroppedAgentLogLines(const Logger& log) {
  const auto* agent_log = dynamic_cast<const AgentLog*>(&log);
  if (!agent_log) return {};
  try {
    return agent_log->Drops();
  } catch (...) {
    return {};
  }
}

std::filesystem::path CurrentAgentLogFile(SettingsStore& settings, const std::filesystem::path& default_folder) {
  try {
    return agent_log::ReadLogFileSettings(settings, default_folder, agent_log::MissingValues::kLeave).file();
  } catch (...) {
    return default_folder / agent_log::kDefaultFileName;
  }
}

}  // namespace pkgdlv
