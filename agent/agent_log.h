// The agent log: a text file of XML event records that all of the agent's
// processes append to, with a severity filter, settings read from
// "Event Logging\logfile" in the settings store, and rollover by size.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>

#include "agent/clock.h"
#include "agent/logger.h"
#include "agent/settings_store.h"

namespace pkgdlv {

struct AgentLogOptions {
  // Folder of the log file when "FilePath" is not set.
  std::filesystem::path default_folder;
  // The calling process's own severity mask, OR-ed with "Severity".
  uint32_t process_mask = 0;
  // Written as the record's module and process names.
  std::string module_name = "pkgdlv";
  std::string process_name;  // empty: the executable's name
  // How long cached settings are trusted before they are read again (unless
  // the store's change counter moves first).
  uint32_t settings_cache_ms = 10'000;
  // Where console (0x4000000) and debug-output (0x1000000) lines go; null
  // means standard output and standard error.
  std::ostream* console = nullptr;
  std::ostream* debug_output = nullptr;
};

// The log over a settings store and a clock, shared by every thread of the
// process; any thread may log. Settings are read from "Event Logging\logfile"
// (a missing "Severity", "MaxSize", "MaxFiles" or "FileName" is written with
// its default) and cached for options.settings_cache_ms, or until the
// store's change counter moves (looked at no more than every 250 ms).
// Records are appended under an exclusive flock on "<file name>.lock" beside
// the log, so that the processes sharing the file write and roll it over one
// after another.
// Logging never throws: a line that cannot be written is dropped and counted
// (DroppedAgentLogLines). Without a store or a clock every line is dropped.
std::shared_ptr<Logger> NewAgentLog(std::shared_ptr<SettingsStore> settings, std::shared_ptr<Clock> clock,
                                    AgentLogOptions options);

// What a log made by NewAgentLog could not write since it was made: lines
// that passed the filter but never reached the file (an unwritable folder, a
// full disk), and why the last of them failed.
struct AgentLogDrops {
  uint64_t lines = 0;
  std::string last_reason;  // "cannot open '<file>': Permission denied"; empty when none
};

// The drops of a log made by NewAgentLog; any other logger (also the one
// made without a store or a clock, which writes nothing) reports none.
// Never throws; any thread.
AgentLogDrops DroppedAgentLogLines(const Logger& log);

// The file the log writes to now ("FilePath" and "FileName", or their
// defaults), read without writing anything. Never throws: a failing store
// gives the default file in default_folder.
std::filesystem::path CurrentAgentLogFile(SettingsStore& settings, const std::filesystem::path& default_folder);

}  // namespace pkgdlv
