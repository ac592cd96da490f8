// pkgdlv download: hands a package request to the engine, as the agent does,
// runs the engine in this process and follows the package until it ends:
// valid (exit 0), invalid (exit 1 with the status description) or, with
// --no-wait, waiting for a retry (exit 2). Without --no-wait the engine's own
// retries are followed, a line saying when the next attempt is due. Ctrl-C
// stops the engine cleanly (exit 130); the package stays pending in the work
// folder and the next pkgdlv download resumes it.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "cli/command_registry.h"
#include "cli/document_input.h"
#include "cli/progress_view.h"
#include "cli/signal_watcher.h"
#include "cli/work_folder.h"
#include "engine/download_cycle.h"
#include "engine/package_manager.h"
#include "records/package_request.h"
#include "util/error.h"
#include "util/format.h"
#include "util/strings.h"

namespace pkgdlv::cli {
namespace {

constexpr int kExitRetrying = 2;

struct DownloadArgs {
  std::string request;
  std::string workFolder;
  bool force = false;
  bool json = false;
  bool noWait = false;
};

std::shared_ptr<PackageRequest> LoadRequest(const std::string& path, AgentServices& services) {
  auto request = std::make_shared<PackageRequest>(services);
  std::string text = ReadDocumentArgument(path);
  const bool loaded = request->LoadFromXml(text);
  WipeString(text);
  if (!loaded) throw CommandFailure{"the request document was refused (see the agent log)"};
  if (request->id().IsNull()) throw CommandFailure{"the request names no package identifier"};
  return request;
}

// What the tool watches of the package while the engine works on it.
struct PackageState {
  int32_t status = PKGDLV_PENDING;
  std::string name;
  std::string description;
  std::string folder;
  int32_t attempts = 0;
  FileTime nextAttempt = 0;
};

PackageState ReadState(PackageManager& engine, PackageRequest& request) {
  PackageState state;
  {
    auto lock = request.Lock();
    state.status = request.status();
    state.name = request.name;
    state.description = request.statusDescription;
    state.folder = request.packageFolder();
  }
  std::lock_guard lock(engine.queueLock());
  state.attempts = engine.queue().GetAttemptCount(request.id());
  state.nextAttempt = engine.queue().GetNextAttemptTime(request.id()).value_or(0);
  return state;
}

bool HasEnded(int32_t status) { return status == PKGDLV_VALID || status == PKGDLV_INVALID; }

// Prints the lines of the download: a failed attempt with the time of the
// next one, and the end; JSON lines with --json.
class DownloadReport {
 public:
  DownloadReport(const Guid& id, bool json, ProgressView& progress) : id_(id), json_(json), progress_(progress) {}

  void Retry(const PackageState& state, FileTime now) {
    progress_.Finish();
    const int64_t seconds = state.nextAttempt > now ? static_cast<int64_t>((state.nextAttempt - now) / kFileTimeTicksPerSecond) : 0;
    if (json_) {
      std::cout << nlohmann::json{{"event", "retry"},
                                  {"package", id_.ToString()},
                                  {"attempts", state.attempts},
                                  {"description", state.description},
                                  {"nextAttempt", FormatLocalTime(state.nextAttempt)},
                                  {"secondsToNextAttempt", seconds}}
                       .dump()
                << std::endl;
    } else {
      std::cout << Format("attempt %d failed: %ls; next attempt at %ls (in %I64d s)\n", state.attempts,
                          state.description, FormatLocalTime(state.nextAttempt), seconds)
                << std::flush;
    }
  }

  void End(const PackageState& state, std::string_view outcome) {
    progress_.Finish();
    if (json_) {
      std::cout << nlohmann::json{{"event", "end"},
                                  {"package", id_.ToString()},
                                  {"name", state.name},
                                  {"status", std::string(StatusName(state.status))},
                                  {"outcome", std::string(outcome)},
                                  {"description", state.description},
                                  {"folder", state.folder}}
                       .dump()
                << std::endl;
      return;
    }
    const std::string status(StatusName(state.status));
    const bool described = !state.description.empty() && state.description != status;
    std::cout << Format("%ls %ls: %ls%ls\n", state.name, id_.ToString(), status,
                        described ? " (" + state.description + ")" : std::string());
    std::cout << "folder: " << state.folder << "\n";
  }

 private:
  const Guid id_;
  const bool json_;
  ProgressView& progress_;
};

void Download(const DownloadArgs& args, Context& context) {
  // Before any thread starts, so that all of them leave the signals to it.
  std::atomic<bool> stopping{false};
  SignalWatcher watcher([&stopping] { stopping = true; });

  AgentServices& services = context.services();
  const std::string folder = args.workFolder.empty() ? StoredWorkFolder(services).current() : args.workFolder;
  std::shared_ptr<PackageRequest> request = LoadRequest(args.request, services);
  const Guid id = request->id();

  const ProgressView::Mode mode = args.json                 ? ProgressView::Mode::kJson
                                  : ::isatty(STDERR_FILENO) ? ProgressView::Mode::kTerminal
                                                            : ProgressView::Mode::kQuiet;
  ProgressView progress(mode);
  DownloadReport report(id, args.json, progress);
  auto cycle = std::make_shared<DownloadCycle>(services, services.site_limits, &progress);
  if (args.force) cycle->ForceSnapshotRefresh(id);
  PackageManager engine(services, folder, cycle);
  engine.QueuePackage(request, args.force);
  engine.Start();

  // The engine works on its own thread; the tool watches the record.
  int32_t reportedAttempts = 0;
  PackageState state = ReadState(engine, *request);
  while (!HasEnded(state.status) && !stopping && watcher.signal() == 0) {
    if (state.status == PKGDLV_RETRYING && state.attempts > reportedAttempts) {
      reportedAttempts = state.attempts;
      report.Retry(state, services.clock->Now());
      if (args.noWait) break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    state = ReadState(engine, *request);
  }
  engine.Stop();
  state = ReadState(engine, *request);

  if (const int signal = watcher.signal(); signal != 0 && !HasEnded(state.status)) {
    report.End(state, "stopped");
    throw CommandFailure{"stopped; the next pkgdlv download of this request resumes it", 128 + signal};
  }
  if (state.status == PKGDLV_VALID) {
    report.End(state, "valid");
    return;
  }
  if (state.status == PKGDLV_INVALID) {
    report.End(state, "invalid");
    throw CommandFailure{state.description.empty() ? std::string("the package is invalid") : state.description};
  }
  report.End(state, "retrying");
  throw CommandFailure{"the package waits for its next attempt; run pkgdlv download again to go on", kExitRetrying};
}

void Install(CLI::App& app, Context& context) {
  auto args = std::make_shared<DownloadArgs>();
  CLI::App* d = app.add_subcommand("download", "Download a package from its request document with the engine");
  d->add_option("request", args->request, "Package request document (- for standard input)")->required();
  d->add_option("--work-folder", args->workFolder, "Work folder (default: the stored one)");
  d->add_flag("--force", args->force, "Fetch the snapshot again and check every file, even for a complete package");
  d->add_flag("--json", args->json, "Progress and outcome as JSON lines");
  d->add_flag("--no-wait", args->noWait, "Return after a failed attempt instead of waiting for the retries (exit 2)");
  d->callback([args, &context] { Download(*args, context); });
}

const CommandRegistration registration(64, Install);

}  // namespace
}  // namespace pkgdlv::cli
