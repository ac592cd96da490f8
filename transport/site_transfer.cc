#include "transport/site_transfer.h"

#include "agent/clock.h"
#include "agent/connection_sender.h"
#include "agent/logger.h"
#include "agent/network_transport.h"
#include "agent/server_profile.h"
#include "records/package_request.h"
#include "transport/package_download.h"
#include "transport/response_text.h"
#include "transport/server_answer.h"
#include "transport/site_limits.h"
#include "transport/tlx_frame.h"
#include "util/format.h"
#include "util/strings.h"
#include "util/xml.h"

namespace pkgdlv {
namespace {

constexpr std::string_view kLog = kPackageDownloadLogComponent;

// Two stages: the first fills guid, site, entity and max once per
// reservation; its doubled percent signs become the fields of the second,
// which fills op, total and done for each action.
constexpr std::string_view kResourceFormat =
    "<resource guid='%ls' op='%%ls'><site>%ls</site><entity>%ls</entity><max>%d</max>"
    "<total>%%I64u</total><done>%%I64u</done></resource>";

// The answer to a reservation request is a short document; anything far
// larger is refused before it is all read.
constexpr uint64_t kMaxAnswerBytes = 1u << 20;

// A value placed in the first stage must come out of the second unchanged:
// XML-escaped for the document, its percent signs doubled for the format.
std::string FirstStageValue(std::string_view text) {
  std::string escaped = xml::Escape(text);
  std::string out;
  out.reserve(escaped.size());
  for (char c : escaped) {
    out += c;
    if (c == '%') out += '%';
  }
  return out;
}

// Holds the busy counter of one Update for as long as it runs.
class BusyGuard {
 public:
  explicit BusyGuard(std::atomic<uint32_t>& busy) : busy_(busy), entered_(busy_.fetch_add(1) == 0) {
    if (!entered_) busy_.fetch_sub(1);
  }
  ~BusyGuard() {
    if (entered_) busy_.fetch_sub(1);
  }
  BusyGuard(const BusyGuard&) = delete;
  BusyGuard& operator=(const BusyGuard&) = delete;
  bool entered() const { return entered_; }

 private:
  std::atomic<uint32_t>& busy_;
  const bool entered_;
};

}  // namespace

std::string_view SiteTransferActionName(int action) {
  switch (action) {
    case SiteTransfer::kStart:
      return "Start";
    case SiteTransfer::kUpdate:
      return "Update";
    case SiteTransfer::kDone:
      return "Done";
    default:
      return "";
  }
}

SiteTransfer::SiteTransfer(PackageDownload& download, std::shared_ptr<SiteLimits> limits)
    : download_(download), limits_(std::move(limits)) {}

SiteTransfer::~SiteTransfer() = default;

bool SiteTransfer::Perform(int action, const PackageRequest* request, std::string_view siteId, int32_t limit,
                           uint64_t total, uint64_t done) {
  std::optional<BusyGuard> busy;
  if (action == kUpdate) {
    busy.emplace(busy_);
    if (!busy->entered()) return true;  // an earlier keep-alive is still waiting for the server
  }
  SetFailure(result::kOk, {});
  const bool succeeded = Run(action, request, siteId, limit, total, done);
  if (action == kDone) {
    std::lock_guard lock(mutex_);
    template_.clear();
    urlPrefix_.clear();
    serverUrl_.clear();
  }
  return succeeded;
}

bool SiteTransfer::Run(int action, const PackageRequest* request, std::string_view siteId, int32_t limit,
                       uint64_t total, uint64_t done) {
  Logger& log = download_.log();
  if (action == kStart && !PrepareRequest(request, siteId, limit)) return false;
  try {
    std::string document = ComposeDocument(action, total, done);
    std::string url;
    {
      std::lock_guard lock(mutex_);
      url = urlPrefix_;
    }
    if (document.empty() || url.empty()) Throw(result::kFail, "No site transfer reservation has been started");
    url += document;
    log.Log(loglevel::kTrace, kLog, "Performing SiteTransfer action '%ls' with XML: '%ls'",
            SiteTransferActionName(action), document);

    const AgentServices& services = download_.services();
    std::shared_ptr<ConnectionSender> sender =
        services.connection_senders ? services.connection_senders->Find(kConnectionSenderName) : nullptr;
    if (sender) {
      SendThroughSender(*sender, document);
    } else {
      log.Log(loglevel::kInfo, kLog,
              "Failed to get the persistent connection sender, will use ordinary network transport");
      if (!SendOverHttp(url)) return false;
    }
    if (action == kStart) log.Log(loglevel::kInfo, kLog, "Site outbound data transfer is allowed by QS");
    return true;
  } catch (const Error& e) {
    SetFailure(e.code(), e.description());
    if (action == kStart && e.code() == result::kServerNotReady) {
      // The server's "not ready to process" answer to a Start means that no
      // slot of the site is free; the attempt ends with it.
      download_.SetLastResult(result::kServerNotReady, e.description());
      log.Log(loglevel::kWarning, kLog,
              "Failed to start files downloading: the limit of site outbound data transfers is reached");
    } else {
      log.Log(loglevel::kWarning, kLog, "Failed to execute SiteTransfer action: %ls (0x%08X)", e.description(),
              e.code());
    }
  } catch (...) {
    const Failure failure = OperationFailure();
    SetFailure(failure.code, failure.description);
    if (failure.code == kOutOfMemory) {
      log.Log(loglevel::kWarning, kLog, "Failed to execute SiteTransfer action: %ls (0x%08X)", failure.description,
              failure.code);
    } else {
      log.Log(loglevel::kWarning, kLog, "Failed to execute SiteTransfer action. Unknown error");
    }
  }
  return false;
}

bool SiteTransfer::PrepareRequest(const PackageRequest* request, std::string_view siteId, int32_t limit) {
  std::string server;
  try {
    if (limits_) server = limits_->SiteTransferServerUrl(siteId);
  } catch (...) {
    server.clear();  // an agent that cannot say is an agent without a URL
  }
  if (!request || siteId.empty() || server.empty()) {
    SetFailure(result::kInvalidArg, "Not enough data to compose the request XML");
    download_.log().Log(loglevel::kWarning, kLog,
                        "Failed to execute SiteTransfer action: not enough data to compose the request XML");
    return false;
  }
  std::string resource;
  std::string entity;
  {
    auto lock = request->Lock();
    resource = request->siteQueryResource;
    entity = request->id().ToString();
  }
  std::lock_guard lock(mutex_);
  template_ = Format(kResourceFormat, FirstStageValue(resource), FirstStageValue(siteId), FirstStageValue(entity),
                     limit);
  urlPrefix_ = Format(kUrlFormat, server);
  serverUrl_ = std::move(server);
  return true;
}

std::string SiteTransfer::ComposeDocument(int action, uint64_t total, uint64_t done) const {
  std::lock_guard lock(mutex_);
  if (template_.empty()) return {};
  return Format(template_, SiteTransferActionName(action), total, done);
}

Failure SiteTransfer::LastFailure() const {
  std::lock_guard lock(mutex_);
  return failure_;
}

void SiteTransfer::SetFailure(Result code, std::string description) {
  std::lock_guard lock(mutex_);
  failure_ = {code, std::move(description)};
}

void SiteTransfer::SendThroughSender(ConnectionSender& sender, const std::string& document) {
  std::unique_ptr<ConnectionSenderRequest> request = sender.CreateRequest(TLXFrame::SiteTransferEP());
  if (!request) Throw(result::kNullPointer, "Invalid pointer");
  request->SetBody(AsBytes(document));
  std::unique_ptr<ConnectionSenderResponse> response = request->Send();
  if (!response) Throw(result::kNullPointer, "Invalid pointer");
  if (std::optional<std::string> error = response->Header("X-TLX-QSError")) {
    Result number = ParseHex32(TrimAscii(*error)).value_or(result::kServerErrorUnparsable);
    RecordServerError();
    ThrowServerError(number, {});
  }
  std::span<const uint8_t> body = response->Body();
  CheckAnswer(std::string_view(reinterpret_cast<const char*>(body.data()), body.size()));
}

bool SiteTransfer::SendOverHttp(const std::string& url) {
  if (!transport_) {
    try {
      transport_ = download_.services().transports->Create();
      if (!transport_) Throw(result::kNullPointer, "Invalid pointer");
    } catch (...) {
      Failure failure = CurrentFailure();
      SetFailure(failure.code, failure.description);
      download_.log().Log(loglevel::kWarning, kLog, "Failed to create transport for SiteTransfer action: %ls (0x%08X)",
                          failure.description, failure.code);
      return false;
    }
  }
  transport_->Reset();
  ConnectionOptions options;
  for (const auto& [name, value] : ConnectionOptionRows(false, 0, 0)) options.Set(name, value);
  transport_->SetConnectionOptions(options);
  RequestOptions request;
  request.maxBodyBytes = kMaxAnswerBytes;
  CheckAnswer(transport_->DownloadText(url, request));
  return true;
}

// Whatever the server answers is fine unless it is an error report, which
// refuses the action as the X-TLX-QSError header does.
void SiteTransfer::CheckAnswer(std::string_view answer) {
  CheckErrorReport(answer, [this] { RecordServerError(); });
}

void SiteTransfer::RecordServerError() {
  std::string server;
  {
    std::lock_guard lock(mutex_);
    server = serverUrl_;
  }
  try {
    if (!download_.services().server_profile) Throw(result::kNullPointer, "No server profile");
    download_.services().server_profile->AddError(server);
  } catch (...) {
    download_.log().Log(loglevel::kWarning, kLog, "Failed to add Server Profile error. Url: %ls", server);
  }
}

KeepAliveTimer::KeepAliveTimer(std::shared_ptr<Clock> clock, uint32_t intervalMs, std::function<void()> tick)
    : clock_(std::move(clock)), intervalMs_(intervalMs == 0 ? 1 : intervalMs), tick_(std::move(tick)) {
  thread_ = std::thread([this] { Run(); });
}

KeepAliveTimer::~KeepAliveTimer() {
  stop_.Set();
  if (thread_.joinable()) thread_.join();
}

void KeepAliveTimer::Run() {
  uint64_t due = clock_->TickCount() + intervalMs_;
  for (;;) {
    const uint64_t now = clock_->TickCount();
    const uint32_t wait = due > now ? static_cast<uint32_t>(due - now) : 0;
    if (clock_->WaitFor(stop_, wait)) return;
    try {
      tick_();
    } catch (...) {
      // The tick reports its own failures; one that escapes must not end
      // the process from a timer thread.
    }
    // Calls that fell due while the tick ran are skipped, as an overlapping
    // keep-alive would be.
    const uint64_t after = clock_->TickCount();
    do {
      due += intervalMs_;
    } while (due <= after);
  }
}

}  // namespace pkgdlv
