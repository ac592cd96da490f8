// pkgdlv fetch --snapshot SNAPSHOT.xml --source URL|PATH|\\host\share\path
// --dest FOLDER [--user U --password-b64 B] [--site ID] [--json]: brings a
// package folder up to its snapshot as the engine's block download does.
// The folder's update list says which blocks are missing; those are fetched
// from the source, verified and written in place; then the folder is checked
// again. On a terminal one progress line is rewritten on standard error;
// with --json each progress report and the outcome are JSON objects on
// standard output, one a line; otherwise only the outcome is printed.
// Ctrl-C or SIGTERM ends the download promptly; the blocks written so far
// stay and a second run fetches only the rest. Exit 0 when the folder
// matches the snapshot, 130 or 143 after a signal, 1 with "pkgdlv: ..."
// otherwise.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "agent/volume_info.h"
#include "cli/package_snapshot.h"
#include "cli/progress_view.h"
#include "cli/signal_watcher.h"
#include "cli/source_location.h"
#include "records/package_request.h"
#include "snapshot/validation.h"
#include "transport/block_download.h"
#include "transport/download_events.h"
#include "transport/package_download.h"

namespace fs = std::filesystem;

namespace pkgdlv::cli {
namespace {

struct FetchArgs {
  std::string snapshot;
  std::string source;
  std::string folder;
  std::string user;
  std::string passwordBase64;
  std::string site;
  bool json = false;
};

// The files that still differ from the snapshot by size or time; every
// block was verified as it arrived, so nothing is read again.
size_t FilesStillListed(Snapshot& snapshot) {
  ValidatorOptions options;
  options.volumes = NewLinuxVolumeInfo();
  Validator validator(options);
  Snapshot updateList;
  validator.GetUpdateList(snapshot, updateList, nullptr, {.skipHash = true});
  return updateList.entries.size();
}

void Fetch(const FetchArgs& args, Context& context) {
  const ProgressView::Mode mode = args.json                 ? ProgressView::Mode::kJson
                                  : ::isatty(STDERR_FILENO) ? ProgressView::Mode::kTerminal
                                                            : ProgressView::Mode::kQuiet;
  // Before any thread starts, so that all of them leave the signals to it.
  std::atomic<PackageDownload*> running{nullptr};
  SignalWatcher watcher([&running] {
    if (PackageDownload* download = running.load()) download->Cancel();
  });
  std::error_code ec;
  fs::create_directories(args.folder, ec);
  const std::string folder = fs::absolute(args.folder).lexically_normal().string();
  Snapshot snapshot = LoadPackageSnapshot(folder, args.snapshot);

  ValidatorOptions options;
  options.volumes = NewLinuxVolumeInfo();
  Validator validator(options);
  Snapshot updateList;
  DynamicBitset present;
  validator.GetUpdateList(snapshot, updateList, &present, {});
  const uint32_t presentBefore = present.Count();

  AgentServices& services = context.services();
  PackageDownload download(services);
  PackageRequest record(services);
  record.SetId(snapshot.id);
  record.name = fs::path(folder).filename().string();

  ProgressView progress(mode);
  BlockDownload blocks(download, services.site_limits, &progress, nullptr);
  AttemptInput input;
  input.package = &record;
  input.snapshot = &snapshot;
  input.updateList = &updateList;
  input.localMap = &present;
  input.sourceUrl = StoredSource(args.source);
  input.siteId = args.site;
  input.user = args.user;
  input.encryptedPassword = args.passwordBase64;
  running = &download;
  Result code = watcher.signal() == 0 ? blocks.DownloadAttempt(input) : blockresult::kCancelled;
  running = nullptr;
  const int signal = watcher.signal();
  progress.Finish();
  std::string description = code != 0 ? download.LastDescription() : std::string();
  if (code == 0 && FilesStillListed(snapshot) != 0) {
    code = blockresult::kIncomplete;
    description = "The folder does not match the snapshot after the download";
  }

  const AttemptStatistics& stats = blocks.statistics();
  const uint32_t fetched = present.Count() - presentBefore;
  if (args.json) {
    std::cout << nlohmann::json{{"event", "end"},
                                {"result", code},
                                {"description", description},
                                {"package", snapshot.GetIdText()},
                                {"folder", folder},
                                {"blocksFetched", fetched},
                                {"bytes", stats.downloaded},
                                {"bytesPerSecond", stats.attemptRate},
                                {"blocksPresent", present.Count()},
                                {"totalBlocks", snapshot.totalBlocks}}
                     .dump()
              << std::endl;
  } else if (code == 0) {
    std::cout << Format("%u blocks fetched, %I64u bytes at %I64u bytes per second; %u/%u blocks present\n", fetched,
                        stats.downloaded, stats.attemptRate, present.Count(), snapshot.totalBlocks);
  }
  if (signal != 0) {
    throw CommandFailure{Format("cancelled; %u/%u blocks present, run again to resume", present.Count(),
                                snapshot.totalBlocks),
                         128 + signal};
  }
  if (code != 0) throw CommandFailure{Format("%ls (0x%08X)", description, code)};
}

void Install(CLI::App& app, Context& context) {
  auto args = std::make_shared<FetchArgs>();
  CLI::App* fetch = app.add_subcommand("fetch", "Fetch what a package folder misses from a source and verify it");
  fetch->add_option("--snapshot", args->snapshot, "The package's snapshot.xml")->required();
  fetch->add_option("--source", args->source, "Package server URL, folder or \\\\host\\share\\path of the package")
      ->required();
  fetch->add_option("--dest", args->folder, "The package folder to complete (created when missing)")->required();
  auto* user = fetch->add_option("--user", args->user, "User name for the source");
  fetch->add_option("--password-b64", args->passwordBase64, "The source password, as the agent stores it (Base64)")
      ->needs(user);
  fetch->add_option("--site", args->site, "Site identifier for the outbound transfer reservation");
  fetch->add_flag("--json", args->json, "Progress and outcome as JSON objects, one a line, on standard output");
  fetch->callback([args, &context] { Fetch(*args, context); });
}

const CommandRegistration registration(65, Install);

}  // namespace
}  // namespace pkgdlv::cli
