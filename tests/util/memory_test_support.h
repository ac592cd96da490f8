// The process's peak resident memory, for tests that prove a hostile input
// is refused without its expansion ever being held.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>

namespace pkgdlv::testing {

// In bytes, since the last reset; 0 when the kernel does not say.
inline uint64_t PeakResidentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stoull(line.substr(6)) * 1024;
  }
  return 0;
}
inline void ResetPeakResidentBytes() { std::ofstream("/proc/self/clear_refs") << "5"; }

}  // namespace pkgdlv::testing
