// What the tool's end-to-end tests share: the tool run as a process over
// folders the test makes, and the snapshot a publisher would make with it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "support/temp_dir.h"

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

}  // namespace pkgdlv
