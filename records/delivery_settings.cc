#include "records/delivery_settings.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string>

#include "agent/logger.h"
#include "util/strings.h"

namespace pkgdlv {
namespace {

constexpr int64_t kNoLow = std::numeric_limits<int64_t>::min();
constexpr int64_t kNoHigh = std::numeric_limits<int64_t>::max();
constexpr uint64_t kMinute = 60'000;       // milliseconds
constexpr uint64_t kMebibyte = 1'048'576;  // bytes
constexpr bool kUnsigned = true;
constexpr bool kSigned = false;
constexpr bool kWhenPresent = true;  // limits apply only to a value that was there
constexpr bool kAlways = false;

using enum DeliverySetting;

// clang-format off
constexpr std::array<DeliverySettingRule, 11> kRules{{
  // {id, value name, default,
  //   reading    low     below   high       above      scale      unit       limits}
  {kRetryDelay, "Retry delay (mins)", 3,
       kSigned,   1,      1,      60,        60,        kMinute,   "ms",      kAlways},
  {kUrgentRetryDelay, "Urgent retry delay (ms)", 22500,
       kSigned,   5000,   5000,   180000,    180000,    1,         "ms",      kAlways},
  {kMaxRetryDelay, "Maximum retry delay (mins)", 120,
       kSigned,   1,      1,      1440,      1440,      kMinute,   "ms",      kAlways},
  {kMaxDownloadAttempts, "Maximum download attempts", 0,
       kUnsigned, kNoLow, 0,      100,       0,         1,         "",        kAlways},
  {kMaxDownloadAttemptTime, "Maximum download attempt time (mins)", 0,
       kUnsigned, kNoLow, 0,      20160,     0,         kMinute,   "ms",      kAlways},
  {kHistorySize, "Download history size", 30,
       kUnsigned, kNoLow, 0,      100,       0,         1,         "",        kAlways},
  {kMinDiskFreeSpace, "Min Disk Free Space (MBytes)", 500,
       kSigned,   50,     50,     0x1000000, 0x1000000, kMebibyte, "bytes",   kAlways},
  {kPackageSourceExpiry, "Package Source Expiry (mins)", 10,
       kSigned,   1,      1,      10080,     10080,     1,         "minutes", kAlways},
  {kSiteTransferKeepAlive, "Site transfer keep-alive interval (seconds)", 300,
       kSigned,   10,     10,     900,       900,       1,         "seconds", kWhenPresent},
  {kServerRequestMaxBackoff, "Server Request Maximum Backoff Interval (mins)", 120,
       kSigned,   1,      1,      1440,      1440,      1,         "minutes", kWhenPresent},
  {kMaxDecryptFailures, "Maximum decrypt failures", 10,
       kSigned,   1,      10,     kNoHigh,   0,         1,         "",        kAlways},
}};
// clang-format on

constexpr bool RulesAreInEnumOrder() {
  for (size_t i = 0; i < kRules.size(); ++i) {
    if (static_cast<size_t>(kRules[i].id) != i) return false;
  }
  return true;
}
static_assert(RulesAreInEnumOrder(), "kRules must list the settings in the order of DeliverySetting");

int64_t Limit(const DeliverySettingRule& rule, uint32_t stored) {
  int64_t value =
      rule.read_unsigned ? static_cast<int64_t>(stored) : static_cast<int64_t>(static_cast<int32_t>(stored));
  if (value < rule.low) return rule.below_low;
  if (value > rule.high) return rule.above_high;
  return value;
}

uint32_t WholeMinutes(int64_t milliseconds) {
  // Integer division truncates toward zero; a negative result keeps its
  // 32-bit two's complement form, which the signed reading limits to 1.
  return static_cast<uint32_t>(milliseconds / static_cast<int64_t>(kMinute));
}

}  // namespace

DeliverySettings::DeliverySettings(SettingsStore& store, Logger& log)
    : settings_(store, log, std::string(kDeliverySettingsKey)), log_(log) {}

std::vector<std::filesystem::path> DeliverySettings::OtherStoreFolders() {
  const std::string text = settings_.ReadText(kOtherStoreFoldersName, "");
  std::vector<std::filesystem::path> folders;
  size_t start = 0;
  while (start <= text.size() && folders.size() < kMaxOtherStoreFolders) {
    const size_t end = std::min(text.find(';', start), text.size());
    const std::string entry(TrimAscii(std::string_view(text).substr(start, end - start)));
    start = end + 1;
    if (entry.empty()) continue;
    const std::filesystem::path folder(entry);
    const bool climbs = std::any_of(folder.begin(), folder.end(), [](const auto& part) { return part == ".."; });
    if (!folder.is_absolute() || climbs) {
      log_.Log(loglevel::kWarning, "PackageManager", "'%ls' in '%ls' is not an absolute folder and is not used", entry,
               kOtherStoreFoldersName);
      continue;
    }
    folders.push_back(folder.lexically_normal());
  }
  return folders;
}

std::span<const DeliverySettingRule> DeliverySettings::Rules() { return kRules; }

const DeliverySettingRule& DeliverySettings::RuleOf(DeliverySetting id) { return kRules[static_cast<size_t>(id)]; }

uint64_t DeliverySettings::Read(DeliverySetting id) {
  const DeliverySettingRule& rule = RuleOf(id);
  if (rule.limit_only_when_present && !settings_.Exists(rule.name)) {
    settings_.WriteNumber(rule.name, rule.default_value);
    return static_cast<uint64_t>(rule.default_value) * rule.scale;
  }
  uint32_t stored = settings_.ReadNumber(rule.name, rule.default_value);
  return static_cast<uint64_t>(Limit(rule, stored)) * rule.scale;
}

void DeliverySettings::Write(DeliverySetting id, uint32_t stored) { settings_.WriteNumber(RuleOf(id).name, stored); }

void DeliverySettings::SetHistorySize(uint32_t count) { Write(kHistorySize, count); }

void DeliverySettings::SetRetryDelayMs(int64_t milliseconds) { Write(kRetryDelay, WholeMinutes(milliseconds)); }

void DeliverySettings::SetMaxRetryDelayMs(int64_t milliseconds) { Write(kMaxRetryDelay, WholeMinutes(milliseconds)); }

void DeliverySettings::SetMaxDownloadAttempts(uint32_t count) { Write(kMaxDownloadAttempts, count); }

void DeliverySettings::SetMaxDownloadAttemptTime(uint32_t value) { Write(kMaxDownloadAttemptTime, value); }

}  // namespace pkgdlv
