#include "support/scripted_transport.h"

#include <atomic>

#include "util/error.h"

namespace pkgdlv::testing {

struct ScriptedTransportFactory::Script {
  mutable std::mutex mutex;
  RangeAnswer answer;
  std::vector<RangeCall> calls;
};

namespace {

class ScriptedTransport final : public NetworkTransport {
 public:
  explicit ScriptedTransport(std::shared_ptr<ScriptedTransportFactory::Script> script) : script_(std::move(script)) {}

  std::string DownloadText(std::string_view, const RequestOptions&) override { NotOffered(); }
  std::vector<uint8_t> DownloadBytes(std::string_view, const RequestOptions&) override { NotOffered(); }

  RangeResult DownloadRange(std::string_view location, uint64_t first, std::span<uint8_t> buffer) override {
    if (aborted_) Fail("cancelled before the request");
    RangeCall call{std::string(location), first, buffer.size()};
    RangeAnswer answer;
    {
      std::lock_guard lock(script_->mutex);
      script_->calls.push_back(call);
      answer = script_->answer;
    }
    state_ = TransportState::kRunning;
    try {
      RangeResult result = answer(call, buffer);
      if (aborted_) Fail("cancelled during the request");
      state_ = TransportState::kCompleted;
      return result;
    } catch (...) {
      state_ = aborted_ ? TransportState::kAborted : TransportState::kFailed;
      throw;
    }
  }

  RangeResult DownloadRange(std::string_view location, uint64_t first, uint64_t length, const ByteSink& sink) override {
    std::vector<uint8_t> buffer(length);
    RangeResult result = DownloadRange(location, first, std::span(buffer));
    sink(std::span<const uint8_t>(buffer.data(), result.received));
    return result;
  }

  std::string ResponseHeaderText() const override { return {}; }
  std::optional<std::string> ResponseHeader(std::string_view) const override { return std::nullopt; }
  int HttpStatus() const override { return 0; }
  std::vector<DirectoryEntry> ListDirectory(std::string_view, bool) override { NotOffered(); }
  void SetCredentials(std::string_view, std::string_view) override {}

  void SetConnectionOptions(const ConnectionOptions&) override {}

  void Reset() override {
    aborted_ = false;
    cancelled_.Clear();
    state_ = TransportState::kIdle;
  }
  void Abort() override {
    aborted_ = true;
    cancelled_.Set();
  }
  bool IsAborted() const override { return aborted_; }
  TransportState State() const override { return aborted_ ? TransportState::kAborted : state_.load(); }
  Event& CancellationEvent() override { return cancelled_; }

 private:
  [[noreturn]] static void NotOffered() { Throw(result::kNotImplemented, "Not offered by the scripted transport"); }
  [[noreturn]] void Fail(const char* when) {
    state_ = TransportState::kAborted;
    Throw(result::kCancelled, "The scripted download was %hs", when);
  }

  std::shared_ptr<ScriptedTransportFactory::Script> script_;
  std::atomic<bool> aborted_{false};
  std::atomic<TransportState> state_{TransportState::kIdle};
  Event cancelled_{Event::Reset::kManual};
};

}  // namespace

ScriptedTransportFactory::ScriptedTransportFactory(RangeAnswer answer) : script_(std::make_shared<Script>()) {
  script_->answer = std::move(answer);
}

std::unique_ptr<NetworkTransport> ScriptedTransportFactory::Create() {
  return std::make_unique<ScriptedTransport>(script_);
}

std::vector<RangeCall> ScriptedTransportFactory::Calls() const {
  std::lock_guard lock(script_->mutex);
  return script_->calls;
}

}  // namespace pkgdlv::testing
