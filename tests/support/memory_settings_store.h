// A settings store in memory, for tests: key paths and names compare ASCII
// case-insensitively, every write moves the change counter, and writes can be
// made to fail. Any thread may use it.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "agent/settings_store.h"

namespace pkgdlv::testing {

class MemorySettingsStore final : public SettingsStore {
 public:
  std::optional<SettingValue> Get(std::string_view key, std::string_view name) override;
  // Throws Error(0x80070005, "Access is denied.") while writes fail.
  void Set(std::string_view key, std::string_view name, const SettingValue& value) override;
  bool Delete(std::string_view key, std::string_view name) override;
  std::vector<NamedSetting> List(std::string_view key_prefix) override;
  uint64_t ChangeCounter() override;

  // While set, Set and Delete throw and change nothing.
  void FailWrites(bool fail) { fail_writes_ = fail; }
  // Number of successful Set and Delete calls so far.
  uint64_t WriteCount() const { return write_count_; }

 private:
  struct KeyLess {
    bool operator()(const std::pair<std::string, std::string>& a, const std::pair<std::string, std::string>& b) const;
  };
  void ThrowIfWritesFail() const;

  std::mutex mutex_;
  std::map<std::pair<std::string, std::string>, SettingValue, KeyLess> values_;
  uint64_t change_counter_ = 0;
  std::atomic<bool> fail_writes_ = false;
  std::atomic<uint64_t> write_count_ = 0;
};

}  // namespace pkgdlv::testing
