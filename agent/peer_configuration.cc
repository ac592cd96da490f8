#include "agent/peer_configuration.h"

namespace pkgdlv {
namespace {

class DefaultPeerConfigurationSource final : public PeerConfigurationSource {
 public:
  std::optional<PeerConfiguration> Read(std::string_view) override {
    PeerConfiguration config;
    config.peerRetryLimit = 3;
    config.retryDelaySeconds = 60;
    config.maxRateKBps = 0;
    config.progressIntervalSeconds = 60;
    return config;
  }
};

}  // namespace

std::shared_ptr<PeerConfigurationSource> NewDefaultPeerConfigurationSource() {
  return std::make_shared<DefaultPeerConfigurationSource>();
}

}  // namespace pkgdlv
