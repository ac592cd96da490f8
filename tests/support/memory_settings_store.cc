#include "support/memory_settings_store.h"

#include "util/error.h"
#include "util/strings.h"

namespace pkgdlv::testing {

bool MemorySettingsStore::KeyLess::operator()(const std::pair<std::string, std::string>& a,
                                              const std::pair<std::string, std::string>& b) const {
  if (int by_key = CompareNoCase(a.first, b.first); by_key != 0) return by_key < 0;
  return CompareNoCase(a.second, b.second) < 0;
}

std::optional<SettingValue> MemorySettingsStore::Get(std::string_view key, std::string_view name) {
  std::lock_guard lock(mutex_);
  auto it = values_.find({std::string(key), std::string(name)});
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

void MemorySettingsStore::Set(std::string_view key, std::string_view name, const SettingValue& value) {
  ThrowIfWritesFail();
  std::lock_guard lock(mutex_);
  auto [it, inserted] = values_.try_emplace({std::string(key), std::string(name)}, value);
  if (!inserted) it->second = value;
  ++change_counter_;
  ++write_count_;
}

bool MemorySettingsStore::Delete(std::string_view key, std::string_view name) {
  ThrowIfWritesFail();
  std::lock_guard lock(mutex_);
  if (values_.erase({std::string(key), std::string(name)}) == 0) return false;
  ++change_counter_;
  ++write_count_;
  return true;
}

std::vector<NamedSetting> MemorySettingsStore::List(std::string_view key_prefix) {
  std::lock_guard lock(mutex_);
  std::vector<NamedSetting> listed;
  for (const auto& [id, value] : values_) {
    const std::string& key = id.first;
    bool below =
        key_prefix.empty() || EqualsNoCase(key, key_prefix) ||
        (key.size() > key_prefix.size() && StartsWithNoCase(key, key_prefix) && key[key_prefix.size()] == '\\');
    if (below) listed.push_back({key, id.second, value});
  }
  return listed;
}

uint64_t MemorySettingsStore::ChangeCounter() {
  std::lock_guard lock(mutex_);
  return change_counter_;
}

void MemorySettingsStore::ThrowIfWritesFail() const {
  if (fail_writes_) Throw(FromWin32(5), "Access is denied.");  // ERROR_ACCESS_DENIED
}

}  // namespace pkgdlv::testing
