// The agent's network transport: downloads of package server URLs, file
// shares and local folders, as text, bytes or byte ranges, with credentials,
// connection options, response headers, abort and a cancellation wait.
//
// Locations are the stored codebase forms (see transport/location.h):
// "http://", "https://", "\\\path" (a local path) and "\\host\share\path".
// Anything else fails with 0x800C000D. Failures are thrown as Error with the
// codes listed in agent/transport_errors.h; an HTTP status of 400 or more is
// 0x80042D21 with the status kept in HttpStatus().
//
// Threads: one transport object per user (the engine makes one per package
// download transport); its methods are called from one thread at a time,
// except Abort(), IsAborted() and CancellationEvent(), which any thread may
// call at any time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "util/event.h"
#include "util/filetime.h"

namespace pkgdlv {

// Connection options, set as named text options before a download. Unknown
// names are ignored (the agent core accepts options it does not act on).
struct ConnectionOptions {
  // Option names, used exactly.
  static constexpr std::string_view kExactHttpErrorOn = "com.brelmont.ExactHttpErrorOn";
  static constexpr std::string_view kAuthenticateClientOff = "com.brelmont.HttpConnection.AuthenticateClientOff";
  static constexpr std::string_view kSecureConnectionMode = "com.brelmont.SecureConnectionMode";
  static constexpr std::string_view kPeerConnectionModeOn = "com.brelmont.HttpConnection.PeerConnectionModeOn";
  static constexpr std::string_view kPeerConnectionModeOff = "com.brelmont.HttpConnection.PeerConnectionModeOff";
  static constexpr std::string_view kPeerDownloadMaxRate = "com.brelmont.HttpConnection.PeerDownloadMaxRate";
  static constexpr std::string_view kLoggingFlags = "com.brelmont.LoggingFlags";

  uint32_t connectTimeoutMs = 30'000;
  // Every transfer has to keep moving, or it fails with 0x800705B4 (a time-
  // out): in each window of lowSpeedWindowMs, from the start of the request,
  // it must receive lowSpeedBytesPerSecond for every second of the window,
  // or else all the rest of the body it expects (the range asked for, or the
  // announced length), whichever is less. So a server that trickles a few
  // bytes a second, or stalls before or after its headers, cannot hold a
  // transfer, while a small answer needs only arrive whole within a window.
  // Under a receive limit the rate asked is at most half that limit. A
  // window of 0 turns the rule off.
  uint32_t lowSpeedBytesPerSecond = 1024;
  uint32_t lowSpeedWindowMs = 60'000;
  // Receive speed limit in bytes per second; 0 is unlimited. The peer rate
  // option (KB/s) sets it.
  uint64_t maxReceiveBytesPerSecond = 0;
  uint32_t maxRedirects = 10;
  bool peerConnection = false;
  uint32_t secureConnectionMode = 0;
  uint32_t loggingFlags = 0;

  // Applies one named option. The peer rate is read from its text as written
  // with "%ud": leading decimal digits, anything after them ignored ("100d"
  // is 100 KB/s); no digits or 0 is unlimited. Never throws.
  void Set(std::string_view name, std::string_view value);
};

// What a download sends besides the URL.
struct RequestOptions {
  static constexpr uint64_t kDefaultMaxBodyBytes = 64ull << 20;
  // Extra request headers, sent as "name: value".
  std::vector<std::pair<std::string, std::string>> headers;
  // When set, the request is a POST with this body; otherwise a GET.
  std::optional<std::string> postBody;
  // A body longer than this fails with 0x800700DF before it is all read, so
  // a hostile server cannot exhaust memory.
  uint64_t maxBodyBytes = kDefaultMaxBodyBytes;
};

// The outcome of a byte range download.
struct RangeResult {
  uint64_t received = 0;    // bytes delivered; fewer than asked when the file ends first
  std::string effectiveUrl;  // the URL that answered, after redirects
};

// One item of a directory listing.
struct DirectoryEntry {
  // Relative to the listed folder, components joined with "\"; every
  // component is a safe name (util/safe_path.h), so the path never leaves the
  // folder: names with "\", ":", control characters, "." or ".." are left out
  // of a listing, and so are symbolic links and special files.
  std::string relativePath;
  bool isDirectory = false;
  uint64_t size = 0;  // 0 for folders
  FileTime lastWriteTime = 0;
  FileTime lastAccessTime = 0;
};

enum class TransportState {
  kIdle,       // nothing run since the last Reset
  kRunning,    // a transfer is in progress
  kCompleted,  // the last transfer succeeded
  kFailed,     // the last transfer failed
  kAborted,    // Abort was called; transfers fail with 0x800704C7 until Reset
};

class NetworkTransport {
 public:
  using ByteSink = std::function<void(std::span<const uint8_t>)>;

  virtual ~NetworkTransport() = default;

  // Whole-body downloads, the body exactly as received (text is not
  // converted: a UTF-16 body keeps its byte order mark for the caller's text
  // test). The response headers and status stay readable until the next
  // request.
  virtual std::string DownloadText(std::string_view location, const RequestOptions& options = {}) = 0;
  virtual std::vector<uint8_t> DownloadBytes(std::string_view location, const RequestOptions& options = {}) = 0;

  // Byte ranges [first, first + length) of a file. A server that answers with
  // a different range fails with 0x800C0008; so does one that ignores the range
  // and sends the whole file (200), unless the range starts at 0 and the file
  // fits in it, since the whole file is then exactly what was asked. A file
  // that ends inside the range gives fewer bytes (the caller decides whether
  // that is a failure). The buffer form writes into buffer (length is its
  // size); the sink form hands the bytes over as they arrive, and an
  // exception thrown by the sink ends the transfer and is rethrown.
  virtual RangeResult DownloadRange(std::string_view location, uint64_t first, std::span<uint8_t> buffer) = 0;
  virtual RangeResult DownloadRange(std::string_view location, uint64_t first, uint64_t length,
                                    const ByteSink& sink) = 0;

  // The last response: its header lines as received (the final response
  // after redirects), one header by name (ASCII case-insensitive; the first
  // one when repeated), its HTTP status (0 when the last request was not
  // HTTP or got no answer).
  virtual std::string ResponseHeaderText() const = 0;
  virtual std::optional<std::string> ResponseHeader(std::string_view name) const = 0;
  virtual int HttpStatus() const = 0;

  // Lists a local folder ("\\\path") or a share's folder ("\\host\share\path",
  // agent/smb_share.h), recursively or not, in no set order. Throws
  // 0x80070003 when the folder is missing, 0x80004001 for an HTTP location,
  // which cannot be listed.
  virtual std::vector<DirectoryEntry> ListDirectory(std::string_view location, bool recursive) = 0;

  // Credentials for the next requests, until Reset or the next call. The
  // transport keeps its own copy, never logs it, sends it only to the host
  // first asked (not after a redirect elsewhere) and wipes it when replaced.
  virtual void SetCredentials(std::string_view user, std::string_view password) = 0;
  virtual void SetConnectionOptions(const ConnectionOptions& options) = 0;

  // Back to a fresh state for a new operation: clears the abort flag, the
  // cancellation event, the last response and the credentials; keeps the
  // connection options and the open connections.
  virtual void Reset() = 0;

  // Any thread, while the transport exists: the running transfer ends
  // promptly with 0x800704C7 (the transfer loop is woken, it does not wait for
  // a progress tick), later ones fail with it at once, and the cancellation
  // event is set, until Reset.
  virtual void Abort() = 0;
  virtual bool IsAborted() const = 0;
  virtual TransportState State() const = 0;

  // Set by Abort; waits on it end early. Owned by the transport.
  virtual Event& CancellationEvent() = 0;
  // Waits up to timeout_ms on the cancellation event; true when cancelled.
  bool WaitCancellable(uint32_t timeout_ms) { return CancellationEvent().Wait(timeout_ms); }
};

// Makes transports; the engine makes one per user. Any thread may call it.
class NetworkTransportFactory {
 public:
  virtual ~NetworkTransportFactory() = default;
  // Throws Error when the transfer library cannot make a handle.
  virtual std::unique_ptr<NetworkTransport> Create() = 0;
};

// The libcurl transport. user_agent is sent as the User-Agent header.
std::shared_ptr<NetworkTransportFactory> NewCurlTransportFactory(std::string user_agent = "pkgdlv");

}  // namespace pkgdlv
