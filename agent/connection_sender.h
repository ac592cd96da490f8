// The agent's persistent connection sender: requests to the Quillon Server
// over the agent's own long-lived connection, addressed by an endpoint
// descriptor (transport/tlx_frame.h) instead of a URL.
//
// The Linux agent has no such connection, so the lookup finds nothing and
// callers use plain HTTP. Tests script a fake (tests/support).
//
// Threads: a sender, its requests and responses are used by one thread at a
// time; the lookup may be called from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pkgdlv {

namespace TLXFrame {
class EndPoint;
}

// The name under which the agent publishes its sender.
inline constexpr std::string_view kConnectionSenderName = "Tavorin.KymTLXFrameSender";

class ConnectionSenderResponse {
 public:
  virtual ~ConnectionSenderResponse() = default;
  // The header's value, or nullopt when the response has no such header
  // (names compare ASCII case-insensitively).
  virtual std::optional<std::string> Header(std::string_view name) const = 0;
  // The response body. Owned by the response.
  virtual std::span<const uint8_t> Body() const = 0;
};

class ConnectionSenderRequest {
 public:
  virtual ~ConnectionSenderRequest() = default;
  virtual void SetBody(std::span<const uint8_t> body) = 0;
  // Sends the request and waits for the answer. Throws Error when the
  // connection fails.
  virtual std::unique_ptr<ConnectionSenderResponse> Send() = 0;
};

class ConnectionSender {
 public:
  virtual ~ConnectionSender() = default;
  // Throws Error when the endpoint cannot be addressed.
  virtual std::unique_ptr<ConnectionSenderRequest> CreateRequest(const TLXFrame::EndPoint& endpoint) = 0;
};

// The agent's object lookup by name.
class ConnectionSenderLookup {
 public:
  virtual ~ConnectionSenderLookup() = default;
  // The sender published under name, or nullptr when there is none. Never
  // throws.
  virtual std::shared_ptr<ConnectionSender> Find(std::string_view name) = 0;
};

// The Linux lookup: never finds a sender.
std::shared_ptr<ConnectionSenderLookup> NewAbsentConnectionSenderLookup();

}  // namespace pkgdlv
