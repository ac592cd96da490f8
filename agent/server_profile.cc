#include "agent/server_profile.h"

#include <map>
#include <mutex>

#include "util/strings.h"

namespace pkgdlv {
namespace {

class MemoryServerProfile final : public ServerProfile {
 public:
  void AddError(std::string_view location) override {
    std::string key = ServerKey(location);
    std::lock_guard lock(mutex_);
    ++errors_[std::move(key)];
  }

  uint32_t ErrorCount(std::string_view serverOrLocation) const override {
    const std::string key = ServerKey(serverOrLocation);
    std::lock_guard lock(mutex_);
    auto it = errors_.find(key);
    return it == errors_.end() ? 0 : it->second;
  }

  std::optional<size_t> BestServer(std::span<const std::string> servers) const override {
    std::optional<size_t> best;
    uint32_t fewest = 0;
    for (size_t i = 0; i < servers.size(); ++i) {
      uint32_t count = ErrorCount(servers[i]);
      if (!best || count < fewest) {
        best = i;
        fewest = count;
      }
    }
    return best;
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, uint32_t, LessNoCase> errors_;
};

}  // namespace

std::string HostOfLocation(std::string_view location) {
  if (location.starts_with("\\\\\\")) return {};  // a local path
  std::string_view rest;
  if (location.starts_with("\\\\")) {
    rest = location.substr(2);
    return std::string(rest.substr(0, rest.find('\\')));
  }
  const size_t scheme = location.find("://");
  if (scheme == std::string_view::npos) return {};
  rest = location.substr(scheme + 3);
  rest = rest.substr(0, rest.find_first_of("/\\?#"));
  if (const size_t at = rest.rfind('@'); at != std::string_view::npos) rest = rest.substr(at + 1);
  if (rest.starts_with('[')) return std::string(rest.substr(0, rest.find(']') + 1));  // IPv6 literal
  return std::string(rest.substr(0, rest.find(':')));
}

std::string ServerKey(std::string_view serverOrLocation) {
  std::string host = HostOfLocation(serverOrLocation);
  return host.empty() ? std::string(serverOrLocation) : host;
}

std::shared_ptr<ServerProfile> NewMemoryServerProfile() { return std::make_shared<MemoryServerProfile>(); }

}  // namespace pkgdlv
