// The agent log's settings, read from "Event Logging\logfile" in the settings
// store. Internal to the agent log; the CLI reaches the file's location
// through CurrentAgentLogFile in agent/agent_log.h.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "agent/settings_store.h"

namespace pkgdlv::agent_log {

constexpr std::string_view kLogFileKey = "Event Logging\\logfile";
constexpr std::string_view kDynamicDataKey = "Dynamic Data";

constexpr uint32_t kDefaultSeverity = 7;  // error, warning, info
constexpr uint32_t kDefaultMaxSizeKb = 100;
constexpr uint32_t kMinMaxSizeKb = 10;
constexpr uint32_t kDefaultMaxFiles = 20;
constexpr uint32_t kMinMaxFiles = 2;
constexpr std::string_view kDefaultFileName = "Agent.log";

struct LogFileSettings {
  uint32_t severity = kDefaultSeverity;
  uint64_t max_bytes = uint64_t{kDefaultMaxSizeKb} * 1024;
  uint32_t max_files = kDefaultMaxFiles;
  std::filesystem::path folder;
  std::string file_name{kDefaultFileName};

  std::filesystem::path file() const { return folder / file_name; }
};

enum class MissingValues { kLeave, kWriteDefaults };

// Reads and clamps the settings. A value of the wrong type reads as its
// default and is left as it is. With kWriteDefaults a missing "Severity",
// "MaxSize", "MaxFiles" or "FileName" is written with its default (a failed
// write is ignored); "FilePath" is never written, because its default is
// wherever the calling process keeps its data, not a fixed value.
// May throw when the store does.
LogFileSettings ReadLogFileSettings(SettingsStore& store, const std::filesystem::path& default_folder,
                                    MissingValues missing);

// The "LogFileHeader" text of the agent's "Dynamic Data" key; empty when it
// is missing, not a text, or the store fails. Never throws.
std::string ReadLogFileHeader(SettingsStore& store) noexcept;

}  // namespace pkgdlv::agent_log
