// What the agent core knows about sites for the site outbound transfer
// reservation: a site's limit on downloads leaving it at the same time, and
// the Quillon Server URL that takes the reservation requests.
//
// The Linux agent keeps both in the settings store:
//   key "Communications\Package Delivery\Sites\<site id>", number value
//     "Outbound Limit": the site's limit, read as a signed 32-bit number; a
//     missing or negative value (0xFFFFFFFF) means no limit;
//   key "Communications\Package Delivery\Sites", text value
//     "Site Transfer Server URL": the server URL (no trailing "/QS/...");
//   the same key, text values "Local Site" (this computer's site) and
//     "Main Site" (the site of the Quillon Server);
//   key "Communications\Package Delivery\Sites\<site id>", text value
//     "Subnets": the site's IPv4 networks, "a.b.c.d/n" separated by ';'.
// Without a "Local Site" the agent knows no sites: no transfer is limited.
//
// Threads: any thread may call; the settings store synchronises itself.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace pkgdlv {

class SettingsStore;

inline constexpr std::string_view kSitesSettingsKey = "Communications\\Package Delivery\\Sites";
inline constexpr std::string_view kSiteOutboundLimitValue = "Outbound Limit";
inline constexpr std::string_view kSiteTransferServerUrlValue = "Site Transfer Server URL";
inline constexpr std::string_view kLocalSiteValue = "Local Site";
inline constexpr std::string_view kMainSiteValue = "Main Site";
inline constexpr std::string_view kSiteSubnetsValue = "Subnets";

class SiteLimits {
 public:
  virtual ~SiteLimits() = default;
  // The site's outbound connection limit; negative means no limit. Throws
  // Error when the limit cannot be read.
  virtual int32_t OutboundLimit(std::string_view siteId) = 0;
  // The Quillon Server URL for site transfer requests; empty when none is
  // known. Never throws.
  virtual std::string SiteTransferServerUrl(std::string_view siteId) = 0;
  // This computer's site; empty when the agent knows no sites. Never throws.
  virtual std::string LocalSiteId() { return {}; }
  // The site whose networks hold address (IPv4, host byte order); empty
  // when none does. Throws Error when the sites cannot be read.
  virtual std::string SiteOfAddress(uint32_t address) {
    (void)address;
    return {};
  }
  // The site of the Quillon Server; empty when unknown. Never throws.
  virtual std::string MainSiteId() { return {}; }
};

// The settings-store implementation described above. A limit stored as text
// fails (Error 0x8007000D): a corrupt setting must not be taken as "no
// limit". The object keeps the store.
std::shared_ptr<SiteLimits> NewSettingsSiteLimits(std::shared_ptr<SettingsStore> settings);

}  // namespace pkgdlv
