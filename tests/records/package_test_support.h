// Records and services made at run time for the package record tests.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "agent/crypto.h"
#include "records/package_request.h"
#include "support/fake_clock.h"
#include "support/recording_logger.h"
#include "support/test_keys.h"

namespace pkgdlv::testing {

inline constexpr const char* kPackageId = "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}";
inline constexpr const char* kOtherPackageId = "{11111111-2222-3333-4444-555555555555}";

struct RecordServices {
  std::shared_ptr<RecordingLogger> log = std::make_shared<RecordingLogger>();
  std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
  std::shared_ptr<Crypto> crypto = NewOpenSslCrypto();

  std::unique_ptr<PackageRequest> NewRecord() { return std::make_unique<PackageRequest>(log, clock, crypto); }

  // Messages logged at exactly this severity.
  std::vector<std::string> Messages(uint32_t severity) {
    std::vector<std::string> out;
    for (const LogLine& line : log->Lines()) {
      if (EffectiveSeverity(line.level) == severity) out.push_back(line.message);
    }
    return out;
  }
};

}  // namespace pkgdlv::testing
