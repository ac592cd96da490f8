// pkgdlv workfolder [show] | relocate NEW_FOLDER [--json]: the work folder the
// tool and the engine use, and the move of the whole package store to another
// folder (the same folder: a check that finishes earlier partial moves).
#include <iostream>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "cli/command_registry.h"
#include "cli/work_folder.h"
#include "engine/package_manager.h"
#include "engine/work_folder_lock.h"

namespace pkgdlv::cli {
namespace {

std::string Describe(const PackageManager::Relocation& relocation) {
  switch (relocation.flags) {
    case PKGDLV_RELOCATE_SUCCESS:
      return "relocated";
    case PKGDLV_RELOCATE_NEEDREPAIR:
      return "relocated; some packages are still linked to their old place and move on the next check";
    case PKGDLV_RELOCATE_ABORTED_NO_SPACE:
      return "refused: not enough free space (" + std::to_string(relocation.requiredMiB) + " MiB needed)";
    case PKGDLV_RELOCATE_ABORTED_NOT_LOCAL:
      return "refused: not a local disk";
    case PKGDLV_RELOCATE_ABORTED_KNOWN_FOLDER:
      return "refused: a system folder";
    case PKGDLV_RELOCATE_ABORTED_NOT_NTFS:
      return "refused: the file system has no sparse files";
    default: {
      const std::string why = relocation.message.empty() ? "moving the packages failed" : relocation.message;
      return "aborted: " + why + "; every package stays in the old folder";
    }
  }
}

void Relocate(Context& context, const std::string& target, bool json) {
  if (target.empty()) throw CommandFailure{"New working folder is not specified: give the folder to move the store to"};
  AgentServices& services = context.services();
  WorkFolderAccess stored = StoredWorkFolder(services);
  const std::string current = stored.current();
  // A running engine holds the lock: the store is not moved under its feet.
  {
    WorkFolderLock probe;
    try {
      std::filesystem::create_directories(current);
      probe.Open(current);
    } catch (const Error& e) {
      throw CommandFailure{e.description()};
    }
  }
  PackageManager engine(services, current, nullptr);
  engine.LockWorkFolder(false);
  const PackageManager::Relocation relocation = engine.RelocateWorkFolder(std::filesystem::absolute(target));
  const bool moved = (relocation.flags & PKGDLV_RELOCATE_ABORTED_MASK) == 0;
  // What the engine now uses: the same folder when only checked.
  if (moved) RecordWorkFolder(services, engine.store().workFolder().string());
  if (json) {
    std::cout << nlohmann::json{{"flags", relocation.flags},
                                {"requiredMiB", relocation.requiredMiB},
                                {"workFolder", stored.current()},
                                {"result", Describe(relocation)}}
                     .dump(2)
              << "\n";
  } else {
    std::cout << Describe(relocation) << "\n" << "work folder: " << stored.current() << "\n";
  }
  if (!moved) context.exit_code = 1;
}

void Install(CLI::App& app, Context& context) {
  CLI::App* folder = app.add_subcommand("workfolder", "Show or relocate the package store");
  folder->require_subcommand(0, 1);
  folder->callback([&context, folder] {
    if (folder->get_subcommands().empty()) std::cout << StoredWorkFolder(context.services()).current() << "\n";
  });

  auto target = std::make_shared<std::string>();
  auto json = std::make_shared<bool>(false);
  CLI::App* relocate = folder->add_subcommand("relocate", "Move every package to a new work folder");
  relocate->add_option("NEW_FOLDER", *target, "The new work folder (the current one: check and repair)")->required();
  relocate->add_flag("--json", *json, "Print JSON");
  relocate->callback([&context, target, json] { Relocate(context, *target, *json); });
}

const CommandRegistration registration(61, Install);

}  // namespace
}  // namespace pkgdlv::cli
