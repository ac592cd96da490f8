// The work folder the tool works on: until the delivery object keeps it, the
// tool stores it as a text value of its own, with the engine's default folder
// as its default.
#pragma once

#include <memory>
#include <string>

#include "agent/object_settings.h"
#include "records/configuration_document.h"
#include "util/error.h"
#include "util/paths.h"

namespace pkgdlv::cli {

inline constexpr std::string_view kEngineKey = "Communications\\Package Delivery\\Engine";
inline constexpr std::string_view kWorkFolderValue = "WorkFolder";

inline WorkFolderAccess StoredWorkFolder(AgentServices& services) {
  auto engine = std::make_shared<ObjectSettings>(*services.settings, *services.log, std::string(kEngineKey));
  std::string default_folder = DefaultWorkFolder(services.data_folder).string();
  return {
      [engine, default_folder] { return engine->ReadText(kWorkFolderValue, default_folder); },
      [engine](const std::string& folder) {
        if (folder.empty()) Throw(result::kInvalidArg, "New working folder is not specified");
        engine->WriteText(kWorkFolderValue, folder);
      },
  };
}

}  // namespace pkgdlv::cli
