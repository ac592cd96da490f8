#include "transport/site_reservation.h"

#include <system_error>
#include <utility>

#include "agent/logger.h"
#include "records/delivery_settings.h"
#include "records/package_request.h"
#include "transport/package_download.h"
#include "transport/site_limits.h"
#include "util/error.h"

namespace pkgdlv {
namespace {
constexpr std::string_view kLog = kPackageDownloadLogComponent;
}  // namespace

SiteReservation::SiteReservation(PackageDownload& download, std::shared_ptr<SiteLimits> limits)
    : download_(download), limits_(limits), transfer_(download, std::move(limits)) {}

SiteReservation::~SiteReservation() { End(); }

void SiteReservation::Begin(const PackageRequest& request, std::string_view siteId, uint64_t total,
                            std::function<uint64_t()> done) {
  Logger& log = download_.log();
  int32_t limit = -1;
  try {
    if (limits_) limit = limits_->OutboundLimit(siteId);
  } catch (...) {
    log.Log(loglevel::kInfo, kLog,
            "Failed to get site outbound connections limit. Outbound slot reservation will not be used");
    return;
  }
  if (limit < 0) {
    log.Log(loglevel::kInfo, kLog, "No limit is defined for site: %ls. Outbound slot reservation will not be used",
            siteId);
    return;
  }
  total_ = total;
  done_ = std::move(done);
  if (!transfer_.Perform(SiteTransfer::kStart, &request, siteId, limit, total, 0)) {
    // A refusal (no free slot) is already the transport's last result; any
    // other failure is known only to the transfer.
    Failure failure = transfer_.LastFailure();
    if (download_.LastResult() != result::kOk) failure = {download_.LastResult(), download_.LastDescription()};
    throw Error(failure.code, failure.description);
  }
  reserved_ = true;

  DeliverySettings settings(*download_.services().settings, log);
  const uint32_t intervalMs = settings.SiteTransferKeepAliveSeconds() * 1000;
  try {
    timer_ = std::make_unique<KeepAliveTimer>(download_.services().clock, intervalMs, [this] {
      transfer_.Perform(SiteTransfer::kUpdate, nullptr, {}, 0, total_, done_());
    });
  } catch (const std::system_error&) {
    log.Log(loglevel::kWarning, kLog,
            "Timer creation failed. Keep-alive calls for outbound slot reservation will not be fired");
  }
}

void SiteReservation::End() noexcept {
  timer_.reset();  // waits for a keep-alive that is running
  if (!reserved_) return;
  reserved_ = false;
  try {
    transfer_.Perform(SiteTransfer::kDone, nullptr, {}, 0, total_, done_ ? done_() : 0);
  } catch (...) {
    // Perform reports its own failures; the attempt's end must not throw.
  }
}

}  // namespace pkgdlv
