#include "transport/site_limits.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <optional>

#include "agent/network_addresses.h"
#include "agent/settings_store.h"
#include "util/error.h"
#include "util/strings.h"

namespace pkgdlv {
namespace {

class SettingsSiteLimits final : public SiteLimits {
 public:
  explicit SettingsSiteLimits(std::shared_ptr<SettingsStore> settings) : settings_(std::move(settings)) {}

  int32_t OutboundLimit(std::string_view siteId) override {
    if (!settings_) Throw(result::kNullPointer, "No settings store");
    std::string key = std::string(kSitesSettingsKey) + "\\" + std::string(siteId);
    std::optional<SettingValue> value = settings_->Get(key, kSiteOutboundLimitValue);
    if (!value) return -1;
    if (value->type != SettingValue::Type::kNumber) {
      Throw(result::kInvalidData, "Invalid outbound limit of site '%ls'", siteId);
    }
    // Settings hold 32-bit words; the agent writes "no limit" as -1.
    return static_cast<int32_t>(value->number);
  }

  std::string SiteTransferServerUrl(std::string_view) override { return Text(kSitesSettingsKey, kSiteTransferServerUrlValue); }
  std::string LocalSiteId() override { return Text(kSitesSettingsKey, kLocalSiteValue); }
  std::string MainSiteId() override { return Text(kSitesSettingsKey, kMainSiteValue); }

  std::string SiteOfAddress(uint32_t address) override {
    if (!settings_) Throw(result::kNullPointer, "No settings store");
    const std::string prefix = std::string(kSitesSettingsKey) + "\\";
    for (const NamedSetting& setting : settings_->List(kSitesSettingsKey)) {
      if (!EqualsNoCase(setting.name, kSiteSubnetsValue) || setting.value.type != SettingValue::Type::kText) continue;
      if (!setting.key.starts_with(prefix) || setting.key.size() == prefix.size()) continue;
      std::string_view rest = setting.value.text;
      while (!rest.empty()) {
        const size_t end = std::min(rest.find(';'), rest.size());
        const std::string_view network = TrimAscii(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (network.empty()) continue;
        std::optional<Ipv4Network> parsed = ParseNetwork(network);
        if (!parsed) Throw(result::kInvalidData, "Invalid network '%ls' of site '%ls'", std::string(network), setting.key);
        if (parsed->Contains(address)) return setting.key.substr(prefix.size());
      }
    }
    return {};
  }

 private:
  std::string Text(std::string_view key, std::string_view name) {
    if (!settings_) return {};
    std::optional<SettingValue> value = settings_->Get(key, name);
    if (!value || value->type != SettingValue::Type::kText) return {};
    return value->text;
  }

  // "a.b.c.d/n" (n from 0 to 32) or a single address.
  static std::optional<Ipv4Network> ParseNetwork(std::string_view text) {
    const size_t slash = text.find('/');
    const std::string address(text.substr(0, slash));
    in_addr parsed{};
    if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) return std::nullopt;
    int bits = 32;
    if (slash != std::string_view::npos) {
      const std::string_view length = text.substr(slash + 1);
      if (length.empty() || length.size() > 2 || !std::all_of(length.begin(), length.end(), [](char c) { return c >= '0' && c <= '9'; })) return std::nullopt;
      bits = std::stoi(std::string(length));
      if (bits > 32) return std::nullopt;
    }
    const uint32_t mask = bits == 0 ? 0 : 0xFFFFFFFFu << (32 - bits);
    return Ipv4Network{ntohl(parsed.s_addr), mask};
  }

  std::shared_ptr<SettingsStore> settings_;
};

}  // namespace

std::shared_ptr<SiteLimits> NewSettingsSiteLimits(std::shared_ptr<SettingsStore> settings) {
  return std::make_shared<SettingsSiteLimits>(std::move(settings));
}

}  // namespace pkgdlv
