#include "agent/connection_sender.h"

namespace pkgdlv {
namespace {

class AbsentConnectionSenderLookup final : public ConnectionSenderLookup {
 public:
  std::shared_ptr<ConnectionSender> Find(std::string_view) override { return nullptr; }
};

}  // namespace

std::shared_ptr<ConnectionSenderLookup> NewAbsentConnectionSenderLookup() {
  return std::make_shared<AbsentConnectionSenderLookup>();
}

}  // namespace pkgdlv
