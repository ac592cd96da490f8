#include "transport/site_limits.h"

#include "agent/settings_store.h"
#include "util/error.h"

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

  std::string SiteTransferServerUrl(std::string_view) override {
    if (!settings_) return {};
    std::optional<SettingValue> value = settings_->Get(kSitesSettingsKey, kSiteTransferServerUrlValue);
    if (!value || value->type != SettingValue::Type::kText) return {};
    return value->text;
  }

 private:
  std::shared_ptr<SettingsStore> settings_;
};

}  // namespace

std::shared_ptr<SiteLimits> NewSettingsSiteLimits(std::shared_ptr<SettingsStore> settings) {
  return std::make_shared<SettingsSiteLimits>(std::move(settings));
}

}  // namespace pkgdlv
