// The settings store: the agent's named values, addressed by a key path such
// as "Communications\Package Delivery" and a value name. Key paths and names
// compare ASCII case-insensitively. Values are 32-bit numbers or texts.
// Several threads and processes may use one store at once.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pkgdlv {

struct SettingValue {
  enum class Type { kNumber, kText };
  Type type = Type::kNumber;
  uint32_t number = 0;
  std::string text;

  static SettingValue Number(uint32_t n) { return {Type::kNumber, n, {}}; }
  static SettingValue Text(std::string t) { return {Type::kText, 0, std::move(t)}; }
  bool operator==(const SettingValue&) const = default;
};

struct NamedSetting {
  std::string key;
  std::string name;
  SettingValue value;
};

class SettingsStore {
 public:
  virtual ~SettingsStore() = default;

  // The value, or nullopt when it is missing or cannot be read.
  virtual std::optional<SettingValue> Get(std::string_view key, std::string_view name) = 0;
  // Writes the value, creating or replacing it. Throws Error (code and the
  // store's own error text) when the write fails.
  virtual void Set(std::string_view key, std::string_view name, const SettingValue& value) = 0;
  // Removes the value; false when it was not there. Throws Error on failure.
  virtual bool Delete(std::string_view key, std::string_view name) = 0;
  // Every value whose key path is key_prefix or lies below it, ordered by key
  // and name; an empty prefix lists the whole store.
  virtual std::vector<NamedSetting> List(std::string_view key_prefix) = 0;
  // A number that every write moves, in this process or another; readers
  // that cache settings compare it to know when to read again.
  virtual uint64_t ChangeCounter() = 0;
};

// The SQLite store ("settings.db" in the agent's data folder). Throws Error
// when the database cannot be opened or created.
std::shared_ptr<SettingsStore> OpenSqliteSettingsStore(const std::filesystem::path& database_file);

}  // namespace pkgdlv
