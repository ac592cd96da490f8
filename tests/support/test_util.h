// Small helpers shared by the agent and transport tests.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

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

// The stored form of a local absolute path: "/tmp/x" -> "\\\tmp\x".
inline std::string StoredFolder(const std::filesystem::path& path) {
  std::string text = path.string();
  for (char& c : text) c = c == '/' ? '\\' : c;
  return "\\\\" + text;
}

// Bytes that differ at every offset so a misplaced range shows.
inline std::string PatternBytes(size_t size, unsigned seed = 1) {
  std::string out(size, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (char& c : out) c = static_cast<char>((x = x * 1664525u + 1013904223u) >> 24);
  return out;
}

inline double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Runs body(i) in n forked processes at once and waits for them all; true
// when every one returned without throwing. Call from the test's thread.
inline bool RunInChildren(int n, const std::function<void(int)>& body) {
  std::vector<pid_t> children;
  for (int i = 0; i < n; ++i) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      int status = 1;
      try {
        body(i);
        status = 0;
      } catch (const std::exception& e) {
        std::fprintf(stderr, "child %d: %s\n", i, e.what());
      } catch (...) {
      }
      ::_exit(status);
    }
    if (pid > 0) children.push_back(pid);
  }
  bool ok = children.size() == static_cast<size_t>(n);
  for (pid_t pid : children) {
    int status = 0;
    ok = ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0 && ok;
  }
  return ok;
}

}  // namespace pkgdlv::testing
