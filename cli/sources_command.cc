// pkgdlv sources: asks a Quillon Server for a package's sources, as the
// engine does before a download, and prints the answer.
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "cli/command_registry.h"
#include "transport/package_download.h"
#include "util/error.h"
#include "util/format.h"
#include "util/guid.h"

namespace pkgdlv::cli {
namespace {

struct SourcesArgs {
  std::string server;
  std::string package;
  std::string resource;
  std::string type = "packageServers";
  bool codebases = false;
  bool json = false;
};

void Sources(const SourcesArgs& args, Context& context) {
  std::optional<Guid> id = Guid::Parse(args.package);
  if (!id) throw CommandFailure{"'" + args.package + "' is not a package identifier"};
  PackageInfoQuery query;
  query.packageId = *id;
  query.url = args.server;
  query.resource = args.resource;
  query.requestType = args.type;
  query.requestCodebases = args.codebases;

  PackageDownload download(context.services());
  std::string answer;
  if (!download.GetPackageInfo(query, answer)) {
    throw CommandFailure{Format("%ls (0x%08X)", download.LastDescription(), download.LastResult())};
  }
  if (args.json) {
    nlohmann::json out = {{"package", id->ToString()}, {"server", args.server}, {"answer", answer}};
    std::cout << out.dump(2) << "\n";
  } else {
    std::cout << answer << (answer.ends_with('\n') ? "" : "\n");
  }
}

void Install(CLI::App& app, Context& context) {
  auto args = std::make_shared<SourcesArgs>();
  CLI::App* c = app.add_subcommand("sources", "Ask the Quillon Server for a package's sources");
  c->add_option("--server", args->server, "Request URL of the server (an .asp or .aspx page gets the request)")
      ->required();
  c->add_option("--package", args->package, "Package identifier, {GUID}")->required();
  c->add_option("--resource", args->resource, "The agent's resource identifier");
  c->add_option("--type", args->type, "Request type")->capture_default_str();
  c->add_flag("--codebases", args->codebases, "Ask for the server's own codebases too");
  c->add_flag("--json", args->json, "Print JSON");
  c->callback([args, &context] { Sources(*args, context); });
}

const CommandRegistration registration(60, Install);

}  // namespace
}  // namespace pkgdlv::cli
