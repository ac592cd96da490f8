// The multicast engine: decides whether a package may come by multicast,
// keeps the multicast core started or stopped as the settings, the agent's
// registration and communication blockouts require, and runs one multicast
// download at a time.
//
// Everything that changes its condition is a numbered message to Manage,
// which drives a small state machine under the engine's lock, so messages from
// the engine thread, the agent's event threads and the core are handled one
// after another. Lines go to component "MulticastEngine".
//
// The engine takes the agent's blockout state when it first decides its
// state, and hands the core any changed settings (group, port, bandwidth,
// address ranges, local address) each time it reopens the core's management
// interface.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "agent/client_agent.h"
#include "agent/logger.h"
#include "multicast/multicast_core.h"
#include "multicast/multicast_settings.h"

namespace pkgdlv {

class MulticastEngine {
 public:
  enum State : int {
    kEnded = -1,
    kCreated = 0,
    kDisabled = 1,
    kNotInitialised = 2,
    kInterfaceClosed = 3,
    kIdle = 4,
    kDownloading = 5,
  };
  enum Message : int {
    kStart = 1,
    kStop = 2,
    kReopen = 3,
    kSettingsChangedSameEnabled = 4,
    kReevaluate = 5,
    kSettingsMayHaveChanged = 6,
    kEnable = 7,
    kDisable = 8,
    kShutDown = 9,
    kBlockoutStarted = 10,
    kBlockoutExpired = 11,
    kDownloadBegins = 12,
    kDownloadEnded = 13,
    kTerminate = 14,
  };

  struct Dependencies {
    std::shared_ptr<MulticastCore> core;  // null: UnavailableMulticastCore
    // Registration and blockout status; null counts as not registered and no
    // blockout.
    std::shared_ptr<ClientAgent> client;
    // The agent's own veto: true keeps multicast disabled.
    std::function<bool()> agentDisablesMulticast;
    // This computer's IPv4 address for the core.
    std::function<std::string()> localAddress;
  };

  MulticastEngine(SettingsStore& settings, Logger& log, Dependencies dependencies);
  ~MulticastEngine();  // sends kTerminate

  // Handles one message; returns the state after it.
  int Manage(int message);
  int state() const;

  // Whether a multicast download may be tried now.
  bool CanDownloadPackage();
  // Tries to fetch the package by multicast; returns a MulticastResult
  // (kMulticastNotAttempted when no session ran).
  int Download_Try(const Guid& package, uint64_t size);
  // Ends a running session (the engine's download was interrupted).
  void StopSession();

  void OnBlockoutStarted();
  void OnBlockoutExpired();
  void OnRegistrationChanged(int status);

  // Local master sessions: a package joins unless "Max Master sessions per
  // client" are active already (then refused with a warning).
  bool AddMasterSession(const Guid& package);
  void EndMasterSession(const Guid& package);

 private:
  struct CachedSettings {
    bool enabled = false;
    std::string address;
    uint32_t port = 0, maxMasters = 0, minClients = 0, waitSeconds = 0, clientsToWait = 0, transmissions = 0,
             maxBandwidth = 0, minBandwidth = 0, sessionsPerSegment = 0, minPackageKb = 0;
    bool byDefault = true, neverMaster = false, alwaysMaster = false;
    std::vector<AddressRange> listenerRanges, exclusionRanges;
    bool operator==(const CachedSettings&) const = default;
  };
  // What the core was last given.
  struct CoreSettings {
    MulticastCoreParameters parameters;
    uint32_t maxBandwidth = 0, minBandwidth = 0;
    bool operator==(const CoreSettings&) const = default;
  };
  CachedSettings ReadSettings();
  CoreSettings CoreSettingsNow();
  bool RegistrationIsGood();
  bool BlockoutInForce();
  bool SettingsAreValid();
  // One step of the state machine; returns the message to handle again, or 0
  // when the message is done.
  int Step(int message);
  void EndEngine();
  void ShutDownCore();
  bool InitialiseCore();
  // Before the interface reopens: hands the core the settings that changed
  // since it last got them. False when the core refuses them.
  bool HandChangedSettingsToCore();

  MulticastSettings settings_;
  Logger& log_;
  Dependencies deps_;

  mutable std::recursive_mutex mutex_;
  int state_ = kCreated;
  bool blockout_ = false;
  int deferred_ = 0;
  bool downloadEnded_ = false;
  CachedSettings cached_;
  std::optional<CoreSettings> handed_;  // present while the core is initialised
  std::shared_ptr<MulticastSession> session_;  // the running download
  std::set<Guid> masterSessions_;
};

}  // namespace pkgdlv
