// The site outbound transfer reservation: before a download attempt fetches
// files that leave the site, it reserves one of the site's outbound slots with
// the Quillon Server ("Start"), keeps it alive while it downloads ("Update",
// from a keep-alive timer) and reports the end with the amounts transferred
// ("Done"). Requests go over the persistent connection sender when the agent
// has one, else as an HTTP GET of "<server>/QS/Agent/SiteTransfer.aspx?xml="
// followed by the document, on a network transport of this object's own.
//
// Ownership: borrows the package download transport (which must outlive this
// object) and keeps the site limits. The request template and URL prefix live
// from Start (or PrepareRequest) to Done.
//
// Threads: Start and Done on the engine's thread; Update on the keep-alive
// timer's thread. A busy counter makes an Update that finds another still
// running return at once. Update uses the object's own network transport,
// which Start and Done use too: the engine starts the timer only after Start
// and deletes it before Done, so the three never overlap.
//
// Failure behaviour: Perform returns false after a warning line (component
// "PackageDownload"); a refused Start (0x8004200D) also becomes the package
// download transport's last result. Nothing escapes.
#pragma once

#include <pkgdlv/result_codes.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "util/error.h"
#include "util/event.h"

namespace pkgdlv {

class Clock;
class ConnectionSender;
class NetworkTransport;
class PackageDownload;
class PackageRequest;
class SiteLimits;

// The action's name: 0 "Start", 1 "Update", 2 "Done", any other "".
std::string_view SiteTransferActionName(int action);

class SiteTransfer {
 public:
  static constexpr int kStart = 0;
  static constexpr int kUpdate = 1;
  static constexpr int kDone = 2;
  static constexpr std::string_view kUrlFormat = "%ls/QS/Agent/SiteTransfer.aspx?xml=";

  // download must outlive this object; limits supplies the server URL at
  // Start (null: Start always lacks data).
  SiteTransfer(PackageDownload& download, std::shared_ptr<SiteLimits> limits);
  ~SiteTransfer();
  SiteTransfer(const SiteTransfer&) = delete;
  SiteTransfer& operator=(const SiteTransfer&) = delete;

  // Performs the action. For Start, request (the resource GUID and the
  // package identifier are read from it under its lock), siteId and limit
  // compose the request template kept until Done; the other actions ignore
  // them. total is the package's size in bytes, done the bytes transferred so
  // far. True when the action succeeded (for Start: the slot is granted), and
  // for an Update skipped because another is still running.
  bool Perform(int action, const PackageRequest* request, std::string_view siteId, int32_t limit, uint64_t total,
               uint64_t done);

  // Stores the request template and URL prefix as Start does, without
  // sending anything: for a tool that updates or ends a reservation that
  // another process started. False, after the warning that data is missing,
  // when the request, the site or the server URL is absent.
  bool PrepareRequest(const PackageRequest* request, std::string_view siteId, int32_t limit);

  // The document the action would send (empty before Start), for tests and
  // diagnostics.
  std::string ComposeDocument(int action, uint64_t total, uint64_t done) const;

  // The failure of the last Perform that did not succeed, code 0 after one
  // that did: for callers that report the reason (the engine reads the
  // package download transport's last result instead).
  Failure LastFailure() const;

 private:
  bool Run(int action, const PackageRequest* request, std::string_view siteId, int32_t limit, uint64_t total,
           uint64_t done);
  void SendThroughSender(ConnectionSender& sender, const std::string& document);
  bool SendOverHttp(const std::string& url);
  void CheckAnswer(std::string_view answer);
  void RecordServerError();
  void SetFailure(Result code, std::string description);

  PackageDownload& download_;
  std::shared_ptr<SiteLimits> limits_;
  mutable std::mutex mutex_;
  std::string template_;   // the resource document with op, total and done still format fields
  std::string urlPrefix_;  // kUrlFormat filled with the server URL
  std::string serverUrl_;  // the Quillon Server URL, for its server profile
  Failure failure_{result::kOk, {}};
  std::atomic<uint32_t> busy_{0};
  std::unique_ptr<NetworkTransport> transport_;  // made on the first request sent over HTTP
};

// Calls tick every intervalMs of the clock's time on a thread of its own, the
// first call one interval after construction, until it is destroyed. Calls
// keep to their schedule however long a tick takes; a call that falls due
// while a tick is still running is skipped. The destructor wakes the thread
// and joins it, so it waits for a running tick to end; it must not be called
// from the tick.
class KeepAliveTimer {
 public:
  // An interval of 0 is taken as 1 ms. Throws std::system_error when the
  // thread cannot be started.
  KeepAliveTimer(std::shared_ptr<Clock> clock, uint32_t intervalMs, std::function<void()> tick);
  ~KeepAliveTimer();
  KeepAliveTimer(const KeepAliveTimer&) = delete;
  KeepAliveTimer& operator=(const KeepAliveTimer&) = delete;

 private:
  void Run();

  std::shared_ptr<Clock> clock_;
  uint32_t intervalMs_;
  std::function<void()> tick_;
  Event stop_{Event::Reset::kManual};
  std::thread thread_;
};

}  // namespace pkgdlv
