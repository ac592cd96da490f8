// The agent's client object as the engine sees it: whether this computer is
// registered with the Quillon Server, whether the agent currently forbids
// downloads (a communication blockout), the reset of the client identity
// that makes the agent negotiate new security data, and the client events
// (blockouts starting and ending, settings changing) that the agent raises.
//
// Threads: the engine thread calls the queries; implementations are
// thread-safe. Events are raised on the agent's own threads.
#pragma once

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace pkgdlv {

// Receives the client events. Handlers run on the raising thread and must not
// subscribe, unsubscribe or raise client events themselves.
class ClientEventSink {
 public:
  virtual ~ClientEventSink() = default;
  virtual void OnBlockoutStarted() = 0;
  virtual void OnBlockoutExpired() = 0;
  // Values in the settings store may have changed (another process, a
  // policy); readers read them again.
  virtual void OnSettingsChanged() = 0;
};

// The subscribers of one client's events. Events are delivered under the
// object's lock, one after another, so that Unsubscribe returns only once no
// delivery to the sink runs: the sink may then be destroyed. Any thread.
class ClientEvents {
 public:
  // The sink is not owned; a sink subscribed twice receives each event once.
  void Subscribe(ClientEventSink* sink) {
    std::lock_guard lock(mutex_);
    if (std::find(sinks_.begin(), sinks_.end(), sink) == sinks_.end()) sinks_.push_back(sink);
  }
  void Unsubscribe(ClientEventSink* sink) {
    std::lock_guard lock(mutex_);
    std::erase(sinks_, sink);
  }

  void RaiseBlockoutStarted() { Raise(&ClientEventSink::OnBlockoutStarted); }
  void RaiseBlockoutExpired() { Raise(&ClientEventSink::OnBlockoutExpired); }
  void RaiseSettingsChanged() { Raise(&ClientEventSink::OnSettingsChanged); }

 private:
  void Raise(void (ClientEventSink::*handler)()) {
    std::lock_guard lock(mutex_);
    for (ClientEventSink* sink : sinks_) (sink->*handler)();
  }

  std::mutex mutex_;
  std::vector<ClientEventSink*> sinks_;
};

class ClientAgent {
 public:
  virtual ~ClientAgent() = default;

  // Each query may throw Error when the agent cannot answer; the engine
  // treats that as a failure of its run loop.
  virtual bool IsRegistered() = 0;
  // True while a communication blockout is in force.
  virtual bool IsDownloadBlocked() = 0;
  virtual void ResetClientIdentity() = 0;

  // Where the client raises its events.
  ClientEvents& events() { return events_; }

 private:
  ClientEvents events_;
};

// The Linux agent's client: always registered, never blocked; a reset of the
// identity is counted (ResetCount) and has nothing else to renegotiate. The
// service raises blockouts and settings changes through events().
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
