// pkgdlv blocks fetch --snapshot SNAPSHOT.xml --source URL_OR_DIR --to FOLDER
// [--json]: brings a package folder up to its snapshot as the engine's block
// download does. The folder's update list says which blocks are missing;
// those are fetched from the source (a package server URL or a folder),
// verified and written in place. A progress line goes to standard error as
// the download reports progress, a summary to standard output. Exit 0 when
// every block is present, 1 with "pkgdlv: ..." otherwise.
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "agent/volume_info.h"
#include "cli/package_snapshot.h"
#include "cli/source_location.h"
#include "records/package_request.h"
#include "snapshot/validation.h"
#include "transport/block_download.h"
#include "transport/download_events.h"
#include "transport/package_download.h"

namespace fs = std::filesystem;

namespace pkgdlv::cli {
namespace {

struct BlocksArgs {
  std::string snapshot;
  std::string source;
  std::string folder;
  bool json = false;
};

// One line on standard error per progress report, so that a person (or a
// log) can follow the download file by file.
class ProgressLines final : public DownloadEvents {
 public:
  void OnBeginFile(const Guid&, const std::string& filePath) override { file_ = filePath; }
  void OnBeginTransfer(const Guid&, const std::string&) override {}
  void OnProgress(const Guid&, uint64_t packageSize, uint64_t packageDone, uint64_t fileSize,
                  uint64_t fileDone) override {
    const unsigned percent = packageSize ? static_cast<unsigned>(packageDone * 100 / packageSize) : 100;
    std::cerr << Format("progress: %3u%%  %I64u/%I64u bytes  %ls %I64u/%I64u\n", percent, packageDone, packageSize,
                        file_, fileDone, fileSize);
  }
  void OnEndFile(const Guid&, const std::string&, int32_t) override {}

 private:
  std::string file_;
};

// A source given as a relative folder is taken from the current folder.
std::string SourceLocation(const std::string& source) {
  if (source.find("://") != std::string::npos || source.starts_with("\\\\") || source.starts_with('/')) {
    return StoredSource(source);
  }
  return StoredSource(fs::absolute(source).string());
}

void Fetch(const BlocksArgs& args, Context& context) {
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

  ProgressLines progress;
  BlockDownload blocks(download, services.site_limits, &progress, nullptr);
  AttemptInput input;
  input.package = &record;
  input.snapshot = &snapshot;
  input.updateList = &updateList;
  input.localMap = &present;
  input.sourceUrl = SourceLocation(args.source);
  const Result code = blocks.DownloadAttempt(input);
  if (code != 0) throw CommandFailure{Format("%ls (0x%08X)", download.LastDescription(), code)};

  const AttemptStatistics& stats = blocks.statistics();
  const uint32_t fetched = present.Count() - presentBefore;
  if (args.json) {
    std::cout << nlohmann::json{{"package", snapshot.GetIdText()},
                                {"folder", folder},
                                {"blocksFetched", fetched},
                                {"bytes", stats.downloaded},
                                {"bytesPerSecond", stats.attemptRate},
                                {"blocksPresent", present.Count()},
                                {"totalBlocks", snapshot.totalBlocks}}
                     .dump(2)
              << '\n';
  } else {
    std::cout << Format("%u blocks fetched, %I64u bytes at %I64u bytes per second; %u/%u blocks present\n", fetched,
                        stats.downloaded, stats.attemptRate, present.Count(), snapshot.totalBlocks);
  }
}

void Install(CLI::App& app, Context& context) {
  CLI::App* blocks = app.add_subcommand("blocks", "Block downloads of package folders");
  blocks->require_subcommand(1);
  auto args = std::make_shared<BlocksArgs>();
  CLI::App* fetch = blocks->add_subcommand("fetch", "Fetch the blocks a package folder misses from a source");
  fetch->add_option("--snapshot", args->snapshot, "The package's snapshot.xml")->required();
  fetch->add_option("--source", args->source, "Package server URL or folder holding the package")->required();
  fetch->add_option("--to", args->folder, "The package folder to complete (created when missing)")->required();
  fetch->add_flag("--json", args->json, "Print the summary as JSON");
  fetch->callback([args, &context] { Fetch(*args, context); });
}

const CommandRegistration registration(65, Install);

}  // namespace
}  // namespace pkgdlv::cli
