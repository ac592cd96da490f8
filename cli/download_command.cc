// pkgdlv download: hands a package request to the engine, as the agent does,
// and follows its download: a progress line on standard error while blocks
// arrive, then the package's status. The engine runs with its own retry
// rules; the tool waits for as many attempts as it is told to.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "cli/command_registry.h"
#include "cli/progress_view.h"
#include "cli/work_folder.h"
#include "engine/download_cycle.h"
#include "engine/package_manager.h"
#include "records/package_request.h"
#include "transport/download_events.h"
#include "util/atomic_file.h"
#include "util/error.h"
#include "util/file_reader.h"
#include "util/format.h"
#include "util/strings.h"

namespace pkgdlv::cli {
namespace {

struct DownloadArgs {
  std::string request;
  std::string workFolder;
  int attempts = 1;
  int timeoutSeconds = 3600;
  bool json = false;
  bool quiet = false;
};

std::string ReadText(const std::string& path) {
  if (path == "-") return ReadStreamCapped(std::cin);
  std::vector<uint8_t> bytes = ReadFileCapped(path);
  return std::string(bytes.begin(), bytes.end());
}

void Download(const DownloadArgs& args, Context& context) {
  AgentServices& services = context.services();
  const std::string folder = args.workFolder.empty() ? StoredWorkFolder(services).current() : args.workFolder;

  auto request = std::make_shared<PackageRequest>(services);
  std::string text = ReadText(args.request);
  const bool loaded = request->LoadFromXml(text);
  WipeString(text);
  if (!loaded) throw CommandFailure{"the request document was refused (see the agent log)"};
  if (request->id().IsNull()) throw CommandFailure{"the request names no package identifier"};

  // --json prints the outcome as one object; the progress line is for a
  // person at a terminal.
  ProgressView progress(args.quiet || args.json || !::isatty(STDERR_FILENO) ? ProgressView::Mode::kQuiet
                                                                           : ProgressView::Mode::kTerminal);
  auto cycle = std::make_shared<DownloadCycle>(services, services.site_limits, &progress);
  PackageManager engine(services, folder, cycle);
  engine.QueuePackage(request, false);
  engine.Start();

  // The engine works on its own thread; the tool watches the record.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(args.timeoutSeconds);
  int32_t status = request->status();
  bool timedOut = false;
  while (true) {
    status = request->status();
    const int32_t attempts = engine.queue().GetAttemptCount(request->id());
    if (status == PKGDLV_VALID || status == PKGDLV_INVALID) break;
    if (status == PKGDLV_RETRYING && attempts >= args.attempts) break;
    if (std::chrono::steady_clock::now() > deadline) {
      timedOut = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  engine.Stop();
  progress.Finish();

  std::string name, description, packageFolder;
  {
    auto lock = request->Lock();
    name = request->name;
    description = request->statusDescription;
    packageFolder = request->packageFolder();
  }
  if (args.json) {
    std::cout << nlohmann::json{{"id", request->id().ToString()},
                                {"name", name},
                                {"status", std::string(StatusName(status))},
                                {"description", description},
                                {"folder", packageFolder},
                                {"timedOut", timedOut}}
                     .dump(2)
              << "\n";
  } else {
    std::cout << Format("%ls %ls: %ls%ls\n", name, request->id().ToString(), std::string(StatusName(status)),
                        description.empty() || description == StatusName(status) ? "" : " (" + description + ")");
    std::cout << "folder: " << packageFolder << "\n";
  }
  if (status != PKGDLV_VALID) context.exit_code = 1;
}

void Install(CLI::App& app, Context& context) {
  auto args = std::make_shared<DownloadArgs>();
  CLI::App* d = app.add_subcommand("download", "Download a package from its request document, as the engine does");
  d->add_option("request", args->request, "Package request document (- for standard input)")->required();
  d->add_option("--work-folder", args->workFolder, "Work folder (default: the stored one)");
  d->add_option("--attempts", args->attempts, "Attempts to wait for before giving up (the engine retries on its own)")
      ->check(CLI::Range(1, 1000));
  d->add_option("--timeout", args->timeoutSeconds, "Seconds to wait at most")->check(CLI::Range(1, 86400 * 7));
  d->add_flag("--json", args->json, "Print JSON");
  d->add_flag("--quiet", args->quiet, "No progress line");
  d->callback([args, &context] { Download(*args, context); });
}

const CommandRegistration registration(64, Install);

}  // namespace
}  // namespace pkgdlv::cli
