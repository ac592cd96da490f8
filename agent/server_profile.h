// The agent's server profile: errors recorded against server URLs, so that
// server selection prefers the servers that failed least.
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

class ServerProfile {
 public:
  virtual ~ServerProfile() = default;

  // Counts one error against url. Throws Error when the error cannot be
  // recorded; callers log "Failed to add Server Profile error. Url: %ls" and
  // go on.
  virtual void AddError(std::string_view url) = 0;
  // Errors recorded against url (ASCII case-insensitive match) so far.
  virtual uint32_t ErrorCount(std::string_view url) const = 0;
  // Index of the best of urls: the fewest errors, then the earliest in the
  // list; nullopt for an empty list.
  virtual std::optional<size_t> BestServer(std::span<const std::string> urls) const = 0;
  // The measured connection speed to a host, bytes per second; 0 when the
  // profile has none (the Linux profile measures nothing).
  virtual uint32_t ConnectionSpeed(std::string_view /*host*/) const { return 0; }
};

// The Linux profile: counts kept in memory for the life of the process.
std::shared_ptr<ServerProfile> NewMemoryServerProfile();

}  // namespace pkgdlv
