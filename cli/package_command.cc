// pkgdlv package copy|move|clean: the package file operations over a package
// folder and its snapshot. Exit 0 when every file went through, 1 otherwise.
#include <cstdlib>

#include "cli/package_snapshot.h"
#include "cli/work_folder.h"
#include "engine/package_store.h"
#include "snapshot/file_operations.h"
#include "snapshot/validation.h"
#include "util/same_folder.h"

namespace pkgdlv::cli {
namespace {

struct PackageArgs {
  std::string folder;
  std::string snapshot;
  std::string target;
  bool skipUnchanged = false;
  bool all = false;
};

void AddCommon(CLI::App* command, PackageArgs& args) {
  command->add_option("folder", args.folder, "The package folder")->required();
  command->add_option("--snapshot", args.snapshot, "The package's snapshot.xml")->required();
}

void Copy(const PackageArgs& args) {
  Snapshot snapshot = LoadPackageSnapshot(args.folder, args.snapshot);
  if (!CopyFiles(snapshot, args.target, args.skipUnchanged)) throw CommandFailure{"some files could not be copied"};
}

void Move(const PackageArgs& args) {
  Snapshot snapshot = LoadPackageSnapshot(args.folder, args.snapshot);
  if (!MoveFiles(snapshot, args.target)) throw CommandFailure{"some files could not be moved"};
}

// Removing a whole folder is only for the package folder of that snapshot:
// never a folder the agent or the user lives in, whatever the snapshot says.
void RefuseUnlessPackageFolder(Context& context, const std::string& folder, const Snapshot& snapshot) {
  const std::filesystem::path resolved = ResolvedFolder(folder);
  std::filesystem::path named = std::filesystem::path(folder).lexically_normal();
  if (!named.has_filename()) named = named.parent_path();
  if (IsSymbolicLink(named)) {
    throw CommandFailure{"refused: '" + folder + "' is a link; give the package folder itself"};
  }
  AgentServices& services = context.services();
  const char* home = std::getenv("HOME");
  const std::pair<std::filesystem::path, const char*> kept[] = {
      {"/", "the root folder"},
      {home ? std::filesystem::path(home) : std::filesystem::path(), "the home folder"},
      {services.data_folder, "the agent's data folder"},
      {StoredWorkFolder(services).current(), "the work folder"},
  };
  for (const auto& [protectedFolder, what] : kept) {
    if (protectedFolder.empty()) continue;
    if (SameFolder(resolved, protectedFolder) || IsBelow(protectedFolder, resolved)) {
      throw CommandFailure{"refused: '" + folder + "' is or holds " + what};
    }
  }
  if (!HoldsPackage(resolved, snapshot.id)) {
    throw CommandFailure{"refused: '" + folder + "' is not the package folder of " + snapshot.GetIdText() +
                         " (neither its snapshot.xml nor its package.xml names that package)"};
  }
}

// Without --all: checks the files (hashing them) and deletes those found
// invalid, so that a later download fetches them whole.
void Clean(Context& context, const PackageArgs& args) {
  Snapshot snapshot = LoadPackageSnapshot(args.folder, args.snapshot);
  if (args.all) {
    RefuseUnlessPackageFolder(context, args.folder, snapshot);
    Result code = DeletePackageFiles(snapshot);
    if (code != 0) throw CommandFailure{Format("the package could not be removed (0x%08X)", code)};
    return;
  }
  Validator validator;
  Snapshot updateList;
  validator.GetUpdateList(snapshot, updateList, nullptr, UpdateListOptions{});
  if (!DeleteInvalidFiles(snapshot, true)) throw CommandFailure{"some invalid files could not be deleted"};
  size_t deleted = 0;
  for (const SnapshotEntry& entry : snapshot.entries) deleted += entry.IsFile() && entry.state == entrystate::kInvalid;
  std::cout << deleted << " invalid file(s) deleted\n";
}

void Install(CLI::App& app, Context& context) {
  auto args = std::make_shared<PackageArgs>();
  CLI::App* package = app.add_subcommand("package", "Copy, move or clean a package folder by its snapshot");
  package->require_subcommand(1);

  CLI::App* copy = package->add_subcommand("copy", "Copy the listed folders and files to another folder");
  AddCommon(copy, *args);
  copy->add_option("--to", args->target, "The target folder")->required();
  copy->add_flag("--skip-unchanged", args->skipUnchanged, "Leave targets whose size and time already match");
  copy->callback([args] { Copy(*args); });

  CLI::App* move = package->add_subcommand("move", "Move the listed folders and files to a new package folder");
  AddCommon(move, *args);
  move->add_option("--to", args->target, "The new package folder")->required();
  move->callback([args] { Move(*args); });

  CLI::App* clean = package->add_subcommand("clean", "Delete the files that fail their hashes");
  AddCommon(clean, *args);
  clean->add_flag("--all", args->all,
                  "Remove the whole package folder instead (only its listed files when the snapshot says so); the "
                  "folder must hold the package's snapshot.xml or package.xml");
  clean->callback([&context, args] { Clean(context, *args); });
}

const CommandRegistration registration(41, Install);

}  // namespace
}  // namespace pkgdlv::cli
