// The work folder the tool works on: until the delivery object keeps it, the
// tool stores it as a text value of its own, with the engine's default folder
// as its default. A change goes through the engine's rules for a work folder
// (an absolute path, no system folder, a folder that can be made, no
// unfinished package left behind in the old folder) and is refused while a
// running engine holds the old folder's lock.
#pragma once

#include <memory>
#include <string>

#include "agent/object_settings.h"
#include "engine/package_manager.h"
#include "engine/work_folder_lock.h"
#include "records/configuration_document.h"
#include "util/error.h"
#include "util/paths.h"

namespace pkgdlv::cli {

inline constexpr std::string_view kEngineKey = "Communications\\Package Delivery\\Engine";
inline constexpr std::string_view kWorkFolderValue = "WorkFolder";

// Applies the engine's rules to a change from current to folder and returns
// the folder to store (its links resolved). Throws Error with the engine's
// outcome; nothing is written to the old folder's packages.
inline std::filesystem::path CheckedWorkFolderChange(AgentServices& services, const std::string& current,
                                                     const std::string& folder) {
  if (folder.empty()) Throw(result::kInvalidArg, "New working folder is not specified");
  WorkFolderLock probe;
  std::error_code ec;
  if (std::filesystem::is_directory(current, ec)) probe.Open(current);
  PackageManager engine(services, current, nullptr);
  engine.store().SetReadOnly(true);  // only to learn what is unfinished there
  engine.ResumeDownloads();
  while (engine.ResumeQueueSize() > 0) engine.ProcessResumeQueue();
  engine.SetWorkFolder(folder);
  return engine.store().workFolder();
}

// Records folder as the work folder without any check (after a relocation
// that the engine has judged and done).
inline void RecordWorkFolder(AgentServices& services, const std::string& folder) {
  ObjectSettings(*services.settings, *services.log, std::string(kEngineKey)).WriteText(kWorkFolderValue, folder);
}

inline WorkFolderAccess StoredWorkFolder(AgentServices& services) {
  auto engine = std::make_shared<ObjectSettings>(*services.settings, *services.log, std::string(kEngineKey));
  std::string default_folder = DefaultWorkFolder(services.data_folder).string();
  return {
      [engine, default_folder] { return engine->ReadText(kWorkFolderValue, default_folder); },
      [engine, default_folder, &services](const std::string& folder) {
        const std::string current = engine->ReadText(kWorkFolderValue, default_folder);
        engine->WriteText(kWorkFolderValue, CheckedWorkFolderChange(services, current, folder).string());
      },
  };
}

}  // namespace pkgdlv::cli
