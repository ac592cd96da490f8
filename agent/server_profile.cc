#include "agent/server_profile.h"

#include <map>
#include <mutex>

#include "util/strings.h"

namespace pkgdlv {
namespace {

class MemoryServerProfile final : public ServerProfile {
 public:
  void AddError(std::string_view url) override {
    std::lock_guard lock(mutex_);
    ++errors_[std::string(url)];
  }

  uint32_t ErrorCount(std::string_view url) const override {
    std::lock_guard lock(mutex_);
    auto it = errors_.find(url);
    return it == errors_.end() ? 0 : it->second;
  }

  std::optional<size_t> BestServer(std::span<const std::string> urls) const override {
    std::optional<size_t> best;
    uint32_t fewest = 0;
    for (size_t i = 0; i < urls.size(); ++i) {
      uint32_t count = ErrorCount(urls[i]);
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

std::shared_ptr<ServerProfile> NewMemoryServerProfile() { return std::make_shared<MemoryServerProfile>(); }

}  // namespace pkgdlv
