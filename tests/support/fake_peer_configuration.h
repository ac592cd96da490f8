// A peer network configuration for tests: it hands out whatever the test set,
// can refuse to attach, and remembers who asked.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "agent/peer_configuration.h"

namespace pkgdlv::testing {

class FakePeerConfigurationSource final : public PeerConfigurationSource {
 public:
  std::optional<PeerConfiguration> Read(std::string_view reader) override {
    std::lock_guard lock(mutex_);
    readers_.emplace_back(reader);
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
  std::vector<std::string> Readers() {
    std::lock_guard lock(mutex_);
    return readers_;
  }

 private:
  std::mutex mutex_;
  PeerConfiguration config_;
  bool fail_attach_ = false;
  std::vector<std::string> readers_;
};

}  // namespace pkgdlv::testing
