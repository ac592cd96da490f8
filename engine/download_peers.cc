// The peer step of a download cycle: whether peers on the local network are
// asked for the package before the package servers. A package server in this
// computer's subnet is preferred when the peer configuration says so; a
// package that failed often enough leaves the peers alone.
#include <string>
#include <vector>

#include "agent/logger.h"
#include "agent/network_addresses.h"
#include "agent/peer_configuration.h"
#include "agent/server_profile.h"
#include "engine/download_cycle.h"
#include "engine/download_cycle_state.h"
#include "engine/download_queue.h"
#include "engine/peer_directory.h"
#include "util/error.h"

namespace pkgdlv {

namespace {

constexpr std::string_view kComponent = "PackageManager";

}  // namespace

bool DownloadCycle::HasLocalSubnetServer(Cycle& cycle) {
  std::vector<CodebaseEntry> codebases;
  {
    auto lock = cycle.request.Lock();
    codebases = cycle.request.codebases;
  }
  try {
    if (!services_.network_addresses) Throw(result::kNullPointer, "No network addresses");
    const std::vector<Ipv4Network> networks = services_.network_addresses->IPv4Networks();
    for (const CodebaseEntry& codebase : codebases) {
      if (!codebase.packageServer) continue;
      const std::string host = HostOfLocation(codebase.location);
      if (host.empty()) continue;
      for (uint32_t address : ResolveIPv4(host)) {
        for (const Ipv4Network& network : networks) {
          if (network.Contains(address)) return true;
        }
      }
    }
  } catch (const Error& e) {
    services_.log->Log(loglevel::kWarning, "PackageDelivery", "Failed to check local subnet of Package Server codebase: %ls",
                       e.description());
  }
  return false;
}

void DownloadCycle::PeerStep(Cycle& cycle) {
  Logger& log = *services_.log;
  PeerDirectory& peers = cycle.engine.peers;
  if (peers.State() != PeerDirectory::kRunningState) {
    log.Log(loglevel::kInfo, kComponent, "DHT engine is not running. Skip peer activity.");
    return;
  }
  std::optional<PeerConfiguration> config;
  if (services_.peer_configuration) config = services_.peer_configuration->Read(kComponent);
  if (!config) Throw(result::kConfigurationUnavailable, "Can't attach to the configuration.");
  if (config->structureSize < PeerConfiguration::kStructureSize) {
    Throw(result::kConfigurationUnavailable, "Invalid structure size received.");
  }
  int32_t attempts = 0;
  {
    std::lock_guard queueLock(cycle.engine.queueLock);
    attempts = cycle.engine.queue.GetAttemptCount(cycle.id);
  }
  PeerSearch search;
  if ((config->flags & PeerConfiguration::kPreferLocalSubnetServers) && HasLocalSubnetServer(cycle)) {
    log.Log(loglevel::kInfo, kComponent,
            "Found preferable Package Server in local subnet. The peer-to-peer downloading will not be attempted.");
  } else if (attempts >= 0 && static_cast<uint32_t>(attempts) < config->peerRetryLimit) {
    search = peers.FindPeers(cycle.request);
    cycle.peerResult = search.result;
    cycle.peerMode = (search.result & PeerSearch::kPeerMode) != 0;
    if (cycle.peerMode && search.peersFound == 0) {
      // Peers hold the package but none answered: the cycle fails and is
      // retried at the peer delay rather than going to the servers.
      cycle.waitForPeer = true;
      cycle.code = result::kFail;
      cycle.description = "Waiting for peers that hold the package";
    }
  }
  log.Log(loglevel::kDebug, kComponent,
          "Peer Downloading info: retry: %d, max: %u, delay: %u, wait for peer: %ls, max rate: %u, find result: %u",
          static_cast<int>(attempts), config->peerRetryLimit, config->retryDelaySeconds,
          cycle.waitForPeer ? "yes" : "no", config->maxRateKBps, search.result);
}

}  // namespace pkgdlv
