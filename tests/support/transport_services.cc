#include "support/transport_services.h"

#include "agent/crypto.h"
#include "agent/network_transport.h"
#include "agent/response_decryptor.h"
#include "agent/secure_store.h"
#include "agent/server_profile.h"
#include "agent/signing_keys.h"
#include "transport/site_limits.h"

namespace pkgdlv::testing {

TransportServices::TransportServices()
    : clock(std::make_shared<FakeClock>()),
      log(std::make_shared<RecordingLogger>()),
      settings(std::make_shared<MemorySettingsStore>()) {
  services.data_folder = dir.path();
  services.clock = clock;
  services.log = log;
  services.settings = settings;
  services.crypto = NewOpenSslCrypto();
  services.transports = NewCurlTransportFactory();
  services.secure_store = OpenSqliteSecureStore(dir / "securestore.db", dir / "machine.key");
  services.server_profile = NewMemoryServerProfile();
  services.decryptor = NewDefaultResponseDecryptor();
  services.signing_keys = std::make_shared<SigningKeys>(services.secure_store);
  services.network_addresses = std::make_shared<FixedNetworkAddresses>(std::vector<std::string>{"10.1.2.3"});
  services.site_limits = NewSettingsSiteLimits(settings);
}

}  // namespace pkgdlv::testing
