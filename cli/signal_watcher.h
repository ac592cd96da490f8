// Ctrl-C and SIGTERM for a long command: the signals are blocked in the
// process's threads and a watcher thread takes them with sigtimedwait, so
// the reaction (a transport's Cancel, which takes locks) runs as ordinary
// code, never inside a signal handler. A second signal ends the process at
// once with the signal's default action.
//
// Make the watcher before any other thread starts, so that every thread
// inherits the blocked mask; the mask is restored when it goes.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <ctime>
#include <functional>
#include <thread>

namespace pkgdlv::cli {

class SignalWatcher {
 public:
  // onSignal runs on the watcher thread at the first signal and again every
  // hundredth of a second after it, so that a cancel that came before the
  // operation began (and was forgotten by it) still reaches it.
  explicit SignalWatcher(std::function<void()> onSignal) : onSignal_(std::move(onSignal)) {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals_, &previous_);
    thread_ = std::thread([this] { Watch(); });
  }
  ~SignalWatcher() {
    stop_ = true;
    thread_.join();
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }
  SignalWatcher(const SignalWatcher&) = delete;
  SignalWatcher& operator=(const SignalWatcher&) = delete;

  // The first signal taken, 0 when none.
  int signal() const { return signal_; }

 private:
  void Watch() {
    // A short time-out lets the destructor end the thread without a signal;
    // the destructor waits for it at the end of every command.
    const timespec tick{0, 10'000'000};
    while (!stop_) {
      const int taken = sigtimedwait(&signals_, nullptr, &tick);
      if (taken <= 0) {
        if (signal_ != 0) onSignal_();
        continue;
      }
      if (signal_ != 0) {
        ::signal(taken, SIG_DFL);
        pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
        ::raise(taken);
        return;
      }
      signal_ = taken;
      onSignal_();
    }
  }

  std::function<void()> onSignal_;
  sigset_t signals_{};
  sigset_t previous_{};
  std::atomic<bool> stop_{false};
  std::atomic<int> signal_{0};
  std::thread thread_;
};

}  // namespace pkgdlv::cli
