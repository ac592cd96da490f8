// A peer network configuration for tests: it hands out whatever the test set,
// and can refuse to attach.
#pragma once

#include <mutex>
#include <optional>

#include "agent/peer_configuration.h"

namespace pkgdlv::testing {

class FakePeerConfigurationSource final : public PeerConfigurationSource {
 public:
  std::optional<PeerConfiguration> Read(std::string_view) override {
    std::lock_guard lock(mutex_);
    if (fail_attach_) return std::nullopt;
    return config_;
  }

  void Set(const PeerConfiguration& config) {
    std::lock_guard lock(mutex_);
    config_ = config;
  }
  // While set, Read cannot attach.
  void FailAttach(bool fail) {
    std::lock_guard lock(mutex_);
    fail_attach_ = fail;
  }

 private:
  std::mutex mutex_;
  PeerConfiguration config_;
  bool fail_attach_ = false;
};

}  // namespace pkgdlv::testing
