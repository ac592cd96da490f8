// A multicast core for tests: it records what the engine hands it and runs
// sessions that last until the test finishes them or the engine stops them.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "multicast/multicast_core.h"
#include "util/event.h"

namespace pkgdlv::testing {

class FakeMulticastSession final : public MulticastSession {
 public:
  int Run() override {
    running.Set();
    done.Wait();
    return stopped ? kMulticastNothing : result.load();
  }
  void Stop() override {
    stopped = true;
    done.Set();
  }
  bool IsBusy() override { return busy; }
  void Finish(int r) {
    result = r;
    done.Set();
  }
  Event running, done;
  std::atomic<bool> stopped = false, busy = true;
  std::atomic<int> result = kMulticastReceived;
};

// The counters and the parameters are read by the test once the engine's
// call returned; the engine calls the core under its own lock.
class FakeMulticastCore final : public MulticastCore {
 public:
  bool Initialize(const MulticastCoreParameters& p) override {
    std::lock_guard lock(mutex_);
    parameters = p;
    ++initialised;
    return initialiseWorks;
  }
  bool Reconfigure(const MulticastCoreParameters& p) override {
    std::lock_guard lock(mutex_);
    ++reconfigured;
    if (reconfigureWorks) parameters = p;
    return reconfigureWorks;
  }
  void SetSpeedLimits(uint32_t maxBps, uint32_t minBps) override {
    std::lock_guard lock(mutex_);
    limits = {maxBps, minBps};
  }
  bool OpenManagement() override { return ++opened, true; }
  void CloseManagement() override { ++closed; }
  void Shutdown() override { ++shutdowns; }
  bool CanDownload() override { return true; }
  std::shared_ptr<MulticastSession> PrepareDownload(const Guid&, uint64_t) override {
    if (onPrepare) onPrepare();
    session = std::make_shared<FakeMulticastSession>();
    if (sessionsEndAtOnce) session->Finish(kMulticastReceived);
    prepared.Set();
    return session;
  }

  MulticastCoreParameters Parameters() {
    std::lock_guard lock(mutex_);
    return parameters;
  }
  std::pair<uint32_t, uint32_t> Limits() {
    std::lock_guard lock(mutex_);
    return limits;
  }

  std::atomic<bool> initialiseWorks = true, reconfigureWorks = true;
  // Sessions report every file received as soon as they run (a test that
  // does not expect one to run must not hang when it does).
  std::atomic<bool> sessionsEndAtOnce = false;
  // Runs as a session is prepared: a test's stand-in for the files arriving.
  std::function<void()> onPrepare;
  std::atomic<int> initialised = 0, reconfigured = 0, opened = 0, closed = 0, shutdowns = 0;
  std::shared_ptr<FakeMulticastSession> session;  // set by PrepareDownload before prepared
  Event prepared;

 private:
  std::mutex mutex_;
  MulticastCoreParameters parameters;
  std::pair<uint32_t, uint32_t> limits;
};

}  // namespace pkgdlv::testing
