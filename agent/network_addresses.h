// The computer's IPv4 addresses, as the package information request reports
// them to the Quillon Server.
//
// Threads: any thread may call.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace pkgdlv {

// An interface's IPv4 network: address and mask in host byte order.
struct Ipv4Network {
  uint32_t address = 0;
  uint32_t mask = 0;
  bool Contains(uint32_t other) const { return (other & mask) == (address & mask); }
};

class NetworkAddresses {
 public:
  virtual ~NetworkAddresses() = default;
  // The networks of the interfaces that are up, loopback left out. The
  // default reads IPv4Addresses as single hosts (mask /32). Throws Error
  // when the system cannot be asked.
  virtual std::vector<Ipv4Network> IPv4Networks();
  // Dotted-decimal IPv4 addresses of the interfaces that are up, loopback
  // left out, in interface order without repeats; empty when there are
  // none. Throws Error when the system cannot be asked.
  virtual std::vector<std::string> IPv4Addresses() = 0;
};

// getifaddrs.
std::shared_ptr<NetworkAddresses> NewSystemNetworkAddresses();

// The IPv4 addresses of host (host byte order): the address itself when host
// is one, else what the system's resolver answers; empty when it answers
// nothing. Blocks for as long as the resolver takes.
std::vector<uint32_t> ResolveIPv4(const std::string& host);
// "a.b.c.d" of an address in host byte order.
std::string FormatIPv4(uint32_t address);

}  // namespace pkgdlv
