// The agent-core services the component uses, gathered in one bundle that the
// delivery object receives when it is made and passes down. Each service is
// an interface with a Linux implementation and a fake for tests; nothing in
// the component reaches the operating system for these services otherwise.
#pragma once

#include <filesystem>
#include <memory>

namespace pkgdlv {

class Clock;
class SettingsStore;
class Logger;
class Crypto;
class SecureStore;
class NetworkTransportFactory;
class ClientAgent;
class PeerConfigurationSource;
class ServerProfile;
class ResponseDecryptor;
class ConnectionSenderLookup;
class SigningKeys;
class NetworkAddresses;
class VolumeInfo;
class SiteLimits;
class MulticastCore;

struct AgentServices {
  std::filesystem::path data_folder;        // the agent's data folder
  std::shared_ptr<Clock> clock;             // file time, tick count, waits
  std::shared_ptr<SettingsStore> settings;  // the registry's role
  std::shared_ptr<Logger> log;              // the agent log
  std::shared_ptr<Crypto> crypto;           // hashing, signing, signature verification
  std::shared_ptr<SecureStore> secure_store;  // sealed values by path: block hashes ("securestore.db", "machine.key")
  std::shared_ptr<NetworkTransportFactory> transports;  // network transports (libcurl), one per user
  std::shared_ptr<ClientAgent> client;                  // registration, download blockout, identity reset
  std::shared_ptr<PeerConfigurationSource> peer_configuration;  // peer network configuration
  std::shared_ptr<ServerProfile> server_profile;              // error counts per server URL
  std::shared_ptr<ResponseDecryptor> decryptor;               // response and password decryption
  std::shared_ptr<ConnectionSenderLookup> connection_senders;  // the persistent connection sender (none on Linux)
  std::shared_ptr<SigningKeys> signing_keys;                  // keys that sign binary server responses
  std::shared_ptr<NetworkAddresses> network_addresses;        // the computer's IPv4 addresses
  std::shared_ptr<VolumeInfo> volumes;  // file system, fixed drive, free space of a folder
  std::shared_ptr<SiteLimits> site_limits;  // site outbound limits and the site transfer server URL
  // Runs multicast sessions on the wire; null, like the default core, never
  // initialises, so multicast is never attempted.
  std::shared_ptr<MulticastCore> multicast_core;

  // The real services over a data folder (created when missing): the system
  // clock, "settings.db", the agent log in "log" and OpenSSL crypto; the
  // Linux agent has no multicast core (one that cannot initialise). Throws
  // Error when the settings database cannot be opened.
  static AgentServices CreateDefault(const std::filesystem::path& data_folder);
};

}  // namespace pkgdlv
