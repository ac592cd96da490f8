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

// Never throws: a line that cannot be written is dropped.
std::shared_ptr<Logger> NewAgentLog(std::shared_ptr<SettingsStore> settings, std::shared_ptr<Clock> clock,
                                    AgentLogOptions options);

}  // namespace pkgdlv
