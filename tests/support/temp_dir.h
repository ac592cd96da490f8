// A temporary folder removed with everything in it when the object goes.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace pkgdlv::testing {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

void WriteFile(const std::filesystem::path& path, std::string_view contents);
std::string ReadFile(const std::filesystem::path& path);

// Runs the pkgdlv tool with the arguments (shell-quoted by the caller), with
// standard input from stdin_text, and returns its exit code and output.
struct ToolResult {
  int exit_code = -1;
  std::string out;
  std::string err;
};
ToolResult RunTool(const std::string& arguments, std::string_view stdin_text = {},
                   const std::filesystem::path& home = {});

}  // namespace pkgdlv::testing
