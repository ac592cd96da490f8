// pkgdlv config get|set: the delivery object's configuration document.
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include "agent/object_settings.h"
#include "cli/command_registry.h"
#include "records/configuration_document.h"
#include "records/delivery_settings.h"
#include "util/error.h"
#include "util/paths.h"

namespace pkgdlv::cli {
namespace {

// Until the engine owns the work folder, the tool keeps it as a text value of
// its own, with the engine's default folder as its default.
constexpr std::string_view kEngineKey = "Communications\\Package Delivery\\Engine";
constexpr std::string_view kWorkFolderValue = "WorkFolder";

WorkFolderAccess StoredWorkFolder(AgentServices& services) {
  auto engine = std::make_shared<ObjectSettings>(*services.settings, *services.log, std::string(kEngineKey));
  std::string default_folder = DefaultWorkFolder(services.data_folder).string();
  return {
      [engine, default_folder] { return engine->ReadText(kWorkFolderValue, default_folder); },
      [engine](const std::string& folder) {
        if (folder.empty()) Throw(result::kInvalidArg, "New working folder is not specified");
        engine->WriteText(kWorkFolderValue, folder);
      },
  };
}

std::string ReadAll(std::istream& in) { return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()}; }

void Install(CLI::App& app, Context& context) {
  CLI::App* config = app.add_subcommand("config", "Show and apply the delivery configuration document");
  config->require_subcommand(1);

  CLI::App* get = config->add_subcommand("get", "Print the configuration document");
  get->callback([&context] {
    AgentServices& services = context.services();
    DeliverySettings settings(*services.settings, *services.log);
    std::cout << ReadConfigurationDocument(settings, StoredWorkFolder(services)) << "\n";
  });

  auto xml = std::make_shared<std::string>();
  CLI::App* set = config->add_subcommand("set", "Apply a configuration document");
  set->add_option("XML", *xml, "The document, or - to read it from standard input")->required();
  set->callback([&context, xml] {
    std::string text = *xml == "-" ? ReadAll(std::cin) : *xml;
    AgentServices& services = context.services();
    DeliverySettings settings(*services.settings, *services.log);
    WriteConfigurationDocument(text, settings, StoredWorkFolder(services));
  });
}

const CommandRegistration registration(41, Install);

}  // namespace
}  // namespace pkgdlv::cli
