// The delivery settings: the component's tunable numbers under
// "Communications\Package Delivery" in the settings store.
//
// Every getter reads the store anew (no cache, so a changed value takes
// effect at its next use). A missing or unreadable value is written with its
// default and the default is used; the stored value is then limited to the
// setting's range, and the limited value, in the getter's unit, is returned.
// The stored value itself is never corrected.
//
// Getters and setters never throw on store failures: a failed write is logged
// ("Unable to save setting: ...") and otherwise ignored. Any thread may call;
// the object keeps no state besides the references it was given, which must
// outlive it.
#pragma once

#include <cstdint>
#include <span>
#include <filesystem>
#include <string_view>
#include <vector>

#include "agent/logger.h"
#include "agent/object_settings.h"
#include "agent/settings_store.h"

namespace pkgdlv {

inline constexpr std::string_view kDeliverySettingsKey = "Communications\\Package Delivery";

// One per stored value, in the order of the settings table.
enum class DeliverySetting {
  kRetryDelay,
  kUrgentRetryDelay,
  kMaxRetryDelay,
  kMaxDownloadAttempts,
  kMaxDownloadAttemptTime,
  kHistorySize,
  kMinDiskFreeSpace,
  kPackageSourceExpiry,
  kSiteTransferKeepAlive,
  kServerRequestMaxBackoff,
  kMaxDecryptFailures,
};

// How one stored 32-bit value becomes what callers see.
struct DeliverySettingRule {
  DeliverySetting id;
  std::string_view name;  // the value name in the store
  uint32_t default_value;
  // Unsigned rules take the stored 32 bits as unsigned, so a stored negative
  // number counts as very large; signed rules take them as signed.
  bool read_unsigned;
  int64_t low;  // values below low read as below_low
  int64_t below_low;
  int64_t high;  // values above high read as above_high
  int64_t above_high;
  uint64_t scale;  // the limited value times scale is the result (minutes to ms, MiB to bytes)
  std::string_view result_unit;
  // Read with an explicit existence test: a missing value is written and its
  // default returned as it is, without the limits.
  bool limit_only_when_present;
};

class DeliverySettings {
 public:
  DeliverySettings(SettingsStore& store, Logger& log);

  // Every rule, in table order.
  static std::span<const DeliverySettingRule> Rules();
  static const DeliverySettingRule& RuleOf(DeliverySetting id);

  // The limited value of any setting in its result unit.
  uint64_t Read(DeliverySetting id);

  uint32_t RetryDelayMs() { return Read32(DeliverySetting::kRetryDelay); }
  uint32_t UrgentRetryDelayMs() { return Read32(DeliverySetting::kUrgentRetryDelay); }
  uint32_t MaxRetryDelayMs() { return Read32(DeliverySetting::kMaxRetryDelay); }
  uint32_t MaxDownloadAttempts() { return Read32(DeliverySetting::kMaxDownloadAttempts); }          // 0: no limit
  uint32_t MaxDownloadAttemptTimeMs() { return Read32(DeliverySetting::kMaxDownloadAttemptTime); }  // 0: no limit
  uint32_t HistorySize() { return Read32(DeliverySetting::kHistorySize); }
  uint64_t MinDiskFreeSpaceBytes() { return Read(DeliverySetting::kMinDiskFreeSpace); }
  uint32_t PackageSourceExpiryMinutes() { return Read32(DeliverySetting::kPackageSourceExpiry); }
  uint32_t SiteTransferKeepAliveSeconds() { return Read32(DeliverySetting::kSiteTransferKeepAlive); }
  uint32_t ServerRequestMaxBackoffMinutes() { return Read32(DeliverySetting::kServerRequestMaxBackoff); }
  uint32_t MaxDecryptFailures() { return Read32(DeliverySetting::kMaxDecryptFailures); }

  // The other store folders a package may move to when its own file system
  // lacks space: the text value kOtherStoreFoldersName, absolute folders
  // separated by ';', tried in order. Entries that are not absolute, or
  // climb with "..", are left out with a warning; at most
  // kMaxOtherStoreFolders are used. Empty when the value is absent.
  static constexpr std::string_view kOtherStoreFoldersName = "Package Store Folders";
  static constexpr size_t kMaxOtherStoreFolders = 26;
  std::vector<std::filesystem::path> OtherStoreFolders();

  // Stored unchanged.
  void SetHistorySize(uint32_t count);
  // Stored as whole minutes: milliseconds / 60000, truncated toward zero.
  void SetRetryDelayMs(int64_t milliseconds);
  void SetMaxRetryDelayMs(int64_t milliseconds);
  // Stored unchanged.
  void SetMaxDownloadAttempts(uint32_t count);
  // Stored unchanged, as minutes, although MaxDownloadAttemptTimeMs returns
  // milliseconds. Intended: the configuration document relies on it.
  void SetMaxDownloadAttemptTime(uint32_t value);

 private:
  uint32_t Read32(DeliverySetting id) { return static_cast<uint32_t>(Read(id)); }
  void Write(DeliverySetting id, uint32_t stored);

  ObjectSettings settings_;
  Logger& log_;
};

}  // namespace pkgdlv
