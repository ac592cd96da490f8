// The agent's peer network configuration: the numbers that govern downloads
// from peers on the local network. The agent publishes them; the component
// only reads a copy when it needs them (a retry of a peer download, the start
// and progress of a peer transfer).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

namespace pkgdlv {

struct PeerConfiguration {
  // The size of the structure the agent publishes. A reader refuses anything
  // shorter: it was written by an agent that does not know every field below.
  static constexpr uint32_t kStructureSize = 56;
  static constexpr uint32_t kPreferLocalSubnetServers = 0x400;  // bit of flags

  uint32_t structureSize = kStructureSize;  // bytes received
  uint32_t flags = 0;
  uint32_t peerRetryLimit = 0;            // attempts after which peers are no longer searched
  uint32_t retryDelaySeconds = 0;         // fixed delay before a failed peer download is retried
  uint32_t maxRateKBps = 0;               // peer download maximum rate, KB/s; 0 is unlimited
  uint32_t progressIntervalSeconds = 0;   // block download progress interval
};

class PeerConfigurationSource {
 public:
  virtual ~PeerConfigurationSource() = default;

  // Attaches to the configuration on behalf of the named reader (a log
  // component name such as "DownloadQueue") and returns a copy; nullopt when
  // it cannot be attached. Never throws; any thread may call.
  virtual std::optional<PeerConfiguration> Read(std::string_view reader) = 0;
};

// The Linux agent has no peer network service of its own: this source always
// attaches and returns a full structure with no rate limit, a progress
// interval of 60 seconds, a peer retry delay of 60 seconds and a peer retry
// limit of 3.
std::shared_ptr<PeerConfigurationSource> NewDefaultPeerConfigurationSource();

}  // namespace pkgdlv
