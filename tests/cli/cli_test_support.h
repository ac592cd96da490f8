// What the tool's end-to-end tests share: the tool run as a process over
// folders the test makes (in the foreground, or in the background to be
// signalled), and the snapshot a publisher would make with it.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/temp_dir.h"

extern char** environ;

namespace pkgdlv {

namespace fs = std::filesystem;
using testing::ReadFile;
using testing::RunTool;
using testing::TempDir;
using testing::ToolResult;
using testing::WriteFile;

inline constexpr const char* kCliPackageId = "{8C2F4E1A-0B3D-4F5E-9A7B-1C2D3E4F5A6B}";

// A path quoted for the shell that runs the tool.
inline std::string Quote(const fs::path& path) { return "'" + path.string() + "'"; }

// Describes the package folder into out with pkgdlv snapshot create; options
// add to the identifier and version 1. A failure fails the test.
inline void CreateSnapshot(const fs::path& package, const fs::path& out, const std::string& options = "",
                           const fs::path& home = {}) {
  const ToolResult created = RunTool("snapshot create " + Quote(package) + " --id '" + kCliPackageId +
                                         "' --version 1 " + options + " --out " + Quote(out),
                                     {}, home);
  EXPECT_EQ(created.exit_code, 0) << created.err;
}

inline std::vector<nlohmann::json> JsonLines(const std::string& out) {
  std::vector<nlohmann::json> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
  return lines;
}

// A test folder with the tool's own home (its settings and work folder) in it.
class CliTest : public ::testing::Test {
 protected:
  ToolResult Run(const std::string& arguments, std::string_view input = {}) const {
    return RunTool(arguments, input, home_);
  }
  // Runs a command that must succeed and returns its output.
  std::string Ok(const std::string& arguments, std::string_view input = {}) const {
    ToolResult result = Run(arguments, input);
    EXPECT_EQ(result.exit_code, 0) << arguments << "\n" << result.err;
    return result.out;
  }
  // Runs a command that must fail with exit code 1 and returns its error output.
  std::string Fails(const std::string& arguments, std::string_view input = {}) const {
    ToolResult result = Run(arguments, input);
    EXPECT_EQ(result.exit_code, 1) << arguments << "\n" << result.out;
    return result.err;
  }

  TempDir dir_;
  fs::path home_ = dir_ / "home";
};

// The tool started in the background, its output in files; killed if the
// test ends before it.
class RunningTool {
 public:
  RunningTool(const std::string& arguments, const fs::path& home) {
    const std::string command = "exec env PKGDLV_HOME=" + Quote(home) + " '" + PKGDLV_CLI_PATH + "' " + arguments +
                                " >" + Quote(io_ / "out") + " 2>" + Quote(io_ / "err");
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    if (posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) pid_ = -1;
  }
  ~RunningTool() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      Wait();
    }
  }
  bool started() const { return pid_ > 0; }
  void Signal(int signal) { ::kill(pid_, signal); }
  // The status as waitpid gives it.
  int Wait() {
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }
  std::string err() const { return ReadFile(io_ / "err"); }

 private:
  TempDir io_;
  pid_t pid_ = -1;
};

}  // namespace pkgdlv
