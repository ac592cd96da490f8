#include <pkgdlv/agent_services.h>

#include <system_error>

#include "agent/agent_log.h"
#include "agent/client_agent.h"
#include "agent/clock.h"
#include "agent/connection_sender.h"
#include "agent/crypto.h"
#include "agent/network_addresses.h"
#include "agent/network_transport.h"
#include "agent/peer_configuration.h"
#include "agent/response_decryptor.h"
#include "agent/secure_store.h"
#include "agent/server_profile.h"
#include "agent/signing_keys.h"
#include "agent/settings_store.h"
#include "agent/volume_info.h"
#include "multicast/multicast_core.h"
#include "transport/site_limits.h"
#include "util/error.h"
#include "util/paths.h"

namespace pkgdlv {

AgentServices AgentServices::CreateDefault(const std::filesystem::path& data_folder) {
  std::error_code ec;
  std::filesystem::create_directories(data_folder, ec);
  if (ec) Throw(FromWin32(win32::kPathNotFound), "Cannot create the data folder %ls: %hs", data_folder.string(), ec.message());

  AgentServices services;
  services.data_folder = data_folder;
  services.clock = NewSystemClock();
  services.settings = OpenSqliteSettingsStore(data_folder / "settings.db");
  AgentLogOptions log_options;
  log_options.default_folder = DefaultLogFolder(data_folder);
  services.log = NewAgentLog(services.settings, services.clock, log_options);
  services.crypto = NewOpenSslCrypto();
  services.transports = NewCurlTransportFactory();
  services.secure_store = OpenSqliteSecureStore(data_folder / "securestore.db", data_folder / "machine.key");
  services.client = std::make_shared<DefaultClientAgent>();
  services.peer_configuration = NewDefaultPeerConfigurationSource();
  services.server_profile = NewMemoryServerProfile();
  services.decryptor = NewDefaultResponseDecryptor();
  services.connection_senders = NewAbsentConnectionSenderLookup();
  services.signing_keys = std::make_shared<SigningKeys>(services.secure_store);
  services.network_addresses = NewSystemNetworkAddresses();
  services.volumes = NewLinuxVolumeInfo();
  services.site_limits = NewSettingsSiteLimits(services.settings);
  services.multicast_core = std::make_shared<UnavailableMulticastCore>();
  return services;
}

}  // namespace pkgdlv
