#include "support/fake_connection_sender.h"

#include "transport/tlx_frame.h"
#include "util/strings.h"

namespace pkgdlv::testing {
namespace {

class FakeSenderResponse final : public ConnectionSenderResponse {
 public:
  explicit FakeSenderResponse(ScriptedSenderResponse response) : response_(std::move(response)) {}
  std::optional<std::string> Header(std::string_view name) const override {
    for (const auto& [header, value] : response_.headers) {
      if (EqualsNoCase(header, name)) return value;
    }
    return std::nullopt;
  }
  std::span<const uint8_t> Body() const override {
    return {reinterpret_cast<const uint8_t*>(response_.body.data()), response_.body.size()};
  }

 private:
  ScriptedSenderResponse response_;
};

}  // namespace

class FakeSenderRequest final : public ConnectionSenderRequest {
 public:
  FakeSenderRequest(std::shared_ptr<FakeConnectionSender> sender, SentRequest request)
      : sender_(std::move(sender)), request_(std::move(request)) {}
  void SetBody(std::span<const uint8_t> body) override { request_.body.assign(body.begin(), body.end()); }
  std::unique_ptr<ConnectionSenderResponse> Send() override {
    std::function<void()> hook;
    {
      std::lock_guard lock(sender_->mutex_);
      sender_->sent_.push_back(request_);
      hook = sender_->onSend_;
    }
    if (hook) hook();
    std::lock_guard lock(sender_->mutex_);
    return std::make_unique<FakeSenderResponse>(sender_->response_);
  }

 private:
  std::shared_ptr<FakeConnectionSender> sender_;
  SentRequest request_;
};

void FakeConnectionSender::SetResponse(ScriptedSenderResponse response) {
  std::lock_guard lock(mutex_);
  response_ = std::move(response);
}

void FakeConnectionSender::SetOnSend(std::function<void()> hook) {
  std::lock_guard lock(mutex_);
  onSend_ = std::move(hook);
}

std::vector<SentRequest> FakeConnectionSender::Sent() {
  std::lock_guard lock(mutex_);
  return sent_;
}

std::unique_ptr<ConnectionSenderRequest> FakeConnectionSender::CreateRequest(const TLXFrame::EndPoint& endpoint) {
  return std::make_unique<FakeSenderRequest>(
      shared_from_this(), SentRequest{std::string(endpoint.Name()), endpoint.Identifier().ToString(), {}});
}

}  // namespace pkgdlv::testing
