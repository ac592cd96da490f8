// A persistent connection sender that answers from a script: the headers and
// body of its next response, and a record of every request sent through it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "agent/connection_sender.h"

namespace pkgdlv::testing {

struct ScriptedSenderResponse {
  std::map<std::string, std::string> headers;  // names as the sender reports them
  std::string body;                            // bytes
};

struct SentRequest {
  std::string endpointName;
  std::string endpointId;  // braced text
  std::string body;
};

class FakeConnectionSender final : public ConnectionSender,
                                   public std::enable_shared_from_this<FakeConnectionSender> {
 public:
  void SetResponse(ScriptedSenderResponse response);
  // Called by every Send after the request is recorded and before it is
  // answered, on the sending thread, without the sender's lock: a hook that
  // blocks holds the request "at the server".
  void SetOnSend(std::function<void()> hook);
  std::vector<SentRequest> Sent();

  std::unique_ptr<ConnectionSenderRequest> CreateRequest(const TLXFrame::EndPoint& endpoint) override;

 private:
  friend class FakeSenderRequest;
  std::mutex mutex_;
  ScriptedSenderResponse response_;
  std::function<void()> onSend_;
  std::vector<SentRequest> sent_;
};

// Finds the given sender under the agent's name, nothing under any other.
class FakeConnectionSenderLookup final : public ConnectionSenderLookup {
 public:
  explicit FakeConnectionSenderLookup(std::shared_ptr<ConnectionSender> sender) : sender_(std::move(sender)) {}
  std::shared_ptr<ConnectionSender> Find(std::string_view name) override {
    return name == kConnectionSenderName ? sender_ : nullptr;
  }

 private:
  std::shared_ptr<ConnectionSender> sender_;
};

}  // namespace pkgdlv::testing
