// The multicast core: the agent component that runs multicast sessions on the
// wire. The multicast engine starts and stops it and hands it one package at
// a time; its protocol is its own business.
//
// Threads: the engine calls the core under its own lock, except Run of a
// session, which runs on the downloading thread while another thread may call
// Stop.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "multicast/multicast_settings.h"
#include "util/guid.h"

namespace pkgdlv {

// Results of a multicast download (and of Download_Try).
enum MulticastResult : int {
  kMulticastReceived = 1,      // every file came by multicast
  kMulticastNothing = 2,       // the session ran but brought nothing
  kMulticastNotAttempted = 3,  // no session was tried
  kMulticastPartial = 4,       // part of the files may have come
};

struct MulticastCoreParameters {
  std::string groupAddress;  // "IP Address"
  uint32_t port = 0;
  std::string localAddress;  // this computer's IPv4 address
  int masterRank = 0;        // 0 may become master, -1 never, 1 always
  uint32_t waitSeconds = 0;  // time to wait to begin a session
  uint32_t minClients = 0;
  uint32_t clientsToWait = 0;
  std::vector<AddressRange> listenerRanges;   // where this computer listens
  std::vector<AddressRange> exclusionRanges;  // addresses left out
  bool operator==(const MulticastCoreParameters&) const = default;
};

// One multicast download of a package.
class MulticastSession {
 public:
  virtual ~MulticastSession() = default;
  // Runs the session to its end and returns a MulticastResult.
  virtual int Run() = 0;
  // Any thread: ends a running session promptly.
  virtual void Stop() = 0;
  // Whether the core is still busy with this session (its events say so).
  virtual bool IsBusy() = 0;
};

class MulticastCore {
 public:
  virtual ~MulticastCore() = default;
  // False when the core cannot start; the engine tries again at its next start.
  virtual bool Initialize(const MulticastCoreParameters& parameters) = 0;
  // Changed settings for an initialised core, handed over while its
  // management interface is closed. False keeps the ones it had (the
  // interface is then not reopened).
  virtual bool Reconfigure(const MulticastCoreParameters& parameters) = 0;
  virtual void SetSpeedLimits(uint32_t maxBytesPerSecond, uint32_t minBytesPerSecond) = 0;
  virtual bool OpenManagement() = 0;
  virtual void CloseManagement() = 0;
  virtual void Shutdown() = 0;
  // The core's own readiness for a download.
  virtual bool CanDownload() = 0;
  // A session for the package, not yet running; null when it cannot be made.
  virtual std::shared_ptr<MulticastSession> PrepareDownload(const Guid& package, uint64_t size) = 0;
};

// The Linux agent ships no multicast core: this one never initialises, so the
// engine stays in its "core not initialised" state and never tries multicast.
class UnavailableMulticastCore final : public MulticastCore {
 public:
  bool Initialize(const MulticastCoreParameters&) override { return false; }
  bool Reconfigure(const MulticastCoreParameters&) override { return false; }
  void SetSpeedLimits(uint32_t, uint32_t) override {}
  bool OpenManagement() override { return false; }
  void CloseManagement() override {}
  void Shutdown() override {}
  bool CanDownload() override { return false; }
  std::shared_ptr<MulticastSession> PrepareDownload(const Guid&, uint64_t) override { return nullptr; }
};

}  // namespace pkgdlv
