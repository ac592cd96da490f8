// Turning a failed system call on a file into the component's Error.
#pragma once

#include <pkgdlv/result_codes.h>

#include <filesystem>
#include <string_view>

namespace pkgdlv {

// The result code for an errno value: missing file or folder, disk full and
// access denied get their own codes, anything else 0x80004005.
Result ResultFromErrno(int error);

// Throws Error with that code and "Unable to <action> '<path>': <reason>".
[[noreturn]] void ThrowFileError(int error, std::string_view action, const std::filesystem::path& path);

}  // namespace pkgdlv
