// Where the agent keeps its files.
#pragma once

#include <filesystem>

namespace pkgdlv {

// PKGDLV_HOME when set; otherwise /var/lib/pkgdlv for root, and
// $XDG_STATE_HOME/pkgdlv (else ~/.local/state/pkgdlv) for other users.
std::filesystem::path AgentDataFolder();
// "Package Delivery" inside the data folder.
std::filesystem::path DefaultWorkFolder(const std::filesystem::path& data_folder);
// "log" inside the data folder.
std::filesystem::path DefaultLogFolder(const std::filesystem::path& data_folder);

}  // namespace pkgdlv
