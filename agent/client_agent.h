// The agent's client object as the engine sees it: whether this computer is
// registered with the Quillon Server, whether the agent currently forbids
// downloads (a communication blockout), and the reset of the client identity
// that makes the agent negotiate new security data.
//
// Threads: the engine thread calls it; implementations are thread-safe.
#pragma once

#include <atomic>
#include <memory>

namespace pkgdlv {

class ClientAgent {
 public:
  virtual ~ClientAgent() = default;

  // Each query may throw Error when the agent cannot answer; the engine
  // treats that as a failure of its run loop.
  virtual bool IsRegistered() = 0;
  virtual bool IsDownloadBlocked() = 0;
  virtual void ResetClientIdentity() = 0;
};

// The Linux agent's client: always registered, never blocked; a reset of the
// identity is counted (ResetCount) and has nothing else to renegotiate.
class DefaultClientAgent final : public ClientAgent {
 public:
  bool IsRegistered() override { return true; }
  bool IsDownloadBlocked() override { return false; }
  void ResetClientIdentity() override { ++resets_; }
  unsigned ResetCount() const { return resets_.load(); }

 private:
  std::atomic<unsigned> resets_ = 0;
};

}  // namespace pkgdlv
