// Helpers shared by the agent tests, the network transport ones above all.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include "util/error.h"

namespace pkgdlv::testing {

// The code f throws as Error, or 0 when it returns.
template <class F>
Result CodeOf(F&& f) {
  try {
    f();
  } catch (const Error& e) {
    return e.code();
  }
  return result::kOk;
}

// The stored location of a local absolute path: "/tmp/x" -> "\\\tmp\x".
inline std::string StoredLocalPath(const std::filesystem::path& path) {
  std::string text = path.string();
  for (char& c : text) {
    if (c == '/') c = '\\';
  }
  return "\\\\" + text;
}

// Bytes that differ at every offset so a misplaced range shows.
inline std::string PatternBytes(size_t size, unsigned seed = 1) {
  std::string out(size, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1664525u + 1013904223u;
    out[i] = static_cast<char>(x >> 24);
  }
  return out;
}

inline double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace pkgdlv::testing
