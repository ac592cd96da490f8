// The computer's IPv4 addresses, as the package information request reports
// them to the Quillon Server.
//
// Threads: any thread may call.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace pkgdlv {

class NetworkAddresses {
 public:
  virtual ~NetworkAddresses() = default;
  // Dotted-decimal IPv4 addresses of the interfaces that are up, loopback
  // left out, in interface order without repeats; empty when there are
  // none. Throws Error when the system cannot be asked.
  virtual std::vector<std::string> IPv4Addresses() = 0;
};

// getifaddrs.
std::shared_ptr<NetworkAddresses> NewSystemNetworkAddresses();

}  // namespace pkgdlv
