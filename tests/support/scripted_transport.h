// A network transport whose byte ranges a test scripts: each range request
// goes to a function that fills the buffer or throws the Error a real
// transport would (a peer's "not ready", a failed transfer). It records the
// requests; abort and the cancellation event behave as the real transport's do. Whole-body
// downloads and listings are not offered (0x80004001).
//
// The factory and every transport it makes share one script; any thread may
// read the records while a transport is in use.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "agent/network_transport.h"

namespace pkgdlv::testing {

struct RangeCall {
  std::string location;
  uint64_t first = 0;
  uint64_t length = 0;
};

// Fills buffer (its size is the length asked) and returns the result, or
// throws Error. Called on the requesting thread without any lock held.
using RangeAnswer = std::function<RangeResult(const RangeCall& call, std::span<uint8_t> buffer)>;

class ScriptedTransportFactory final : public NetworkTransportFactory {
 public:
  explicit ScriptedTransportFactory(RangeAnswer answer);
  std::unique_ptr<NetworkTransport> Create() override;

  std::vector<RangeCall> Calls() const;

  struct Script;

 private:
  std::shared_ptr<Script> script_;
};

}  // namespace pkgdlv::testing
