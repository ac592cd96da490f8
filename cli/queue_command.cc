// pkgdlv queue [--work-folder DIR] [--json]: the packages of the work folder
// that the engine would resume, in the order it would download them, with the
// statuses the engine would set (a package whose files are all present shows
// as valid). While an engine holds the work folder (pkgdlv download in
// another terminal), the live state instead: every unfinished package with
// the status that engine saved (downloading, pending, retrying). Read-only:
// no "package.xml" is written and no folder made.
#include <iostream>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "cli/command_registry.h"
#include "cli/work_folder.h"
#include "engine/package_manager.h"
#include "engine/work_folder_lock.h"
#include "records/package_request.h"
#include "util/display_text.h"
#include "util/filetime.h"
#include "util/format.h"

namespace pkgdlv::cli {
namespace {

struct QueueArgs {
  std::string workFolder;
  bool json = false;
};

// One package as a line of the listing; note, when not empty, follows in
// parentheses.
void PrintRow(const Guid& id, const std::string& status, int32_t priority, int64_t size, const std::string& name,
              const std::string& note) {
  std::cout << Format("%ls  %-11ls %6ls %14I64d  %ls%ls\n", id.ToString(), status, PriorityName(priority), size,
                      EscapeForDisplay(name), note.empty() ? std::string() : "  (" + EscapeForDisplay(note) + ")");
}

// The unfinished packages as a running engine saved them.
void ShowLiveState(PackageStore& store, const QueueArgs& args) {
  nlohmann::json entries = nlohmann::json::array();
  for (const Guid& id : store.ListPackageIds()) {
    std::shared_ptr<PackageRequest> request = store.Find(id);
    if (!request) continue;
    auto lock = request->Lock();
    const int32_t status = request->status();
    if (status == PKGDLV_VALID || status == PKGDLV_INVALID) continue;
    if (args.json) {
      entries.push_back({{"id", id.ToString()},
                         {"name", request->name},
                         {"status", std::string(StatusName(status))},
                         {"priority", request->priority},
                         {"size", request->GetSize()},
                         {"description", request->statusDescription}});
    } else {
      const bool plain = request->statusDescription == StatusName(status);
      PrintRow(id, std::string(StatusName(status)), request->priority, static_cast<int64_t>(request->GetSize()),
               request->name, plain ? std::string() : request->statusDescription);
    }
  }
  if (args.json) std::cout << entries.dump(2) << "\n";
}

void ShowQueue(Context& context, const QueueArgs& args) {
  AgentServices& services = context.services();
  const std::string folder = args.workFolder.empty() ? StoredWorkFolder(services).current() : args.workFolder;
  PackageManager engine(services, folder, nullptr);
  engine.store().SetReadOnly(true);
  if (IsWorkFolderInUse(folder)) {
    if (!args.json) std::cout << "(an engine is working in this folder: the live state)\n";
    ShowLiveState(engine.store(), args);
    return;
  }
  engine.ResumeDownloads();
  while (engine.ResumeQueueSize() > 0) engine.ProcessResumeQueue();

  nlohmann::json entries = nlohmann::json::array();
  for (const QueueEntry& entry : engine.queue().Entries()) {
    std::shared_ptr<PackageRequest> request = engine.store().Find(entry.id);
    std::string name, status;
    if (request) {
      auto lock = request->Lock();
      name = request->name;
      status = std::string(StatusName(request->status()));
    }
    const std::string retryAt = entry.retryPending ? FormatLocalTime(entry.nextAttemptTime) : "";
    if (args.json) {
      entries.push_back({{"id", entry.id.ToString()},
                         {"name", name},
                         {"status", status},
                         {"priority", entry.priority},
                         {"missingBytes", entry.sizeKey},
                         {"retryAt", retryAt}});
    } else {
      PrintRow(entry.id, status, entry.priority, entry.sizeKey, name, retryAt.empty() ? "" : "retry at " + retryAt);
    }
  }
  if (args.json) std::cout << entries.dump(2) << "\n";
}

void Install(CLI::App& app, Context& context) {
  auto args = std::make_shared<QueueArgs>();
  CLI::App* queue = app.add_subcommand("queue", "List the work folder's unfinished packages in download order");
  queue->add_option("--work-folder", args->workFolder, "The work folder (default: the configured one)");
  queue->add_flag("--json", args->json, "Print JSON");
  queue->callback([&context, args] { ShowQueue(context, *args); });
}

const CommandRegistration registration(60, Install);

}  // namespace
}  // namespace pkgdlv::cli
