#include "agent/network_addresses.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "util/errno_result.h"
#include "util/error.h"

namespace pkgdlv {
namespace {

class SystemNetworkAddresses final : public NetworkAddresses {
 public:
  std::vector<std::string> IPv4Addresses() override {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) Throw(ResultFromErrno(errno), "Cannot read the network interfaces");
    std::vector<std::string> addresses;
    for (ifaddrs* item = list; item != nullptr; item = item->ifa_next) {
      if (item->ifa_addr == nullptr || item->ifa_addr->sa_family != AF_INET) continue;
      if ((item->ifa_flags & IFF_UP) == 0 || (item->ifa_flags & IFF_LOOPBACK) != 0) continue;
      char text[INET_ADDRSTRLEN] = {};
      const auto* address = reinterpret_cast<const sockaddr_in*>(item->ifa_addr);
      if (inet_ntop(AF_INET, &address->sin_addr, text, sizeof text) == nullptr) continue;
      if (std::find(addresses.begin(), addresses.end(), text) == addresses.end()) addresses.emplace_back(text);
    }
    freeifaddrs(list);
    return addresses;
  }

  std::vector<Ipv4Network> IPv4Networks() override {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) Throw(ResultFromErrno(errno), "Cannot read the network interfaces");
    std::vector<Ipv4Network> networks;
    for (ifaddrs* item = list; item != nullptr; item = item->ifa_next) {
      if (item->ifa_addr == nullptr || item->ifa_netmask == nullptr || item->ifa_addr->sa_family != AF_INET) continue;
      if ((item->ifa_flags & IFF_UP) == 0 || (item->ifa_flags & IFF_LOOPBACK) != 0) continue;
      Ipv4Network network;
      network.address = ntohl(reinterpret_cast<const sockaddr_in*>(item->ifa_addr)->sin_addr.s_addr);
      network.mask = ntohl(reinterpret_cast<const sockaddr_in*>(item->ifa_netmask)->sin_addr.s_addr);
      networks.push_back(network);
    }
    freeifaddrs(list);
    return networks;
  }
};

}  // namespace

std::vector<Ipv4Network> NetworkAddresses::IPv4Networks() {
  std::vector<Ipv4Network> networks;
  for (const std::string& text : IPv4Addresses()) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) == 1) networks.push_back({ntohl(address.s_addr), 0xFFFFFFFFu});
  }
  return networks;
}

std::vector<uint32_t> ResolveIPv4(const std::string& host) {
  in_addr literal{};
  if (inet_pton(AF_INET, host.c_str(), &literal) == 1) return {ntohl(literal.s_addr)};
  std::vector<uint32_t> addresses;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return addresses;
  for (addrinfo* item = found; item != nullptr; item = item->ai_next) {
    addresses.push_back(ntohl(reinterpret_cast<const sockaddr_in*>(item->ai_addr)->sin_addr.s_addr));
  }
  freeaddrinfo(found);
  return addresses;
}

std::string FormatIPv4(uint32_t address) {
  in_addr value{htonl(address)};
  char text[INET_ADDRSTRLEN] = {};
  return inet_ntop(AF_INET, &value, text, sizeof text) ? text : "";
}

std::shared_ptr<NetworkAddresses> NewSystemNetworkAddresses() { return std::make_shared<SystemNetworkAddresses>(); }

}  // namespace pkgdlv
