// A package downloader for engine tests: each attempt follows the next step
// scripted for its package (or the default step), and every attempt is
// recorded with the fake clock's time, so a test can tell which package ran
// when.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "agent/client_agent.h"
#include "agent/clock.h"
#include "engine/package_downloader.h"
#include "engine/transfer_control.h"
#include "records/package_request.h"
#include "util/error.h"
#include "util/guid.h"

namespace pkgdlv::testing {

struct ScriptedStep {
  AttemptOutcome outcome;  // what the attempt reports
  // Block (in real time) until the stop event or an interruption, then report
  // outcome (a failure: its code is 0x80004004 when the script left it 0).
  bool holdUntilInterrupted = false;
  // Throw (Error 0x80004005) instead of reporting: a failure of the engine's
  // own machinery, not of the download.
  bool throwFailure = false;
};

struct Attempt {
  Guid id;
  FileTime time = 0;  // the clock's time when the attempt began
};

class ScriptedDownloader final : public PackageDownloader {
 public:
  explicit ScriptedDownloader(std::shared_ptr<Clock> clock) : clock_(std::move(clock)) {}

  void Script(const Guid& id, std::vector<ScriptedStep> steps) {
    std::lock_guard lock(mutex_);
    for (ScriptedStep& step : steps) scripts_[id].push_back(std::move(step));
  }
  void SetDefault(ScriptedStep step) {
    std::lock_guard lock(mutex_);
    default_ = std::move(step);
  }
  // Runs at the start of every attempt, on the engine thread.
  void OnAttempt(std::function<void(const Guid&)> hook) {
    std::lock_guard lock(mutex_);
    hook_ = std::move(hook);
  }

  AttemptOutcome PerformDownload(PackageRequest& request, TransferControl& transfer,
                                 DownloadContext& engine) override {
    Event& stop = engine.stop;
    const Guid id = request.id();
    ScriptedStep step;
    std::function<void(const Guid&)> hook;
    {
      std::lock_guard lock(mutex_);
      auto& script = scripts_[id];
      if (script.empty()) {
        step = default_;
      } else {
        step = script.front();
        script.pop_front();
      }
      hook = hook_;
      attempts_.push_back({id, clock_->Now()});
    }
    changed_.notify_all();
    if (hook) hook(id);
    if (step.throwFailure) Throw(0x80004005, "The download machinery failed");
    if (step.holdUntilInterrupted) {
      Event::WaitAny({&stop, &transfer.InterruptedEvent()}, Event::kInfinite);
      if (step.outcome.code == 0) step.outcome.code = 0x80004004;
    }
    return step.outcome;
  }

  std::vector<Attempt> Attempts() {
    std::lock_guard lock(mutex_);
    return attempts_;
  }
  // Waits in real time until at least n attempts began; true when they did.
  bool AwaitAttempts(size_t n, uint32_t real_timeout_ms = 10000) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(real_timeout_ms),
                             [&] { return attempts_.size() >= n; });
  }

 private:
  std::shared_ptr<Clock> clock_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<Guid, std::deque<ScriptedStep>> scripts_;
  ScriptedStep default_;
  std::function<void(const Guid&)> hook_;
  std::vector<Attempt> attempts_;
};

// A client object whose answers the test sets.
class FakeClientAgent final : public ClientAgent {
 public:
  bool IsRegistered() override {
    if (failQueries) Throw(0x80004005, "The client object failed");
    return registered;
  }
  bool IsDownloadBlocked() override {
    ++blockedQueries;
    return blocked;
  }
  void ResetClientIdentity() override { ++resets; }

  std::atomic<bool> registered = true;
  std::atomic<bool> blocked = false;
  std::atomic<bool> failQueries = false;
  std::atomic<int> resets = 0;
  std::atomic<int> blockedQueries = 0;
};

}  // namespace pkgdlv::testing
