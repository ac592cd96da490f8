// The progress of a download as a person or a script wants it, fed by the
// download events: shared by the tool's commands that fetch packages.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "transport/download_events.h"

namespace pkgdlv::cli {

// Progress as a person or a script wants it: a line rewritten in place on a
// terminal, a JSON object a line with --json, nothing otherwise. The rate
// counts only this run's bytes, so a resumed download does not look faster.
class ProgressView final : public DownloadEvents {
 public:
  enum class Mode { kQuiet, kTerminal, kJson };
  explicit ProgressView(Mode mode) : mode_(mode) {}

  void OnBeginFile(const Guid&, const std::string& filePath) override {
    std::lock_guard lock(mutex_);
    file_ = filePath;
  }
  void OnBeginTransfer(const Guid&, const std::string&) override {}
  void OnProgress(const Guid&, uint64_t packageSize, uint64_t packageDone, uint64_t fileSize,
                  uint64_t fileDone) override {
    std::lock_guard lock(mutex_);
    if (!startDone_) startDone_ = packageDone;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const uint64_t fetched = packageDone - std::min(packageDone, *startDone_);
    const double rate = seconds > 0 ? fetched / seconds : 0;
    const double left = rate > 0 ? (packageSize - std::min(packageSize, packageDone)) / rate : -1;
    if (mode_ == Mode::kJson) {
      std::cout << nlohmann::json{{"event", "progress"},     {"packageBytes", packageSize},
                                  {"packageDone", packageDone}, {"file", file_},
                                  {"fileBytes", fileSize},       {"fileDone", fileDone},
                                  {"bytesPerSecond", static_cast<uint64_t>(rate)},
                                  {"secondsLeft", left < 0 ? -1 : static_cast<int64_t>(left + 0.5)}}
                       .dump()
                << std::endl;
    } else if (mode_ == Mode::kTerminal) {
      const unsigned percent = packageSize ? static_cast<unsigned>(packageDone * 100 / packageSize) : 100;
      std::fprintf(stderr, "\r%3u%%  %.1f / %.1f MB  %.1f MB/s  %s left  %s\x1b[K", percent, packageDone / 1e6,
                   packageSize / 1e6, rate / 1e6, Duration(left).c_str(), Tail(file_).c_str());
      std::fflush(stderr);
      shown_ = true;
    }
  }
  void OnEndFile(const Guid&, const std::string&, int32_t) override {}

  // Ends the terminal line before anything else is printed.
  void Finish() {
    std::lock_guard lock(mutex_);
    if (shown_) std::fputc('\n', stderr);
    shown_ = false;
  }

 private:
  static std::string Duration(double seconds) {
    if (seconds < 0) return "--:--";
    const auto s = static_cast<uint64_t>(seconds + 0.5);
    char text[32];
    std::snprintf(text, sizeof text, "%02llu:%02llu", static_cast<unsigned long long>(s / 60),
                  static_cast<unsigned long long>(s % 60));
    return text;
  }
  static std::string Tail(const std::string& path) {
    return path.size() <= 40 ? path : "..." + path.substr(path.size() - 37);
  }

  const Mode mode_;
  std::mutex mutex_;
  std::string file_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::optional<uint64_t> startDone_;
  bool shown_ = false;
};

}  // namespace pkgdlv::cli
