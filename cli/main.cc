#include <algorithm>
#include <iostream>

#include "agent/logger.h"
#include "cli/command_registry.h"
#include "util/error.h"
#include "util/paths.h"

namespace pkgdlv::cli {

std::vector<std::pair<int, CommandInstaller>>& RegisteredCommands() {
  static std::vector<std::pair<int, CommandInstaller>> commands;
  return commands;
}

CommandRegistration::CommandRegistration(int order, CommandInstaller installer) {
  RegisteredCommands().emplace_back(order, std::move(installer));
}

AgentServices& Context::services() {
  if (!services_) services_ = std::make_unique<AgentServices>(AgentServices::CreateDefault(AgentDataFolder()));
  return *services_;
}

}  // namespace pkgdlv::cli

int main(int argc, char** argv) {
  using namespace pkgdlv;
  CLI::App app{"pkgdlv: package delivery engine and tools"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "pkgdlv 0.1");
  cli::Context context;
  auto& commands = cli::RegisteredCommands();
  std::stable_sort(commands.begin(), commands.end(), [](auto& a, auto& b) { return a.first < b.first; });
  for (auto& [order, install] : commands) install(app, context);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  } catch (const cli::CommandFailure& f) {
    std::cerr << "pkgdlv: " << f.message << "\n";
    return f.exit_code;
  } catch (...) {
    Failure f = CurrentFailure();
    std::cerr << "pkgdlv: " << f.description << Format(" (0x%08X)", f.code) << "\n";
    return 1;
  }
  return context.exit_code;
}
