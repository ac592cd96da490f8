// Subcommands of the pkgdlv tool register themselves here, one file each.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <pkgdlv/agent_services.h>

namespace pkgdlv::cli {

// What every subcommand may use. Services are made on first use, so commands
// that need none (frame pack, snapshot create) do not touch the data folder.
class Context {
 public:
  AgentServices& services();
  // Exit code of the command that ran; set by its callback.
  int exit_code = 0;

 private:
  std::unique_ptr<AgentServices> services_;
};

using CommandInstaller = std::function<void(CLI::App& app, Context& context)>;

struct CommandRegistration {
  CommandRegistration(int order, CommandInstaller installer);
};

std::vector<std::pair<int, CommandInstaller>>& RegisteredCommands();

// A failure of a command: printed as "pkgdlv: <message>" on standard error,
// exit code 1.
struct CommandFailure {
  std::string message;
  int exit_code = 1;
};

}  // namespace pkgdlv::cli
