// pkgdlv check FOLDER --snapshot SNAPSHOT.xml [--full | --skip-hash] [--json]:
// which files of a package folder must be fetched again, and which blocks are
// already good. Exit 0 when the folder matches the snapshot, 2 when files
// need updating, 1 on error.
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "agent/volume_info.h"
#include "cli/package_snapshot.h"
#include "snapshot/validation.h"
#include "util/display_text.h"

namespace pkgdlv::cli {
namespace {

struct CheckArgs {
  std::string folder;
  std::string snapshot;
  bool full = false;
  bool skipHash = false;
  bool json = false;
};

// Why a listed file must be fetched, from its state and the file on disk.
std::string Reason(const Snapshot& snapshot, const SnapshotEntry& entry) {
  struct stat info {};
  bool present = false;
  try {
    present = ::stat(EntryPath(snapshot, entry).c_str(), &info) == 0 && S_ISREG(info.st_mode);
  } catch (const Error&) {
  }
  if (!present) return "missing";
  if (entry.size == -1 || entry.lastModified == 0) return "incomplete snapshot entry";
  if (entry.state == entrystate::kHashNotComputed) return "cannot be hashed";
  if (info.st_size != entry.size) return info.st_size < entry.size ? "shorter than expected" : "size differs";
  if (entry.state == entrystate::kInvalid) return "content differs";
  return "time stamp differs";
}

void Check(const CheckArgs& args, Context& context) {
  Snapshot snapshot = LoadPackageSnapshot(args.folder, args.snapshot);
  ValidatorOptions options;
  options.volumes = NewLinuxVolumeInfo();
  Validator validator(options);
  UpdateListOptions listOptions;
  listOptions.skipHash = args.skipHash;
  listOptions.forceHash = args.full;
  Snapshot updateList;
  DynamicBitset good;
  validator.GetUpdateList(snapshot, updateList, &good, listOptions);

  std::string blocksFound = Format("%u/%u blocks found", good.Count(), snapshot.totalBlocks);
  if (args.json) {
    nlohmann::json files = nlohmann::json::array();
    for (const SnapshotEntry& entry : updateList.entries) {
      files.push_back({{"path", entry.RelativePath()}, {"size", entry.size}, {"reason", Reason(snapshot, entry)}});
    }
    nlohmann::json ranges = nlohmann::json::array();
    for (auto [first, last] : good.SetRanges()) ranges.push_back({first, last});
    nlohmann::json out = {{"package", snapshot.GetIdText()},   {"complete", updateList.entries.empty()},
                          {"blocksFound", good.Count()},       {"totalBlocks", snapshot.totalBlocks},
                          {"blockSize", snapshot.blockSize},   {"files", files},
                          {"goodBlocks", ranges}};
    std::cout << out.dump(2) << '\n';
  } else {
    for (const SnapshotEntry& entry : updateList.entries) {
      std::cout << EscapeForDisplay(entry.RelativePath()) << "\t" << entry.size << " bytes\t" << Reason(snapshot, entry) << '\n';
    }
    std::cout << blocksFound << '\n';
  }
  context.exit_code = updateList.entries.empty() ? 0 : 2;
}

void Install(CLI::App& app, Context& context) {
  auto args = std::make_shared<CheckArgs>();
  CLI::App* check = app.add_subcommand("check", "List the files of a package folder that must be fetched again");
  check->add_option("folder", args->folder, "The package folder")->required();
  check->add_option("--snapshot", args->snapshot, "The package's snapshot.xml")->required();
  CLI::Option* full = check->add_flag("--full", args->full, "Hash every file, also those found valid before");
  check->add_flag("--skip-hash", args->skipHash, "Trust sizes and time stamps; read no file")->excludes(full);
  check->add_flag("--json", args->json, "Print the result as JSON, with the good blocks as ranges");
  check->callback([args, &context] { Check(*args, context); });
}

const CommandRegistration registration(40, Install);

}  // namespace
}  // namespace pkgdlv::cli
