// pkgdlv download: hands a package request to the engine, as the agent does,
// and follows its download: a progress line on standard error while blocks
// arrive, then the package's status. The engine runs with its own retry
// rules; the tool waits for as many attempts as it is told to.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "cli/command_registry.h"
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

// One line on standard error, rewritten in place as progress arrives.
class ProgressLine final : public DownloadEvents {
 public:
  explicit ProgressLine(bool quiet) : quiet_(quiet) {}

  void OnBeginFile(const Guid&, const std::string& filePath) override {
    std::lock_guard lock(mutex_);
    file_ = filePath;
  }
  void OnBeginTransfer(const Guid&, const std::string&) override {}
  void OnProgress(const Guid&, uint64_t packageSize, uint64_t packageDone, uint64_t, uint64_t) override {
    if (quiet_) return;
    std::lock_guard lock(mutex_);
    const int percent = packageSize ? static_cast<int>(packageDone * 100 / packageSize) : 100;
    const int filled = percent / 5;
    std::fprintf(stderr, "\r[%-20s] %3d%%  %.1f / %.1f MB  %s\x1b[K", std::string(filled, '#').c_str(), percent,
                 packageDone / 1e6, packageSize / 1e6, Tail(file_).c_str());
    std::fflush(stderr);
    shown_ = true;
  }
  void OnEndFile(const Guid&, const std::string&, int32_t) override {}

  void Finish() {
    std::lock_guard lock(mutex_);
    if (shown_) std::fputc('\n', stderr);
    shown_ = false;
  }

 private:
  static std::string Tail(const std::string& path) {
    return path.size() <= 40 ? path : "..." + path.substr(path.size() - 37);
  }

  const bool quiet_;
  std::mutex mutex_;
  std::string file_;
  bool shown_ = false;
};

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

  ProgressLine progress(args.quiet || args.json);
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
