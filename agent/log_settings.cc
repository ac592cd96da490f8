#include "agent/log_settings.h"

#include <algorithm>
#include <optional>

#include "agent/object_settings.h"

namespace pkgdlv::agent_log {
namespace {

// Reads the settings with the "missing value is written with its default"
// rule of the component, except that the writes go to a NullLogger: the log
// cannot report its own failed settings write without recursing into itself.
class LogFileKey {
 public:
  LogFileKey(SettingsStore& store, MissingValues missing)
      : store_(store), writer_(store, null_log_, std::string(kLogFileKey)), missing_(missing) {}

  uint32_t Number(std::string_view name, uint32_t default_value) {
    std::optional<SettingValue> value = store_.Get(kLogFileKey, name);
    if (value && value->type == SettingValue::Type::kNumber) return value->number;
    if (!value && missing_ == MissingValues::kWriteDefaults) writer_.WriteNumber(name, default_value);
    return default_value;
  }

  // An empty text counts as missing.
  std::string Text(std::string_view name, std::string_view default_value, bool default_is_fixed) {
    std::optional<SettingValue> value = store_.Get(kLogFileKey, name);
    if (value && value->type == SettingValue::Type::kText && !value->text.empty()) return value->text;
    if (!value && default_is_fixed && missing_ == MissingValues::kWriteDefaults) writer_.WriteText(name, default_value);
    return std::string(default_value);
  }

 private:
  SettingsStore& store_;
  NullLogger null_log_;
  ObjectSettings writer_;
  MissingValues missing_;
};

// A file name must name a file inside the log folder.
bool IsPlainFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

}  // namespace

LogFileSettings ReadLogFileSettings(SettingsStore& store, const std::filesystem::path& default_folder,
                                    MissingValues missing) {
  LogFileKey key(store, missing);
  LogFileSettings settings;
  settings.severity = key.Number("Severity", kDefaultSeverity);
  settings.max_bytes = uint64_t{std::max(key.Number("MaxSize", kDefaultMaxSizeKb), kMinMaxSizeKb)} * 1024;
  settings.max_files = std::max(key.Number("MaxFiles", kDefaultMaxFiles), kMinMaxFiles);
  settings.folder = key.Text("FilePath", default_folder.string(), /*default_is_fixed=*/false);
  settings.file_name = key.Text("FileName", kDefaultFileName, /*default_is_fixed=*/true);
  if (!IsPlainFileName(settings.file_name)) settings.file_name = kDefaultFileName;
  return settings;
}

std::string ReadLogFileHeader(SettingsStore& store) noexcept {
  try {
    std::optional<SettingValue> value = store.Get(kDynamicDataKey, "LogFileHeader");
    if (value && value->type == SettingValue::Type::kText) return value->text;
  } catch (...) {  // a store that fails gives an empty header
  }
  return {};
}

}  // namespace pkgdlv::agent_log
