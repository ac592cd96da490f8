#include "agent/object_settings.h"

namespace pkgdlv {

uint32_t ObjectSettings::ReadNumber(std::string_view name, uint32_t default_value) {
  std::optional<SettingValue> value = store_.Get(key_path_, name);
  if (value && value->type == SettingValue::Type::kNumber) return value->number;
  Write(name, SettingValue::Number(default_value));
  return default_value;
}

std::string ObjectSettings::ReadText(std::string_view name, std::string_view default_value) {
  std::optional<SettingValue> value = store_.Get(key_path_, name);
  if (value && value->type == SettingValue::Type::kText) return value->text;
  Write(name, SettingValue::Text(std::string(default_value)));
  return std::string(default_value);
}

bool ObjectSettings::Exists(std::string_view name) { return store_.Get(key_path_, name).has_value(); }

void ObjectSettings::WriteNumber(std::string_view name, uint32_t value) { Write(name, SettingValue::Number(value)); }

void ObjectSettings::WriteText(std::string_view name, std::string_view value) {
  Write(name, SettingValue::Text(std::string(value)));
}

void ObjectSettings::Write(std::string_view name, const SettingValue& value) {
  try {
    store_.Set(key_path_, name, value);
  } catch (const Error& e) {
    log_.Log(loglevel::kError, "ObjectSettings::SetValue", "Unable to save setting: %ls: %ls (%d)", name,
             e.description(), e.code());
  } catch (const std::exception& e) {
    log_.Log(loglevel::kError, "ObjectSettings::SetValue", "Unable to save setting: %ls: %ls (%d)", name, e.what(),
             -1);
  }
}

}  // namespace pkgdlv
