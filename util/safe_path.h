// Names and paths that come from documents or servers (snapshot entries,
// directory listings) and must never resolve outside their package folder.
//
// Package-relative paths keep the document form: components joined with "\".
// These checks are pure functions; any thread may call them.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace pkgdlv {

// One file or folder name: not empty, not "." or "..", no "/" or "\", no ":"
// (a drive letter or an alternate stream), no control character (below 0x20,
// or 0x7F).
bool IsSafeRelativeName(std::string_view name);

// A package-relative path in document form: empty (the package root) or
// components joined with single "\", each a safe name. A leading "\" or "/"
// (absolute), an empty component ("a\\b", trailing "\") and any "/" fail.
bool IsSafeRelativePath(std::string_view docPath);

// The native path of a document path below root: components joined with "/".
// Throws Error (0x80070057, "Unsafe path '...'") when the path is not safe or
// the lexically normal result would leave root. Symbolic links are not
// resolved here; callers that follow links check them where they open files.
std::filesystem::path ResolveInside(const std::filesystem::path& root, std::string_view docPath);

// The text with control characters replaced by '?', for log lines that quote a
// hostile name without letting it break the line.
std::string PrintableName(std::string_view text);

}  // namespace pkgdlv
