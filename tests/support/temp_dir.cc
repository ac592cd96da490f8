#include "support/temp_dir.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace pkgdlv::testing {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "pkgdlv-test-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void WriteFile(const std::filesystem::path& path, std::string_view contents) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

ToolResult RunTool(const std::string& arguments, std::string_view stdin_text, const std::filesystem::path& home) {
  TempDir io;
  WriteFile(io / "stdin", stdin_text);
  std::string command;
  if (!home.empty()) command += "PKGDLV_HOME='" + home.string() + "' ";
  command += std::string("'") + PKGDLV_CLI_PATH + "' " + arguments + " <'" + (io / "stdin").string() + "' >'" +
             (io / "stdout").string() + "' 2>'" + (io / "stderr").string() + "'";
  int status = std::system(command.c_str());
  ToolResult result;
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.out = ReadFile(io / "stdout");
  result.err = ReadFile(io / "stderr");
  return result;
}

}  // namespace pkgdlv::testing
