// A settings object opened on one key path: the read-with-default and the
// logged write that every typed setting of the component goes through.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "agent/logger.h"
#include "agent/settings_store.h"

namespace pkgdlv {

class ObjectSettings {
 public:
  ObjectSettings(SettingsStore& store, Logger& log, std::string key_path)
      : store_(store), log_(log), key_path_(std::move(key_path)) {}

  const std::string& key_path() const { return key_path_; }

  // The stored number; when the value is missing (or is not a number, or
  // cannot be read) the default is written and returned.
  uint32_t ReadNumber(std::string_view name, uint32_t default_value);
  // The stored text, with the same write-default rule.
  std::string ReadText(std::string_view name, std::string_view default_value);
  bool Exists(std::string_view name);
  // A failed write logs "Unable to save setting: %ls: %ls (%d)" under
  // "ObjectSettings::SetValue" and is otherwise ignored.
  void WriteNumber(std::string_view name, uint32_t value);
  void WriteText(std::string_view name, std::string_view value);

 private:
  void Write(std::string_view name, const SettingValue& value);

  SettingsStore& store_;
  Logger& log_;
  std::string key_path_;
};

}  // namespace pkgdlv
