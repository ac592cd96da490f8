// A logger that keeps every line in memory, for tests that check what the
// component logged.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "agent/logger.h"

namespace pkgdlv::testing {

struct LogLine {
  uint32_t level;
  std::string component;
  std::string message;
};

class RecordingLogger final : public Logger {
 public:
  bool IsEnabled(uint32_t level) override { return (level & loglevel::kSilent) == 0; }
  void Write(uint32_t level, std::string_view component, std::string_view message) noexcept override;

  std::vector<LogLine> Lines();
  // True when some line's message contains the text.
  bool Contains(std::string_view text);
  size_t Count(std::string_view text);
  void Clear();

 private:
  std::mutex mutex_;
  std::vector<LogLine> lines_;
};

}  // namespace pkgdlv::testing
