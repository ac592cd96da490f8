// pkgdlv config get|set: the delivery object's configuration document.
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include "cli/command_registry.h"
#include "cli/work_folder.h"
#include "records/configuration_document.h"
#include "records/delivery_settings.h"
#include "util/error.h"
#include "util/file_reader.h"

namespace pkgdlv::cli {
namespace {

std::string ReadAll(std::istream& in) { return ReadStreamCapped(in); }

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
