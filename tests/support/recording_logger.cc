#include "support/recording_logger.h"

namespace pkgdlv::testing {

void RecordingLogger::Write(uint32_t level, std::string_view component, std::string_view message) noexcept {
  std::lock_guard lock(mutex_);
  lines_.push_back({level, std::string(component), std::string(message)});
}

std::vector<LogLine> RecordingLogger::Lines() {
  std::lock_guard lock(mutex_);
  return lines_;
}

bool RecordingLogger::Contains(std::string_view text) { return Count(text) > 0; }

size_t RecordingLogger::Count(std::string_view text) {
  std::lock_guard lock(mutex_);
  size_t n = 0;
  for (const LogLine& line : lines_) {
    if (line.message.find(text) != std::string::npos) ++n;
  }
  return n;
}

void RecordingLogger::Clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

}  // namespace pkgdlv::testing
