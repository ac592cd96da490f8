// The site outbound reservation of one block download attempt: the site's
// limit, the "Start" that takes a slot, the keep-alive timer that sends
// "Update" while the attempt runs, and the "Done" at its end. The requests
// themselves are SiteTransfer's (transport/site_transfer.h).
//
// Ownership: borrows the package download transport (which must outlive the
// object) and keeps the site limits. Lives for one attempt.
//
// Threads: Begin and End on the engine's thread. The keep-alive runs on the
// timer's own thread and calls the done function given to Begin, which must
// be safe to call from there. End (and the destructor) waits for a running
// keep-alive before it sends "Done".
//
// Failure behaviour: a site without a limit, or whose limit cannot be read,
// is not reserved (an info line says why) and the attempt goes on. A refused
// or failed "Start" throws Error with the failure, so the attempt ends before
// any file is fetched. A timer that cannot be started only warns. "Update" and
// "Done" failures are logged by SiteTransfer and otherwise ignored.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "transport/site_transfer.h"

namespace pkgdlv {

class PackageDownload;
class PackageRequest;
class SiteLimits;

class SiteReservation {
 public:
  // limits may be null: no site has a limit.
  SiteReservation(PackageDownload& download, std::shared_ptr<SiteLimits> limits);
  ~SiteReservation();  // End()
  SiteReservation(const SiteReservation&) = delete;
  SiteReservation& operator=(const SiteReservation&) = delete;

  // Reserves a slot of siteId for a package of total bytes, and keeps it
  // alive every "Site transfer keep-alive interval (seconds)" with done()
  // bytes transferred so far.
  void Begin(const PackageRequest& request, std::string_view siteId, uint64_t total, std::function<uint64_t()> done);
  // Deletes the timer and sends "Done" when a slot was granted. Later calls
  // do nothing. Never throws.
  void End() noexcept;
  bool reserved() const { return reserved_; }

 private:
  PackageDownload& download_;
  std::shared_ptr<SiteLimits> limits_;
  SiteTransfer transfer_;
  std::unique_ptr<KeepAliveTimer> timer_;
  std::function<uint64_t()> done_;
  uint64_t total_ = 0;
  bool reserved_ = false;
};

}  // namespace pkgdlv
