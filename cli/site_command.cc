// pkgdlv site transfer (start|update|done): one site outbound transfer
// reservation request to the Quillon Server, as a download attempt sends it,
// and its outcome. Each run sends one request; there is no keep-alive timer.
// The server URL and the site's limit come from the settings unless --server
// and --limit give them.
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "cli/command_registry.h"
#include "records/package_request.h"
#include "transport/package_download.h"
#include "transport/site_limits.h"
#include "transport/site_transfer.h"
#include "util/format.h"
#include "util/guid.h"

namespace pkgdlv::cli {
namespace {

struct TransferArgs {
  std::string action;
  std::string server;
  std::string site;
  std::string package;
  std::string resource;
  std::optional<int32_t> limit;
  uint64_t total = 0;
  uint64_t done = 0;
};

// The agent's site limits with the server URL given on the command line.
class ServerUrlOverride final : public SiteLimits {
 public:
  ServerUrlOverride(std::shared_ptr<SiteLimits> limits, std::string serverUrl)
      : limits_(std::move(limits)), serverUrl_(std::move(serverUrl)) {}
  int32_t OutboundLimit(std::string_view siteId) override { return limits_->OutboundLimit(siteId); }
  std::string SiteTransferServerUrl(std::string_view) override { return serverUrl_; }

 private:
  std::shared_ptr<SiteLimits> limits_;
  std::string serverUrl_;
};

int ActionNumber(const std::string& action) {
  if (action == "start") return SiteTransfer::kStart;
  if (action == "update") return SiteTransfer::kUpdate;
  return SiteTransfer::kDone;
}

void Transfer(const TransferArgs& args, Context& context) {
  std::optional<Guid> id = Guid::Parse(args.package);
  if (!id) throw CommandFailure{"'" + args.package + "' is not a package identifier"};
  if (args.site.empty()) throw CommandFailure{"a site identifier is needed"};
  AgentServices& services = context.services();
  std::shared_ptr<SiteLimits> limits = services.site_limits;
  if (!limits) throw CommandFailure{"the agent has no site limits"};
  if (!args.server.empty()) limits = std::make_shared<ServerUrlOverride>(limits, args.server);
  if (limits->SiteTransferServerUrl(args.site).empty()) {
    throw CommandFailure{Format("no site transfer server URL: give --server or set \"%ls\" under \"%ls\"",
                                kSiteTransferServerUrlValue, kSitesSettingsKey)};
  }
  const int32_t limit = args.limit ? *args.limit : limits->OutboundLimit(args.site);
  if (limit < 0) throw CommandFailure{Format("no limit is defined for site '%ls': give --limit", args.site)};

  PackageRequest request(services);
  request.SetId(*id);
  request.siteQueryResource = args.resource;
  PackageDownload download(services);
  SiteTransfer transfer(download, limits);
  const int action = ActionNumber(args.action);
  // Update and Done belong to a reservation that an earlier run started;
  // this run composes the same request from the same data.
  const bool ok = (action == SiteTransfer::kStart || transfer.PrepareRequest(&request, args.site, limit)) &&
                  transfer.Perform(action, &request, args.site, limit, args.total, args.done);
  if (!ok) {
    const Failure failure = transfer.LastFailure();
    throw CommandFailure{Format("%ls (0x%08X)", failure.description, failure.code)};
  }
  std::cout << Format("site transfer %ls: accepted (site '%ls', limit %d, total %I64u, done %I64u)\n",
                      SiteTransferActionName(action), args.site, limit, args.total, args.done);
}

void Install(CLI::App& app, Context& context) {
  auto args = std::make_shared<TransferArgs>();
  CLI::App* site = app.add_subcommand("site", "Site outbound transfer reservations");
  site->require_subcommand(1);
  CLI::App* t = site->add_subcommand("transfer", "Start, keep alive or end a site outbound transfer reservation");
  t->add_option("action", args->action, "start, update or done")
      ->required()
      ->check(CLI::IsMember({"start", "update", "done"}));
  t->add_option("--server", args->server, "Quillon Server URL (default: the settings' site transfer server URL)");
  t->add_option("--site", args->site, "Site identifier")->required();
  t->add_option("--package", args->package, "Package identifier, {GUID}")->required();
  t->add_option("--resource", args->resource, "The agent's resource GUID as the server knows it");
  t->add_option("--limit", args->limit, "The site's outbound limit (default: from the settings)");
  t->add_option("--total", args->total, "The package's size in bytes");
  t->add_option("--done", args->done, "Bytes transferred so far");
  t->callback([args, &context] { Transfer(*args, context); });
}

const CommandRegistration registration(70, Install);

}  // namespace
}  // namespace pkgdlv::cli
