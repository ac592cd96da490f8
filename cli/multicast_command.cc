// pkgdlv multicast show [--json] | ranges (listener|exclusion) [--set XML|-]:
// the effective multicast settings, and the address range documents.
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "cli/command_registry.h"
#include "multicast/multicast_settings.h"
#include "util/error.h"

namespace pkgdlv::cli {
namespace {

void Show(Context& context, bool json) {
  AgentServices& services = context.services();
  MulticastSettings s(*services.settings, *services.log);
  const nlohmann::ordered_json values = {
      {"Enabled", s.Enabled()},
      {"IPAddress", s.IPAddress()},
      {"Port", s.Port()},
      {"MaxMastersPerClient", s.MaxMastersPerClient()},
      {"MinNumberOfClients", s.MinNumberOfClients()},
      {"TimeToWaitToBeginSession", s.TimeToWaitToBeginSession()},
      {"NumClientsToWaitToBeign", s.NumClientsToWaitToBegin()},
      {"MaxTransmissions", s.MaxTransmissions()},
      {"DataLimit", s.MaxBandwidth()},
      {"MinBandwidth", s.MinBandwidth()},
      {"MaxSessionsPerSegment", s.MaxSessionsPerSegment()},
      {"ByDefaultUseMulticast", s.ByDefaultUseMulticast()},
      {"MinPackageSize", s.MinPackageSizeKb()},
      {"MasterSessionInactiveMinutes", s.MasterSessionInactiveMinutes()},
      {"CanNeverBeMaster", s.CanNeverBeMaster()},
      {"IsAlwaysMaster", s.IsAlwaysMaster()},
  };
  if (json) {
    std::cout << values.dump(2) << "\n";
    return;
  }
  for (const auto& [name, value] : values.items()) std::cout << name << " = " << value.dump() << "\n";
}

void Ranges(Context& context, const std::string& which, const std::string& set) {
  AgentServices& services = context.services();
  MulticastSettings s(*services.settings, *services.log);
  const bool listener = which == "listener";
  if (!set.empty()) {
    const std::string text =
        set == "-" ? std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()) : set;
    try {
      listener ? s.SetListenerRangeDocument(text) : s.SetExclusionRangeDocument(text);
    } catch (const Error& e) {
      throw CommandFailure{e.description()};
    }
  }
  std::cout << (listener ? s.ListenerRangeDocument() : s.ExclusionRangeDocument()) << "\n";
}

void Install(CLI::App& app, Context& context) {
  CLI::App* multicast = app.add_subcommand("multicast", "Show the multicast settings and address ranges");
  multicast->require_subcommand(1);

  auto json = std::make_shared<bool>(false);
  CLI::App* show = multicast->add_subcommand("show", "Print the effective multicast settings");
  show->add_flag("--json", *json, "Print JSON");
  show->callback([&context, json] { Show(context, *json); });

  auto which = std::make_shared<std::string>();
  auto set = std::make_shared<std::string>();
  CLI::App* ranges = multicast->add_subcommand("ranges", "Print (or replace, then print) an address range list");
  ranges->add_option("LIST", *which, "listener or exclusion")->required()->check(CLI::IsMember({"listener", "exclusion"}));
  ranges->add_option("--set", *set, "A range document, or - to read it from standard input");
  ranges->callback([&context, which, set] { Ranges(context, *which, *set); });
}

const CommandRegistration registration(63, Install);

}  // namespace
}  // namespace pkgdlv::cli
