// An agent service bundle for transport tests: a fake clock, a recording
// logger, settings in memory, OpenSSL crypto, the libcurl transport, a
// memory server profile, the default decryptor, signing keys in a secure
// store of a temporary folder, fixed IPv4 addresses, and site limits from the
// settings. No connection sender unless a test installs one.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <pkgdlv/agent_services.h>

#include "agent/network_addresses.h"
#include "support/fake_clock.h"
#include "support/memory_settings_store.h"
#include "support/recording_logger.h"
#include "support/temp_dir.h"

namespace pkgdlv::testing {

class FixedNetworkAddresses final : public NetworkAddresses {
 public:
  explicit FixedNetworkAddresses(std::vector<std::string> addresses) : addresses_(std::move(addresses)) {}
  std::vector<std::string> IPv4Addresses() override { return addresses_; }

 private:
  std::vector<std::string> addresses_;
};

struct TransportServices {
  TransportServices();

  TempDir dir;
  std::shared_ptr<FakeClock> clock;
  std::shared_ptr<RecordingLogger> log;
  std::shared_ptr<MemorySettingsStore> settings;
  AgentServices services;
};

}  // namespace pkgdlv::testing
