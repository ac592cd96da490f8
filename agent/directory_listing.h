// Listing of a local folder for the network transport.
#pragma once

#include <filesystem>
#include <vector>

#include "agent/network_transport.h"

namespace pkgdlv {

// The folders and files below folder (recursively when asked), as the
// transport reports them: only safe names, no symbolic links or special
// files (a link could lead out of the folder or round in a loop). Throws
// Error 0x80070003 when folder is not a folder, or the system's code when it
// cannot be read. Any thread.
std::vector<DirectoryEntry> ListLocalFolder(const std::filesystem::path& folder, bool recursive);

}  // namespace pkgdlv
