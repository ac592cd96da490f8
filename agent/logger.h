// The logging call every part of the component uses.
//
// A level is a 32-bit value: the low 8 bits are the severity, the bits above
// are flags. Implementations (the agent log, a recording logger in tests)
// never fail towards the caller.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

#include "util/error.h"
#include "util/format.h"

namespace pkgdlv {

namespace loglevel {
constexpr uint32_t kError = 1;
constexpr uint32_t kWarning = 2;
constexpr uint32_t kInfo = 4;
constexpr uint32_t kTrace = 8;
constexpr uint32_t kVerbose = 16;
constexpr uint32_t kDebug = 32;

constexpr uint32_t kSeverityMask = 0xFF;
constexpr uint32_t kForceTrace = 0x100000;     // log at trace whatever the severity bits say
constexpr uint32_t kErrorAsInfo = 0x200000;    // an error (severity below 2) is logged at info
constexpr uint32_t kDebugOutput = 0x1000000;   // also send the line to the debug output
constexpr uint32_t kSilent = 0x2000000;        // do not log at all
constexpr uint32_t kConsole = 0x4000000;       // also write the line to the console
}  // namespace loglevel

// The severity a level is written with: flags applied, clamped to 1..32.
uint32_t EffectiveSeverity(uint32_t level);
// "*ERRR", "*WARN", " INFO", "<TRC>", "<VRB>", "<DBG>", or "?UNKN".
const char* SeverityTag(uint32_t severity);

class Logger {
 public:
  virtual ~Logger() = default;

  // Whether a line at this level would be written; lets callers skip the
  // formatting of lines that the filter drops.
  virtual bool IsEnabled(uint32_t level) = 0;
  // Writes one formatted message. Never throws.
  virtual void Write(uint32_t level, std::string_view component, std::string_view message) noexcept = 0;

  template <class... Args>
  void Log(uint32_t level, std::string_view component, std::string_view format, const Args&... args) noexcept {
    Emit(level, component, "", format, args...);
  }

  // Variants that append a failure's text to the message.
  template <class... Args>
  void LogWithError(uint32_t level, std::string_view component, std::string_view error_text,
                    std::string_view format, const Args&... args) noexcept {
    Emit(level, component, SafeFormat(", error: %ls", error_text), format, args...);
  }
  template <class... Args>
  void LogWithUnknownError(uint32_t level, std::string_view component, std::string_view format,
                           const Args&... args) noexcept {
    Emit(level, component, ", unknown error", format, args...);
  }
  template <class... Args>
  void LogWithComError(uint32_t level, std::string_view component, const Error& error, std::string_view format,
                       const Args&... args) noexcept {
    Emit(level, component, SafeFormat(", COM error: %ls (0x%08X)", error.description(), error.code()), format,
         args...);
  }
  template <class... Args>
  void LogWithCrtError(uint32_t level, std::string_view component, const std::exception& error,
                       std::string_view format, const Args&... args) noexcept {
    Emit(level, component, SafeFormat(", CRT error: %hs", error.what()), format, args...);
  }
  template <class... Args>
  void LogWithAtlError(uint32_t level, std::string_view component, std::string_view error_text,
                       std::string_view format, const Args&... args) noexcept {
    Emit(level, component, SafeFormat(", ATL error: %ls", error_text), format, args...);
  }

 private:
  template <class... Args>
  static std::string SafeFormat(std::string_view format, const Args&... args) noexcept {
    try {
      return Format(format, args...);
    } catch (...) {
      return {};
    }
  }

  template <class... Args>
  void Emit(uint32_t level, std::string_view component, const std::string& suffix, std::string_view format,
            const Args&... args) noexcept {
    if (!IsEnabled(level)) return;
    try {
      std::string message = Format(format, args...);
      message += suffix;
      Write(level, component, message);
    } catch (...) {  // a line that cannot be built is dropped
    }
  }
};

// Drops every line.
class NullLogger final : public Logger {
 public:
  bool IsEnabled(uint32_t) override { return false; }
  void Write(uint32_t, std::string_view, std::string_view) noexcept override {}
};

}  // namespace pkgdlv
