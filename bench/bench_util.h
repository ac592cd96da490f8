// Timing, process and scratch-folder helpers the benchmark programs share.
// Header-only: each bench/<name>.cc is a program of its own, and a header
// here is not a target.
#pragma once

#include <stdlib.h>  // mkdtemp
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

namespace pkgdlv::bench {

// CPU time of the calling thread. The machine is shared, so this says more
// about the code than wall time, which also counts the neighbours.
inline double ThreadSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

inline double WallSeconds() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// The shortest of `rounds` runs of `run`, measured with `clock`.
inline double BestOf(int rounds, double (*clock)(), const std::function<void()>& run) {
  double best = 1e300;
  for (int round = 0; round < rounds; ++round) {
    const double start = clock();
    run();
    best = std::min(best, clock() - start);
  }
  return best;
}

// Wall seconds, best of three after one untimed run, so that neither side of
// a comparison pays for cold caches or a fresh process heap.
inline double BestOfThree(const std::function<void()>& run) {
  run();
  return BestOf(3, WallSeconds, run);
}

// Runs a shell command; throws std::runtime_error when it fails, so that the
// caller's scratch folders are still removed.
inline void System(const std::string& command) {
  if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

// A fresh folder under the temporary directory, removed with everything in it
// when the object goes.
class TempFolder {
 public:
  explicit TempFolder(const std::string& prefix = "pkgdlv-bench") {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot create a folder in " + pattern);
    path_ = pattern;
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace pkgdlv::bench
