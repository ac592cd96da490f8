// Helpers shared by the fuzz targets: the input as text, and the services a
// parser needs, made once per process (the parsers keep no state in them
// that one input could leave for the next, apart from settings values, which
// each target resets itself).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "agent/clock.h"
#include "agent/crypto.h"
#include "agent/logger.h"

namespace pkgdlv::fuzz {

inline std::string_view AsText(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Lines are dropped: formatting them is still exercised by the callers, and
// printing every warning would slow the run down a hundredfold.
inline std::shared_ptr<Logger> SharedNullLogger() {
  static const std::shared_ptr<Logger> log = std::make_shared<NullLogger>();
  return log;
}

inline std::shared_ptr<Clock> SharedClock() {
  static const std::shared_ptr<Clock> clock = NewSystemClock();
  return clock;
}

inline std::shared_ptr<Crypto> SharedCrypto() {
  static const std::shared_ptr<Crypto> crypto = NewOpenSslCrypto();
  return crypto;
}

}  // namespace pkgdlv::fuzz
