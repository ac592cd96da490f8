// A server program run for a test (nginx, smbd): started in a process group
// of its own with its output in a file, ready once it accepts connections on
// 127.0.0.1, and stopped with every child it forked when the object goes.
// Used from the test's own thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace pkgdlv::testing {

// A TCP port on 127.0.0.1 that was free a moment ago.
int FreeLocalPort();

class ServerProcess {
 public:
  ServerProcess() = default;
  ~ServerProcess();  // SIGTERM to the group, SIGKILL for what outlives five seconds
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // Runs args (args[0] is the program's path) with standard output and error
  // in output, and waits until it accepts connections at port. Throws
  // std::runtime_error with the text of log (output when empty) when the
  // program exits or does not accept them within timeout.
  void Start(std::vector<std::string> args, int port, std::chrono::seconds timeout,
             const std::filesystem::path& output, const std::filesystem::path& log = {});

 private:
  pid_t pid_ = -1;
};

}  // namespace pkgdlv::testing
