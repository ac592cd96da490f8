// The network transport on libcurl.
//
// One easy handle per transport object, driven through a multi handle of its
// own: the easy handle keeps its connections between requests (so a block
// loop reuses one connection), and the multi handle lets Abort wake the
// transfer loop at once (curl_multi_wakeup) instead of at the next progress
// tick. curl_easy_reset before each request clears options but keeps the
// connection cache.
//
// Redirects are followed for HTTP only, and only to http or https; a local
// file is opened with the file protocol alone, so no answer can lead a
// request to another scheme. Shares go through libsmbclient (SmbShare): curl's
// SMB reads every range from byte 0 and speaks only SMB1.
#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>

#include "agent/directory_listing.h"
#include "agent/network_transport.h"
#include "agent/smb_share.h"
#include "agent/transport_errors.h"
#include "transport/location.h"
#include "util/error.h"
#include "util/file_reader.h"
#include "util/strings.h"

namespace pkgdlv {
namespace {

constexpr size_t kMaxHeaderBytes = 256 * 1024;
constexpr long kReadBufferBytes = 256 * 1024;

struct SlistDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Slist = std::unique_ptr<curl_slist, SlistDeleter>;

// Where the bytes of one request go. Returns false to stop the transfer (the
// reason is recorded in the outcome).
using BodyWriter = std::function<bool(const char* data, size_t size)>;

struct RangeCheck {
  bool active = false;
  uint64_t first = 0;
  uint64_t length = 0;
};

// Parses "bytes a-b/total" (total may be "*").
bool ParseContentRange(std::string_view text, uint64_t& a, uint64_t& b) {
  text = TrimAscii(text);
  if (!StartsWithNoCase(text, "bytes ")) return false;
  text.remove_prefix(6);
  size_t dash = text.find('-');
  size_t slash = text.find('/');
  if (dash == std::string_view::npos || slash == std::string_view::npos || slash < dash) return false;
  auto first = ParseUInt64(text.substr(0, dash));
  auto last = ParseUInt64(text.substr(dash + 1, slash - dash - 1));
  if (!first || !last || *last < *first) return false;
  a = *first;
  b = *last;
  return true;
}

class CurlTransport final : public NetworkTransport {
 public:
  explicit CurlTransport(std::string user_agent) : user_agent_(std::move(user_agent)) {
    easy_ = curl_easy_init();
    multi_ = curl_multi_init();
    if (!easy_ || !multi_) {
      if (easy_) curl_easy_cleanup(easy_);
      if (multi_) curl_multi_cleanup(multi_);
      Throw(result::kFail, "Cannot create a network transfer handle");
    }
  }

  ~CurlTransport() override {
    WipeCredentials();
    curl_easy_cleanup(easy_);
    curl_multi_cleanup(multi_);
  }

  std::string DownloadText(std::string_view location, const RequestOptions& options) override {
    std::string body;
    Perform(location, options, nullptr, [&](const char* data, size_t size) {
      if (body.empty()) body.reserve(AnnouncedBodySize(options));
      body.append(data, size);
      return true;
    });
    return body;
  }

  std::vector<uint8_t> DownloadBytes(std::string_view location, const RequestOptions& options) override {
    std::vector<uint8_t> body;
    Perform(location, options, nullptr, [&](const char* data, size_t size) {
      if (body.empty()) body.reserve(AnnouncedBodySize(options));
      body.insert(body.end(), reinterpret_cast<const uint8_t*>(data), reinterpret_cast<const uint8_t*>(data) + size);
      return true;
    });
    return body;
  }

  RangeResult DownloadRange(std::string_view location, uint64_t first, std::span<uint8_t> buffer) override {
    uint64_t filled = 0;
    return DownloadRange(location, first, buffer.size(), [&](std::span<const uint8_t> bytes) {
      std::memcpy(buffer.data() + filled, bytes.data(), bytes.size());
      filled += bytes.size();
    });
  }

  RangeResult DownloadRange(std::string_view location, uint64_t first, uint64_t length,
                            const ByteSink& sink) override {
    RangeResult range_result;
    if (length == 0) return range_result;
    RangeCheck range{true, first, length};
    RequestOptions options;
    options.maxBodyBytes = UINT64_MAX;  // the range check bounds the body instead
    Perform(location, options, &range, [&](const char* data, size_t size) {
      sink(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(data), size));
      range_result.received += size;
      return true;
    });
    range_result.effectiveUrl = effective_url_;
    return range_result;
  }

  std::string ResponseHeaderText() const override { return header_text_; }

  std::optional<std::string> ResponseHeader(std::string_view name) const override {
    for (const auto& [header, value] : headers_) {
      if (EqualsNoCase(header, name)) return value;
    }
    return std::nullopt;
  }

  int HttpStatus() const override { return static_cast<int>(http_status_); }

  std::vector<DirectoryEntry> ListDirectory(std::string_view location, bool recursive) override {
    TransportLocation converted = ConvertLocation(location);
    if (converted.kind == TransportLocation::Kind::kSmb) {
      SmbShare& share = Share();
      share.SetCredentials(user_, password_);
      return share.List(converted.url, recursive);
    }
    if (converted.kind != TransportLocation::Kind::kLocalFile) {
      Throw(result::kNotImplemented, "The location '%ls' cannot be listed", RedactUrl(converted.url));
    }
    if (aborted_) Throw(result::kCancelled, "The listing of '%ls' was cancelled", converted.localPath.string());
    return ListLocalFolder(converted.localPath, recursive);
  }

  void SetCredentials(std::string_view user, std::string_view password) override {
    WipeCredentials();
    user_ = user;
    password_ = password;
  }

  void SetConnectionOptions(const ConnectionOptions& options) override { options_ = options; }

  void Reset() override {
    WipeCredentials();
    ClearResponse();
    aborted_ = false;
    cancelled_.Clear();
    state_ = TransportState::kIdle;
  }

  void Abort() override {
    aborted_ = true;
    cancelled_.Set();
    curl_multi_wakeup(multi_);  // thread-safe; ends a curl_multi_poll in progress
  }

  bool IsAborted() const override { return aborted_; }

  TransportState State() const override { return aborted_ ? TransportState::kAborted : state_.load(); }

  Event& CancellationEvent() override { return cancelled_; }

 private:
  // The body size the server announced, within the caller's limit, so that a
  // large body is stored without being copied at every doubling; 0 when the
  // size is unknown. A larger announced size fails the transfer anyway.
  size_t AnnouncedBodySize(const RequestOptions& options) const {
    curl_off_t length = -1;
    if (curl_easy_getinfo(easy_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) != CURLE_OK || length <= 0) return 0;
    return static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(length), options.maxBodyBytes));
  }

  struct Transfer {
    CurlTransport* self;
    const RequestOptions* options;
    const RangeCheck* range;
    const BodyWriter* writer;
    TransferOutcome outcome;
    uint64_t bodyBytes = 0;
    size_t headerBytes = 0;
    bool checkedFirstBytes = false;
    std::exception_ptr writerError;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    // The low-speed rule's current window: when it began and the body bytes
    // received by then.
    std::chrono::steady_clock::time_point windowStart = start;
    uint64_t windowStartBytes = 0;
  };

  void WipeCredentials() {
    if (share_) share_->SetCredentials({}, {});
    WipeString(user_);
    WipeString(password_);
    user_.clear();
    password_.clear();
  }

  void ClearResponse() {
    header_text_.clear();
    headers_.clear();
    http_status_ = 0;
    effective_url_.clear();
  }

  void Perform(std::string_view location, const RequestOptions& options, const RangeCheck* range,
               const BodyWriter& writer) {
    TransportLocation converted = ConvertLocation(location);
    ClearResponse();
    if (aborted_) Throw(result::kCancelled, "The download of '%ls' was cancelled", RedactUrl(converted.url));
    state_ = TransportState::kRunning;
    if (converted.kind == TransportLocation::Kind::kSmb) return PerformOnShare(converted.url, options, range, writer);

    Transfer transfer{this, &options, range, &writer, {}, 0, 0, false, nullptr, std::chrono::steady_clock::now()};
    if (converted.kind == TransportLocation::Kind::kLocalFile) {
      // A FIFO or a device would hold the read forever: only files are read.
      CheckFileToReadIfPresent(converted.localPath, UINT64_MAX);
      transfer.outcome.localPath = converted.localPath;
    }
    char error_buffer[CURL_ERROR_SIZE] = {};
    Slist headers = Configure(converted, options, range, transfer, error_buffer);

    RunTransfer(transfer);
    ClearSecretOptions();

    long status = 0;
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    if (converted.kind == TransportLocation::Kind::kHttp) http_status_ = status;
    transfer.outcome.httpStatus = http_status_;
    long os_errno = 0;
    curl_easy_getinfo(easy_, CURLINFO_OS_ERRNO, &os_errno);
    transfer.outcome.osErrno = os_errno;
    const char* effective = nullptr;
    curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &effective);
    effective_url_ = effective ? effective : converted.url;
    if (transfer.outcome.detail.empty()) transfer.outcome.detail = error_buffer;
    if (aborted_) transfer.outcome.aborted = true;

    if (transfer.writerError) {
      state_ = TransportState::kFailed;
      std::rethrow_exception(transfer.writerError);
    }
    if (range && transfer.outcome.curlCode == CURLE_OK && http_status_ == 206 && !transfer.checkedFirstBytes) {
      // An empty 206 cannot be told from a wrong one; it carries no block.
      transfer.outcome.rangeMismatch = true;
      transfer.outcome.detail = "empty partial answer";
    }
    state_ = MapTransferOutcome(transfer.outcome) == result::kOk ? TransportState::kCompleted
                                                                    : TransportState::kFailed;
    ThrowIfFailed(transfer.outcome, converted.url);
  }

  SmbShare& Share() {
    if (!share_) share_ = std::make_unique<SmbShare>([this] { return aborted_.load(); }, SmbShare::PortFromEnvironment());
    return *share_;
  }

  void PerformOnShare(const std::string& url, const RequestOptions& options, const RangeCheck* range,
                      const BodyWriter& writer) {
    effective_url_ = url;
    try {
      SmbShare& share = Share();
      share.SetCredentials(user_, password_);
      share.SetTimeout(std::max(options_.connectTimeoutMs, options_.lowSpeedWindowMs));
      auto sink = [&](std::span<const uint8_t> bytes) {
        writer(reinterpret_cast<const char*>(bytes.data()), bytes.size());
      };
      if (range) {
        share.ReadRange(url, range->first, range->length, sink);
      } else {
        share.ReadFile(url, options.maxBodyBytes, sink);
      }
    } catch (...) {
      state_ = TransportState::kFailed;
      throw;
    }
    state_ = TransportState::kCompleted;
  }

  Slist Configure(const TransportLocation& location, const RequestOptions& options, const RangeCheck* range,
                  Transfer& transfer, char* error_buffer) {
    curl_easy_reset(easy_);
    curl_easy_setopt(easy_, CURLOPT_URL, location.url.c_str());
    curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, error_buffer);
    switch (location.kind) {
      case TransportLocation::Kind::kHttp:
        curl_easy_setopt(easy_, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(easy_, CURLOPT_MAXREDIRS, static_cast<long>(options_.maxRedirects));
        curl_easy_setopt(easy_, CURLOPT_FAILONERROR, 1L);
        break;
      case TransportLocation::Kind::kLocalFile:
        curl_easy_setopt(easy_, CURLOPT_PROTOCOLS_STR, "file");
        break;
      case TransportLocation::Kind::kSmb:
        curl_easy_setopt(easy_, CURLOPT_PROTOCOLS_STR, "smb,smbs");
        break;
    }
    // Never follow a redirect anywhere but http(s), whatever the request was.
    curl_easy_setopt(easy_, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy_, CURLOPT_PROXY, "");  // no proxy, whatever the environment says
    curl_easy_setopt(easy_, CURLOPT_USERAGENT, user_agent_.c_str());
    curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options_.connectTimeoutMs));
    // The low-speed rule is kept by OnProgress: curl's own limit knows
    // neither the size expected nor a window shorter than a second.
    // Large reads for whole files (fewer wake-ups per megabyte); small ones
    // under a receive limit, so the pacing below stays smooth.
    long buffer_size = kReadBufferBytes;
    if (options_.maxReceiveBytesPerSecond > 0) {
      buffer_size = static_cast<long>(std::clamp<uint64_t>(options_.maxReceiveBytesPerSecond / 8, 1024, kReadBufferBytes));
    }
    curl_easy_setopt(easy_, CURLOPT_BUFFERSIZE, buffer_size);
    if (options_.maxReceiveBytesPerSecond > 0) {
      curl_off_t limit = options_.maxReceiveBytesPerSecond > static_cast<uint64_t>(INT64_MAX)
                             ? INT64_MAX
                             : static_cast<curl_off_t>(options_.maxReceiveBytesPerSecond);
      curl_easy_setopt(easy_, CURLOPT_MAX_RECV_SPEED_LARGE, limit);
    }
    if (options.maxBodyBytes < static_cast<uint64_t>(INT64_MAX)) {
      curl_easy_setopt(easy_, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(options.maxBodyBytes));
    }
    if (!user_.empty()) {
      curl_easy_setopt(easy_, CURLOPT_USERNAME, user_.c_str());
      curl_easy_setopt(easy_, CURLOPT_PASSWORD, password_.c_str());
      curl_easy_setopt(easy_, CURLOPT_HTTPAUTH, CURLAUTH_ANY);
    }
    if (range) {
      std::string text = std::to_string(range->first) + "-" + std::to_string(range->first + range->length - 1);
      curl_easy_setopt(easy_, CURLOPT_RANGE, text.c_str());  // curl copies it
    }
    if (options.postBody) {
      curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(options.postBody->size()));
      curl_easy_setopt(easy_, CURLOPT_COPYPOSTFIELDS, options.postBody->c_str());
    }
    Slist headers;
    for (const auto& [name, value] : options.headers) {
      std::string line = name + ": " + value;
      curl_slist* appended = curl_slist_append(headers.get(), line.c_str());
      if (!appended) ThrowOutOfMemory();
      headers.release();
      headers.reset(appended);
    }
    if (headers) curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(easy_, CURLOPT_HEADERFUNCTION, &CurlTransport::OnHeader);
    curl_easy_setopt(easy_, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &CurlTransport::OnBody);
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(easy_, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy_, CURLOPT_XFERINFOFUNCTION, &CurlTransport::OnProgress);
    curl_easy_setopt(easy_, CURLOPT_XFERINFODATA, &transfer);
    return headers;
  }

  // curl keeps its own copy of the password until the option is replaced.
  void ClearSecretOptions() {
    if (user_.empty()) return;
    curl_easy_setopt(easy_, CURLOPT_USERNAME, nullptr);
    curl_easy_setopt(easy_, CURLOPT_PASSWORD, nullptr);
  }

  void RunTransfer(Transfer& transfer) {
    if (curl_multi_add_handle(multi_, easy_) != CURLM_OK) Throw(result::kFail, "Cannot start a network transfer");
    int running = 1;
    while (running) {
      if (curl_multi_perform(multi_, &running) != CURLM_OK) break;
      if (!running || aborted_) break;
      // Wake often enough for the low-speed rule to judge a short window on time.
      int wait_ms = 1000;
      if (options_.lowSpeedWindowMs > 0) {
        wait_ms = static_cast<int>(std::clamp<uint32_t>(options_.lowSpeedWindowMs / 3, 10, 1000));
      }
      curl_multi_poll(multi_, nullptr, 0, wait_ms, nullptr);
    }
    transfer.outcome.curlCode = aborted_ ? CURLE_ABORTED_BY_CALLBACK : CURLE_RECV_ERROR;
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
      if (message->msg == CURLMSG_DONE && message->easy_handle == easy_) transfer.outcome.curlCode = message->data.result;
    }
    curl_multi_remove_handle(multi_, easy_);
  }

  static size_t OnHeader(char* data, size_t size, size_t count, void* user) {
    auto& transfer = *static_cast<Transfer*>(user);
    CurlTransport& self = *transfer.self;
    size_t bytes = size * count;
    transfer.headerBytes += bytes;
    if (transfer.headerBytes > kMaxHeaderBytes) return 0;
    std::string_view line(data, bytes);
    if (line.starts_with("HTTP/")) {  // a new response (after a redirect or 100 Continue)
      self.headers_.clear();
      self.header_text_.clear();
    }
    self.header_text_.append(line);
    size_t colon = line.find(':');
    if (colon != std::string_view::npos && colon > 0) {
      self.headers_.emplace_back(std::string(TrimAscii(line.substr(0, colon))),
                                 std::string(TrimAscii(line.substr(colon + 1))));
    }
    return bytes;
  }

  static size_t OnBody(char* data, size_t size, size_t count, void* user) {
    auto& transfer = *static_cast<Transfer*>(user);
    size_t bytes = size * count;
    if (transfer.self->aborted_) return 0;
    if (!transfer.checkedFirstBytes) {
      transfer.checkedFirstBytes = true;
      if (transfer.range && !transfer.self->AcceptRangeAnswer(transfer)) return 0;
    }
    uint64_t limit = transfer.range ? transfer.range->length : transfer.options->maxBodyBytes;
    if (bytes > limit - transfer.bodyBytes) {
      if (transfer.range) {
        transfer.outcome.rangeMismatch = true;
        transfer.outcome.detail = "more bytes than the range holds";
      } else {
        transfer.outcome.bodyTooLarge = true;
      }
      return 0;
    }
    transfer.bodyBytes += bytes;
    try {
      if (!(*transfer.writer)(data, bytes)) return 0;
    } catch (...) {
      transfer.writerError = std::current_exception();
      return 0;
    }
    return transfer.self->KeepToReceiveLimit(transfer) ? bytes : 0;
  }

  // curl's own limiter reads whatever the socket holds (up to a hundred
  // buffers) before it waits, so a fast server gets a burst of a megabyte or
  // more past the limit. Pacing the delivery here keeps the average at the
  // limit from the first bytes on; the wait is on the cancellation event, so
  // Abort still ends it at once. False when aborted.
  bool KeepToReceiveLimit(const Transfer& transfer) {
    uint64_t limit = options_.maxReceiveBytesPerSecond;
    if (limit == 0) return true;
    double due_seconds = static_cast<double>(transfer.bodyBytes) / static_cast<double>(limit);
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - transfer.start).count();
    if (due_seconds <= elapsed) return true;
    double wait_ms = std::min((due_seconds - elapsed) * 1000.0, 60'000.0);
    return !cancelled_.Wait(static_cast<uint32_t>(wait_ms));
  }

  // The first bytes of a range answer: a 206 must carry the range asked for
  // (or a shorter one ending early at the end of the file); a 200 is the whole
  // file and is accepted only for a range from byte 0, the body bound by the
  // range's length. File and share transfers honour the range themselves.
  bool AcceptRangeAnswer(Transfer& transfer) {
    long status = 0;
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    const RangeCheck& range = *transfer.range;
    uint64_t last_asked = range.first + range.length - 1;
    if (status == 206) {
      auto content_range = ResponseHeader("Content-Range");
      uint64_t a = 0, b = 0;
      if (content_range && ParseContentRange(*content_range, a, b) && a == range.first && b <= last_asked) {
        return true;
      }
      transfer.outcome.rangeMismatch = true;
      transfer.outcome.detail = Format("asked for %I64u-%I64u, got \"%ls\"", range.first, last_asked,
                                       content_range.value_or(""));
      return false;
    }
    if (status == 200 && range.first != 0) {
      transfer.outcome.rangeMismatch = true;
      transfer.outcome.detail = Format("asked for %I64u-%I64u, got the whole file", range.first, last_asked);
      return false;
    }
    return true;
  }

  static int OnProgress(void* user, curl_off_t download_total, curl_off_t, curl_off_t, curl_off_t) {
    auto& transfer = *static_cast<Transfer*>(user);
    if (transfer.self->aborted_) return 1;
    return transfer.self->KeepsLowSpeedRule(transfer, download_total) ? 0 : 1;
  }

  // Called at every progress tick (at least once a second, as the transfer
  // loop polls); see ConnectionOptions for the rule. False, with the outcome
  // marked, when the window that just ended brought too little.
  bool KeepsLowSpeedRule(Transfer& transfer, curl_off_t download_total) {
    const uint32_t window_ms = options_.lowSpeedWindowMs;
    if (window_ms == 0) return true;
    const auto now = std::chrono::steady_clock::now();
    if (now - transfer.windowStart < std::chrono::milliseconds(window_ms)) return true;
    uint64_t rate = options_.lowSpeedBytesPerSecond;
    if (options_.maxReceiveBytesPerSecond > 0) rate = std::min(rate, options_.maxReceiveBytesPerSecond / 2);
    uint64_t needed = rate * window_ms / 1000;
    // The expected size: the range asked for, else the announced length.
    uint64_t expected = transfer.range ? transfer.range->length : 0;
    if (!transfer.range && download_total > 0) expected = static_cast<uint64_t>(download_total);
    if (expected > 0) needed = std::min(needed, expected - std::min(expected, transfer.windowStartBytes));
    const uint64_t received = transfer.bodyBytes - transfer.windowStartBytes;
    if (received < needed) {
      transfer.outcome.tooSlow = true;
      transfer.outcome.detail = Format("%I64u bytes in %u ms, at least %I64u needed", received, window_ms, needed);
      return false;
    }
    transfer.windowStart = now;
    transfer.windowStartBytes = transfer.bodyBytes;
    return true;
  }

  const std::string user_agent_;
  CURL* easy_ = nullptr;
  CURLM* multi_ = nullptr;
  std::unique_ptr<SmbShare> share_;  // made at the first share location
  ConnectionOptions options_;
  std::string user_;
  std::string password_;
  std::atomic<bool> aborted_{false};
  std::atomic<TransportState> state_{TransportState::kIdle};
  Event cancelled_{Event::Reset::kManual};
  // The last response; written by the transfer's callbacks on the caller's thread.
  std::string header_text_;
  std::vector<std::pair<std::string, std::string>> headers_;
  long http_status_ = 0;
  std::string effective_url_;
};

class CurlTransportFactory final : public NetworkTransportFactory {
 public:
  explicit CurlTransportFactory(std::string user_agent) : user_agent_(std::move(user_agent)) {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  }
  std::unique_ptr<NetworkTransport> Create() override { return std::make_unique<CurlTransport>(user_agent_); }

 private:
  const std::string user_agent_;
};

}  // namespace

std::shared_ptr<NetworkTransportFactory> NewCurlTransportFactory(std::string user_agent) {
  return std::make_shared<CurlTransportFactory>(std::move(user_agent));
}

}  // namespace pkgdlv
