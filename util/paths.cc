#include "util/paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace pkgdlv {

std::filesystem::path AgentDataFolder() {
  if (const char* home = std::getenv("PKGDLV_HOME"); home && *home) return home;
  if (geteuid() == 0) return "/var/lib/pkgdlv";
  if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state) {
    return std::filesystem::path(state) / "pkgdlv";
  }
  const char* home = std::getenv("HOME");
  if (!home || !*home) {
    const passwd* pw = getpwuid(geteuid());
    home = pw ? pw->pw_dir : "/tmp";
  }
  return std::filesystem::path(home) / ".local" / "state" / "pkgdlv";
}

std::filesystem::path DefaultWorkFolder(const std::filesystem::path& data_folder) {
  return data_folder / "Package Delivery";
}

std::filesystem::path DefaultLogFolder(const std::filesystem::path& data_folder) { return data_folder / "log"; }

}  // namespace pkgdlv
