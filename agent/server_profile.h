// The agent's server profile: errors recorded against servers, so that
// server selection prefers the servers that failed least.
//
// A server is known by its host name (HostOfLocation): the transport records
// an error with the URL it used, selection ranks bare host names, and both
// meet on the host, whatever the path, port or query of the URL.
//
// Threads: any thread may call every method; implementations are
// thread-safe.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace pkgdlv {

// The host a location names: of a URL ("scheme://user@host:port/path?q"
// gives "host"; an IPv6 literal keeps its brackets) or of a share path
// ("\\host\share\path" gives "host"). Empty for a local path ("\\\path")
// and for a text without a host, such as a bare host name.
std::string HostOfLocation(std::string_view location);

// The key of a server in the profile: the host of a location, or the text
// itself when it names no host (a bare host name is its own key).
std::string ServerKey(std::string_view serverOrLocation);

class ServerProfile {
 public:
  virtual ~ServerProfile() = default;

  // Counts one error against the server of a location (ServerKey). Throws
  // Error when the error cannot be recorded; callers log "Failed to add
  // Server Profile error. Url: %ls" and go on.
  virtual void AddError(std::string_view location) = 0;
  // Errors recorded so far against the server of a location or a host name
  // (ServerKey, ASCII case-insensitive).
  virtual uint32_t ErrorCount(std::string_view serverOrLocation) const = 0;
  // Index of the best of servers (host names or locations): the fewest
  // errors, then the earliest in the list; nullopt for an empty list.
  virtual std::optional<size_t> BestServer(std::span<const std::string> servers) const = 0;
  // The measured connection speed to a host, bytes per second; 0 when the
  // profile has none (the Linux profile measures nothing).
  virtual uint32_t ConnectionSpeed(std::string_view /*host*/) const { return 0; }
};

// The Linux profile: counts kept in memory for the life of the process.
std::shared_ptr<ServerProfile> NewMemoryServerProfile();

}  // namespace pkgdlv
