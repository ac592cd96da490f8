// pkgdlv history PACKAGE_FOLDER [--json]: a package's download history
// ("log.xml"): the totals and one line per download cycle, newest first.
#include <iostream>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "cli/command_registry.h"
#include "records/package_log.h"
#include "records/package_request.h"
#include "util/display_text.h"
#include "util/error.h"
#include "util/file_reader.h"
#include "util/filetime.h"
#include "util/format.h"

namespace pkgdlv::cli {
namespace {

std::string TimeOrDash(FileTime time) { return time == 0 ? "-" : FormatDocumentTime(time, DateForm::kSpaced); }

void ShowHistory(Context& context, const std::string& folder, bool json) {
  AgentServices& services = context.services();
  DeliverySettings settings(*services.settings, *services.log);
  PackageLog history(*services.log, settings);
  if (!std::filesystem::exists(std::filesystem::path(folder) / kPackageLogFileName)) {
    throw CommandFailure{"no download history in '" + folder + "'"};
  }
  try {
    CheckFileToRead(std::filesystem::path(folder) / kPackageLogFileName);
    history.LoadFromFolder(folder);
  } catch (const Error& e) {
    throw CommandFailure{"Error loading log: " + e.description()};
  }
  const DownloadTotals& t = history.totals;
  if (json) {
    nlohmann::json out = {{"id", t.id},
                          {"downloads", t.attempts},
                          {"failures", t.attempts - std::min(t.attempts, t.successes)},
                          {"transferBytes", t.transferBytes},
                          {"averageRate", t.transferRate},
                          {"history", nlohmann::json::array()}};
    for (const DownloadRecord& r : history.entries) {
      out["history"].push_back({{"version", r.version},
                                {"status", StatusName(r.status)},
                                {"statusDescr", r.statusDescr},
                                {"start", TimeOrDash(r.startTime)},
                                {"end", TimeOrDash(r.endTime)},
                                {"source", r.source},
                                {"transferBytes", r.transferBytes},
                                {"transferCache", r.transferCache},
                                {"transferRate", r.transferRate},
                                {"result", Format("0x%08X", r.result)}});
    }
    std::cout << out.dump(2) << "\n";
    return;
  }
  // Texts of the document are escaped: a control character in them must not
  // reach the terminal or break the one-line-per-cycle layout.
  std::cout << Format("%ls: %u downloads, %u failed, %I64u bytes, %u bytes/s on average\n", EscapeForDisplay(t.id),
                      t.attempts, t.attempts - std::min(t.attempts, t.successes), t.transferBytes, t.transferRate);
  for (const DownloadRecord& r : history.entries) {
    std::cout << Format("%ls  %-11ls 0x%08X %12I64u bytes  %ls%ls\n", TimeOrDash(r.startTime), StatusName(r.status),
                        r.result, r.transferBytes, EscapeForDisplay(r.source),
                        r.statusDescr.empty() ? "" : "  " + EscapeForDisplay(r.statusDescr));
  }
}

void Install(CLI::App& app, Context& context) {
  auto folder = std::make_shared<std::string>();
  auto json = std::make_shared<bool>(false);
  CLI::App* history = app.add_subcommand("history", "Show a package's download history (log.xml)");
  history->add_option("PACKAGE_FOLDER", *folder, "The package's folder")->required();
  history->add_flag("--json", *json, "Print JSON");
  history->callback([&context, folder, json] { ShowHistory(context, *folder, *json); });
}

const CommandRegistration registration(62, Install);

}  // namespace
}  // namespace pkgdlv::cli
